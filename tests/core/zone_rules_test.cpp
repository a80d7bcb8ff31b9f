// The calendar under zones with summer time (run under Europe/Berlin,
// America/New_York and Australia/Sydney): every conversion follows the C
// library's rules at each instant, whatever the clock says now.
#include "core/calendar.h"
#include "support/frames.h"
#include "vrixdb.h"

#include <gtest/gtest.h>

#include <atomic>
#include <ctime>
#include <vector>

namespace {

using vrix::hour_span;
using vrix::local_seconds;

constexpr int kFrom = 1704067200; // 2024-01-01 UTC
constexpr int kTo = 1767225600;   // 2026-01-01 UTC

std::atomic<int> g_now{0};

bool same_fields(const std::tm &a, const std::tm &b) {
    return a.tm_year == b.tm_year && a.tm_mon == b.tm_mon && a.tm_mday == b.tm_mday &&
           a.tm_hour == b.tm_hour && a.tm_min == b.tm_min && a.tm_sec == b.tm_sec;
}

// The instants at which the offset changes, found hour by hour.
std::vector<int> changes() {
    std::vector<int> out;
    for (int t = kFrom; t < kTo; t += 3600)
        if (vrix::test::local_tm(t).tm_gmtoff != vrix::test::local_tm(t + 3600).tm_gmtoff) {
            int lo = t, hi = t + 3600;
            while (hi - lo > 1) {
                const int mid = lo + (hi - lo) / 2;
                (vrix::test::local_tm(mid).tm_gmtoff == vrix::test::local_tm(t).tm_gmtoff ? lo
                                                                                          : hi) =
                    mid;
            }
            out.push_back(hi);
        }
    return out;
}

class ZoneRules : public ::testing::Test {
  protected:
    // The library's zone refreshed with the test clock at `now`.
    static void refresh_at(long now) {
        g_now = static_cast<int>(now);
        const VrixTestHooks hooks{1, [] { return g_now.load(); }};
        vrix_db_set_test_hooks(&hooks);
        vrix::refresh_timezone();
        vrix_db_set_test_hooks(nullptr);
    }
    void SetUp() override {
        tzset();
        ASSERT_EQ(changes().size(), 4u) << "tzdata is not installed for " << std::getenv("TZ");
    }
};

// From a summer clock and from a winter one: fields, days and round trips
// agree with the C library at every instant (and every change +-1 s).
TEST_F(ZoneRules, ConversionsFollowTheRulesFromEitherSeason) {
    std::vector<int> times;
    for (int t = kFrom; t < kTo; t += 1999)
        times.push_back(t);
    for (int c : changes())
        for (int d = -3601; d <= 3601; d += 600)
            times.push_back(c + d);
    for (long now : {1718366400L /* June 2024 */, 1734264000L /* December 2024 */}) {
        refresh_at(now);
        EXPECT_EQ(-g_TimeZone.tz_minuteswest * 60, vrix::test::local_tm(now).tm_gmtoff);
        for (int t : times) {
            const std::tm want = vrix::test::local_tm(t);
            std::tm got{};
            sec_to_tm(&got, t);
            ASSERT_TRUE(same_fields(got, want)) << "t=" << t << " now=" << now;
            // The exact instant back, from the C library's record (flag set),
            // from sec_to_tm's (flag 0 from a zeroed record) where the time
            // is not repeated, and with -1.
            EXPECT_EQ(local_seconds(want), t) << t;
            std::tm minus = want;
            minus.tm_isdst = -1;
            const long long back = local_seconds(minus);
            EXPECT_TRUE(back == t || same_fields(vrix::test::local_tm(back), want)) << t;
            const int day = vrix::day_start(t, got);
            const std::tm first = vrix::test::local_tm(day), before = vrix::test::local_tm(day - 1);
            EXPECT_TRUE(first.tm_mday == want.tm_mday && before.tm_mday != want.tm_mday && day <= t)
                << "day of " << t << " starts at " << day;
        }
    }
}

// Around each change: the repeated hour is one span of two hours holding both
// passes, the flag picks a pass; the skipped hour is empty and begins and
// ends at the change; the days of the changes last 25 and 23 hours.
TEST_F(ZoneRules, RepeatedAndSkippedHours) {
    refresh_at(1734264000L);
    for (int c : changes()) {
        const bool back = vrix::test::local_tm(c).tm_gmtoff < vrix::test::local_tm(c - 1).tm_gmtoff;
        const std::tm at = vrix::test::local_tm(c);
        const long long day = vrix::day_start(c, at);
        const long long next = vrix::next_day_start(c);
        EXPECT_EQ(next - day, back ? 25 * 3600 : 23 * 3600) << c;
        if (back) {
            // The repeated hour: [change - 1 h, change + 1 h).
            const vrix::HourSpan span = hour_span(c);
            EXPECT_EQ(span.start, c - 3600);
            EXPECT_EQ(span.end, c + 3600);
            EXPECT_EQ(hour_span(c - 3600).start, span.start);
            std::tm fields = vrix::test::local_tm(c + 600);
            fields.tm_isdst = 1;
            EXPECT_EQ(local_seconds(fields), c - 3600 + 600);
            fields.tm_isdst = 0;
            EXPECT_EQ(local_seconds(fields), c + 600);
            EXPECT_EQ(vrix::first_at_wall(vrix::wall_of(c)), c - 3600);
        } else {
            const int skipped = vrix::test::local_tm(c - 1).tm_hour + 1;
            EXPECT_EQ(vrix::hour_start_of(c, skipped), c);
            EXPECT_EQ(vrix::hour_start_of(c, skipped + 1), c);
            EXPECT_EQ(hour_span(c - 1).end, c);
            EXPECT_EQ(hour_span(c).start, c);
            // A time in the skipped hour read with each offset.
            std::tm fields = vrix::test::local_tm(c - 1800);
            fields.tm_hour = skipped;
            fields.tm_isdst = 0;
            EXPECT_EQ(local_seconds(fields), c + 1800);
            fields.tm_isdst = 1;
            EXPECT_EQ(local_seconds(fields), c - 1800);
        }
    }
}

// An offset written into g_TimeZone by the application is used as a fixed
// offset, as before; the next refresh brings back the zone's rules.
TEST_F(ZoneRules, FixedOffsetSetByTheApplication) {
    refresh_at(1734264000L);
    g_TimeZone.tz_minuteswest = -480;
    EXPECT_EQ(vrix::offset_at(1718366400), 8 * 3600);
    EXPECT_EQ(vrix::offset_at(1734264000), 8 * 3600);
    refresh_at(1734264000L);
    EXPECT_EQ(vrix::offset_at(1718366400), vrix::test::local_tm(1718366400).tm_gmtoff);
}

} // namespace
