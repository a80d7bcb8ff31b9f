// One recording process per store: a second process is refused while any
// recording context of the first is open on the root, and gets the root once
// the last one closed or the first process died; a forked child never holds
// it; maintenance from another process is refused beside a recorder and
// refuses recorders while it runs.
//
// The second process is this binary run again with VRIX_ROOT_LOCK_CHILD set
// to "try|<root>" (exit 0 when the open was refused, 1 when it succeeded),
// "hold|<root>" (opens, says "held" on standard output, waits to be killed),
// "maintain|<root>" (the same holding the maintenance lock) or
// "repair|<root>" (runs the start-up repair).
#include "core/root_lock.h"
#include "support/child.h"
#include "support/frames.h"
#include "support/queues.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace vrix {
namespace {

[[maybe_unused]] const bool g_is_child = [] {
    const char *recipe = std::getenv("VRIX_ROOT_LOCK_CHILD");
    if (!recipe) return false;
    const char *root = std::strchr(recipe, '|') + 1;
    if (std::strncmp(recipe, "repair|", 7) == 0) {
        vrix_db_correct_all(root);
        std::fflush(stdout);
        _exit(0);
    }
    if (std::strncmp(recipe, "maintain|", 9) == 0) {
        const MaintenanceHold m(root, "maintain");
        std::puts(m ? "held" : "refused");
        std::fflush(stdout);
        pause();
    }
    const bool hold = std::strncmp(recipe, "hold|", 5) == 0;
    AudioRecContext *a = vrix_db_open_rec_audio(root, 1);
    if (hold && a) {
        std::puts("held");
        std::fflush(stdout);
        pause();
    }
    std::fflush(stdout);
    _exit(a ? 1 : 0);
}();

// Starts the child with its recipe; its standard output comes back on `out`.
pid_t spawn(const std::string &recipe, int &out) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return -1;
    const pid_t pid = test::spawn_self("VRIX_ROOT_LOCK_CHILD", recipe, fds[1]);
    close(fds[1]);
    out = fds[0];
    return pid;
}

std::string read_all(int fd) {
    std::string s;
    char buf[256];
    for (ssize_t n; (n = read(fd, buf, sizeof buf)) > 0;)
        s.append(buf, static_cast<size_t>(n));
    close(fd);
    return s;
}

// Whether another process is refused the root, and what it said.
bool refused_elsewhere(const std::string &root, std::string *said = nullptr) {
    int out = -1;
    const pid_t pid = spawn("try|" + root, out);
    const std::string text = read_all(out);
    const int status = test::wait_status(pid);
    if (said) *said = text;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST(RootLock, OneProcessRecordsAStore) {
    test::start_library();
    test::ScratchDir dir;
    const std::string root = dir.path();

    // This process holds the root with a video and an audio context; the
    // lock stays until the last of them is closed.
    RecContext *v = vrix_db_open_rec_video(root.c_str(), 3);
    AudioRecContext *a = vrix_db_open_rec_audio((root + "/").c_str(), 2);
    ASSERT_NE(v, nullptr);
    ASSERT_NE(a, nullptr);
    std::string said;
    EXPECT_TRUE(refused_elsewhere(root, &said));
    EXPECT_EQ(said, "vrix_db_open_rec_audio : " + root + " is being recorded by another process\n");
    vrix_db_close_rec_video(v);
    EXPECT_TRUE(refused_elsewhere(root));
    vrix_db_close_rec_audio(a);
    EXPECT_FALSE(refused_elsewhere(root));

    // Another process holds it: refused here with one line, until it dies.
    int out = -1;
    const pid_t holder = spawn("hold|" + root, out);
    char ready[8] = {};
    ASSERT_EQ(read(out, ready, 5), 5);
    testing::internal::CaptureStdout();
    EXPECT_EQ(vrix_db_open_rec_video(root.c_str(), 3), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "vrix_db_open_rec_video : " + root + " is being recorded by another process\n");
    kill(holder, SIGKILL);
    test::wait_status(holder);
    close(out);
    v = vrix_db_open_rec_video(root.c_str(), 3);
    EXPECT_NE(v, nullptr);
    vrix_db_close_rec_video(v);
}

// A child forked while a context is open (a helper the recorder starts)
// holds no lock: the parent closes and opens again while it lives.
TEST(RootLock, AForkedChildHoldsNothing) {
    test::start_library();
    test::ScratchDir dir;
    RecContext *v = vrix_db_open_rec_video(dir.path().c_str(), 3);
    ASSERT_NE(v, nullptr);
    std::fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
        pause();
        _exit(0);
    }
    vrix_db_close_rec_video(v);
    v = vrix_db_open_rec_video(dir.path().c_str(), 3);
    EXPECT_NE(v, nullptr);
    EXPECT_TRUE(refused_elsewhere(dir.path()));
    vrix_db_close_rec_video(v);
    kill(child, SIGKILL);
    test::wait_status(child);
}

// A lock that cannot be had is no lock: the open is refused with the cause.
TEST(RootLock, ALockFileThatCannotBeOpenedRefusesTheOpen) {
    test::start_library();
    test::ScratchDir dir;
    ASSERT_EQ(mkdir((dir.path() + "/.vrixdb.lock").c_str(), 0700), 0);
    testing::internal::CaptureStdout();
    EXPECT_EQ(vrix_db_open_rec_video(dir.path().c_str(), 3), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "vrix_db_open_rec_video : cannot lock " + dir.path() + " : Is a directory\n");
}

// Repair from another process, or from this one, is refused while this one
// records (it would drop rows whose frames are still in the writer's
// buffers), and nothing is lost; a process maintaining the store keeps recorders out until it ends.
TEST(RootLock, MaintenanceFromAnotherProcessWaitsForTheRecorder) {
    test::start_library();
    test::ScratchDir dir;
    const std::string root = dir.path();
    RecContext *v = vrix_db_open_rec_video(root.c_str(), 3);
    ASSERT_NE(v, nullptr);
    const int kKeys = 25;
    for (int k = 0; k < kKeys; ++k)
        test::record(v, test::make_frame(1, 1710064800 + k, true, 300));
    int out = -1;
    const pid_t repair = spawn("repair|" + root, out);
    EXPECT_EQ(read_all(out),
              "vrix_db_correct_all : " + root + " is being recorded by another process\n");
    test::wait_status(repair);
    // From this process too, for the same reason; reduction runs beside.
    testing::internal::CaptureStdout();
    vrix_db_correct_all(root.c_str());
    vrix_db_correct_video((root + "/20240310/video/1/").c_str());
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "vrix_db_correct_all : " + root + " is being recorded by this process\n" +
                  "vrix_db_correct_video : " + root + " is being recorded by this process\n");
    EXPECT_TRUE(MaintenanceHold(root.c_str(), "reduce"));
    vrix_db_close_rec_video(v);
    EXPECT_EQ(test::rows(root + "/20240310/video/1/video.db", "select sec from h10").size(),
              static_cast<size_t>(kKeys));

    const pid_t holder = spawn("maintain|" + root, out);
    char said[8] = {};
    ASSERT_EQ(read(out, said, 5), 5);
    EXPECT_STREQ(said, "held\n");
    testing::internal::CaptureStdout();
    EXPECT_EQ(vrix_db_open_rec_video(root.c_str(), 3), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "vrix_db_open_rec_video : " + root + " is being maintained by another process\n");
    kill(holder, SIGKILL);
    test::wait_status(holder);
    close(out);
}

} // namespace
} // namespace vrix
