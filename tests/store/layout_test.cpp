// Paths, bounds and record formats of the store.
#include "store/format.h"
#include "store/paths.h"
#include "store/records.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace vrix;

TEST(Paths, WriterAndReaderDayNamesAgree) {
    for (int year : {1000, 1970, 2024, 9999}) {
        std::tm tm{};
        tm.tm_year = year - 1900;
        tm.tm_mon = 0;
        tm.tm_mday = 5;
        char day[12];
        day_name(day, tm);
        Path w, r;
        ASSERT_TRUE(writer_video_db(w, "/r/", day, 3));
        ASSERT_TRUE(reader_video_db(r, "/r", tm, 3));
        EXPECT_EQ(std::string(w.text), std::string(r.text).replace(0, 3, "/r//"));
    }
}

TEST(Paths, ExactForms) {
    std::tm tm{};
    tm.tm_year = 124;
    tm.tm_mon = 1;
    tm.tm_mday = 29;
    char day[12];
    day_name(day, tm);
    EXPECT_STREQ(day, "20240229");
    Path p;
    ASSERT_TRUE(writer_video_stream(p, "/mnt/hd/", day, 16, 23));
    EXPECT_STREQ(p.text, "/mnt/hd//20240229/video/16/23.stream");
    ASSERT_TRUE(writer_date_db(p, "/mnt/hd/"));
    EXPECT_STREQ(p.text, "/mnt/hd/date.db");
    ASSERT_TRUE(reader_audio_stream(p, "/mnt/hd", tm, 4, 0));
    EXPECT_STREQ(p.text, "/mnt/hd/20240229/audio/4/0.stream");
    ASSERT_TRUE(reader_event_db(p, "/mnt/hd", tm));
    EXPECT_STREQ(p.text, "/mnt/hd/20240229/event.db");
}

// A root of 98 characters leaves room for the longest path; 99 is refused,
// and a path that would not fit is never truncated.
TEST(Paths, RootBoundIsExact) {
    const std::string root98(98, 'r');
    EXPECT_TRUE(root_fits(root98.c_str(), "test"));
    testing::internal::CaptureStdout();
    EXPECT_FALSE(root_fits((root98 + "r").c_str(), "test"));
    EXPECT_FALSE(root_fits(nullptr, "test"));
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "test : root path too long\ntest : no root path\n");

    Path p;
    const std::string strRoot = root98 + "/";
    EXPECT_TRUE(writer_video_stream(p, strRoot.c_str(), "20240229", 16, 23));
    EXPECT_EQ(std::string(p.text).size(), 127u);
    const std::string tooLong = strRoot + "x";
    EXPECT_FALSE(writer_video_stream(p, tooLong.c_str(), "20240229", 16, 23));
    EXPECT_STREQ(p.text, "");
}

TEST(Records, FrameHeaderRoundTripAndPayloadBytes) {
    unsigned char rec[64] = {};
    pack_frame_header(rec, 48, 1700000000, 0xdeadbeef, 0x00070009);
    rec[16 + 2] = 0x3f; // bits 7..6 clear: key frame
    rec[16 + 36] = 15;  // channel 16
    FrameInfo f{};
    ASSERT_TRUE(parse_frame(rec, sizeof rec, f));
    EXPECT_EQ(f.len, 48u);
    EXPECT_EQ(f.sec, 1700000000);
    EXPECT_EQ(f.sec2, 0xdeadbeefu);
    EXPECT_EQ(frame_scale(f), 9u);
    EXPECT_TRUE(f.key);
    EXPECT_EQ(f.channel, 16);
    const unsigned char le[4] = {48, 0, 0, 0};
    EXPECT_EQ(0, memcmp(rec, le, 4));

    rec[16 + 2] = 0x40;
    ASSERT_TRUE(parse_frame(rec, sizeof rec, f));
    EXPECT_FALSE(f.key);
    // Too short for the channel byte, or for the header.
    ASSERT_TRUE(parse_frame(rec, 20, f));
    EXPECT_EQ(f.channel, 0);
    EXPECT_FALSE(parse_frame(rec, 15, f));
}

TEST(Records, AudioRecordIs60BytesLittleEndian) {
    unsigned char piece[48];
    for (int i = 0; i < 48; ++i)
        piece[i] = static_cast<unsigned char>(i);
    unsigned char rec[60];
    pack_audio_record(rec, 0x01020304, 7, piece);
    const unsigned char head[12] = {48, 0, 0, 0, 4, 3, 2, 1, 7, 0, 0, 0};
    EXPECT_EQ(0, memcmp(rec, head, 12));
    EXPECT_EQ(0, memcmp(rec + 12, piece, 48));
    int32_t sec;
    uint32_t sec2;
    ASSERT_TRUE(parse_audio_record(rec, sec, sec2));
    EXPECT_EQ(sec, 0x01020304);
    rec[0] = 47;
    EXPECT_FALSE(parse_audio_record(rec, sec, sec2));
    static_assert(sizeof(VrixAudioBlock) == 200);
    static_assert(sizeof(EventRecord) == 140);
}

} // namespace
