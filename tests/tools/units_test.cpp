// The program's own parsing: H.264 access units, local times, lists.
#include "h264.h"
#include "lists.h"
#include "timeline_svg.h"
#include "times.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace vrixtool {
namespace {

// A NAL unit behind a start code; `first` sets first_mb_in_slice to 0.
void nal(std::vector<uint8_t> &s, int type, bool longCode = true, bool first = true) {
    if (longCode) s.push_back(0);
    s.insert(s.end(), {0, 0, 1, static_cast<uint8_t>(0x60 | type)});
    s.push_back(first ? 0x88 : 0x24); // slice header bits, or payload
    s.insert(s.end(), {0x12, 0x34, 0x56});
}

TEST(AccessUnits, PicturesWithTheirParameterSetsAndSlices) {
    std::vector<uint8_t> s = {0xff, 0x00}; // noise before the first start code
    const size_t start = s.size();
    nal(s, 9);               // delimiter
    nal(s, 7);               // SPS
    nal(s, 8, false);        // PPS, 3-byte start code
    nal(s, 6);               // SEI
    nal(s, 5);               // IDR slice, first of the picture
    nal(s, 5, false, false); // second slice of the same picture
    const size_t second = s.size();
    nal(s, 1); // next picture, no delimiter
    nal(s, 1, true, false);
    const size_t third = s.size();
    nal(s, 6); // SEI opens the third picture
    nal(s, 1);
    const auto units = split_access_units(s);
    ASSERT_EQ(units.size(), 3u);
    EXPECT_EQ(units[0].offset, start);
    EXPECT_TRUE(units[0].idr);
    EXPECT_EQ(units[1].offset, second);
    EXPECT_FALSE(units[1].idr);
    EXPECT_EQ(units[2].offset, third);
    EXPECT_EQ(units[2].offset + units[2].size, s.size());
    for (size_t i = 0; i + 1 < units.size(); ++i)
        EXPECT_EQ(units[i].offset + units[i].size, units[i + 1].offset);
}

TEST(AccessUnits, NothingWithoutStartCodes) {
    EXPECT_TRUE(split_access_units({}).empty());
    EXPECT_TRUE(split_access_units({1, 2, 3, 0, 0, 2, 0, 0}).empty());
}

// Read in 1 MiB pieces, a stream gives the units it gives whole: start codes
// and slice headers cut by a read boundary, and a unit larger than a read.
TEST(AccessUnits, ReadPieceByPieceAsWhole) {
    std::vector<uint8_t> s = {0xff};
    for (int i = 0; s.size() < (5u << 20); ++i) {
        nal(s, i % 25 ? 1 : 5, i % 3 != 0);
        const size_t body = i % 97 == 50 ? (1500u << 10) : 1000u + static_cast<size_t>(i % 7);
        s.insert(s.end(), body, 0x55);
    }
    for (size_t cut : {size_t{1} << 20, (size_t{1} << 20) - 1, (size_t{1} << 20) - 2}) {
        // Move the stream so a start code or header straddles the first read.
        std::vector<uint8_t> t(s);
        const auto whole = split_access_units(t);
        std::vector<uint8_t> shifted(cut - whole[1].offset, 0x11);
        shifted.insert(shifted.end(), t.begin(), t.end());
        const auto want = split_access_units(shifted);
        std::FILE *f = std::tmpfile();
        ASSERT_NE(f, nullptr);
        std::fwrite(shifted.data(), 1, shifted.size(), f);
        std::rewind(f);
        AccessUnitReader reader(f);
        std::vector<uint8_t> au;
        bool idr = false;
        size_t n = 0;
        while (reader.next(au, idr)) {
            ASSERT_LT(n, want.size());
            EXPECT_EQ(au.size(), want[n].size) << n;
            EXPECT_EQ(idr, want[n].idr) << n;
            EXPECT_TRUE(std::equal(au.begin(), au.end(),
                                   shifted.begin() + static_cast<long>(want[n].offset)));
            ++n;
        }
        EXPECT_EQ(n, want.size());
        EXPECT_FALSE(reader.failed());
        EXPECT_EQ(reader.bytes_read(), shifted.size());
        std::fclose(f);
    }
}

TEST(AccessUnits, PrefixCarriesKeyAndChannelBytes) {
    const std::vector<uint8_t> au = {0, 0, 0, 1, 0x65, 0x88, 1, 2, 3};
    for (bool idr : {true, false}) {
        const auto rec = wrap_access_unit(au.data(), au.size(), idr, {12, 7, 25, 1718362800, 280});
        ASSERT_EQ(rec.size(), 16 + kPrefixSize + au.size());
        const uint8_t *payload = rec.data() + 16;
        EXPECT_EQ((payload[2] & 0xC0) == 0, idr);
        EXPECT_EQ(payload[36], 11);
        EXPECT_EQ(rec[0], kPrefixSize + au.size()); // payload length, little-endian
        const auto back = unwrap_payload(payload, rec.size() - 16);
        ASSERT_TRUE(back);
        EXPECT_EQ(back->idr, idr);
        EXPECT_EQ(back->number, 7u);
        EXPECT_EQ(std::vector<uint8_t>(back->au, back->au + back->size), au);
        // A payload of another kind, or cut short, is not taken for one.
        EXPECT_FALSE(unwrap_payload(payload, rec.size() - 17));
        std::vector<uint8_t> other(payload, payload + rec.size() - 16);
        other[0] = 'X';
        EXPECT_FALSE(unwrap_payload(other.data(), other.size()));
    }
}

// Runs with TZ=Asia/Kolkata (UTC+05:30): times are read in that offset.
TEST(Times, LocalTimesAndDays) {
    ASSERT_EQ(zone_offset(), 5 * 3600 + 1800);
    EXPECT_EQ(parse_time("2024-06-14T11:00:00"), 1718362800L - 19800);
    EXPECT_EQ(parse_time("2024-06-14 11:00:00"), parse_time("2024-06-14T11:00:00"));
    EXPECT_EQ(parse_time("1718362800"), 1718362800L);
    EXPECT_EQ(format_time(1718362800L - 19800), "2024-06-14T11:00:00");
    EXPECT_TRUE(parse_time("2024-02-29T23:59:59"));
    for (const char *bad :
         {"2023-02-29T00:00:00", "2024-06-14T24:00:00", "2024-06-14T11:60:00", "2024-6-14T11:00:00",
          "2038-01-19T09:00:00", "0", "4294967296", "", "2024-06-14T11", "20240614T110000"})
        EXPECT_FALSE(parse_time(bad)) << bad;
    // A day names the local midnight; the names go round.
    const auto day = parse_day("2024-06-14");
    ASSERT_TRUE(day);
    EXPECT_EQ(parse_day("20240614"), day);
    EXPECT_EQ(*day, 1718323200L - 19800);
    EXPECT_EQ(day_name(*day + 86399), "20240614");
    EXPECT_EQ(day_name(*day + 86400), "20240615");
    EXPECT_EQ(day_start(*day + 45678), *day);
    EXPECT_FALSE(parse_day("20241301"));
}

// Every form a time option takes, against a fixed now: 2024-06-14T16:30:00
// local (11:00:00 UTC).
TEST(Times, AsUsersTypeThem) {
    const long now = 1718362800L, midnight = 1718323200L - 19800;
    const auto at = [now](const char *text) { return parse_time(text, now); };
    EXPECT_EQ(at("now"), now);
    EXPECT_EQ(at("-1h"), now - 3600);
    EXPECT_EQ(at("-30min"), now - 1800);
    EXPECT_EQ(at("+1h30m"), now + 5400);
    EXPECT_EQ(at("-2d"), now - 2 * 86400);
    EXPECT_EQ(at("-90s"), at("-90sec"));
    EXPECT_EQ(at("today"), midnight);
    EXPECT_EQ(at("yesterday"), midnight - 86400);
    EXPECT_EQ(at("09:15"), midnight + 9 * 3600 + 15 * 60);
    EXPECT_EQ(at("09:15:30"), midnight + 9 * 3600 + 15 * 60 + 30);
    EXPECT_EQ(at("2024-06-14"), midnight);
    EXPECT_EQ(at("2024-06-14T16:30"), now);
    EXPECT_EQ(at("2024-06-14T11:00:00Z"), now);
    EXPECT_EQ(at("2024-06-14 16:30:00+05:30"), now);
    EXPECT_EQ(at("2024-06-14T06:00-05:00"), now);
    EXPECT_EQ(at("@1718362800"), now);
    // Eight digits that make a date are the date, in every form a date takes.
    EXPECT_EQ(at("20240614"), midnight);
    EXPECT_EQ(at("20240614T16:30"), now);
    EXPECT_EQ(at("@20240614"), 20240614L);
    EXPECT_EQ(at("20241399"), 20241399L); // no date: seconds
    // The instants up to the last of 32-bit seconds, offsets up to 14 hours.
    EXPECT_EQ(at("2038-01-19T03:14:07Z"), 2147483647L);
    EXPECT_EQ(at("2024-06-14T11:00:00+14:00"), now - 14 * 3600);
    // The day before the 1st of March of a leap year.
    EXPECT_EQ(parse_time("yesterday", *parse_time("2024-03-01T12:00:00")), parse_day("2024-02-29"));
    for (const char *bad : {"-1x", "-h", "1h", "- 1h", "-1h-", "25:00", "9:15", "12:00:60",
                            "2024-06-14T11:00:00+5:30", "2024-06-14T11:00:00+15:00", "2024-06-14Z",
                            "2024-06-14T11:00:00+14:59", "2038-01-19T03:14:08Z", "@", "@now",
                            "tomorrow", "-99999999999s", "+100000d"})
        EXPECT_FALSE(at(bad)) << bad;
    EXPECT_FALSE(parse_time("-1h", 1000)) << "before 1970";
}

// In a zone with summer time (set for this test's process): the offset of
// each instant; the repeated hour is shown with its offset and typed with
// one (or Z), and without one names its first pass.
TEST(Times, SummerTime) {
    setenv("TZ", "Europe/Berlin", 1);
    tzset();
    EXPECT_EQ(parse_time("2024-06-14T11:59:50"), 1718359190L);
    EXPECT_EQ(format_time(1718359190L), "2024-06-14T11:59:50");
    const long first = 1729987800L, second = first + 3600; // 02:10 on 2024-10-27, twice
    EXPECT_EQ(format_time(first), "2024-10-27T02:10:00+02:00");
    EXPECT_EQ(format_time(second), "2024-10-27T02:10:00+01:00");
    EXPECT_EQ(format_time(second + 3600), "2024-10-27T03:10:00");
    EXPECT_EQ(parse_time("2024-10-27T02:10:00"), first);
    EXPECT_EQ(parse_time(format_time(second)), second);
    EXPECT_EQ(parse_time("2024-10-27T01:10:00Z"), second);
    EXPECT_EQ(parse_time("2024-10-26T20:10:00-05:00"), second);
    for (const char *bad : {"2024-10-27T02:10:00+1:00", "2024-10-27T02:10:00+15:00",
                            "2024-10-27T02:10:00Zx", "2024-10-27T02:10:00+01:60"})
        EXPECT_FALSE(parse_time(bad)) << bad;
    // The skipped 02:30 of 2024-03-31 reads as 03:30 summer time.
    EXPECT_EQ(parse_time("2024-03-31T02:30:00"), 1711848600L);
    const auto day = parse_day("20241027");
    ASSERT_TRUE(day);
    EXPECT_EQ(*day, 1729980000L);
    EXPECT_EQ(next_day(*day) - *day, 25 * 3600);
    EXPECT_EQ(day_start(second), *day);
}

// The day of a change of the clock drawn whole: 25 hours from its midnight
// to the next, the hour shown twice labelled with each offset.
TEST(Timeline, DaysOfTwentyThreeAndTwentyFiveHours) {
    setenv("TZ", "Europe/Berlin", 1);
    tzset();
    for (const char *day : {"2024-10-27", "2024-03-31"}) {
        TimelineData d;
        d.day = *parse_day(day);
        d.keys.resize(17);
        d.fullDay = true;
        const std::string svg = render_timeline(d);
        const long hours = (next_day(d.day) - d.day) / 3600;
        EXPECT_EQ(hours, day[5] == '1' ? 25 : 23) << day;
        EXPECT_NE(svg.find(" - 24:00 (UTC"), std::string::npos) << day;
        const bool twice = svg.find(">02:00 +02:00<") != std::string::npos &&
                           svg.find(">02:00 +01:00<") != std::string::npos;
        EXPECT_EQ(twice, hours == 25) << day;
        EXPECT_EQ(svg.find(">02:00<"), std::string::npos) << day; // skipped, or shown twice
    }
    setenv("TZ", "Asia/Kolkata", 1);
    tzset();
}

TEST(Lists, ChannelsAndTypes) {
    EXPECT_EQ(parse_channels("1,3,5-8,3", 0, 64), (std::vector<int>{1, 3, 5, 6, 7, 8}));
    EXPECT_EQ(parse_channels("all", 1, 16)->size(), 16u);
    EXPECT_EQ(parse_channels("0,64", 0, 64), (std::vector<int>{0, 64}));
    for (const char *bad : {"", "8-5", "65", "1,,2", "a", "-3", "1-"})
        EXPECT_FALSE(parse_channels(bad, 0, 64)) << bad;
    const ChannelMasks m = channel_masks({0, 1, 32, 33, 64}); // the event query's words
    EXPECT_TRUE(m.withCh0 == 1 && m.lo == (1u | 1u << 31) && m.hi == (1u | 1u << 31));
    EXPECT_EQ(parse_types("motion,alarm"), 6u);
    EXPECT_EQ(parse_types("manual,8,64"), 73u);
    EXPECT_EQ(parse_types("all"), 127u);
    for (const char *bad : {"", "fire", "3", "128", "0"})
        EXPECT_FALSE(parse_types(bad)) << bad;
}

} // namespace
} // namespace vrixtool
