// Local calendar time in the zone of g_TimeZone.
#pragma once

#include "vrixdb.h"

#include <ctime>

namespace vrix {

// An end time that never comes: playback without end follows the recording.
constexpr int kNoEnd = 0x7FFFFFFF;

// Refreshes g_TimeZone at the start of every open function: gettimeofday's
// zone record, with the minutes-west field set from the C library's current
// local offset so that sec_to_tm and mktime always agree.
void refresh_timezone();

// The local midnight that begins the day of t (the store's day key), given
// t's calendar fields from sec_to_tm.
inline int day_start(int t, const std::tm &tm) {
    return t - (tm.tm_hour * 3600 + tm.tm_min * 60 + tm.tm_sec);
}

// The local calendar fields of `sec` (by sec_to_tm).
inline std::tm fields_of(long long sec) {
    std::tm tm{};
    sec_to_tm(&tm, static_cast<int>(sec));
    return tm;
}

// The inverse of sec_to_tm: the seconds whose local fields, in the zone of
// g_TimeZone, are those of `local` (only the six fields sec_to_tm writes are
// read).  Midnights and hour bounds formed with it always match the day keys
// and hour files that recording named with sec_to_tm.
long long local_seconds(const std::tm &local);

} // namespace vrix
