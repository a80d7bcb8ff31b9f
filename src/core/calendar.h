// Local calendar time in the recorder's zone: the offset in force at each
// instant, taken from the C library's rules for TZ.
#pragma once

#include "vrixdb.h"

#include <ctime>

namespace vrix {

// An end time that never comes: playback without end follows the recording.
constexpr int kNoEnd = 0x7FFFFFFF;

// Refreshes the zone at the start of every public function that converts
// times: when TZ or the zone file it names (/etc/localtime when unset) changed
// since the last refresh, reads the new zone's rules and adopts them for every
// thread at once (one line says so), and keeps g_TimeZone current
// (gettimeofday's record, minutes west set from the offset in force now, by
// the test clock when one is installed).  Until the first refresh sec_to_tm
// converts with g_TimeZone's fixed offset alone.
void refresh_timezone();

// Seconds east of UTC in force at `t`: g_TimeZone's offset moved by the
// zone's change between the last refresh and `t`, so in a zone without
// changes it is g_TimeZone's offset exactly.  Per call, within the cached
// range for which the offset holds, one comparison.
int offset_at(long long t);

// The wall clock at `t`: t + offset_at(t), as seconds counted like UTC.
inline long long wall_of(long long t) {
    return t + offset_at(t);
}

// The first instant at which the wall clock reads `wall` or later: the
// instant of `wall` itself, the first pass of it in a repeated hour, the
// change itself for a time in a skipped hour.
long long first_at_wall(long long wall);

// The first instant of the local day of t (the store's day key), given t's
// calendar fields from sec_to_tm.
inline int day_start(int t, const std::tm &tm) {
    return static_cast<int>(
        first_at_wall(wall_of(t) - (tm.tm_hour * 3600 + tm.tm_min * 60 + tm.tm_sec)));
}

// The wall clock at the midnight of t's local day.
inline long long midnight_wall(long long t) {
    const long long wall = wall_of(t);
    return wall - (wall % 86400 + 86400) % 86400;
}

// The first instant of the local day after the one that t lies in.
inline long long next_day_start(long long t) {
    return first_at_wall(midnight_wall(t) + 86400);
}

// The first instant of local hour h of t's day (h may run past 23 into the
// next days); a skipped hour begins, and ends, at the change.
inline long long hour_start_of(long long t, int h) {
    return first_at_wall(midnight_wall(t) + h * 3600LL);
}

// The local hour of t: the instants whose wall clock shows that hour, as one
// span [start, end) or, where the clock went back into the hour from a later
// one, two: [start2, end2) is the second (Pacific/Chatham goes back at :45
// from hour 3 to hour 2; a change of two hours repeats two hours).  The
// repeated hour of an ordinary change back is one span of two hours of
// seconds; the hour before a change forward ends at the change, and the
// skipped hour is empty, beginning and ending at the change.  `next` is the
// first instant of the next local hour: where a walk forward goes on.
struct HourSpan {
    long long start, end;
    long long start2 = 0, end2 = 0; // empty unless the hour is two spans
    long long next;
    bool holds(long long t) const { return (t >= start && t < end) || (t >= start2 && t < end2); }
    long long seconds() const { return end - start + end2 - start2; }
    // The hour's last instant (the last of its second span, if it has one).
    long long last() const { return (end2 > start2 ? end2 : end) - 1; }
};
HourSpan hour_span(long long t);

// The local calendar fields of `sec` (by sec_to_tm).
inline std::tm fields_of(long long sec) {
    std::tm tm{};
    sec_to_tm(&tm, static_cast<int>(sec));
    return tm;
}

// The instant named by the six fields sec_to_tm writes, read with the zone's
// rules.  Where they name two instants (the repeated hour) tm_isdst 1 picks
// the first pass (the larger offset) and 0 the second; in a skipped hour 1
// reads them with the larger offset and 0 with the smaller; -1 (or any other
// value) picks the first pass, or the offset before a skipped hour.
// Elsewhere the flag is not read, so a record filled by sec_to_tm names the
// instant it came from.  The offsets decide, never the zone's own flag: some
// zones mark their winter as their daylight-saving time.
long long local_seconds(const std::tm &local);

// The calendar fields of `sec` with tm_isdst naming its pass (1 the first, or
// the only one; 0 the second), so that local_seconds gives `sec` back.
std::tm fields_with_pass(long long sec);

} // namespace vrix
