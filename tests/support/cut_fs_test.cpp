// vrix_cut_fs keeps exactly what fsync, fdatasync and fsyncdir made durable:
// one store of files in every state a cut can meet, cut with everything
// unsynced dropped and with a random subset of it landed.
#include "support/cut_fs.h"
#include "support/queues.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <set>
#include <string>

namespace vrix::test {
namespace {

std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return "(none)";
    return {std::istreambuf_iterator<char>(in), {}};
}

void put(const std::string &path, const char *text, off_t at, bool sync) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT, 0600);
    ASSERT_GE(fd, 0) << path;
    ASSERT_EQ(pwrite(fd, text, std::strlen(text), at), static_cast<ssize_t>(std::strlen(text)));
    if (sync) {
        ASSERT_EQ(fdatasync(fd), 0);
    }
    close(fd);
}

void sync_dir(const std::string &path) {
    const int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY);
    ASSERT_GE(fd, 0) << path;
    ASSERT_EQ(fsync(fd), 0);
    close(fd);
}

TEST(CutFs, KeepsWhatWasSyncedAndDropsTheRest) {
    for (const int sig : {SIGUSR1, SIGUSR2}) {
        ScratchDir dir;
        const std::string backing = dir / "backing", m = dir / "mount";
        ASSERT_EQ(mkdir(backing.c_str(), 0700), 0);
        ASSERT_EQ(mkdir(m.c_str(), 0700), 0);
        CutFs fs(backing, m, 7);
        if (!fs.mounted()) GTEST_SKIP() << "FUSE cannot be mounted here: " << fs.why_not();

        // Durable: data synced, names synced in their directories.
        ASSERT_EQ(mkdir((m + "/kept").c_str(), 0700), 0);
        sync_dir(m);
        for (const char *f : {"/kept/same", "/kept/over", "/kept/grown", "/kept/cut"})
            put(m + f, "AAAA", 0, true);
        sync_dir(m + "/kept");
        // Unsynced changes to them.
        put(m + "/kept/over", "BB", 0, false);
        put(m + "/kept/grown", "CCCC", 4, false);
        ASSERT_EQ(truncate((m + "/kept/cut").c_str(), 1), 0);
        // Data synced, but the name never: gone, and a directory takes its
        // files with it.
        put(m + "/kept/unnamed", "DDDD", 0, true);
        ASSERT_EQ(mkdir((m + "/fresh").c_str(), 0700), 0);
        put(m + "/fresh/file", "EEEE", 0, true);
        sync_dir(m + "/fresh");

        ASSERT_EQ(kill(fs.pid(), sig), 0);
        ASSERT_TRUE(fs.wait_cut());
        const std::string k = backing + "/kept/";
        EXPECT_EQ(read_file(k + "same"), "AAAA");
        EXPECT_EQ(read_file(k + "unnamed"), "(none)");
        EXPECT_EQ(read_file(backing + "/fresh/file"), "(none)");
        struct stat st {};
        EXPECT_NE(stat((backing + "/fresh").c_str(), &st), 0);
        if (sig == SIGUSR1) {
            EXPECT_EQ(read_file(k + "over"), "AAAA");
            EXPECT_EQ(read_file(k + "grown"), "AAAA");
            EXPECT_EQ(read_file(k + "cut"), "AAAA");
        } else {
            // Each unsynced write lands or not, never anything else.
            EXPECT_TRUE((std::set<std::string>{"AAAA", "BBAA"}.count(read_file(k + "over"))));
            EXPECT_TRUE((std::set<std::string>{"AAAA", "AAAACCCC"}.count(read_file(k + "grown"))));
            EXPECT_TRUE((std::set<std::string>{"AAAA", "A"}.count(read_file(k + "cut"))));
        }
    }
}

} // namespace
} // namespace vrix::test
