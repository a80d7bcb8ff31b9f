// KNOWN DEFECTS: regression tests for library faults the reliability suite
// found and that are not fixed yet.  They fail today, so they are disabled;
// run them with --gtest_also_run_disabled_tests, and drop the DISABLED_
// prefix together with the fix.
#include "support/frames.h"
#include "support/queues.h"

#include <sys/msg.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

namespace {

using namespace vrix::test;

constexpr int kHour10 = 1710064800; // 2024-03-10 10:00 UTC
constexpr int kDay = 1710028800;

std::string video_db(const std::string &root, int ch) {
    return root + "/20240310/video/" + std::to_string(ch) + "/video.db";
}

template <typename F> bool eventually(F done, int ms = 5000) {
    for (int i = 0; i < ms; ++i) {
        if (done()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
}

int queued(int queue) {
    msqid_ds q{};
    return msgctl(queue, IPC_STAT, &q) == 0 ? static_cast<int>(q.msg_qnum) : -1;
}

// The submit thread takes an hour message off its queue before it stores the
// registration.  When the process dies in between (here: while the thread
// waits for the date.db mutex, as it does behind a slow fsync), the message is
// gone and nothing sends it again once recording has moved on to a later
// hour: the hour's frames lie on disk, indexed, and playback never finds them.
// The crash harness meets this after a few kills ("frames stranded in
// unregistered hours").
TEST(KnownDefect, DISABLED_HourRegistrationLostWithTheProcess) {
    if (g_pDateSqlMutex) GTEST_SKIP() << "needs a process that has not started the library";
    ScratchDir dir;
    const std::string root = dir.path();
    remove_stale_queues();
    std::fflush(stdout);
    const pid_t pid = fork();
    if (pid == 0) {
        if (vrix_db_init(app_queue()) != 1) _exit(3);
        RecContext *ctx = vrix_db_open_rec_video(root.c_str(), 3);
        record(ctx, make_frame(1, kHour10, true, 100));
        if (!eventually([&] { return !rows(video_db(root, 1), "select hour from H").empty(); }))
            _exit(4);
        pthread_mutex_lock(g_pDateSqlMutex); // the thread's next date.db access waits
        for (int s = 0; s < 20; ++s)
            record(ctx, make_frame(2, kHour10 + s, s % 5 == 0, 300, 0, static_cast<unsigned>(s)));
        vrix_db_rec_video_flush(ctx, 2);
        if (!eventually([] { return queued(g_iSubmitMq) == 0; })) _exit(5);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        _exit(0); // the process dies with the hour message in the thread's hands
    }
    int status = 0;
    waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    ASSERT_EQ(rows(video_db(root, 2), "select count(*) from h10"), std::vector<std::string>{"4"});

    // The recorder comes back two hours later; channel 2's hour 10 must still
    // play.
    start_library();
    RecContext *ctx = vrix_db_open_rec_video(root.c_str(), 3);
    ASSERT_NE(ctx, nullptr);
    record(ctx, make_frame(2, kHour10 + 7200, true, 100, 0, 99));
    vrix_db_rec_video_flush(ctx, 2);
    vrix_db_close_rec_video(ctx);
    const time_t t = kHour10;
    std::tm start{};
    gmtime_r(&t, &start);
    PlayContext *p = vrix_db_open_get_video(&start, nullptr, 2, 4096, root.c_str());
    ASSERT_NE(p, nullptr);
    ASSERT_EQ(vrix_db_next_video(p), 1);
    int sec = 0, seq = 0;
    vrix_db_video_get_current_time(p, &sec, &seq);
    vrix_db_close_get_video(p);
    EXPECT_EQ(sec, kHour10) << "hour 10 of channel 2 is not found";
    (void)kDay;
}

// The writer stores frames of any size (131072 bytes and more go to the file
// directly), but rebuilding an index ends the hour at the first payload above
// 131072 bytes: after a repair every frame behind such a key frame is out of
// reach.  The crash harness writes such frames now and then.
TEST(KnownDefect, DISABLED_RebuiltIndexStopsAtLargeFrames) {
    start_library();
    ScratchDir dir;
    const std::string root = dir.path();
    const std::vector<std::vector<unsigned char>> frames = {
        make_frame(1, kHour10, true, 100, 0, 0), make_frame(1, kHour10 + 1, true, 140000, 0, 1),
        make_frame(1, kHour10 + 2, true, 100, 0, 2), make_frame(1, kHour10 + 2, false, 100, 0, 3)};
    RecContext *ctx = vrix_db_open_rec_video(root.c_str(), 2);
    ASSERT_NE(ctx, nullptr);
    for (const auto &f : frames)
        record(ctx, f);
    vrix_db_rec_video_flush(ctx, 1);
    vrix_db_close_rec_video(ctx);
    ASSERT_EQ(std::remove(video_db(root, 1).c_str()), 0); // lost with the power
    vrix_db_correct_video((root + "/20240310/video/1/").c_str());

    const time_t t = kHour10;
    std::tm start{};
    gmtime_r(&t, &start);
    PlayContext *p = vrix_db_open_get_video(&start, nullptr, 1, 1 << 18, root.c_str());
    ASSERT_NE(p, nullptr);
    std::vector<int> seqs;
    while (vrix_db_next_video(p) == 1) {
        int sec = 0, seq = 0;
        vrix_db_video_get_current_time(p, &sec, &seq);
        seqs.push_back(seq);
    }
    vrix_db_close_get_video(p);
    EXPECT_EQ(seqs, (std::vector<int>{0, 1, 2, 3}));
}

} // namespace
