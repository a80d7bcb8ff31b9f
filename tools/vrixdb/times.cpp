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

// Fields of a date; the times of day are left at zero.  The last day of
// 1969 is a local day west of Greenwich; anything out of 32-bit seconds is
// refused when it is turned into seconds.
std::optional<std::tm> date_fields(int y, int mo, int d) {
    if (y < 1969 || y > 2038 || mo < 1 || mo > 12 || d < 1 || d > month_days(y, mo))
        return std::nullopt;
    std::tm tm{};
    tm.tm_year = y - 1900;
    tm.tm_mon = mo - 1;
    tm.tm_mday = d;
    return tm;
}

} // namespace

namespace {

std::optional<long> in_range(long long t) {
    if (t <= 0 || t > 0x7FFFFFFFLL) return std::nullopt;
    return static_cast<long>(t);
}

// "-1h30min", "+90s": signed sums of counts with units.
std::optional<long> relative(const std::string &s, long now) {
    if (s.size() < 3 || (s[0] != '-' && s[0] != '+')) return std::nullopt;
    long long sum = 0;
    size_t i = 1;
    while (i < s.size()) {
        const size_t numEnd = s.find_first_not_of("0123456789", i);
        if (numEnd == i || numEnd == s.npos || numEnd - i > 9) return std::nullopt;
        const long long n = std::strtoll(s.c_str() + i, nullptr, 10);
        size_t unitEnd = s.find_first_of("0123456789", numEnd);
        if (unitEnd == s.npos) unitEnd = s.size();
        const std::string unit = s.substr(numEnd, unitEnd - numEnd);
        const long long scale = unit == "s" || unit == "sec"   ? 1
                                : unit == "m" || unit == "min" ? 60
                                : unit == "h"                  ? 3600
                                : unit == "d"                  ? 86400
                                                               : 0;
        if (!scale) return std::nullopt;
        sum += n * scale;
        if (sum > 0x7FFFFFFFLL) return std::nullopt;
        i = unitEnd;
    }
    return in_range(now + (s[0] == '-' ? -sum : sum));
}

// HH:MM or HH:MM:SS at `at`, with nothing after it.
bool clock_fields(const std::string &s, size_t at, std::tm &tm) {
    int h, mi, sec = 0;
    const size_t n = s.size() - at;
    if ((n != 5 && n != 8) || s[at + 2] != ':' || (n == 8 && s[at + 5] != ':')) return false;
    if (!digits(s, at, 2, h) || !digits(s, at + 3, 2, mi) || (n == 8 && !digits(s, at + 6, 2, sec)))
        return false;
    if (h > 23 || mi > 59 || sec > 59) return false;
    tm.tm_hour = h;
    tm.tm_min = mi;
    tm.tm_sec = sec;
    return true;
}

// The offset a written time ends in: "Z" or +HH:MM / -HH:MM, cut off `s`.
// Nullopt when there is none (a local time); false in `ok` when malformed.
std::optional<long> explicit_offset(std::string &s, bool &ok) {
    ok = true;
    if (s.size() > 10 && s.back() == 'Z') {
        s.pop_back();
        return 0L;
    }
    if (s.size() < 17 || (s[s.size() - 6] != '+' && s[s.size() - 6] != '-')) return std::nullopt;
    int h = 0, m = 0;
    const size_t at = s.size() - 6;
    // Offsets in use run from -12:00 to +14:00.
    ok = s[at + 3] == ':' && digits(s, at + 1, 2, h) && digits(s, at + 4, 2, m) && m <= 59 &&
         h * 60 + m <= 14 * 60;
    const long off = (h * 3600L + m * 60L) * (s[at] == '-' ? -1 : 1);
    s.resize(at);
    return off;
}

// YYYYMMDD written as YYYY-MM-DD, in a date alone or before a time of day.
std::string dashed_date(const std::string &s) {
    int y, mo, d;
    if (s.size() < 8 || !digits(s, 0, 4, y) || !digits(s, 4, 2, mo) || !digits(s, 6, 2, d) ||
        (s.size() > 8 && s[8] != 'T' && s[8] != ' '))
        return s;
    return s.substr(0, 4) + "-" + s.substr(4, 2) + "-" + s.substr(6);
}

} // namespace

std::optional<long> parse_time(const std::string &text, long now) {
    std::string s = text;
    if (!s.empty() && s[0] == '@') s.erase(0, 1);
    const bool number = !s.empty() && s.size() <= 10 && s.find_first_not_of("0123456789") == s.npos;
    // Eight digits that make a date are the date; "@" before them makes seconds.
    if (number && (s != text || s.size() != 8 || !parse_day(s)))
        return in_range(std::strtoll(s.c_str(), nullptr, 10));
    if (s != text) return std::nullopt; // "@" takes only seconds
    s = dashed_date(s);
    if (s == "now") return in_range(now);
    std::tm tm = local_fields(now);
    tm.tm_hour = tm.tm_min = tm.tm_sec = 0;
    if (s == "today") return in_range(from_local(tm));
    if (s == "yesterday") {
        --tm.tm_mday; // from_local normalises the day before the 1st
        return in_range(from_local(tm));
    }
    if (s[0] == '-' || s[0] == '+') return relative(s, now);
    if (clock_fields(s, 0, tm)) return in_range(from_local(tm));
    bool ok;
    const std::optional<long> offset = explicit_offset(s, ok);
    int y, mo, d;
    if (!ok || s.size() < 10 || s[4] != '-' || s[7] != '-' || !digits(s, 0, 4, y) ||
        !digits(s, 5, 2, mo) || !digits(s, 8, 2, d))
        return std::nullopt;
    auto date = date_fields(y, mo, d);
    if (!date) return std::nullopt;
    if (s.size() == 10) {
        if (offset) return std::nullopt;
        return in_range(from_local(*date));
    }
    if ((s[10] != 'T' && s[10] != ' ') || !clock_fields(s, 11, *date)) return std::nullopt;
    if (!offset) return in_range(from_local(*date));
    return in_range(from_offset(*date, *offset));
}

std::optional<long> parse_time(const std::string &text) {
    return parse_time(text, static_cast<long>(time(nullptr)));
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
