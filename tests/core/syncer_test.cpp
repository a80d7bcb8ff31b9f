// The sync interval: what a clean close and the syncer leave durable in
// either way of syncing, what a failed or slow sync tells the application,
// and the setter's contract.
#include "core/sync_point.h"
#include "core/syncer.h"
#include "support/frames.h"
#include "support/lines.h"
#include "support/power_cut.h"
#include "support/queues.h"

#include <sys/msg.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <string>
#include <vector>

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

// Stores opened while it lives are synced file by file (or not).
struct EachFile {
    explicit EachFile(bool on) { vrix::sync_each_file_everywhere(on); }
    ~EachFile() { vrix::sync_each_file_everywhere(false); }
};

// Disk-error messages waiting on the application's queue (taken off it).
int disk_errors() {
    int n = 0;
    NotifyMessage m;
    while (msgrcv(app_queue(), &m, VRIX_MSG_TEXT_SIZE, 0, IPC_NOWAIT) >= 0)
        n += m.mtext[0] == VRIX_MSG_DISK_ERROR;
    return n;
}

// A clean close is durable at once, whichever way the store is synced (file
// by file, every new directory and the stream file must be synced); with
// syncing off a power cut right after it takes the new day with it.
TEST(Syncer, CleanCloseSurvivesACutUnlessSyncingIsOff) {
    start_library();
    for (const int ms : {VRIX_DEFAULT_SYNC_INTERVAL_MS, -1, 0}) {
        const EachFile each(ms < 0);
        const Interval t(ms < 0 ? VRIX_DEFAULT_SYNC_INTERVAL_MS : ms);
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

// Fails the syncs of one kind under a directory with EIO.
class FailSyncs : public vrix::io::Observer {
  public:
    FailSyncs(vrix::io::Op op, std::string under) : op_(op), under_(std::move(under)) {
        vrix::io::set_observer(this);
    }
    ~FailSyncs() override { vrix::io::set_observer(nullptr); }
    void before(const vrix::io::Access &) override {}
    vrix::io::Fault fault(const vrix::io::Access &a) override {
        const std::string path = a.path ? a.path : "";
        // The databases' own syncs are SQLite's business, not the syncer's.
        const bool ours =
            a.op == vrix::io::Op::SyncAll || path.find(".stream") != std::string::npos;
        if (a.op == op_ && ours && path.rfind(under_, 0) == 0) return {EIO};
        return {};
    }

  private:
    vrix::io::Op op_;
    std::string under_;
};

// A failed sync, either way, reaches the application once per run of
// failures and stays in the store's sync state; the next sync that succeeds
// makes the store durable again.
TEST(Syncer, FailedSyncsReachTheApplication) {
    start_library();
    const Interval t(VRIX_DEFAULT_SYNC_INTERVAL_MS);
    VrixSyncState st{};
    EXPECT_EQ(vrix_db_get_sync_state("/nonexistent", &st), 0);
    for (const bool each : {false, true}) {
        const EachFile e(each);
        ScratchDir dir;
        disk_errors();
        {
            const FailSyncs fail(each ? vrix::io::Op::Sync : vrix::io::Op::SyncAll, dir.path());
            RecContext *ctx = vrix_db_open_rec_video(dir.path().c_str(), 3);
            ASSERT_NE(ctx, nullptr);
            record(ctx, make_frame(2, kHour10, true, 300));
            ASSERT_EQ(vrix_db_get_sync_state((dir.path() + "/").c_str(), &st), 1);
            EXPECT_EQ(st.way, each ? VRIX_SYNC_EACH_FILE : VRIX_SYNC_FILE_SYSTEM);
            vrix_db_close_rec_video(ctx); // the close's sync fails too
        }
        EXPECT_EQ(disk_errors(), 1) << each;
        ASSERT_EQ(vrix_db_get_sync_state(dir.path().c_str(), &st), 1);
        EXPECT_EQ(st.way, VRIX_SYNC_NONE); // closed
        EXPECT_EQ(st.last_error, EIO);
        EXPECT_GE(st.failed_passes, 1u);
        EXPECT_EQ(st.failed_passes, st.passes);
        EXPECT_EQ(st.durable_ms, 0);

        RecContext *ctx = vrix_db_open_rec_video(dir.path().c_str(), 3);
        ASSERT_NE(ctx, nullptr);
        vrix_db_close_rec_video(ctx);
        EXPECT_EQ(disk_errors(), 0);
        ASSERT_EQ(vrix_db_get_sync_state(dir.path().c_str(), &st), 1);
        EXPECT_EQ(st.last_error, 0); // a state is of the store's latest opening
        EXPECT_GT(st.durable_ms, 0);
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

// Holds every syncfs at a gate until opened.
class SyncGate : public vrix::io::Observer {
  public:
    SyncGate() { vrix::io::set_observer(this); }
    ~SyncGate() override { vrix::io::set_observer(nullptr); }
    void before(const vrix::io::Access &a) override {
        if (a.op != vrix::io::Op::SyncAll) return;
        std::unique_lock hold(m_);
        ++waiting_;
        cv_.notify_all();
        cv_.wait(hold, [&] { return open_; });
    }
    void wait_for_sync() {
        std::unique_lock hold(m_);
        cv_.wait(hold, [&] { return waiting_ > 0; });
    }
    void open() {
        const std::lock_guard hold(m_);
        open_ = true;
        cv_.notify_all();
    }

  private:
    std::mutex m_;
    std::condition_variable cv_;
    int waiting_ = 0;
    bool open_ = false;
};

// A sync that hangs on the disk holds neither the setter nor anything else
// that takes the syncer's lock; once it ends after more than T/2 on the
// library's clock, one line says so and the state counts it.
TEST(Syncer, SlowSyncBlocksNothingAndIsReported) {
    start_library();
    const Interval t(VRIX_DEFAULT_SYNC_INTERVAL_MS);
    g_now = kHour10;
    const VrixTestHooks hooks{10000, test_clock};
    vrix_db_set_test_hooks(&hooks);
    Lines lines;
    ScratchDir dir;
    SyncGate gate;
    RecContext *ctx = vrix_db_open_rec_video(dir.path().c_str(), 3);
    ASSERT_NE(ctx, nullptr);
    gate.wait_for_sync(); // the first pass hangs in its syncfs
    auto set = std::async(std::launch::async, [] { return vrix_db_set_sync_interval(3000); });
    EXPECT_EQ(set.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    auto state = std::async(std::launch::async, [&] {
        VrixSyncState st{};
        return vrix_db_get_sync_state(dir.path().c_str(), &st);
    });
    EXPECT_EQ(state.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    g_now += 2; // the pass has taken 2 s of a 3-s interval
    gate.open();
    vrix_db_close_rec_video(ctx);
    VrixSyncState st{};
    ASSERT_EQ(vrix_db_get_sync_state(dir.path().c_str(), &st), 1);
    EXPECT_EQ(st.slow_passes, 1u);
    EXPECT_EQ(st.longest_pass_ms, 2000);
    EXPECT_TRUE(lines.has("took 2000 ms, more than half the sync interval of 3000 ms"));
    vrix_db_set_test_hooks(nullptr);
}
#endif

} // namespace
