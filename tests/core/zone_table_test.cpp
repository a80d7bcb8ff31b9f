// The library's own reading of time zones against the C library's: zone files
// and POSIX TZ strings of many zones (half-hour and 45-minute offsets, a
// 30-minute change, zones whose winter is their daylight-saving time, the
// south), every instant from just before 1970 to 2038 sampled daily and every
// change to the second; then the adoption of a changed zone.
#include "core/calendar.h"
#include "core/zone.h"
#include "support/frames.h"
#include "support/queues.h"
#include "vrixdb.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

constexpr long long kFrom = -3 * 86400;       // 1969-12-29
constexpr long long kTo = 2147483647 - 86400; // the day before the 32-bit limit

void use_zone(const std::string &tz) {
    setenv("TZ", tz.c_str(), 1);
    tzset();
    vrix::refresh_timezone();
}

bool same_fields(const std::tm &a, const std::tm &b) {
    return a.tm_year == b.tm_year && a.tm_mon == b.tm_mon && a.tm_mday == b.tm_mday &&
           a.tm_hour == b.tm_hour && a.tm_min == b.tm_min && a.tm_sec == b.tm_sec;
}

// The C library's changes of offset, found day by day and then to the second.
std::vector<long long> c_library_changes() {
    std::vector<long long> out;
    for (long long t = kFrom; t < kTo; t += 86400) {
        const long off = vrix::test::local_tm(t).tm_gmtoff;
        if (vrix::test::local_tm(t + 86400).tm_gmtoff == off) continue;
        long long lo = t, hi = t + 86400;
        while (hi - lo > 1) {
            const long long mid = lo + (hi - lo) / 2;
            (vrix::test::local_tm(mid).tm_gmtoff == off ? lo : hi) = mid;
        }
        out.push_back(hi);
    }
    return out;
}

struct Case {
    const char *tz;
    const char *why;
};
const Case kZones[] = {
    {"UTC", "no change"},
    {"Europe/Berlin", "the north"},
    {"America/New_York", "west of Greenwich, before 1970 local"},
    {"Australia/Sydney", "the south"},
    {"Pacific/Chatham", "+12:45/+13:45, changes at :45"},
    {"Australia/Lord_Howe", "a 30-minute change"},
    {"Europe/Dublin", "winter marked as daylight-saving time"},
    {"Africa/Casablanca", "negative daylight saving, moving with Ramadan"},
    {"America/St_Johns", "-3:30"},
    {"Asia/Kolkata", "+5:30, no change"},
    {"Asia/Tehran", "+3:30, changes abolished in 2022"},
    {"America/Sao_Paulo", "the south, abolished in 2019"},
    {"Pacific/Apia", "a day skipped in 2011"},
    {"Antarctica/Troll", "a 2-hour change"},
    {"EST5EDT,M3.2.0,M11.1.0", "a POSIX string"},
    {"<+0530>-5:30", "a quoted name"},
    {"NZST-12NZDT,M9.5.0,M4.1.0/3", "a POSIX string of the south"},
    {"IST-1GMT0,M10.5.0,M3.5.0/1", "a POSIX string with negative daylight saving"},
    {"ABC3DEF,J60/25,J300/-1", "Julian days, times beyond a day and before it"},
    {":Europe/Paris", "a zone file named with a colon"},
};

TEST(ZoneTable, EveryZoneAgreesWithTheCLibrary) {
    for (const Case &z : kZones) {
        SCOPED_TRACE(std::string(z.tz) + " (" + z.why + ")");
        use_zone(z.tz);
        std::vector<long long> probes;
        for (long long t = kFrom; t < kTo; t += 86413)
            probes.push_back(t);
        for (long long c : c_library_changes())
            for (long long d : {-3601LL, -1LL, 0LL, 1LL, 1799LL, 3599LL})
                probes.push_back(c + d);
        int bad = 0;
        for (long long t : probes) {
            const std::tm want = vrix::test::local_tm(t);
            std::tm got{};
            sec_to_tm(&got, static_cast<int>(t));
            const bool fields = same_fields(got, want);
            const bool back = vrix::local_seconds(vrix::fields_with_pass(t)) == t;
            const vrix::HourSpan h = vrix::hour_span(t);
            const long long day = vrix::day_start(static_cast<int>(t), got);
            const bool spans = h.holds(t) && h.next > h.start && day <= t &&
                               vrix::test::local_tm(day).tm_mday == want.tm_mday &&
                               vrix::test::local_tm(day - 1).tm_mday != want.tm_mday;
            if ((!fields || !back || !spans) && bad++ < 3)
                ADD_FAILURE() << "t=" << t << (fields ? "" : " fields differ")
                              << (back ? "" : " no round trip")
                              << (spans ? "" : " hour or day wrong");
        }
        EXPECT_EQ(bad, 0);
    }
    unsetenv("TZ");
    use_zone("UTC");
}

// A repeated time's pass is named by the flag the same way in every zone: 1
// the first pass (the larger offset), 0 the second, whatever the zone calls
// its summer.
TEST(ZoneTable, TheFlagNamesThePassInEveryZone) {
    for (const char *tz :
         {"Europe/London", "Europe/Dublin", "Pacific/Chatham", "Australia/Lord_Howe"}) {
        SCOPED_TRACE(tz);
        use_zone(tz);
        int checked = 0;
        for (long long c : c_library_changes()) {
            const long before = vrix::test::local_tm(c - 1).tm_gmtoff;
            const long after = vrix::test::local_tm(c).tm_gmtoff;
            if (after >= before || c < 1577836800) continue; // changes back, from 2020
            const long long first = c - 60, second = first + (before - after);
            std::tm fields = vrix::test::local_tm(first);
            fields.tm_isdst = 1;
            EXPECT_EQ(vrix::local_seconds(fields), first);
            fields.tm_isdst = 0;
            EXPECT_EQ(vrix::local_seconds(fields), second);
            ++checked;
        }
        EXPECT_GT(checked, 0);
    }
    use_zone("UTC");
}

// A zone file written the slim way (changes only up to its rules' start, the
// rest spelled by its footer) reads as its fat twin.
TEST(ZoneTable, SlimZoneFilesFollowTheirFooter) {
    vrix::test::ScratchDir dir;
    const std::string src = dir / "zones";
    std::ofstream(src) << "Rule EU 1981 max - Mar lastSun 1:00u 1:00 S\n"
                          "Rule EU 1981 max - Oct lastSun 1:00u 0 -\n"
                          "Zone Test/Slim 1:00 - CET 1981\n"
                          "    1:00 EU CE%sT\n";
    for (const char *b : {"slim", "fat"}) {
        const std::string cmd =
            std::string("zic -b ") + b + " -d " + dir.path() + "/" + b + " " + src;
        ASSERT_EQ(std::system(cmd.c_str()), 0) << "zic is needed (libc-bin)";
    }
    std::ifstream slim_in(dir / "slim/Test/Slim", std::ios::binary);
    std::ifstream fat_in(dir / "fat/Test/Slim", std::ios::binary);
    const std::vector<unsigned char> slim{std::istreambuf_iterator<char>(slim_in), {}};
    const std::vector<unsigned char> fat{std::istreambuf_iterator<char>(fat_in), {}};
    ASSERT_LT(slim.size(), fat.size());
    vrix::zone::Table a, b;
    ASSERT_TRUE(vrix::zone::parse_tzif(slim, a));
    ASSERT_TRUE(vrix::zone::parse_tzif(fat, b));
    for (long long t = 347155200; t < 2147483647LL; t += 3 * 86400 + 7) // from 1981
        ASSERT_EQ(a.offset_at(t), b.offset_at(t)) << t;
    EXPECT_EQ(a.offset_at(1719792000), 7200); // July 2024
    EXPECT_EQ(a.offset_at(1735689600), 3600); // January 2025
}

// A zone is adopted at a refresh, for every thread, never in between: TZ or
// the contents of the zone file it names changed under a running process
// change nothing until then; then the new zone holds everywhere, said once.
TEST(ZoneTable, AChangedZoneIsAdoptedAtTheNextRefresh) {
    vrix::test::ScratchDir dir;
    const std::string file = dir / "localtime";
    std::filesystem::copy_file("/usr/share/zoneinfo/America/New_York", file);
    std::vector<std::string> lines;
    vrix_db_set_log(
        [](const char *line, void *user) {
            static_cast<std::vector<std::string> *>(user)->push_back(line);
        },
        &lines);
    use_zone(":" + file);
    const int t = 1710048600; // 2024-03-10 05:30 UTC: Havana has changed, New York not yet
    EXPECT_EQ(vrix::fields_of(t).tm_hour, 0); // 00:30 in New York
    // The file now holds Havana's rules (the same three summary values).
    std::filesystem::copy_file("/usr/share/zoneinfo/America/Havana", file,
                               std::filesystem::copy_options::overwrite_existing);
    EXPECT_EQ(vrix::fields_of(t).tm_hour, 0) << "adopted before a refresh";
    // A change of TZ alone is not seen either.
    setenv("TZ", "Asia/Tokyo", 1);
    EXPECT_EQ(vrix::fields_of(t).tm_hour, 0);
    EXPECT_EQ(vrix::fields_of(t + 180 * 86400).tm_hour, 1); // 01:30 EDT in September
    setenv("TZ", (":" + file).c_str(), 1);
    vrix::refresh_timezone();
    EXPECT_EQ(vrix::fields_of(t).tm_hour, 1); // 01:30 in Havana
    use_zone("Asia/Tokyo");
    EXPECT_EQ(vrix::fields_of(t).tm_hour, 14);
    int said = 0;
    for (const std::string &l : lines)
        said += l.find("time zone") != std::string::npos;
    EXPECT_GE(said, 2);
    vrix_db_set_log(nullptr, nullptr);
    use_zone("UTC");
}

} // namespace
