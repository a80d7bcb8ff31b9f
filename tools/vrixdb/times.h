// Local times as the program reads and shows them.
//
// The library names days and hours with one fixed offset: the local offset of
// TZ at the moment a context is opened.  The program uses that same offset
// for everything it reads and prints, so a time typed on the command line
// names the day directory and hour file the library wrote it to.
#pragma once

#include <ctime>
#include <optional>
#include <string>

namespace vrixtool {

// The offset east of UTC, in seconds, that the library is using now.
long zone_offset();

// Local calendar fields of `t`, as the library's sec_to_tm gives them.
std::tm local_fields(long t);
// Seconds of local calendar fields (the inverse of local_fields).
long from_local(const std::tm &tm);
// Fields for the functions that read a start or end time with mktime (video
// playback): the C library's own local time of `t`, so mktime gives `t` back.
std::tm mktime_fields(long t);

// "YYYY-MM-DDTHH:MM:SS" (local) or a count of seconds since 1970.
std::optional<long> parse_time(const std::string &text);
// "YYYYMMDD" or "YYYY-MM-DD": the local midnight that begins the day.
std::optional<long> parse_day(const std::string &text);

std::string format_time(long t);  // YYYY-MM-DDTHH:MM:SS
std::string format_clock(long t); // HH:MM:SS
std::string day_name(long t);     // YYYYMMDD of the day of t
std::string format_offset();      // +HH:MM
long day_start(long t);           // local midnight of the day of t

// A span --from A --to B holds every frame whose second lies in A..B.  The
// library's end times are whole seconds and its end is where a span stops
// (sizes count up to the first key frame at or after it, playback locates
// nothing at or past it), so the end handed to it is the second after B.
long span_end(long to);

} // namespace vrixtool
