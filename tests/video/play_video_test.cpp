// Playing back what the writer recorded: location, stepping in both
// directions, modes, limits, a recording in progress, damaged data.
#include "play_fixture.h"

#include "support/opened_files.h"

#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>

namespace {

using namespace vrix::test;
using Bytes = std::vector<unsigned char>;

struct Closer {
    PlayContext *p;
    ~Closer() { vrix_db_close_get_video(p); }
};

std::vector<Bytes> forward_all(PlayContext *p, int limit = 100000) {
    std::vector<Bytes> out;
    while (static_cast<int>(out.size()) < limit && vrix_db_next_video(p) == 1)
        out.push_back(PlayVideo::delivered(p));
    return out;
}

TEST_F(PlayVideo, ForwardPlaysEverythingAcrossHourDayAndGap) {
    record_standard();
    PlayContext *p = open_play(kHour10 + 3590);
    ASSERT_NE(p, nullptr);
    Closer c{p};
    const auto got = forward_all(p);
    ASSERT_EQ(got.size(), written.size());
    for (size_t i = 0; i < got.size(); ++i)
        ASSERT_EQ(got[i], written[i].bytes) << "frame " << i;
    EXPECT_EQ(vrix_db_video_get_end(p), 1);
    EXPECT_EQ(vrix_db_next_video(p), 0);
}

TEST_F(PlayVideo, FirstStepLandsOnTheNearestKeyFrame) {
    record_standard();
    // Forward from a time between key frames: the next second's key frame.
    PlayContext *f = open_play(kHour10 + 3600 + 2);
    Closer cf{f};
    ASSERT_EQ(vrix_db_next_video(f), 1);
    EXPECT_EQ(delivered(f), written[36].bytes); // 11:00:02's key frame
    // Backward from the same time: that second's key frame.
    PlayContext *b = open_play(kHour10 + 3600 + 2);
    Closer cb{b};
    ASSERT_EQ(vrix_db_pre_video(b), 1);
    EXPECT_EQ(delivered(b), written[36].bytes);
    // Forward from before the first recording, backward from after the last.
    PlayContext *early = open_play(kDay);
    Closer ce{early};
    ASSERT_EQ(vrix_db_next_video(early), 1);
    EXPECT_EQ(delivered(early), written[0].bytes);
    PlayContext *late = open_play(kDay + 5 * 86400);
    Closer cl{late};
    ASSERT_EQ(vrix_db_pre_video(late), 1);
    EXPECT_EQ(delivered(late), written[written.size() - 3].bytes);
}

TEST_F(PlayVideo, BackwardDeliversEveryKeyFrameInReverse) {
    record_standard();
    PlayContext *p = open_play(kDay + 5 * 86400);
    Closer c{p};
    std::vector<Bytes> got;
    while (vrix_db_pre_video(p) == 1)
        got.push_back(delivered(p));
    std::vector<Bytes> keys;
    for (auto it = written.rbegin(); it != written.rend(); ++it)
        if (it->key) keys.push_back(it->bytes);
    EXPECT_EQ(got, keys);
    EXPECT_EQ(vrix_db_video_get_end(p), 1);
}

TEST_F(PlayVideo, KeyFrameModeWithStepCrossesTheHour) {
    record_standard();
    PlayContext *p = open_play(kHour10 + 3590);
    Closer c{p};
    vrix_db_video_set_i_mode(p, 1, 4);
    EXPECT_EQ(vrix_db_video_get_i_mode(p), 1);
    std::vector<int> secs;
    for (int i = 0; i < 5 && vrix_db_next_video(p) == 1; ++i) {
        int sec, sub;
        vrix_db_video_get_current_time(p, &sec, &sub);
        secs.push_back(sec - kHour10 - 3590);
        EXPECT_EQ(delivered(p), written[3 * static_cast<size_t>(sec - kHour10 - 3590)].bytes);
    }
    // 10:59:50, :54, :58, then past the hour's last key frame: 11:00:00.
    EXPECT_EQ(secs, (std::vector<int>{0, 4, 8, 10, 14}));
}

TEST_F(PlayVideo, SkipFrameLimit) {
    record_standard();
    for (int limit : {1, 2}) {
        PlayContext *p = open_play(kHour10 + 3590);
        Closer c{p};
        vrix_db_video_set_skip_frame(p, limit);
        const auto got = forward_all(p, 9);
        std::vector<Bytes> want;
        for (const auto &w : written) {
            const bool keep =
                w.key || (limit == 2 && &w != &written[0] && (&w - &written[0]) % 3 == 1);
            if (keep) want.push_back(w.bytes);
            if (want.size() == 9) break;
        }
        EXPECT_EQ(got, want) << "limit " << limit;
    }
}

TEST_F(PlayVideo, ReversalAtTheEndsOfTheRecording) {
    record_standard();
    // Forward to the very end, then back: the last key frame.
    PlayContext *p = open_play(kDay + 86400 + 3 * 3600 + 3);
    Closer c{p};
    while (vrix_db_next_video(p) == 1) {
    }
    // The step back from the end goes one key frame behind the last.
    ASSERT_EQ(vrix_db_pre_video(p), 1);
    EXPECT_EQ(delivered(p), written[written.size() - 6].bytes);
    // Backward past the first key frame, then forward: from the hour's first.
    PlayContext *q = open_play(kHour10 + 3591);
    Closer cq{q};
    ASSERT_EQ(vrix_db_pre_video(q), 1);
    ASSERT_EQ(vrix_db_pre_video(q), 1);
    EXPECT_EQ(delivered(q), written[0].bytes);
    EXPECT_EQ(vrix_db_pre_video(q), 0);
    EXPECT_EQ(vrix_db_video_get_end(q), 1);
    ASSERT_EQ(vrix_db_next_video(q), 1);
    EXPECT_EQ(delivered(q), written[0].bytes);
}

TEST_F(PlayVideo, MissingStreamFileIsPassedOver) {
    record_standard();
    ASSERT_EQ(std::remove(stream(kCh, 10).c_str()), 0);
    PlayContext *p = open_play(kHour10 + 3590);
    Closer c{p};
    ASSERT_EQ(vrix_db_next_video(p), 1);
    EXPECT_EQ(delivered(p), written[30].bytes); // 11:00:00
}

// A record longer than the buffer, or with time 0, is never delivered:
// reading resumes at the next indexed key frame.
TEST_F(PlayVideo, ImpossibleRecordsAreDropped) {
    record_standard();
    {
        // Zero the time of 10:59:51's first non-key frame (record 4).
        std::fstream f(stream(kCh, 10), std::ios::in | std::ios::out | std::ios::binary);
        long long at = 0;
        for (int i = 0; i < 4; ++i)
            at += static_cast<long long>(written[i].bytes.size());
        f.seekp(at + 4);
        f.write("\0\0\0\0", 4);
    }
    PlayContext *p = open_play(kHour10 + 3591);
    Closer c{p};
    const auto got = forward_all(p, 3);
    EXPECT_EQ(got, (std::vector<Bytes>{written[3].bytes, written[6].bytes, written[7].bytes}));
    PlayContext *small = open_play(kHour10 + 3590, 0, 250); // frames of 250+ bytes don't fit
    Closer cs{small};
    for (const auto &b : forward_all(small, 12))
        EXPECT_LE(b.size(), 16u + 250u);
}

// An index row that does not agree with its record is passed over.
TEST_F(PlayVideo, RowsThatDisagreeWithTheFileAreSkipped) {
    record_standard();
    sqlite3 *db = nullptr;
    ASSERT_EQ(sqlite3_open(video_db(kCh).c_str(), &db), SQLITE_OK);
    // 10:59:52's row names a non-key record; 10:59:51's row a wrong time.
    ASSERT_EQ(sqlite3_exec(db,
                           "update h10 set offset = offset + 1 where id = 3;"
                           "update h10 set sec = sec + 100 where id = 2;",
                           nullptr, nullptr, nullptr),
              SQLITE_OK);
    sqlite3_close(db);
    PlayContext *p = open_play(kHour10 + 3591);
    Closer c{p};
    ASSERT_EQ(vrix_db_next_video(p), 1);
    EXPECT_EQ(delivered(p), written[9].bytes); // 10:59:53, the first row that agrees
    PlayContext *b = open_play(kHour10 + 3592);
    Closer cb{b};
    ASSERT_EQ(vrix_db_pre_video(b), 1);
    EXPECT_EQ(delivered(b), written[0].bytes); // 10:59:50
}

// No start time is refused (other bad arguments: hostile_input_test).
TEST_F(PlayVideo, OpenRefusalsAndAccessors) {
    record_standard();
    testing::internal::CaptureStdout();
    EXPECT_EQ(vrix_db_open_get_video(nullptr, nullptr, 2, 4096, root().c_str()), nullptr);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 1) << out;

    PlayContext *p = open_play(kHour10 + 3590);
    Closer c{p};
    EXPECT_EQ(reinterpret_cast<uintptr_t>(p->pFrameBuf) % 16, 0u);
    vrix_db_video_set_end_time_forever(p); // not positioned: nothing
    ASSERT_EQ(vrix_db_next_video(p), 1);
    EXPECT_EQ(vrix_db_video_get_current_scale(p), 2);
    testing::internal::CaptureStdout();
    vrix_db_show_current_pos(p);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "ch2 current pos = 2\n");
    // A reset re-locates from the given time.
    vrix_db_video_reset_start_time(p, kHour10 + 3600, 1);
    ASSERT_EQ(vrix_db_next_video(p), 1);
    EXPECT_EQ(delivered(p), written[30].bytes);
}

// Finding a moment opens each file it needs once: date.db, the day's
// video.db and the hour's stream.  Crossing into the next recorded day asks
// the day played for a later hour, then opens the next day's video.db and
// stream once each.
TEST_F(PlayVideo, LocatingOpensEachFileOnce) {
    record_standard();
    std::multiset<std::string> at_open, after;
    bool first = false;
    {
        vrix::test::OpenedFiles opens;
        PlayContext *p = open_play(kHour10 + 3600 + 9);
        first = vrix_db_next_video(p) == 1;
        at_open = std::exchange(opens.names, {});
        for (int i = 0; i < 3 && vrix_db_next_video(p) == 1; ++i) {
        }
        vrix_db_close_get_video(p);
        after = opens.names;
    }
    ASSERT_TRUE(first);
    EXPECT_EQ(at_open, (std::multiset<std::string>{"date.db", "video.db", "11.stream"}));
    EXPECT_EQ(after, (std::multiset<std::string>{"video.db", "video.db", "3.stream"}));
}

// A player without end time follows a recording in progress: key frames
// indexed after it was opened are picked up, byte for byte.
TEST_F(PlayVideo, FollowsARecordingInProgress) {
    std::mutex m;
    std::condition_variable cv;
    const int total = 12;
    int wanted = 2; // seconds the recorder is asked to have written
    int done = 0;
    std::thread recorder([&] {
        for (int s = 0; s < total; ++s) {
            std::unique_lock<std::mutex> lk(m);
            cv.wait(lk, [&] { return s < wanted; });
            lk.unlock();
            record_span(kHour10 + s, 1);
            vrix_db_rec_video_flush(ctx, kCh);
            lk.lock();
            done = s + 1;
            cv.notify_all();
        }
    });
    auto run_ahead = [&](int seconds) {
        std::unique_lock<std::mutex> lk(m);
        wanted = std::min(total, seconds);
        cv.notify_all();
        cv.wait(lk, [&] { return done >= wanted; });
    };
    run_ahead(2);
    // The submit thread registers the day and hour in the background.
    for (int i = 0; i < 100000 && rows(video_db(kCh), "select hour from H").empty(); ++i)
        std::this_thread::yield();
    for (int i = 0; i < 100000 && rows(date_db(), "select date from ch2").empty(); ++i)
        std::this_thread::yield();

    PlayContext *p = open_play(kHour10);
    std::vector<Bytes> got;
    while (got.size() < static_cast<size_t>(total * 3)) {
        if (vrix_db_next_video(p) != 1) break;
        got.push_back(delivered(p));
        if (got.size() % 3 == 1) run_ahead(static_cast<int>(got.size() / 3) + 2);
    }
    run_ahead(total);
    recorder.join();
    vrix_db_close_get_video(p);
    ASSERT_EQ(got.size(), static_cast<size_t>(total * 3));
    for (size_t i = 0; i < got.size(); ++i)
        ASSERT_EQ(got[i], written[i].bytes) << i;
}

} // namespace
