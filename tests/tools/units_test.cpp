// The program's own parsing: H.264 access units, local times, lists.
#include "h264.h"
#include "lists.h"
#include "times.h"

#include <gtest/gtest.h>

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
          "2038-01-19T09:00:00", "0", "4294967296", "", "yesterday", "2024-06-14T11:00"})
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

TEST(Lists, ChannelsAndTypes) {
    EXPECT_EQ(parse_channels("1,3,5-8,3", 0, 64), (std::vector<int>{1, 3, 5, 6, 7, 8}));
    EXPECT_EQ(parse_channels("all", 1, 16)->size(), 16u);
    EXPECT_EQ(parse_channels("0,64", 0, 64), (std::vector<int>{0, 64}));
    for (const char *bad : {"", "8-5", "65", "1,,2", "a", "-3", "1-"})
        EXPECT_FALSE(parse_channels(bad, 0, 64)) << bad;
    EXPECT_EQ(parse_types("motion,alarm"), 6u);
    EXPECT_EQ(parse_types("manual,8,64"), 73u);
    EXPECT_EQ(parse_types("all"), 127u);
    for (const char *bad : {"", "fire", "3", "128", "0"})
        EXPECT_FALSE(parse_types(bad)) << bad;
}

} // namespace
} // namespace vrixtool
