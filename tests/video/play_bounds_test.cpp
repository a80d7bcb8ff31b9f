// Playback at the edges of what it may deliver: times outside the hour being
// played, reversals, end times, key frames still in the writer's buffer, and
// starts that find nothing.
#include "play_fixture.h"

#include <fstream>
#include <set>

namespace {

using namespace vrix::test;

struct Closer {
    PlayContext *p;
    ~Closer() { vrix_db_close_get_video(p); }
};

class PlayBounds : public PlayVideo {
  protected:
    // One frame of channel kCh; its sequence number is its index in `written`.
    void put(int sec, bool key, int payload) {
        auto f = make_frame(kCh, sec, key, payload, 0, static_cast<unsigned>(written.size()));
        record(ctx, f);
        written.push_back({sec, key, std::move(f)});
    }
    // `count` frames from `from`, `per_second` a second, a key frame every
    // `every`, payloads from `size(i)`.
    template <class Size> void put_run(int from, int count, int per_second, int every, Size size) {
        for (int i = 0; i < count; ++i)
            put(from + i / per_second, i % every == 0, size(i));
    }
    void finish() {
        vrix_db_rec_video_flush(ctx, kCh);
        close();
    }
    // Overwrites 4 bytes at `at` of written record `i` in its hour file.
    void patch_word(size_t i, int at, uint32_t value) {
        long long offset = 0;
        const int hour = written[i].sec / 3600;
        for (size_t j = 0; j < i; ++j)
            if (written[j].sec / 3600 == hour)
                offset += static_cast<long long>(written[j].bytes.size());
        std::fstream f(stream(kCh, (written[i].sec - kDay) / 3600),
                       std::ios::in | std::ios::out | std::ios::binary);
        f.seekp(offset + at);
        const char b[4] = {char(value), char(value >> 8), char(value >> 16), char(value >> 24)};
        f.write(b, 4);
    }
    // The sequence numbers (indexes in `written`) of up to `limit` steps.
    static std::vector<int> seqs(PlayContext *p, int (*step)(PlayContext *), int limit = 1000) {
        std::vector<int> out;
        while (static_cast<int>(out.size()) < limit && step(p) == 1)
            out.push_back(p->iFrameSubTime);
        return out;
    }
};

// A non-key frame whose time word says 1980 is damage, not a frame to deliver;
// the crossing after the hour starts from the hour played, so play ends.
TEST_F(PlayBounds, TimeOutsideTheHourIsDamageAndPlayEnds) {
    put_run(kHour10 - 3600, 10, 1, 5, [](int) { return 300; }); // 09:00, earlier that day
    put_run(kHour10, 200, 5, 10, [](int i) {
        return 40 + static_cast<int>((static_cast<uint32_t>(i) * 2654435761u >> 11) % 5001u);
    });
    finish();
    // Frames 155 and 187 of the hour say 1980; after 187 the hour has nothing
    // left that fits the buffer, so the crossing follows it at once.
    patch_word(10 + 155, 4, 315532800 + 4321);
    patch_word(10 + 187, 4, 315532800 + 4321);
    PlayContext *p = open_play(kHour10, 0, 4096);
    Closer c{p};
    const auto got = seqs(p, vrix_db_next_video);
    ASSERT_LT(got.size(), 200u) << "play did not end";
    std::set<int> seen;
    for (size_t k = 0; k < got.size(); ++k) {
        const auto &w = written[static_cast<size_t>(got[k])];
        EXPECT_TRUE(seen.insert(got[k]).second) << "frame " << got[k] << " twice";
        EXPECT_TRUE(got[k] != 165 && got[k] != 197) << "a damaged frame was delivered";
        EXPECT_GE(w.sec, kHour10);
        if (k) {
            EXPECT_GT(got[k], got[k - 1]);
        }
    }
    // The rest of the damaged frame's group is dropped; later groups play.
    EXPECT_TRUE(seen.count(10 + 154) && !seen.count(10 + 156) && seen.count(10 + 160));
    EXPECT_TRUE(seen.count(10 + 170) && seen.count(10 + 186));
}

// Forward after a backward step reads on past the key frame just delivered,
// and a record too large for the buffer skips only its own group.
TEST_F(PlayBounds, ForwardAfterBackwardDoesNotRepeat) {
    put_run(kHour10, 20, 1, 5, [](int i) { return i == 12 ? 5000 : 300; });
    finish();
    PlayContext *p = open_play(kHour10 + 7);
    Closer c{p};
    ASSERT_EQ(vrix_db_pre_video(p), 1);
    EXPECT_EQ(p->iFrameSubTime, 5);
    EXPECT_EQ(seqs(p, vrix_db_next_video, 8), (std::vector<int>{6, 7, 8, 9, 10, 11, 15, 16}));
    // The reversal back delivers the key frame of the group just played.
    ASSERT_EQ(vrix_db_pre_video(p), 1);
    EXPECT_EQ(p->iFrameSubTime, 15);
}

// Play stops at the end time in every mode: key-frame mode does not run into
// the next hour, and an end time in a gap does not deliver the next hour.
TEST_F(PlayBounds, EndTimeHoldsInEveryMode) {
    put_run(kHour10, 4200, 1, 5, [](int) { return 40; }); // 10:00 .. 11:10
    finish();
    PlayContext *p = open_play(kHour10 + 29 * 60, kHour10 + 30 * 60 + 2);
    Closer c{p};
    vrix_db_video_set_i_mode(p, 1, 3);
    std::vector<int> secs;
    while (vrix_db_next_video(p) == 1 && secs.size() < 100)
        secs.push_back(p->iFrameSec - kHour10 - 29 * 60);
    EXPECT_EQ(secs, (std::vector<int>{0, 15, 30, 45, 60}));
    EXPECT_EQ(vrix_db_video_get_end(p), 1);
    // Backward from after the end time starts at the end time.
    PlayContext *b = open_play(kHour10 + 50 * 60, kHour10 + 30 * 60 + 2);
    Closer cb{b};
    ASSERT_EQ(vrix_db_pre_video(b), 1);
    EXPECT_EQ(b->iFrameSec, kHour10 + 30 * 60);
}

TEST_F(PlayBounds, EndTimeInAGapStopsBeforeTheNextHour) {
    put_run(kHour10, 10, 1, 5, [](int) { return 40; });
    put_run(kHour10 + 2 * 3600, 10, 1, 5, [](int) { return 40; });
    finish();
    for (int mode : {0, 1}) {
        PlayContext *p = open_play(kHour10, kHour10 + 3600);
        Closer c{p};
        vrix_db_video_set_i_mode(p, mode, 1);
        const auto got = seqs(p, vrix_db_next_video);
        EXPECT_EQ(got.size(), mode ? 2u : 10u) << "mode " << mode;
        for (int s : got)
            EXPECT_LT(s, 10) << "mode " << mode;
    }
    // An end time inside the hour: the key frame after it is not delivered.
    PlayContext *p = open_play(kHour10, kHour10 + 6);
    Closer c{p};
    EXPECT_EQ(seqs(p, vrix_db_next_video), (std::vector<int>{0, 1, 2, 3, 4, 5, 6}));
}

// A key frame whose row is committed while its record is still in the
// writer's buffer is not there yet: the player waits for it, never skips it.
TEST_F(PlayBounds, KeyFrameStillInTheWritersBufferIsNotSkipped) {
    put_run(kHour10, 10, 1, 2, [](int) { return 100; });
    vrix_db_rec_video_flush(ctx, kCh);
    for (int mode : {1, 0}) {
        SCOPED_TRACE(mode);
        const int first = written.back().sec + 1;
        PlayContext *p = open_play(first - 2);
        Closer c{p};
        vrix_db_video_set_i_mode(p, mode, 1);
        ASSERT_EQ(vrix_db_next_video(p), 1);
        while (vrix_db_next_video(p) == 1) {
        }
        put(first, true, 100); // row committed at once (scale 0), bytes buffered
        EXPECT_EQ(vrix_db_next_video(p), 0);
        vrix_db_video_reset_start_time(p, p->iFrameSec, 0);
        EXPECT_EQ(vrix_db_next_video(p), 0);
        vrix_db_rec_video_flush(ctx, kCh);
        vrix_db_video_reset_start_time(p, p->iFrameSec, 0);
        ASSERT_EQ(vrix_db_next_video(p), 1);
        EXPECT_EQ(p->iFrameSec, first);
    }
}

// A start before 1970 plays forward from the first recording; a first
// backward step that finds nothing does not stop forward play.
TEST_F(PlayBounds, StartsThatFindNothingBackward) {
    put_run(kHour10, 10, 1, 5, [](int) { return 40; });
    finish();
    std::tm t{};
    t.tm_year = 69;
    t.tm_mon = 11;
    t.tm_mday = 31;
    t.tm_hour = 12;
    PlayContext *p = vrix_db_open_get_video(&t, nullptr, kCh, 4096, root().c_str());
    Closer c{p};
    ASSERT_EQ(vrix_db_next_video(p), 1);
    EXPECT_EQ(p->iFrameSubTime, 0);
    PlayContext *q = open_play(kHour10 - 100);
    Closer cq{q};
    EXPECT_EQ(vrix_db_pre_video(q), 0);
    EXPECT_EQ(seqs(q, vrix_db_next_video).size(), 10u);
}

} // namespace
