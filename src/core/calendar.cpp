#include "calendar.h"

#include "pacing.h"
#include "store/log.h"
#include "zone.h"

#include <atomic>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <list>
#include <mutex>

namespace {

constexpr uint16_t kDaysBefore[2][13] = {
    {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334, 365},
    {0, 31, 60, 91, 121, 152, 182, 213, 244, 274, 305, 335, 366},
};

constexpr long long kDay = 86400;

bool is_leap(long long y) {
    return y % 4 == 0 && (y % 100 != 0 || y % 400 == 0);
}

long long floor_div(long long a, long long b) {
    long long q = a / b;
    if ((a % b != 0) && ((a < 0) != (b < 0))) --q;
    return q;
}

// Leap years from year 1 up to and including x.
long long leaps_through(long long x) {
    return floor_div(x, 4) - floor_div(x, 100) + floor_div(x, 400);
}

int fixed_offset() {
    return -static_cast<int16_t>(std::atomic_ref<int>(g_TimeZone.tz_minuteswest).load()) * 60;
}

// What the zone's rules give at an instant.
struct Rule {
    int off; // seconds east
    bool operator==(const Rule &) const = default;
};

// The zone adopted by the last refresh, never freed (a process adopts a
// new one only when its zone changed).  Null before the first refresh.
std::atomic<const vrix::zone::Table *> g_zone{nullptr};

Rule rule_at(long long t) {
    const vrix::zone::Table *z = g_zone.load(std::memory_order_acquire);
    return {z ? z->offset_at(t) : fixed_offset()};
}

// The zone as the last refresh left it.  kNever until the first refresh;
// afterwards the offset it wrote into g_TimeZone.  While g_TimeZone holds
// that offset the rules apply; an offset written there by someone else is
// used as a fixed offset, as the library always did.
constexpr int kNever = INT_MIN;
std::atomic<int> g_refreshOffset{kNever};
std::atomic<unsigned> g_generation{1};

// A range [lo, hi) of instants over which the rule holds.
struct Span {
    long long lo, hi;
    Rule rule;
    unsigned generation; // 0 = empty slot
};
// The last two ranges a thread used, in one block of static thread storage
// (reached without a call into the dynamic loader, a few bytes of the room
// the C library keeps for libraries it loads later).
struct Spans {
    Span span[2];
    int last;
};
[[gnu::tls_model("initial-exec")]] thread_local Spans t_spans;

// The first instant after `inside` (exclusive) up to `outside` (inclusive)
// whose rule differs from `r`, searching towards `outside`; both directions.
long long edge(long long inside, long long outside, const Rule &r) {
    while (inside + 1 != outside && inside - 1 != outside) {
        const long long mid = inside + (outside - inside) / 2;
        if (rule_at(mid) == r)
            inside = mid;
        else
            outside = mid;
    }
    return outside;
}

Span compute_span(long long t, unsigned generation) {
    Span s{LLONG_MIN, LLONG_MAX, rule_at(t), generation};
    if (const vrix::zone::Table *z = g_zone.load(std::memory_order_acquire))
        z->span_of(t, s.lo, s.hi);
    return s;
}

// The rule at t, or nothing (false) while the fixed offset applies.
bool rule_span(long long t, const Span *&out) {
    const int ref = g_refreshOffset.load(std::memory_order_acquire);
    if (ref == kNever || ref != fixed_offset()) return false;
    const unsigned generation = g_generation.load(std::memory_order_acquire);
    Spans &cache = t_spans;
    const Span &last = cache.span[cache.last];
    if (last.generation == generation && t >= last.lo && t < last.hi) {
        out = &last;
        return true;
    }
    cache.last ^= 1;
    Span &other = cache.span[cache.last];
    if (!(other.generation == generation && t >= other.lo && t < other.hi))
        other = compute_span(t, generation);
    out = &other;
    return true;
}

Rule zone_rule(long long t) {
    const Span *s = nullptr;
    return rule_span(t, s) ? s->rule : Rule{fixed_offset()};
}

// Calendar fields of a wall-clock count (seconds counted like UTC); before
// 1970 the day runs forward from its midnight like any other.
void fill_fields(std::tm *tm, long long local) {
    long long days = floor_div(local, 86400);
    const long long rem = local - days * 86400;
    tm->tm_hour = static_cast<int>(rem / 3600);
    const long long r = rem % 3600;
    tm->tm_min = static_cast<int>(r / 60);
    tm->tm_sec = static_cast<int>(r % 60);

    long long y = 1970;
    while (days < 0 || days >= (is_leap(y) ? 366 : 365)) {
        const long long y2 = y + floor_div(days, 365);
        days -= (y2 - y) * 365 + leaps_through(y2 - 1) - leaps_through(y - 1);
        y = y2;
    }
    const uint16_t *row = kDaysBefore[is_leap(y) ? 1 : 0];
    int m = 11;
    while (row[m] > days)
        --m;
    tm->tm_mon = m;
    tm->tm_mday = static_cast<int>(days - row[m] + 1);
    tm->tm_year = static_cast<int>(y - 1900);
}

// The instants whose wall clock reads `wall`: the one before and the one
// after a change near it (equal away from changes); `valid` says which exist.
struct Readings {
    long long before, after;
    Rule rBefore, rAfter;
    bool vBefore, vAfter;
};

Readings readings_of(long long wall) {
    Readings r{};
    r.rBefore = zone_rule(wall - kDay);
    r.rAfter = zone_rule(wall + kDay);
    r.before = wall - r.rBefore.off;
    r.after = wall - r.rAfter.off;
    r.vBefore = zone_rule(r.before).off == r.rBefore.off;
    r.vAfter = zone_rule(r.after).off == r.rAfter.off && r.after != r.before;
    return r;
}

} // namespace

extern "C" void sec_to_tm(struct tm *tm, int sec) {
    if (!tm) return;
    fill_fields(tm, static_cast<long long>(sec) + vrix::offset_at(sec));
}

namespace vrix {

int offset_at(long long t) {
    return zone_rule(t).off;
}

long long first_at_wall(long long wall) {
    const Readings r = readings_of(wall);
    if (r.vBefore) return r.before;
    if (r.vAfter) return r.after;
    // A skipped time (only the rules skip): the change, found to the second
    // between the reading with the later offset and the one with the earlier.
    return edge(r.after, r.before, rule_at(r.after));
}

HourSpan hour_span(long long t) {
    const long long hour = floor_div(wall_of(t), 3600) * 3600;
    HourSpan h{0, 0, 0, 0, first_at_wall(hour + 3600)};
    // The hour's instants in each range of one offset, from a day before to a
    // day after: [max(lo, hour - off), min(hi, hour + 1 h - off)).
    int spans = 0;
    for (long long u = hour - kDay - 3 * 3600; u < hour + kDay + 3600;) {
        const Span *s = nullptr;
        Span fixed{LLONG_MIN, LLONG_MAX, {fixed_offset()}, 0};
        if (!rule_span(u, s)) s = &fixed;
        const long long a = std::max(s->lo, hour - s->rule.off);
        const long long b = std::min(s->hi, hour + 3600 - s->rule.off);
        if (a < b) {
            if (spans == 0) {
                h.start = a;
                h.end = b;
                spans = 1;
            } else if (a == (spans == 1 ? h.end : h.end2)) {
                (spans == 1 ? h.end : h.end2) = b; // one span across the change
            } else if (spans == 1) {
                h.start2 = a;
                h.end2 = b;
                spans = 2;
            } // a third pass through one hour: no zone has one
        }
        if (s->hi == LLONG_MAX) break;
        u = s->hi;
    }
    if (spans == 0) h.start = h.end = first_at_wall(hour); // skipped: the change
    return h;
}

long long local_seconds(const std::tm &local) {
    std::tm utc{};
    utc.tm_year = local.tm_year;
    utc.tm_mon = local.tm_mon;
    utc.tm_mday = local.tm_mday;
    utc.tm_hour = local.tm_hour;
    utc.tm_min = local.tm_min;
    utc.tm_sec = local.tm_sec;
    const long long wall = static_cast<long long>(timegm(&utc));
    const Readings r = readings_of(wall);
    if (r.vBefore != r.vAfter) return r.vBefore ? r.before : r.after;
    // Two readings (a repeated time) or none (a skipped one): 1 takes the
    // larger offset, the summer one, which in a repeated hour is the first
    // pass; 0 the smaller; -1 the first pass, or the offset before the change.
    // By the offsets, never by the zone's flag: some zones call their winter
    // summer time.
    const long long larger = r.rBefore.off >= r.rAfter.off ? r.before : r.after;
    const long long smaller = r.rBefore.off >= r.rAfter.off ? r.after : r.before;
    if (local.tm_isdst == 1) return larger;
    if (local.tm_isdst == 0) return smaller;
    return r.before;
}

std::tm fields_with_pass(long long sec) {
    std::tm tm = fields_of(sec);
    const Readings r = readings_of(wall_of(sec));
    tm.tm_isdst =
        r.vBefore && r.vAfter && sec != (r.rBefore.off >= r.rAfter.off ? r.before : r.after) ? 0
                                                                                             : 1;
    return tm;
}

// The zone record is read while other threads refresh it, so its two words
// are taken from gettimeofday into a local record and stored whole.
// g_TimeZone is written before the refresh's own offset, so a converter in
// between sees a fixed offset that is the one in force now.
void refresh_timezone() {
    static std::mutex m;
    static std::list<zone::Table> adopted; // every zone this process used
    static zone::Source last;
    std::lock_guard<std::mutex> hold(m);
    // A change of TZ or of the zone file it names is adopted here, for every
    // thread at once: conversions only ever read the adopted table.
    const zone::Source now_source = zone::current_source();
    if (adopted.empty() || !(now_source == last)) {
        const std::string before = adopted.empty() ? std::string() : adopted.back().name;
        adopted.push_back(zone::load(now_source));
        const bool same_rules =
            adopted.size() > 1 && adopted.back().same_rules(*std::prev(adopted.end(), 2));
        last = now_source;
        if (same_rules) {
            adopted.pop_back();
        } else {
            if (!before.empty())
                log_line("vrix db : time zone %s adopted , was %s\n", adopted.back().name.c_str(),
                         before.c_str());
            g_zone.store(&adopted.back(), std::memory_order_release);
            g_generation.fetch_add(1, std::memory_order_acq_rel);
        }
    }
    // The C library follows TZ too, for the application's own conversions.
    tzset();
    struct timezone zone {};
    timeval now_tv{}; // glibc declares the time record non-null
    gettimeofday(&now_tv, &zone);
    zone.tz_minuteswest = -g_zone.load(std::memory_order_acquire)->offset_at(clock_now().sec) / 60;
    std::atomic_ref<int>(g_TimeZone.tz_dsttime).store(zone.tz_dsttime);
    std::atomic_ref<int>(g_TimeZone.tz_minuteswest).store(zone.tz_minuteswest);
    g_refreshOffset.store(fixed_offset(), std::memory_order_release);
}

} // namespace vrix
