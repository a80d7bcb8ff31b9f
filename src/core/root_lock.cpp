#include "root_lock.h"

#include "store/format.h"
#include "store/log.h"
#include "store/paths.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <list>
#include <mutex>

namespace vrix {

// A root of this process, known by its directory's identity (so that "/a"
// and "/a/" are one root), with its lock file and the contexts using it.
struct RootClaim {
    dev_t dev;
    ino_t ino;
    int fd; // -1: no lock file could be made
    int users;
};

namespace {

// Made on first use: a context may be opened from a static initializer.
struct Claims {
    std::mutex mutex;
    std::list<RootClaim> list;
};
Claims &claims() {
    static Claims *c = new Claims;
    return *c;
}

} // namespace

RootClaim *claim_root(const char *root, const char *who) {
    struct stat st {};
    const bool known = stat(root, &st) == 0;
    Claims &all = claims();
    const std::lock_guard<std::mutex> hold(all.mutex);
    if (known)
        for (RootClaim &c : all.list)
            if (c.dev == st.st_dev && c.ino == st.st_ino) {
                ++c.users;
                return &c;
            }
    Path p;
    int fd = -1;
    if (known && root_lock_file(p, root)) {
        fd = open(p.text, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (fd >= 0 && flock(fd, LOCK_EX | LOCK_NB) != 0) {
            const int e = errno;
            close(fd);
            if (e == EWOULDBLOCK) {
                log_line("%s : %s is being recorded by another process\n", who, root);
                return nullptr;
            }
            fd = -1;
        }
    }
    all.list.push_back(RootClaim{known ? st.st_dev : dev_t{}, known ? st.st_ino : ino_t{}, fd, 1});
    return &all.list.back();
}

void release_root(RootClaim *claim) {
    if (!claim) return;
    Claims &all = claims();
    const std::lock_guard<std::mutex> hold(all.mutex);
    if (--claim->users > 0) return;
    if (claim->fd >= 0) close(claim->fd); // closing the last descriptor unlocks
    all.list.remove_if([claim](const RootClaim &c) { return &c == claim; });
}

} // namespace vrix
