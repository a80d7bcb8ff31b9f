// Backup copies, the stop / acknowledge protocol, and that a copy is replaced
// only by a whole, durable one: a failure at any file operation of a backup,
// or a power cut after it, leaves the old copy or the new one, never a mix.
#include "core/file_io.h"
#include "core/flags.h"
#include "maint_store.h"
#include "support/power_cut.h"

#include <sys/wait.h>

#include <atomic>

#include <chrono>
#include <condition_variable>
#include <thread>

namespace {

namespace fs = std::filesystem;
using namespace vrix::test;
using vrix::flag_get;
namespace io = vrix::io;

class Backup : public ::testing::Test {
  protected:
    void SetUp() override {
        vrix_db_start_backup();
        fs::create_directories(dir / kDayName);
        exec(date_db, "create table H(date int); insert into H values(1);");
        events(300);
    }
    // The day's event.db with `n` events.
    void events(int n) {
        exec(event_db, "create table if not exists h_all(id INTEGER PRIMARY KEY, sec int, ch int, "
                       "type int, data text); insert into h_all(sec, ch, type) with recursive "
                       "c(i) as (select 1 union all select i + 1 from c where i < " +
                           std::to_string(n) + ") select i, 1, 1 from c;");
    }
    int backup() { return vrix_db_backup_day(dir.path().c_str(), kDayName); }
    std::vector<std::string> temporaries() const {
        std::vector<std::string> out;
        for (const auto &e : fs::recursive_directory_iterator(dir.path()))
            if (e.path().extension() == ".tmp") out.push_back(e.path().string());
        return out;
    }

    Started started;
    ScratchDir dir;
    const std::string date_db = dir / "date.db", event_db = dir / kDayName + "/event.db";
};

TEST_F(Backup, CopiesAreByteImagesAndOnlyASoundSourceReplacesACopy) {
    ASSERT_EQ(file_bytes(date_db).size() % 4096, 0u); // the copy ends with an empty read
    EXPECT_EQ(backup(), 0);
    const auto date = file_bytes(date_db), events = file_bytes(event_db);
    EXPECT_EQ(file_bytes(date_db + ".sql"), date);
    EXPECT_EQ(file_bytes(event_db + ".sql"), events);

    // A missing source, or one that fails its check, keeps the old copy.
    fs::remove(date_db);
    write_file(event_db, Bytes(events.size(), 0x5a));
    EXPECT_EQ(backup(), -1);
    EXPECT_EQ(file_bytes(date_db + ".sql"), date);
    EXPECT_EQ(file_bytes(event_db + ".sql"), events);
    EXPECT_FALSE(fs::exists(date_db)) << "backup made a database";
    EXPECT_TRUE(temporaries().empty());
}

TEST_F(Backup, StopHoldsBackupsOffUntilStart) {
    testing::internal::CaptureStdout();
    vrix_db_stop_backup();
    vrix_db_stop_backup(); // held off already: returns at once
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "enter stop backup\nleave stop backup\nenter stop backup\nleave stop backup\n");
    EXPECT_EQ(backup(), 1);
    EXPECT_FALSE(fs::exists(date_db + ".sql"));
    EXPECT_EQ(flag_get(g_iStopBackupAck), 1);
    vrix_db_start_backup();
    EXPECT_EQ(backup(), 0);
    EXPECT_TRUE(fs::exists(date_db + ".sql"));
}

// Holds the first write of date.db's copy until it is let go.
struct Gate : io::Observer {
    Gate() { io::set_observer(this); }
    ~Gate() override { io::set_observer(nullptr); }
    void before(const io::Access &a) override {
        if (a.op != io::Op::Write || !std::string(a.path).ends_with("date.db.sql.tmp")) return;
        std::unique_lock hold(m);
        reached = true;
        cv.notify_all();
        cv.wait(hold, [this] { return open; });
    }
    void wait_reached() {
        std::unique_lock hold(m);
        cv.wait(hold, [this] { return reached; });
    }
    void let_go() {
        const std::lock_guard hold(m);
        open = true;
        cv.notify_all();
    }
    std::mutex m;
    std::condition_variable cv;
    bool reached = false, open = false;
};

// A stop that comes while the date.db copy runs waits for it; event.db is not
// copied.
TEST_F(Backup, StopDuringACopyWaitsForItAndSkipsTheRest) {
    Gate gate;
    int result = 0;
    std::thread runner([&] { result = backup(); });
    gate.wait_reached();
    std::atomic<bool> returned{false};
    int backing_up_on_return = -1;
    std::thread stopper([&] {
        vrix_db_stop_backup();
        backing_up_on_return = flag_get(g_iBackuping);
        returned = true;
    });
    while (!flag_get(g_iStopBackup))
        std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(returned.load());
    gate.let_go();
    stopper.join();
    runner.join();

    EXPECT_EQ(result, 1);
    EXPECT_EQ(backing_up_on_return, 0);
    EXPECT_EQ(file_bytes(date_db + ".sql"), file_bytes(date_db));
    EXPECT_FALSE(fs::exists(event_db + ".sql"));
}

// Counts the file operations of a backup and fails the one numbered `fail`:
// a write falls short (the disk is full), anything else fails with EIO.
struct FailNth : io::Observer {
    explicit FailNth(int n) : fail(n) { io::set_observer(this); }
    ~FailNth() override { io::set_observer(nullptr); }
    void before(const io::Access &) override {}
    io::Fault fault(const io::Access &a) override {
        io::Fault f;
        if (count++ != fail) return f;
        failed = a.op;
        failed_path = a.path ? a.path : "";
        if (a.op == io::Op::Write)
            f.keep = static_cast<long long>(a.length / 2);
        else
            f.error = EIO;
        return f;
    }
    int fail, count = 0;
    io::Op failed = io::Op::Open;
    std::string failed_path;
};

// Each operation of a backup fails in turn.  The backup says so (-1 and one
// line) and the copy it was making stays the old one (only a failure once the
// new copy was renamed into place, the directory sync, may leave the new
// one); the other copy is made.  No temporary file stays behind.
TEST_F(Backup, AFailureAtAnyStepKeepsTheOldCopy) {
    ASSERT_EQ(backup(), 0);
    const auto old_date = file_bytes(date_db + ".sql"), old_events = file_bytes(event_db + ".sql");
    exec(date_db, "insert into H values(2);");
    events(200);
    const auto new_date = file_bytes(date_db), new_events = file_bytes(event_db);
    int operations;
    {
        FailNth none(-1);
        ASSERT_EQ(backup(), 0);
        operations = none.count;
    }
    ASSERT_GT(operations, 10);
    for (int n = 0; n < operations; ++n) {
        write_file(date_db + ".sql", old_date);
        write_file(event_db + ".sql", old_events);
        testing::internal::CaptureStdout();
        FailNth fail(n);
        const int result = backup();
        io::set_observer(nullptr);
        const std::string said = testing::internal::GetCapturedStdout();
        SCOPED_TRACE("operation " + std::to_string(n) + " on " + fail.failed_path + ": " + said);
        EXPECT_EQ(result, -1);
        EXPECT_NE(said.find("backup : "), std::string::npos);
        const bool in_events = fail.failed_path.find(kDayName) != std::string::npos;
        const bool placed = fail.failed == io::Op::SyncDir;
        const auto date = file_bytes(date_db + ".sql"), events = file_bytes(event_db + ".sql");
        const auto &failing = in_events ? events : date, &other = in_events ? date : events;
        EXPECT_TRUE(failing == (in_events ? old_events : old_date) ||
                    (placed && failing == (in_events ? new_events : new_date)));
        EXPECT_EQ(other, in_events ? new_date : new_events);
        EXPECT_TRUE(temporaries().empty());
    }
}

// A writer of another process holding the source: the backup waits a while
// (cut short by the test hooks), then keeps the old copy.
TEST_F(Backup, ASourceHeldByAnotherProcessKeepsTheOldCopy) {
    ASSERT_EQ(backup(), 0);
    const auto old_date = file_bytes(date_db + ".sql");
    exec(date_db, "insert into H values(2);");
    const HeldElsewhere held(date_db);
    ASSERT_TRUE(held.held);
    const FastWaits fast;
    EXPECT_EQ(backup(), -1);
    EXPECT_EQ(file_bytes(date_db + ".sql"), old_date);
}

// The power goes after file operation `n` of a backup: the part of this
// binary run again with VRIX_BACKUP_CUT="<root>|<n>".  It exits 0 when it
// cut the power, 1 when the backup ended first.
struct CutAfter : PowerCut {
    explicit CutAfter(int n) : at(n) {}
    void after(const io::Access &a) override {
        PowerCut::after(a);
        if (count++ == at) cut(0);
    }
    int at, count = 0;
};

[[maybe_unused]] const bool g_cuts = [] {
    const char *recipe = std::getenv("VRIX_BACKUP_CUT");
    if (!recipe) return false;
    const std::string r = recipe;
    const size_t bar = r.find('|');
    {
        CutAfter power(std::stoi(r.substr(bar + 1)));
        vrix_db_backup_day(r.substr(0, bar).c_str(), kDayName);
    }
    _exit(1);
}();

TEST_F(Backup, APowerCutLeavesTheOldCopyOrTheNewOne) {
    ASSERT_EQ(backup(), 0);
    const auto old_date = file_bytes(date_db + ".sql"), old_events = file_bytes(event_db + ".sql");
    exec(date_db, "insert into H values(2);");
    events(200);
    const auto new_date = file_bytes(date_db), new_events = file_bytes(event_db);
    for (int n = 0; n < 1000; ++n) {
        write_file(date_db + ".sql", old_date);
        write_file(event_db + ".sql", old_events);
        const int status =
            wait_status(spawn_self("VRIX_BACKUP_CUT", dir.path() + "|" + std::to_string(n)));
        ASSERT_TRUE(WIFEXITED(status));
        SCOPED_TRACE("cut after operation " + std::to_string(n));
        const auto date = file_bytes(date_db + ".sql"), events = file_bytes(event_db + ".sql");
        EXPECT_TRUE(date == old_date || date == new_date);
        EXPECT_TRUE(events == old_events || events == new_events);
        if (WEXITSTATUS(status) == 1) { // no cut: the backup ended
            EXPECT_EQ(date, new_date);
            EXPECT_EQ(events, new_events);
            return;
        }
    }
    FAIL() << "the backup never ended";
}

} // namespace
