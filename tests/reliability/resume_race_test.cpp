// A resume racing the submit thread, found by the kill harness.
#include "support/frames.h"
#include "support/queues.h"

#include <sys/msg.h>

#include <algorithm>

namespace {

using namespace vrix::test;

constexpr int kHour10 = 1710064800; // 2024-03-10 10:00 UTC
constexpr int kDay = 1710028800;

// Resuming an hour while the submit thread answers hour messages: the resume
// must read its own query results, or it takes the newest row for one that
// disagrees with the file and cuts away the key frame before it.  The kill
// harness found this; ThreadSanitizer reports the race at the first resume.
TEST(ResumeRace, ResumeWhileTheSubmitThreadIsBusy) {
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
    for (int i = 2; i < 60; ++i) {
        for (int m = 0; m < 40; ++m)
            ASSERT_EQ(msgsnd(g_iSubmitMq, &hour, VRIX_MSG_TEXT_SIZE, 0), 0);
        ctx = vrix_db_open_rec_video(root.c_str(), 3);
        ASSERT_NE(ctx, nullptr);
        // Resuming restarts at the newest row; the first frame must survive.
        record(ctx, make_frame(1, kHour10 + i, true, 200, 0, static_cast<unsigned>(i)));
        vrix_db_rec_video_flush(ctx, 1);
        vrix_db_close_rec_video(ctx);
        const auto bytes = file_bytes(root + "/20240310/video/1/10.stream");
        ASSERT_GE(bytes.size(), a.size());
        ASSERT_TRUE(std::equal(a.begin(), a.end(), bytes.begin()))
            << "the first key frame was cut away at resume " << i;
    }
}

} // namespace
