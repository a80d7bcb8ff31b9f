#include "times.h"

#include <cstdio>
#include <cstdlib>

namespace vrixtool {

long zone_offset(long t) {
    static const bool once = (tzset(), true);
    (void)once;
    const time_t tt = static_cast<time_t>(t);
    std::tm tm{};
    return localtime_r(&tt, &tm) ? static_cast<long>(tm.tm_gmtoff) : 0L;
}

long zone_offset() {
    return zone_offset(static_cast<long>(time(nullptr)));
}

std::tm local_fields(long t) {
    const time_t shifted = static_cast<time_t>(t + zone_offset(t));
    std::tm tm{};
    gmtime_r(&shifted, &tm);
    return tm;
}

long from_offset(const std::tm &tm, long offset) {
    std::tm copy = tm;
    return static_cast<long>(timegm(&copy)) - offset;
}

// The readings of a wall-clock time: with the offset in force a day before
// it and a day after (zones change at most twice a year).
long from_local(const std::tm &tm) {
    std::tm copy = tm;
    const long wall = static_cast<long>(timegm(&copy));
    const long before = wall - zone_offset(wall - 86400), after = wall - zone_offset(wall + 86400);
    if (zone_offset(before) == zone_offset(wall - 86400)) return before; // the first pass
    if (zone_offset(after) == zone_offset(wall + 86400)) return after;
    return before; // skipped: read with the offset before the change
}

bool repeated(long t) {
    const long wall = t + zone_offset(t);
    for (long probe : {t - 86400, t + 86400}) {
        const long other = wall - zone_offset(probe);
        if (other != t && zone_offset(other) == zone_offset(probe)) return true;
    }
    return false;
}

std::tm mktime_fields(long t) {
    const time_t tt = static_cast<time_t>(t);
    std::tm tm{};
    localtime_r(&tt, &tm);
    return tm;
}

namespace {

bool digits(const std::string &s, size_t from, size_t count, int &out) {
    if (from + count > s.size()) return false;
    out = 0;
    for (size_t i = from; i < from + count; ++i) {
        if (s[i] < '0' || s[i] > '9') return false;
        out = out * 10 + (s[i] - '0');
    }
    return true;
}

bool leap(int y) {
    return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
}

int month_days(int y, int m) {
    static const int days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return m == 2 && leap(y) ? 29 : days[m - 1];
}

// Fields of a date; the times of day are left at zero.
std::optional<std::tm> date_fields(int y, int mo, int d) {
    if (y < 1970 || y > 2037 || mo < 1 || mo > 12 || d < 1 || d > month_days(y, mo))
        return std::nullopt;
    std::tm tm{};
    tm.tm_year = y - 1900;
    tm.tm_mon = mo - 1;
    tm.tm_mday = d;
    return tm;
}

// The offset of "Z" or "+HH:MM" / "-HH:MM" after the 19 characters of a
// time, in seconds east of UTC; nothing without a well-formed one.
std::optional<long> offset_suffix(const std::string &text) {
    if (text.size() == 20 && text[19] == 'Z') return 0L;
    int h, m;
    if (text.size() != 25 || (text[19] != '+' && text[19] != '-') || text[22] != ':' ||
        !digits(text, 20, 2, h) || !digits(text, 23, 2, m) || h > 14 || m > 59)
        return std::nullopt;
    return (text[19] == '-' ? -1L : 1L) * (h * 3600L + m * 60L);
}

} // namespace

std::optional<long> parse_time(const std::string &text) {
    if (!text.empty() && text.size() <= 10 && text.find_first_not_of("0123456789") == text.npos) {
        const long v = std::strtol(text.c_str(), nullptr, 10);
        if (v <= 0 || v > 0x7FFFFFFFL) return std::nullopt;
        return v;
    }
    // YYYY-MM-DDTHH:MM:SS, then Z or +HH:MM / -HH:MM for a time at that offset
    int y, mo, d, h, mi, s;
    const std::optional<long> offset = offset_suffix(text);
    if ((text.size() != 19 && !offset) || text[4] != '-' || text[7] != '-' ||
        (text[10] != 'T' && text[10] != ' ') || text[13] != ':' || text[16] != ':')
        return std::nullopt;
    if (!digits(text, 0, 4, y) || !digits(text, 5, 2, mo) || !digits(text, 8, 2, d) ||
        !digits(text, 11, 2, h) || !digits(text, 14, 2, mi) || !digits(text, 17, 2, s))
        return std::nullopt;
    auto tm = date_fields(y, mo, d);
    if (!tm || h > 23 || mi > 59 || s > 59) return std::nullopt;
    tm->tm_hour = h;
    tm->tm_min = mi;
    tm->tm_sec = s;
    const long t = offset ? from_offset(*tm, *offset) : from_local(*tm);
    if (t <= 0 || t > 0x7FFFFFFFL) return std::nullopt;
    return t;
}

std::optional<long> parse_day(const std::string &text) {
    int y, mo, d;
    bool ok = false;
    if (text.size() == 8)
        ok = digits(text, 0, 4, y) && digits(text, 4, 2, mo) && digits(text, 6, 2, d);
    else if (text.size() == 10 && text[4] == '-' && text[7] == '-')
        ok = digits(text, 0, 4, y) && digits(text, 5, 2, mo) && digits(text, 8, 2, d);
    if (!ok) return std::nullopt;
    auto tm = date_fields(y, mo, d);
    if (!tm) return std::nullopt;
    const long t = from_local(*tm);
    if (t < 0) return std::nullopt;
    return t;
}

std::string format_time(long t) {
    const std::tm tm = local_fields(t);
    char buf[64];
    std::snprintf(buf, sizeof buf, "%04d-%02d-%02dT%02d:%02d:%02d", tm.tm_year + 1900,
                  tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
    return repeated(t) ? buf + format_offset(t) : buf;
}

std::string format_clock(long t) {
    const std::tm tm = local_fields(t);
    char buf[64];
    std::snprintf(buf, sizeof buf, "%02d:%02d:%02d", tm.tm_hour, tm.tm_min, tm.tm_sec);
    return buf;
}

std::string day_name(long t) {
    const std::tm tm = local_fields(t);
    char buf[64];
    std::snprintf(buf, sizeof buf, "%04d%02d%02d", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday);
    return buf;
}

std::string format_offset() {
    return format_offset(static_cast<long>(time(nullptr)));
}

std::string format_offset(long t) {
    const long off = zone_offset(t);
    const long a = off < 0 ? -off : off;
    char buf[64];
    std::snprintf(buf, sizeof buf, "%c%02ld:%02ld", off < 0 ? '-' : '+', a / 3600, a / 60 % 60);
    return buf;
}

long day_start(long t) {
    std::tm tm = local_fields(t);
    tm.tm_hour = tm.tm_min = tm.tm_sec = 0;
    return from_local(tm);
}

long next_day(long day) {
    return day_start(day + 26 * 3600L); // past the day's end, a 25-hour day's too
}

long span_end(long to) {
    return to < 0x7FFFFFFFL ? to + 1 : to;
}

} // namespace vrixtool
