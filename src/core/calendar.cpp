#include "calendar.h"

#include "pacing.h"

#include <atomic>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace {

constexpr uint16_t kDaysBefore[2][13] = {
    {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334, 365},
    {0, 31, 60, 91, 121, 152, 182, 213, 244, 274, 305, 335, 366},
};

constexpr long long kDay = 86400;
// An offset range is probed a day at a time up to this many days on either
// side of the instant asked for (zones change at most twice a year), then
// narrowed to the second.
constexpr int kProbeDays = 8;

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
    int dst; // 1 in summer time
    bool operator==(const Rule &) const = default;
};

Rule rule_at(long long t) {
    const time_t tt = static_cast<time_t>(t);
    std::tm tm{};
    if (!localtime_r(&tt, &tm)) return {fixed_offset(), 0};
    return {static_cast<int>(tm.tm_gmtoff), tm.tm_isdst > 0 ? 1 : 0};
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
    Span s{t - kProbeDays * kDay, t + kProbeDays * kDay, rule_at(t), generation};
    for (int k = 1; k <= kProbeDays; ++k)
        if (!(rule_at(t + k * kDay) == s.rule)) {
            s.hi = edge(t + (k - 1) * kDay, t + k * kDay, s.rule);
            break;
        }
    for (int k = 1; k <= kProbeDays; ++k)
        if (!(rule_at(t - k * kDay) == s.rule)) {
            s.lo = edge(t - (k - 1) * kDay, t - k * kDay, s.rule) + 1;
            break;
        }
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
    return rule_span(t, s) ? s->rule : Rule{fixed_offset(), 0};
}

// Calendar fields of a wall-clock count (seconds counted like UTC).
void fill_fields(std::tm *tm, long long local) {
    long long days = local / 86400;
    const long long rem = local % 86400;
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
    return {first_at_wall(hour), first_at_wall(hour + 3600)};
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
    const int want = local.tm_isdst;
    if (want == 0 || want == 1) {
        if (r.vBefore) { // the repeated hour: both passes exist
            if (r.rBefore.dst != r.rAfter.dst) return r.rBefore.dst == want ? r.before : r.after;
            return want == 1 ? r.before : r.after;
        }
        // A skipped time, read with the offset of the kind asked for.
        return r.rBefore.dst == want ? r.before : r.after;
    }
    std::tm copy = local;
    copy.tm_isdst = -1;
    return static_cast<long long>(mktime(&copy));
}

// The zone record is read while other threads refresh it, so its two words
// are taken from gettimeofday into a local record and stored whole.
// g_TimeZone is written before the refresh's own offset, so a converter in
// between sees a fixed offset that is the one in force now.
void refresh_timezone() {
    static std::mutex m;
    static char lastTz[128] = "\x01";
    static long lastZone = 0;
    static int lastDaylight = -1;
    std::lock_guard<std::mutex> hold(m);
    struct timezone zone {};
    timeval now_tv{}; // glibc declares the time record non-null
    gettimeofday(&now_tv, &zone);
    tzset();
    const time_t now = static_cast<time_t>(clock_now().sec); // the test clock when set
    std::tm local{};
    if (localtime_r(&now, &local)) zone.tz_minuteswest = static_cast<int>(-local.tm_gmtoff / 60);
    std::atomic_ref<int>(g_TimeZone.tz_dsttime).store(zone.tz_dsttime);
    std::atomic_ref<int>(g_TimeZone.tz_minuteswest).store(zone.tz_minuteswest);

    // Rules that may have changed drop every thread's cached range.
    char tz[128] = "";
    if (const char *env = std::getenv("TZ")) std::strncpy(tz, env, sizeof tz - 1);
    if (std::strcmp(tz, lastTz) != 0 || lastZone != timezone || lastDaylight != daylight) {
        std::memcpy(lastTz, tz, sizeof tz);
        lastZone = timezone;
        lastDaylight = daylight;
        g_generation.fetch_add(1, std::memory_order_acq_rel);
    }
    g_refreshOffset.store(fixed_offset(), std::memory_order_release);
}

} // namespace vrix
