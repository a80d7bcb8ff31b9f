// Backup copies and the stop / acknowledge protocol.
#include "core/flags.h"
#include "maint_store.h"

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <thread>

namespace {

using namespace vrix::test;
using vrix::flag_get;

Bytes pattern(size_t n) {
    Bytes v(n);
    for (size_t i = 0; i < n; ++i)
        v[i] = static_cast<unsigned char>(i * 7 + i / 251);
    return v;
}

class Backup : public ::testing::Test {
  protected:
    void SetUp() override {
        vrix_db_start_backup();
        std::filesystem::create_directories(dir / kDayName);
    }
    void backup() { vrix_db_backup(dir.path().c_str(), kDayName); }

    Started started;
    ScratchDir dir;
    const std::string date_db = dir / "date.db", event_db = dir / kDayName + "/event.db";
};

TEST_F(Backup, CopiesAreByteImagesAndAMissingSourceKeepsTheOldCopy) {
    exec(date_db, "create table H(date int); insert into H values(1);");
    ASSERT_EQ(file_bytes(date_db).size() % 4096, 0u); // the copy ends with an empty read
    write_file(event_db, pattern(10000));
    backup();
    const auto date = file_bytes(date_db), events = file_bytes(event_db);
    EXPECT_EQ(file_bytes(date_db + ".sql"), date);
    EXPECT_EQ(file_bytes(event_db + ".sql"), events);

    std::filesystem::remove(date_db);
    std::filesystem::remove(event_db);
    backup();
    EXPECT_EQ(file_bytes(date_db + ".sql"), date);
    EXPECT_EQ(file_bytes(event_db + ".sql"), events);
}

TEST_F(Backup, StopHoldsBackupsOffUntilStart) {
    exec(date_db, "create table H(date int);");
    testing::internal::CaptureStdout();
    vrix_db_stop_backup();
    vrix_db_stop_backup(); // held off already: returns at once
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "enter stop backup\nleave stop backup\nenter stop backup\nleave stop backup\n");
    backup();
    EXPECT_FALSE(exists(date_db + ".sql"));
    EXPECT_EQ(flag_get(g_iStopBackupAck), 1);
    vrix_db_start_backup();
    backup();
    EXPECT_TRUE(exists(date_db + ".sql"));
}

// date.db is a pipe, so the test decides when its copy ends: a stop that
// comes while the copy runs waits for it, and event.db is not copied.
TEST_F(Backup, StopDuringACopyWaitsForItAndSkipsTheRest) {
    ASSERT_EQ(mkfifo(date_db.c_str(), 0600), 0);
    write_file(event_db, pattern(100));
    std::thread runner([this] { backup(); });
    const int w = open(date_db.c_str(), O_WRONLY); // returns once the copy has opened it
    ASSERT_GE(w, 0);

    std::atomic<bool> returned{false};
    int backing_up_on_return = -1;
    std::thread stopper([&] {
        vrix_db_stop_backup();
        backing_up_on_return = flag_get(g_iBackuping);
        returned = true;
    });
    while (!flag_get(g_iStopBackup))
        std::this_thread::yield();
    const auto data = pattern(3 * 4096 + 100);
    ASSERT_EQ(write(w, data.data(), 4096), 4096);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(returned.load());
    ASSERT_EQ(write(w, data.data() + 4096, data.size() - 4096), ssize_t(data.size() - 4096));
    close(w);
    stopper.join();
    runner.join();

    EXPECT_EQ(backing_up_on_return, 0);
    EXPECT_EQ(file_bytes(date_db + ".sql"), data);
    EXPECT_FALSE(exists(event_db + ".sql"));
}

} // namespace
