#include "zone.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>

namespace vrix::zone {
namespace {

constexpr long long kDay = 86400;
constexpr int kFirstYear = 1900; // rules are spelled out from here
constexpr int kLastYear = 2100;  // to here

long long floor_div(long long a, long long b) {
    return a / b - ((a % b != 0) && ((a < 0) != (b < 0)));
}

bool leap(long long y) {
    return y % 4 == 0 && (y % 100 != 0 || y % 400 == 0);
}

// Days from 1970-01-01 to y-m-d (m 1..12), proleptic Gregorian.
long long days_from_civil(long long y, int m, int d) {
    y -= m <= 2;
    const long long era = floor_div(y, 400);
    const long long yoe = y - era * 400;
    const long long doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const long long doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + doe - 719468;
}

int month_days(long long y, int m) {
    static constexpr int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return m == 2 && leap(y) ? 29 : kDays[m - 1];
}

// ---- POSIX TZ strings: std offset [dst [offset] [,start[/time],end[/time]]] ----

struct Cursor {
    const std::string &s;
    size_t at = 0;
    bool end() const { return at >= s.size(); }
    char peek() const { return end() ? '\0' : s[at]; }
    bool eat(char c) {
        if (peek() != c) return false;
        ++at;
        return true;
    }
    bool number(long long &out, long long max) {
        if (!std::isdigit(static_cast<unsigned char>(peek()))) return false;
        out = 0;
        while (std::isdigit(static_cast<unsigned char>(peek()))) {
            out = out * 10 + (s[at++] - '0');
            if (out > max) return false;
        }
        return true;
    }
};

// A zone abbreviation: three or more letters, or anything but '>' in <...>.
bool name(Cursor &c) {
    if (c.eat('<')) {
        const size_t from = c.at;
        while (!c.end() && c.peek() != '>')
            ++c.at;
        return c.eat('>') && c.at - from >= 4;
    }
    const size_t from = c.at;
    while (std::isalpha(static_cast<unsigned char>(c.peek())))
        ++c.at;
    return c.at - from >= 3;
}

// [+-]hh[:mm[:ss]] as seconds; `max_hours` bounds hh.
bool hms(Cursor &c, long long &out, long long max_hours) {
    const bool neg = c.eat('-');
    if (!neg) c.eat('+');
    long long h = 0, m = 0, s = 0;
    if (!c.number(h, max_hours)) return false;
    if (c.eat(':') && (!c.number(m, 59) || (c.eat(':') && !c.number(s, 59)))) return false;
    out = (h * 3600 + m * 60 + s) * (neg ? -1 : 1);
    return true;
}

struct Rule {
    char kind = 'M'; // 'J' (1..365, no leap day), 'D' (0..365), 'M' (month.week.day)
    long long n = 0, month = 0, week = 0, wday = 0;
    long long time = 7200; // local time of day of the change
};

bool rule(Cursor &c, Rule &r) {
    if (c.eat('M')) {
        r.kind = 'M';
        if (!c.number(r.month, 12) || r.month < 1 || !c.eat('.') || !c.number(r.week, 5) ||
            r.week < 1 || !c.eat('.') || !c.number(r.wday, 6))
            return false;
    } else if (c.eat('J')) {
        r.kind = 'J';
        if (!c.number(r.n, 365) || r.n < 1) return false;
    } else {
        r.kind = 'D';
        if (!c.number(r.n, 365)) return false;
    }
    return !c.eat('/') || hms(c, r.time, 167);
}

// The local instant (seconds counted like UTC) at which a rule changes in year y.
long long rule_wall(const Rule &r, long long y) {
    long long day = days_from_civil(y, 1, 1);
    if (r.kind == 'J') {
        day += r.n - 1 + (leap(y) && r.n >= 60);
    } else if (r.kind == 'D') {
        day += r.n;
    } else {
        const int m = static_cast<int>(r.month);
        const long long first = days_from_civil(y, m, 1);
        const long long first_wday = ((first + 4) % 7 + 7) % 7; // 1970-01-01 was a Thursday
        long long mday = 1 + (r.wday - first_wday + 7) % 7 + (r.week - 1) * 7;
        while (mday > month_days(y, m))
            mday -= 7;
        day = first + mday - 1;
    }
    return day * kDay + r.time;
}

// Appends `c` when it changes the offset in force; a change at the instant
// of the one before replaces it.
void push(std::vector<Change> &out, int initial, Change c) {
    if (!out.empty() && out.back().at == c.at) out.pop_back();
    const int before = out.empty() ? initial : out.back().off;
    if (c.off != before) out.push_back(c);
}

long long year_of(long long t) {
    long long y = 1970 + floor_div(t, 31556952);
    while (days_from_civil(y, 1, 1) * kDay > t)
        --y;
    while (days_from_civil(y + 1, 1, 1) * kDay <= t)
        ++y;
    return y;
}

} // namespace

int Table::offset_at(long long t) const {
    const auto it = std::upper_bound(changes.begin(), changes.end(), t,
                                     [](long long x, const Change &c) { return x < c.at; });
    return it == changes.begin() ? initial : std::prev(it)->off;
}

void Table::span_of(long long t, long long &lo, long long &hi) const {
    const auto it = std::upper_bound(changes.begin(), changes.end(), t,
                                     [](long long x, const Change &c) { return x < c.at; });
    lo = it == changes.begin() ? LLONG_MIN : std::prev(it)->at;
    hi = it == changes.end() ? LLONG_MAX : it->at;
}

bool parse_posix(const std::string &text, Table &out, long long after) {
    Cursor c{text};
    long long std_west = 0;
    if (!name(c) || !hms(c, std_west, 24)) return false;
    const int std_off = static_cast<int>(-std_west);
    // A footer spells the rules beyond the changes a zone file lists.
    const bool footer = after != -(1LL << 62);
    if (!footer) {
        out.initial = std_off;
        out.changes.clear();
    }
    if (c.end()) return true;
    if (!name(c)) return false;
    long long dst_west = std_west - 3600;
    if (!c.end() && c.peek() != ',' && !hms(c, dst_west, 24)) return false;
    const int dst_off = static_cast<int>(-dst_west);
    Rule start, end;
    if (c.eat(',')) {
        if (!rule(c, start) || !c.eat(',') || !rule(c, end)) return false;
    } else {
        // The C library's default when a zone names summer time without rules.
        start = {'M', 0, 3, 2, 0, 7200};
        end = {'M', 0, 11, 1, 0, 7200};
    }
    if (!c.end()) return false;
    const long long from =
        footer ? std::max<long long>(kFirstYear, year_of(after) - 1) : kFirstYear;
    for (long long y = from; y <= kLastYear; ++y) {
        // The change to summer time is read in standard time, the one back in
        // summer time; a zone of the south changes back first in its year.
        Change on{rule_wall(start, y) - std_off, dst_off};
        Change off{rule_wall(end, y) - dst_off, std_off};
        if (on.at > off.at) std::swap(on, off);
        for (const Change &r : {on, off})
            if (r.at > after) push(out.changes, out.initial, r);
    }
    return true;
}

bool parse_tzif(const std::vector<unsigned char> &b, Table &out) {
    auto be32 = [&b](size_t at) {
        return static_cast<int32_t>(static_cast<uint32_t>(b[at]) << 24 | b[at + 1] << 16 |
                                    b[at + 2] << 8 | b[at + 3]);
    };
    auto be64 = [&](size_t at) {
        return static_cast<int64_t>(static_cast<uint64_t>(static_cast<uint32_t>(be32(at))) << 32 |
                                    static_cast<uint32_t>(be32(at + 4)));
    };
    struct Counts {
        long long isut, isstd, leap, time, type, chars;
    };
    auto counts = [&](size_t at, Counts &n) {
        if (b.size() < at + 44 || b[at] != 'T' || b[at + 1] != 'Z' || b[at + 2] != 'i' ||
            b[at + 3] != 'f')
            return false;
        n = {be32(at + 20), be32(at + 24), be32(at + 28),
             be32(at + 32), be32(at + 36), be32(at + 40)};
        return n.isut >= 0 && n.isstd >= 0 && n.leap >= 0 && n.time >= 0 && n.type > 0 &&
               n.type <= 256 && n.chars >= 0;
    };
    auto block = [](const Counts &n, long long tsize) {
        return n.time * tsize + n.time + n.type * 6 + n.chars + n.leap * (tsize + 4) + n.isstd +
               n.isut;
    };
    Counts n{};
    if (!counts(0, n)) return false;
    size_t at = 44;
    long long tsize = 4;
    const bool v2 = b[4] >= '2';
    if (v2) {
        at += static_cast<size_t>(block(n, 4));
        if (!counts(at, n)) return false;
        at += 44;
        tsize = 8;
    }
    const size_t data_end = at + static_cast<size_t>(block(n, tsize));
    if (data_end > b.size()) return false;
    const size_t idx = at + static_cast<size_t>(n.time * tsize);
    const size_t types = idx + static_cast<size_t>(n.time);
    auto type_off = [&](long long i) { return be32(types + static_cast<size_t>(i) * 6); };
    out.initial = type_off(0);
    out.changes.clear();
    long long last = -(1LL << 62);
    for (long long i = 0; i < n.time; ++i) {
        const long long t = tsize == 8 ? be64(at + static_cast<size_t>(i * 8))
                                       : be32(at + static_cast<size_t>(i * 4));
        const long long type = b[idx + static_cast<size_t>(i)];
        if (type >= n.type) return false;
        push(out.changes, out.initial, {t, type_off(type)});
        last = t;
    }
    // The footer spells the rules beyond the last change.
    if (v2 && data_end < b.size() && b[data_end] == '\n') {
        const auto nl = std::find(b.begin() + static_cast<long>(data_end) + 1, b.end(), '\n');
        const std::string footer(b.begin() + static_cast<long>(data_end) + 1, nl);
        if (!footer.empty()) parse_posix(footer, out, last);
    }
    return true;
}

Source current_source() {
    Source s;
    const char *env = std::getenv("TZ");
    s.tz_set = env != nullptr;
    s.tz = env ? env : "";
    std::string name = env ? s.tz : "/etc/localtime";
    if (!name.empty() && name[0] == ':') name.erase(0, 1);
    if (name.empty()) return s; // TZ set empty: UTC
    std::string path = name;
    if (path[0] != '/') {
        const char *dir = std::getenv("TZDIR");
        path = std::string(dir && *dir ? dir : "/usr/share/zoneinfo") + "/" + name;
    }
    struct stat st {};
    if (stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode)) {
        s.file = path;
        char stamp[160];
        std::snprintf(
            stamp, sizeof stamp, "%llu:%llu:%lld:%lld.%09ld:%lld.%09ld",
            static_cast<unsigned long long>(st.st_dev), static_cast<unsigned long long>(st.st_ino),
            static_cast<long long>(st.st_size), static_cast<long long>(st.st_mtim.tv_sec),
            st.st_mtim.tv_nsec, static_cast<long long>(st.st_ctim.tv_sec), st.st_ctim.tv_nsec);
        s.stamp = stamp;
    }
    return s;
}

Table load(const Source &s) {
    Table t;
    t.name = s.tz_set ? s.tz : "/etc/localtime";
    if (!s.file.empty()) {
        std::ifstream in(s.file, std::ios::binary);
        const std::vector<unsigned char> bytes{std::istreambuf_iterator<char>(in),
                                               std::istreambuf_iterator<char>()};
        if (parse_tzif(bytes, t)) return t;
        t = Table{};
        t.name = s.tz_set ? s.tz : "/etc/localtime";
    }
    std::string text = s.tz;
    if (!text.empty() && text[0] == ':') text.erase(0, 1);
    if (s.tz_set && !text.empty() && parse_posix(text, t)) return t;
    t.initial = 0;
    t.changes.clear();
    return t;
}

} // namespace vrix::zone
