// A resume racing the submit thread, found by the kill harness.
#include "core/sync_point.h"
#include "support/frames.h"
#include "support/queues.h"

#include <sys/msg.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>

namespace {

using namespace vrix::test;

constexpr int kHour10 = 1710064800; // 2024-03-10 10:00 UTC
constexpr int kDay = 1710028800;

// Resuming an hour while the submit thread answers hour messages: the resume
// must read its own query results, or it takes the newest row for one that
// disagrees with the file and cuts away the key frame before it.  The kill
// harness found this.  The sync points make the submit thread carry out an
// hour message between the resume's index query and its reading the result.
TEST(ResumeRace, ResumeWhileTheSubmitThreadIsBusy) {
#if !VRIX_SYNC_POINTS
    GTEST_SKIP() << "sync points are compiled out in this build (Release)";
#else
    start_library();
    ScratchDir dir;
    const std::string root = dir.path();
    const auto a = make_frame(1, kHour10, true, 200);
    RecContext *ctx = vrix_db_open_rec_video(root.c_str(), 3);
    ASSERT_NE(ctx, nullptr);
    record(ctx, a);
    record(ctx, make_frame(1, kHour10 + 1, true, 200, 0, 1));
    record(ctx, make_frame(2, kHour10, true, 200)); // channel 2's hour is registered
    vrix_db_rec_video_flush(ctx, 1);
    vrix_db_close_rec_video(ctx);

    NotifyMessage hour{};
    hour.mtype = 1;
    hour.mtext[0] = VRIX_MSG_HOUR;
    hour.mtext[1] = 2;
    hour.mtext[2] = 10;
    std::memcpy(hour.mtext + 4, &kDay, 4);

    std::mutex m;
    std::condition_variable cv;
    bool sent = false, handled = false;
    auto queued = [] {
        msqid_ds st{};
        return msgctl(g_iSubmitMq, IPC_STAT, &st) == 0 ? st.msg_qnum : 1;
    };
    // The submit thread is between messages: once ours was sent and the queue
    // is empty, ours has been carried out.
    vrix::set_sync_point("submit_thread:message_handled", [&] {
        std::lock_guard<std::mutex> hold(m);
        if (sent && queued() == 0) {
            handled = true;
            cv.notify_all();
        }
    });
    vrix::set_sync_point("rec_video:resume_row_read", [&] {
        std::unique_lock<std::mutex> hold(m);
        if (sent) return;
        sent = msgsnd(g_iSubmitMq, &hour, VRIX_MSG_TEXT_SIZE, 0) == 0;
        cv.wait_for(hold, std::chrono::seconds(20), [&] { return handled; });
    });

    ctx = vrix_db_open_rec_video(root.c_str(), 3);
    ASSERT_NE(ctx, nullptr);
    // Resuming restarts at the newest row; the first frame must survive.
    record(ctx, make_frame(1, kHour10 + 2, true, 200, 0, 2));
    vrix_db_rec_video_flush(ctx, 1);
    vrix_db_close_rec_video(ctx);
    vrix::clear_sync_points();

    EXPECT_TRUE(sent && handled) << "the submit thread did not step in during the resume";
    const auto bytes = file_bytes(root + "/20240310/video/1/10.stream");
    ASSERT_GE(bytes.size(), a.size());
    EXPECT_TRUE(std::equal(a.begin(), a.end(), bytes.begin()))
        << "the first key frame was cut away at the resume";
#endif
}

} // namespace
