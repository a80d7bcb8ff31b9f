// An hour file past 4 GiB (a channel at 8 Mbit/s writes 3.6 GB an hour): the
// writer resumes at its end, index rows hold offsets past 2^32, and playback
// seeks there in both directions.  On a 32-bit target whose off_t were 32
// bits wide every seek here would land at the offset modulo 2^32.
#include "video/play_fixture.h"

#include <fcntl.h>
#include <unistd.h>

namespace {

using namespace vrix::test;
using Bytes = std::vector<unsigned char>;

class LargeOffsets : public PlayVideo {};

// The frames of the hour moved behind a hole of `gap` bytes, the rows with them.
void move_behind_hole(const std::string &stream, const std::string &db, long long gap) {
    const Bytes bytes = file_bytes(stream);
    const int fd = ::open(stream.c_str(), O_WRONLY | O_TRUNC);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate(fd, gap), 0) << "a sparse file of " << gap << " bytes";
    ASSERT_EQ(pwrite(fd, bytes.data(), bytes.size(), gap), static_cast<ssize_t>(bytes.size()));
    ::close(fd);
    exec(db, "update h10 set offset = offset + " + std::to_string(gap) + ";");
}

TEST_F(LargeOffsets, RecordingAndPlaybackPastFourGiB) {
    // 2^32 + 2^31 + 13: past both limits, and no multiple of anything.
    constexpr long long kGap = (1LL << 32) + (1LL << 31) + 13;
    record_span(kHour10, 3);
    vrix_db_rec_video_flush(ctx, kCh);
    close();
    move_behind_hole(stream(kCh, 10), video_db(kCh), kGap);

    // The writer resumes behind the hole and goes on at the file's end.
    open();
    record_span(kHour10 + 3, 3);
    vrix_db_rec_video_flush(ctx, kCh);
    close();
    long long bytes = 0;
    for (const auto &w : written)
        bytes += static_cast<long long>(w.bytes.size());
    EXPECT_EQ(size_of(stream(kCh, 10)), kGap + bytes);
    const auto offsets = rows(video_db(kCh), "select offset from h10 order by id;");
    ASSERT_EQ(offsets.size(), 6u);
    EXPECT_EQ(std::stoll(offsets.front()), kGap);
    EXPECT_GT(std::stoll(offsets.back()), kGap);

    // Forward play delivers every frame, backward every key frame.
    PlayContext *p = open_play(kHour10);
    ASSERT_NE(p, nullptr);
    std::vector<Bytes> got;
    while (got.size() < 100 && vrix_db_next_video(p) == 1)
        got.push_back(delivered(p));
    vrix_db_close_get_video(p);
    ASSERT_EQ(got.size(), written.size());
    for (size_t i = 0; i < got.size(); ++i)
        EXPECT_EQ(got[i], written[i].bytes) << "frame " << i;

    p = open_play(kHour10 + 60);
    ASSERT_NE(p, nullptr);
    std::vector<int> keys;
    while (keys.size() < 100 && vrix_db_pre_video(p) == 1)
        keys.push_back(p->iFrameSec);
    vrix_db_close_get_video(p);
    EXPECT_EQ(keys, (std::vector<int>{kHour10 + 5, kHour10 + 4, kHour10 + 3, kHour10 + 2,
                                      kHour10 + 1, kHour10}));
}

} // namespace
