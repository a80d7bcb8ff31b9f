#include "calendar.h"

#include <atomic>
#include <cstdint>

namespace {

constexpr uint16_t kDaysBefore[2][13] = {
    {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334, 365},
    {0, 31, 60, 91, 121, 152, 182, 213, 244, 274, 305, 335, 366},
};

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

} // namespace

extern "C" void sec_to_tm(struct tm *tm, int sec) {
    if (!tm) return;
    const int16_t offset =
        static_cast<int16_t>(-std::atomic_ref<int>(g_TimeZone.tz_minuteswest).load());
    const long long local = static_cast<long long>(sec) + offset * 60LL;
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

namespace vrix {

long long local_seconds(const std::tm &local) {
    std::tm utc{};
    utc.tm_year = local.tm_year;
    utc.tm_mon = local.tm_mon;
    utc.tm_mday = local.tm_mday;
    utc.tm_hour = local.tm_hour;
    utc.tm_min = local.tm_min;
    utc.tm_sec = local.tm_sec;
    const int16_t offset =
        static_cast<int16_t>(-std::atomic_ref<int>(g_TimeZone.tz_minuteswest).load());
    return static_cast<long long>(timegm(&utc)) - offset * 60LL;
}

// The zone record is read while other threads refresh it, so its two words
// are taken from gettimeofday into a local record and stored whole.
void refresh_timezone() {
    struct timezone zone {};
    timeval now_tv{}; // glibc declares the time record non-null
    gettimeofday(&now_tv, &zone);
    tzset();
    const time_t now = time(nullptr);
    std::tm local{};
    if (localtime_r(&now, &local)) zone.tz_minuteswest = static_cast<int>(-local.tm_gmtoff / 60);
    std::atomic_ref<int>(g_TimeZone.tz_dsttime).store(zone.tz_dsttime);
    std::atomic_ref<int>(g_TimeZone.tz_minuteswest).store(zone.tz_minuteswest);
}

} // namespace vrix
