// One recording process per store: a second process is refused while any
// recording context of the first is open on the root, and gets the root once
// the last one closed or the first process died.
//
// The second process is this binary run again with VRIX_ROOT_LOCK_CHILD set
// to "try|<root>" (exit 0 when the open was refused, 1 when it succeeded) or
// "hold|<root>" (opens, says "held" on standard output, waits to be killed).
#include "support/child.h"
#include "support/queues.h"

#include <fcntl.h>
#include <signal.h>
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
    const bool hold = std::strncmp(recipe, "hold|", 5) == 0;
    AudioRecContext *a = vrix_db_open_rec_audio(std::strchr(recipe, '|') + 1, 1);
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

} // namespace
} // namespace vrix
