// The sync interval: what a clean close and the syncer leave durable, and
// the setter's contract.
#include "core/sync_point.h"
#include "support/frames.h"
#include "support/power_cut.h"
#include "support/queues.h"

#include <sys/stat.h>

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>

namespace {

using namespace vrix::test;

constexpr int kHour10 = 1710064800; // 2024-03-10 10:00 UTC

long long size_of(const std::string &path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

struct Interval {
    explicit Interval(int ms) : before(vrix_db_set_sync_interval(ms)) {}
    ~Interval() { vrix_db_set_sync_interval(before); }
    int before;
};

TEST(Syncer, SetterReturnsThePreviousIntervalAndRefusesNegatives) {
    const int before = vrix_db_set_sync_interval(500);
    EXPECT_EQ(before, VRIX_DEFAULT_SYNC_INTERVAL_MS);
    EXPECT_EQ(vrix_db_set_sync_interval(-1), 500); // refused with a line
    EXPECT_EQ(vrix_db_set_sync_interval(before), 500);
}

// A clean close is durable at once; with syncing off a power cut right after
// it takes the new day with it, as before.
TEST(Syncer, CleanCloseSurvivesACutUnlessSyncingIsOff) {
    start_library();
    for (const int ms : {VRIX_DEFAULT_SYNC_INTERVAL_MS, 0}) {
        const Interval t(ms);
        ScratchDir dir;
        const std::string stream = dir.path() + "/20240310/video/2/10.stream";
        PowerCut layer;
        RecContext *ctx = vrix_db_open_rec_video(dir.path().c_str(), 3);
        ASSERT_NE(ctx, nullptr);
        const auto f = make_frame(2, kHour10, true, 300);
        record(ctx, f);
        vrix_db_close_rec_video(ctx);
        layer.restore();
        EXPECT_EQ(size_of(stream), ms ? static_cast<long long>(f.size()) : -1) << ms << " ms";
    }
}

#if VRIX_SYNC_POINTS
std::atomic<int> g_now{kHour10};
int test_clock() {
    return g_now.load();
}

// A channel that goes quiet has its buffer written out by the syncer once
// half the interval has passed on the library's clock.
TEST(Syncer, IdleChannelIsWrittenOutOffTheRecordingThread) {
    start_library();
    const Interval t(VRIX_DEFAULT_SYNC_INTERVAL_MS);
    const VrixTestHooks hooks{10000, test_clock};
    vrix_db_set_test_hooks(&hooks);
    std::mutex m;
    std::condition_variable cv;
    int looks = 0;
    vrix::set_sync_point("syncer:looked", [&] {
        const std::lock_guard hold(m);
        ++looks;
        cv.notify_all();
    });
    const auto wait_looks = [&](int n) {
        std::unique_lock hold(m);
        const int seen = looks;
        cv.wait(hold, [&] { return looks >= seen + n; });
    };
    ScratchDir dir;
    RecContext *ctx = vrix_db_open_rec_video(dir.path().c_str(), 3);
    ASSERT_NE(ctx, nullptr);
    wait_looks(2); // the first pass is behind us
    const auto f = make_frame(1, kHour10, true, 300);
    record(ctx, f);
    const std::string stream = dir.path() + "/20240310/video/1/10.stream";
    wait_looks(2);
    EXPECT_EQ(size_of(stream), 0); // less than half the interval has passed
    g_now += VRIX_DEFAULT_SYNC_INTERVAL_MS / 2000;
    wait_looks(2);
    EXPECT_EQ(size_of(stream), static_cast<long long>(f.size()));
    vrix_db_close_rec_video(ctx);
    vrix::clear_sync_points();
    vrix_db_set_test_hooks(nullptr);
}
#endif

} // namespace
