// Size totals and export ranges over stores recorded by the writers.  Runs in
// UTC and in Europe/Berlin, whose summer time the export ranges must survive.
#include "support/frames.h"
#include "support/queues.h"

#include <gtest/gtest.h>

#include <unistd.h>

namespace {

using namespace vrix::test;
using Bytes = std::vector<unsigned char>;

// Local midnight of 2024-03-10 in the zone the test runs in.
int day0() {
    std::tm tm{};
    tm.tm_year = 124;
    tm.tm_mon = 2;
    tm.tm_mday = 10;
    tm.tm_isdst = -1;
    return static_cast<int>(mktime(&tm));
}

class Report : public ::testing::Test {
  protected:
    void SetUp() override {
        start_library();
        day = day0();
        h10 = day + 10 * 3600;
        rec = vrix_db_open_rec_video(dir.path().c_str(), 17);
        ASSERT_NE(rec, nullptr);
    }
    void TearDown() override { vrix_db_close_rec_video(rec); }
    // One key frame and two others of 1000 bytes per second on channel 4.
    void record_video(int from, int seconds, int ch = 4) {
        for (int s = from; s < from + seconds; ++s)
            for (int i = 0; i < 3; ++i)
                record(rec, make_frame(ch, s, i == 0, 984));
    }
    void finish_video() {
        for (int ch = 1; ch <= 16; ++ch)
            vrix_db_rec_video_flush(rec, ch);
        vrix_db_close_rec_video(rec);
        rec = nullptr;
    }
    unsigned video_size(int from, int to, int ch = 4) {
        std::tm a = local_tm(from), b = local_tm(to);
        return vrix_db_get_video_total_size(&a, &b, dir.path().c_str(), ch);
    }
    std::string stream(const char *daytext, int ch, int hour) {
        return dir / (std::string(daytext) + "/video/" + std::to_string(ch) + "/" +
                      std::to_string(hour) + ".stream");
    }

    ScratchDir dir;
    RecContext *rec = nullptr;
    int day = 0, h10 = 0;
};

// Size totals over one store, a table of spans: within an hour (key frames
// of :02 and :05 are 3000 bytes apart; an end past the last key frame counts
// to the end of the file; start after end; a channel without recordings);
// from midnight of a day without recordings to the next recorded day,
// counted from its hour 0, and over days without any; across a month, days
// told apart by their whole date and not by the day of the month.
TEST_F(Report, VideoSizeOverSpans) {
    auto at = [](int mon, int mday, int hour) {
        std::tm tm{};
        tm.tm_year = 124;
        tm.tm_mon = mon;
        tm.tm_mday = mday;
        tm.tm_hour = hour;
        tm.tm_isdst = -1;
        return static_cast<int>(mktime(&tm));
    };
    record_video(at(2, 5, 10), 2, 7);
    record_video(h10, 10);
    record_video(day + 86400 + 3 * 3600, 4, 6); // channel 6: the next day only
    record_video(at(3, 5, 11), 3, 7);
    finish_video();
    const struct {
        int from, to, ch;
        unsigned want;
    } spans[] = {
        {h10 + 2, h10 + 5, 4, 9000u},
        {h10 + 2, h10 + 50, 4, 24000u},
        {h10 + 5, h10 + 2, 4, 0u},
        {h10 + 2, h10 + 5, 5, 0u},
        {day, day + 86400 + 5 * 3600, 6, 12000u},
        {day - 5 * 86400, day - 86400, 6, 0u},
        {at(2, 5, 10), at(3, 5, 12), 7, 15000u},
    };
    for (const auto &s : spans)
        EXPECT_EQ(video_size(s.from, s.to, s.ch), s.want)
            << "channel " << s.ch << " from " << s.from << " to " << s.to;
}

// A span larger than 4 GiB saturates (the stream files are sparse).
TEST_F(Report, VideoSizeSaturates) {
    record_video(h10, 1);
    record_video(h10 + 3600, 1);
    finish_video();
    for (int hour : {10, 11})
        ASSERT_EQ(truncate(stream("20240310", 4, hour).c_str(), 3LL << 30), 0);
    EXPECT_EQ(video_size(h10, h10 + 2 * 3600 - 1), 4294967295u);
    EXPECT_EQ(video_size(h10, h10 + 3599), 3221225472u);
}

// Rows committed while their frames still wait in the write-behind buffer
// name bytes the file does not hold yet: an hour counts only what is there.
TEST_F(Report, VideoSizeCountsOnlyBytesInTheFile) {
    record_video(h10, 10);
    EXPECT_EQ(video_size(h10 + 2, h10 + 3605), 0u); // all 30 frames still buffered
    EXPECT_EQ(video_size(h10 + 2, h10 + 5), 0u);
    finish_video();
    EXPECT_EQ(video_size(h10 + 2, h10 + 3605), 24000u);
    ASSERT_EQ(truncate(stream("20240310", 4, 10).c_str(), 7000), 0); // cut by a crash
    EXPECT_EQ(video_size(h10 + 2, h10 + 3605), 1000u);
    EXPECT_EQ(video_size(h10 + 1, h10 + 5), 4000u);
    EXPECT_EQ(video_size(h10 + 5, h10 + 8), 0u);
}

TEST_F(Report, AudioSizeOfAFullHour) {
    record_video(h10, 1, 1); // days are found through the channel's video days
    finish_video();
    AudioRecContext *a = vrix_db_open_rec_audio(dir.path().c_str(), 1);
    VrixAudioBlock b{};
    for (int s = 0; s <= 3600; ++s) {
        b.iSec = static_cast<uint32_t>(h10 + s);
        vrix_db_rec_audio(a, &b);
    }
    vrix_db_close_rec_audio(a);
    std::tm from = local_tm(h10), to = local_tm(h10 + 3600);
    testing::internal::CaptureStdout();
    const unsigned size = vrix_db_get_audio_total_size(&from, &to, dir.path().c_str(), 1);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(size, 3600u * 60u + 2880000u);
    EXPECT_NE(out.find("enter vrix_db_get_audio_total_size"), std::string::npos);
    EXPECT_NE(out.find("leave vrix_db_get_audio_total_size"), std::string::npos);
    // Start after end: 0, and the audio function still says it entered.
    testing::internal::CaptureStdout();
    EXPECT_EQ(vrix_db_get_audio_total_size(&to, &from, dir.path().c_str(), 1), 0u);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "enter vrix_db_get_audio_total_size\n");
}

TEST_F(Report, ExportRanges) {
    record_video(h10, 5);
    record_video(h10 + 2 * 3600, 5); // a gap of two hours
    finish_video();
    const char *root = dir.path().c_str();
    EXPECT_EQ(vrix_dvd_video_get_start_time(4, h10 + 2, root, 4096), h10 + 2);
    EXPECT_EQ(vrix_dvd_video_get_end_time(4, h10 + 2, root, 4096), h10 + 2);
    EXPECT_EQ(vrix_dvd_video_get_start_time(4, h10 + 3600, root, 4096), h10 + 7200);
    EXPECT_EQ(vrix_dvd_video_get_end_time(4, h10 + 3600, root, 4096), h10 + 4);
    EXPECT_EQ(vrix_dvd_video_get_start_time(4, h10 + 4 * 3600, root, 4096), 0);
    EXPECT_EQ(vrix_dvd_video_get_end_time(4, h10 - 3600, root, 4096), 0);
    EXPECT_EQ(vrix_dvd_video_get_start_time(4, h10, root, 0), 0);

    AudioRecContext *a = vrix_db_open_rec_audio(root, 2);
    VrixAudioBlock b{};
    for (int s = 0; s < 10; ++s)
        for (int i = 0; i < 2; ++i) {
            b.iSec = static_cast<uint32_t>(h10 + s);
            vrix_db_rec_audio(a, &b);
        }
    vrix_db_close_rec_audio(a);
    EXPECT_EQ(vrix_dvd_audio_get_start_time(2, h10 + 3, root, 60), h10 + 3);
    EXPECT_EQ(vrix_dvd_audio_get_end_time(2, h10 + 3, root, 60), h10 + 2); // one row back
    EXPECT_EQ(vrix_dvd_audio_get_start_time(2, h10, root, 59), 0);
}

// The repeated hour of a daylight-saving change (Europe/Berlin: 02:00-03:00
// local twice on 2024-10-27): every second comes back exactly.
TEST_F(Report, ExportRangesRoundTripEverySecond) {
    const int t0 = 1729989000; // 00:30:00 UTC, 02:30 local summer time in Berlin
    record_video(t0, 2);
    record_video(t0 + 3600, 2); // 02:30 local winter time in Berlin
    finish_video();
    const char *root = dir.path().c_str();
    for (int t : {t0, t0 + 1, t0 + 3600, t0 + 3601}) {
        EXPECT_EQ(vrix_dvd_video_get_start_time(4, t, root, 4096), t);
        EXPECT_EQ(vrix_dvd_video_get_end_time(4, t, root, 4096), t);
    }
}

} // namespace
