// Calendar conversion: fixed offsets, and agreement with mktime in the zone
// the test runs in (run under TZ=UTC, Asia/Shanghai and Europe/Berlin).
#include "core/calendar.h"
#include "vrixdb.h"

#include <gtest/gtest.h>

#include <ctime>

namespace {

struct Fields {
    int year, mon, mday, hour, min, sec;
};

Fields convert(int minutes_west, int t) {
    g_TimeZone.tz_minuteswest = minutes_west;
    std::tm tm{};
    sec_to_tm(&tm, t);
    return {tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec};
}

void expect(const Fields &f, Fields want) {
    EXPECT_EQ(f.year, want.year);
    EXPECT_EQ(f.mon, want.mon);
    EXPECT_EQ(f.mday, want.mday);
    EXPECT_EQ(f.hour, want.hour);
    EXPECT_EQ(f.min, want.min);
    EXPECT_EQ(f.sec, want.sec);
}

// Leap and century years, and offsets east and west.
TEST(SecToTm, KnownValues) {
    expect(convert(0, 0), {1970, 1, 1, 0, 0, 0});
    expect(convert(-480, 1700000000), {2023, 11, 15, 6, 13, 20});
    expect(convert(0, 951782400), {2000, 2, 29, 0, 0, 0}); // 2000 is a leap year
    expect(convert(0, 1704067199), {2023, 12, 31, 23, 59, 59});
    expect(convert(0, 1704067200), {2024, 1, 1, 0, 0, 0});
    expect(convert(0, 2147483647), {2038, 1, 19, 3, 14, 7});
    expect(convert(0, 1709164800), {2024, 2, 29, 0, 0, 0});
    expect(convert(0, 1677628800), {2023, 3, 1, 0, 0, 0});      // 2023 has no Feb 29
    expect(convert(300, 1704067200), {2023, 12, 31, 19, 0, 0}); // five hours west
    // Minutes west are taken as a signed 16-bit value.
    expect(convert(65536 - 480, 1700000000), {2023, 11, 15, 6, 13, 20});
}

TEST(SecToTm, WritesOnlySixFieldsAndIgnoresNull) {
    g_TimeZone.tz_minuteswest = 0;
    std::tm tm{};
    tm.tm_wday = 42;
    tm.tm_yday = 400;
    tm.tm_isdst = 7;
    sec_to_tm(&tm, 1700000000);
    EXPECT_EQ(tm.tm_wday, 42);
    EXPECT_EQ(tm.tm_yday, 400);
    EXPECT_EQ(tm.tm_isdst, 7);
    sec_to_tm(nullptr, 5);
}

TEST(DayKey, EastOfGreenwich) {
    g_TimeZone.tz_minuteswest = -480;
    std::tm tm{};
    sec_to_tm(&tm, 1700000000);
    EXPECT_EQ(vrix::day_start(1700000000, tm), 1699977600);
}

// After the refresh, sec_to_tm and mktime agree for times around now (the
// refresh takes the zone's current offset).
TEST(RefreshTimezone, AgreesWithMktime) {
    vrix::refresh_timezone();
    const int now = static_cast<int>(time(nullptr));
    std::tm here{};
    const time_t tnow = now;
    localtime_r(&tnow, &here);
    for (int t = now - 6 * 3600; t <= now + 6 * 3600; t += 997) {
        std::tm local{};
        const time_t tt = t;
        localtime_r(&tt, &local);
        std::tm tm{};
        sec_to_tm(&tm, t);
        if (local.tm_gmtoff != here.tm_gmtoff) continue; // across a daylight-saving change
        tm.tm_isdst = -1;
        EXPECT_EQ(mktime(&tm), tt) << "t=" << t;
    }
}

} // namespace
