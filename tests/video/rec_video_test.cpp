// Recording video end to end against real files and SQLite databases.
#include "rec_fixture.h"

#include <thread>

namespace {

using namespace vrix::test;
using Bytes = std::vector<unsigned char>;

Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const auto &p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

TEST_F(RecVideo, FirstFrameLaysOutDayHourAndNextDay) {
    const Bytes f = make_frame(3, kHour10 + 5, true, 100);
    record(ctx, f);
    close(); // the submit thread has handled everything queued by now

    EXPECT_EQ(file_bytes(stream(3, 10)), f);
    const std::string day = std::to_string(kDay);
    EXPECT_EQ(rows(date_db(), "select date from H"), std::vector<std::string>{day});
    EXPECT_EQ(rows(date_db(), "select date from ch3"), std::vector<std::string>{day});
    EXPECT_TRUE(rows(date_db(), "select date from ch4").empty());
    EXPECT_EQ(rows(video_db(3), "select hour from H"), std::vector<std::string>{"10"});
    EXPECT_EQ(rows(video_db(3), "select id,sec,offset from h10"),
              std::vector<std::string>{"1," + std::to_string(kHour10 + 5) + ",0"});
    // Tomorrow is prepared ahead: directories and empty databases.
    for (int n = 1; n <= 16; ++n)
        EXPECT_EQ(size_of(video_db(n, "20240311")), 0) << n;
}

// Rows wait until their number exceeds the threshold of the scale.
TEST_F(RecVideo, CommitThresholdsPerScale) {
    struct Case {
        int ch;
        unsigned scale;
        int keys_before_commit;
    } cases[] = {{1, 0, 1}, {2, 1, 6}, {3, 2, 11}, {4, 9, 3}};
    for (const Case &c : cases) {
        for (int k = 1; k <= c.keys_before_commit; ++k) {
            record(ctx, make_frame(c.ch, kHour10 + k, true, 64, c.scale));
            record(ctx, make_frame(c.ch, kHour10 + k, false, 40, c.scale));
            const auto n = rows(video_db(c.ch), "select count(*) from h10");
            if (k < c.keys_before_commit)
                EXPECT_TRUE(n.empty() || n[0] == "0") << "scale " << c.scale << " key " << k;
            else
                EXPECT_EQ(n, std::vector<std::string>{std::to_string(k)}) << "scale " << c.scale;
        }
    }
}

// Rows of an hour whose table was never created travel into the next hour's
// first commit, and both tables exist afterwards.
TEST_F(RecVideo, RowsCarriedIntoTheNextHour) {
    for (int s = 0; s < 3; ++s)
        record(ctx, make_frame(2, kHour10 + 3590 + s, true, 64, 2));
    record(ctx, make_frame(2, kHour10 + 3600, true, 64, 0));
    EXPECT_EQ(rows(video_db(2), "select count(*) from h10"), std::vector<std::string>{"3"});
    EXPECT_EQ(rows(video_db(2), "select offset from h11"), std::vector<std::string>{"0"});
    close();
    EXPECT_EQ(rows(video_db(2), "select hour from H order by hour"),
              (std::vector<std::string>{"10", "11"}));
}

// A frame equal to the free room writes the buffer out first; a frame of
// 128 KiB or more goes to the file directly after it.
TEST_F(RecVideo, WriteBehindBufferBoundaries) {
    const Bytes a = make_frame(4, kHour10, true, 100000 - 16);
    record(ctx, a);
    EXPECT_EQ(channel(4).iBufLen, 100000);
    EXPECT_EQ(size_of(stream(4, 10)), 0);
    const Bytes equal = make_frame(4, kHour10, false, 31072 - 16); // exactly the free room
    record(ctx, equal);
    EXPECT_EQ(size_of(stream(4, 10)), 100000);
    EXPECT_EQ(channel(4).iBufLen, 31072);
    const Bytes fits = make_frame(4, kHour10, false, 99999 - 16); // one byte less than the room
    record(ctx, fits);
    EXPECT_EQ(channel(4).iBufLen, 131071);
    EXPECT_EQ(size_of(stream(4, 10)), 100000);
    const Bytes big = make_frame(4, kHour10, false, 131072 - 16);
    record(ctx, big);
    EXPECT_EQ(channel(4).iBufLen, 0);
    EXPECT_EQ(file_bytes(stream(4, 10)), concat({a, equal, fits, big}));
    EXPECT_EQ(channel(4).llOffset, 100000 + 131071 + 131072);
}

// Rows never stand in an index that playback cannot reach: the writer
// registers their day and hour itself before committing them, so losing the
// submit thread's queue (a process killed with registrations still queued)
// loses no footage.
TEST_F(RecVideo, CommittedRowsAreRegisteredWithoutTheSubmitThread) {
    vrix_db_rec_close_thread(); // the thread serves nothing from here on
    for (int s = 0; s < 3; ++s)
        record(ctx, make_frame(2, kHour10 + s, true, 100));
    record(ctx, make_frame(2, kHour10 + 3600, true, 100));
    NotifyMessage m{};
    int dropped = 0;
    while (msgrcv(g_iSubmitMq, &m, 128, 0, IPC_NOWAIT) >= 0)
        ++dropped; // the queue is lost
    EXPECT_GE(dropped, 3);
    const std::string day = std::to_string(kDay);
    EXPECT_EQ(rows(date_db(), "select date from ch2"), std::vector<std::string>{day});
    EXPECT_EQ(rows(date_db(), "select date from H"), std::vector<std::string>{day});
    EXPECT_EQ(rows(video_db(2), "select hour from H order by hour"),
              (std::vector<std::string>{"10", "11"}));
    close();
    std::tm start = local_tm(kHour10);
    PlayContext *p = vrix_db_open_get_video(&start, nullptr, 2, 4096, root().c_str());
    ASSERT_NE(p, nullptr);
    int n = 0;
    while (vrix_db_next_video(p) == 1)
        ++n;
    vrix_db_close_get_video(p);
    EXPECT_EQ(n, 4);
}

// (A second writer context, bad roots and counts: hostile_input_test.)
TEST_F(RecVideo, OpenCounts) {
    close();
    // Counts 0 and 1 give contexts without usable channels.
    for (int count : {0, 1}) {
        RecContext *c = vrix_db_open_rec_video(root().c_str(), count);
        ASSERT_NE(c, nullptr);
        vrix_db_close_rec_video(c);
    }
    open();
}

TEST_F(RecVideo, DateDbThatCannotOpenStillGivesAContext) {
    close();
    // date.db is a directory there.
    const std::string bad = root() + "/other";
    ASSERT_EQ(mkdir(bad.c_str(), 0700), 0);
    ASSERT_EQ(mkdir((bad + "/date.db").c_str(), 0700), 0);
    testing::internal::CaptureStdout();
    ctx = vrix_db_open_rec_video(bad.c_str(), 17);
    const std::string out = testing::internal::GetCapturedStdout(); // then how it is synced
    EXPECT_EQ(out.rfind("vrix_db_open_rec_video : open sqlite fail\n", 0), 0u) << out;
    ASSERT_NE(ctx, nullptr);
    EXPECT_EQ(ctx->pDateDb, nullptr);
}

} // namespace
