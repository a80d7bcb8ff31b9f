// Local times as the program reads and shows them.
//
// The library names days and hours with the offset of TZ in force at each
// instant (summer time included).  The program converts with the same rules,
// so a time typed on the command line names the day directory and hour file
// the library wrote it to.  Where the clock repeats an hour (the change back
// from summer time) a time is shown with its offset, and one typed without
// an offset names its first pass.
#pragma once

#include <ctime>
#include <optional>
#include <string>

namespace vrixtool {

// The offset east of UTC, in seconds, in force at `t` (now by default).
long zone_offset(long t);
long zone_offset();

// Local calendar fields of `t`, as the library's sec_to_tm gives them.
std::tm local_fields(long t);
// Seconds of local calendar fields (the inverse of local_fields): the first
// pass of a repeated time; a time the clock skipped is read with the offset
// before the change (02:30 of a change from 02:00 to 03:00 is 03:30).
long from_local(const std::tm &tm);
// Seconds of calendar fields read at `offset` seconds east of UTC.
long from_offset(const std::tm &tm, long offset);
// Whether the clock shows t's local time twice (the repeated hour).
bool repeated(long t);
// Fields for the functions that read a start or end time with mktime (video
// playback): the C library's own local time of `t`, so mktime gives `t` back.
std::tm mktime_fields(long t);

// A moment as users type it, read the same way by every option:
//   now, today, yesterday                 (today and yesterday: local midnight)
//   -1h, -30min, +90s, -2d, -1h30min      relative to now (s, sec, m, min, h, d)
//   HH:MM[:SS]                            that time today
//   YYYY-MM-DD or YYYYMMDD                local midnight of that day
//   YYYY-MM-DDTHH:MM[:SS] (or YYYYMMDD, a space for T), local, or ending in Z
//   or +HH:MM / -HH:MM (at most 14:00) for that offset from UTC
//   seconds since 1970, after "@" (without it eight digits that make a
//   date are the date)
// Local fields are turned into seconds by from_local alone.  Nothing before
// 1970-01-01T00:00:01 UTC or after 2038-01-19T03:14:07 UTC.
std::optional<long> parse_time(const std::string &text, long now);
// The same, relative to the clock.
std::optional<long> parse_time(const std::string &text);
// "YYYYMMDD" or "YYYY-MM-DD": the local midnight that begins the day.
std::optional<long> parse_day(const std::string &text);

std::string format_time(long t);   // YYYY-MM-DDTHH:MM:SS, +HH:MM added where it repeats
std::string format_clock(long t);  // HH:MM:SS
std::string day_name(long t);      // YYYYMMDD of the day of t
std::string format_offset();       // +HH:MM of now
std::string format_offset(long t); // +HH:MM in force at t
long day_start(long t);            // first instant of the local day of t
long next_day(long day);           // first instant of the local day after `day`

// A span --from A --to B holds every frame whose second lies in A..B.  The
// library's end times are whole seconds and its end is where a span stops
// (sizes count up to the first key frame at or after it, playback locates
// nothing at or past it), so the end handed to it is the second after B.
long span_end(long to);

} // namespace vrixtool
