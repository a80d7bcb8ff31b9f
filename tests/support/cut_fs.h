// Test support: a mount of vrix_cut_fs (cut_fs.cpp), the FUSE file system
// that drops what was not synced when its power is cut.  Built only where
// libfuse3 is; VRIX_CUT_FS names the program.
#pragma once

#include "support/child.h"

#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

namespace vrix::test {

class CutFs {
  public:
    // Mounts `backing` on `mountpoint` (both existing directories).
    // mounted() tells whether it worked; why_not() says why not.
    CutFs(const std::string &backing, const std::string &mountpoint, unsigned seed = 0)
        : mountpoint_(mountpoint) {
#ifndef VRIX_CUT_FS
        why_ = "vrix_cut_fs was not built (no libfuse3)";
        (void)backing;
        (void)seed;
#else
        if (access("/dev/fuse", R_OK | W_OK) != 0) {
            why_ = "/dev/fuse cannot be opened";
            return;
        }
        const std::string s = std::to_string(seed);
        pid_ = fork();
        if (pid_ == 0) {
            execl(VRIX_CUT_FS, VRIX_CUT_FS, backing.c_str(), mountpoint.c_str(), s.c_str(),
                  static_cast<char *>(nullptr));
            _exit(127);
        }
        for (int i = 0; i < 500; ++i) { // up to 5 s
            struct stat st {};
            if (stat(mountpoint.c_str(), &st) == 0 && st.st_dev != dev_of_parent()) return;
            int status = 0;
            if (waitpid(pid_, &status, WNOHANG) == pid_) {
                pid_ = -1;
                why_ = "vrix_cut_fs could not mount (exit " + std::to_string(status) + ")";
                return;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        why_ = "vrix_cut_fs did not mount within 5 s";
        stop();
#endif
    }
    ~CutFs() {
        stop();
    }
    CutFs(const CutFs &) = delete;
    CutFs &operator=(const CutFs &) = delete;

    bool mounted() const {
        return pid_ > 0 && why_.empty();
    }
    const std::string &why_not() const {
        return why_;
    }
    pid_t pid() const {
        return pid_;
    }

    // Waits until a cut (sent by anyone with SIGUSR1 / SIGUSR2) has ended the
    // file system; true when it exited cleanly.
    bool wait_cut() {
        if (pid_ <= 0) return false;
        const int status = wait_status(pid_);
        pid_ = -1;
        umount2(mountpoint_.c_str(), MNT_DETACH); // mostly detached already
        return WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }

    // Unmounts with nothing dropped.
    void stop() {
        if (pid_ <= 0) return;
        kill(pid_, SIGTERM);
        wait_status(pid_);
        pid_ = -1;
        umount2(mountpoint_.c_str(), MNT_DETACH);
    }

  private:
    dev_t dev_of_parent() const {
        struct stat st {};
        stat((mountpoint_ + "/..").c_str(), &st);
        return st.st_dev;
    }

    std::string mountpoint_;
    pid_t pid_ = -1;
    std::string why_;
};

} // namespace vrix::test
