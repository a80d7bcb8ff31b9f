// Playing back what the writer recorded, where the play model
// (play_model_test.cpp) does not reach: a missing hour file, index rows that
// disagree with their file, refusals, the files a location opens, and a
// recording in progress (frames still in the writer's buffer included).
// Location, stepping in both directions, modes, end times and damaged records
// are checked step by step against the model.
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

TEST_F(PlayVideo, MissingStreamFileIsPassedOver) {
    record_standard();
    ASSERT_EQ(std::remove(stream(kCh, 10).c_str()), 0);
    PlayContext *p = open_play(kHour10 + 3590);
    Closer c{p};
    ASSERT_EQ(vrix_db_next_video(p), 1);
    EXPECT_EQ(delivered(p), written[30].bytes); // 11:00:00
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

// (Bad arguments when opening: hostile_input_test.)
TEST_F(PlayVideo, Accessors) {
    record_standard();
    PlayContext *p = open_play(kHour10 + 3590);
    Closer c{p};
    EXPECT_EQ(reinterpret_cast<uintptr_t>(p->pFrameBuf) % 16, 0u);
    vrix_db_video_set_end_time_forever(p); // not positioned: nothing
    ASSERT_EQ(vrix_db_next_video(p), 1);
    EXPECT_EQ(vrix_db_video_get_current_scale(p), 2);
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

// A key frame whose row is committed while its record is still in the
// writer's buffer is not there yet: the player waits for it, never skips it.
TEST_F(PlayVideo, KeyFrameStillInTheWritersBufferIsNotSkipped) {
    auto put = [this](int sec, bool key) {
        auto f = make_frame(kCh, sec, key, 100, 0, static_cast<unsigned>(written.size()));
        record(ctx, f);
        written.push_back({sec, key, std::move(f)});
    };
    for (int i = 0; i < 10; ++i)
        put(kHour10 + i, i % 2 == 0);
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
        put(first, true); // row committed at once (scale 0), bytes buffered
        EXPECT_EQ(vrix_db_next_video(p), 0);
        vrix_db_video_reset_start_time(p, p->iFrameSec, 0);
        EXPECT_EQ(vrix_db_next_video(p), 0);
        vrix_db_rec_video_flush(ctx, kCh);
        vrix_db_video_reset_start_time(p, p->iFrameSec, 0);
        ASSERT_EQ(vrix_db_next_video(p), 1);
        EXPECT_EQ(p->iFrameSec, first);
    }
}

} // namespace
