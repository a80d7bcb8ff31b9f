// Local calendar time in the zone of g_TimeZone.
#pragma once

#include "vrixdb.h"

#include <ctime>

namespace vrix {

// Refreshes g_TimeZone at the start of every open function: gettimeofday's
// zone record, with the minutes-west field set from the C library's current
// local offset so that sec_to_tm and mktime always agree.
void refresh_timezone();

// The local midnight that begins the day of t (the store's day key), given
// t's calendar fields from sec_to_tm.
inline int day_start(int t, const std::tm &tm) {
    return t - (tm.tm_hour * 3600 + tm.tm_min * 60 + tm.tm_sec);
}

} // namespace vrix
