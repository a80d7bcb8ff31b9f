#include "root_lock.h"

#include "store/format.h"
#include "store/log.h"
#include "store/paths.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <list>
#include <mutex>
#include <string>

namespace vrix {

// A root of this process, known by its directory's identity (so that "/a"
// and "/a/" are one root), with its lock file and the claims on it.
struct RootClaim {
    dev_t dev;
    ino_t ino;
    pid_t pid; // the process that took the lock: a forked child has none
    int fd;
    int recorders;
    int maintainers;
};

namespace {

constexpr off_t kRecording = 0; // the lock byte of a recording or maintaining process
constexpr off_t kMaintaining = 1;

// Made on first use: a context may be opened from a static initializer.
struct Claims {
    std::mutex mutex;
    std::list<RootClaim> list;
};
Claims &claims() {
    static Claims *c = new Claims;
    return *c;
}

bool set_lock(int fd, short type, off_t start, off_t length) {
    struct flock l {};
    l.l_type = type;
    l.l_whence = SEEK_SET;
    l.l_start = start;
    l.l_len = length;
    int rc;
    do
        rc = fcntl(fd, F_SETLK, &l);
    while (rc != 0 && errno == EINTR);
    return rc == 0;
}

bool held_elsewhere(int fd, off_t byte) {
    struct flock l {};
    l.l_type = F_WRLCK;
    l.l_whence = SEEK_SET;
    l.l_start = byte;
    l.l_len = 1;
    return fcntl(fd, F_GETLK, &l) == 0 && l.l_type != F_UNLCK;
}

RootClaim *find(Claims &all, const struct stat &st) {
    for (RootClaim &c : all.list)
        if (c.dev == st.st_dev && c.ino == st.st_ino && c.pid == getpid()) return &c;
    return nullptr;
}

// A new claim of this process on `root`: the lock file opened and the bytes
// [kRecording, kRecording + length) locked.  Null after one line.
RootClaim *take(Claims &all, const char *root, const struct stat &st, off_t length,
                const char *who) {
    Path p;
    if (!root_lock_file(p, root)) return nullptr;
    const int fd = open(p.text, O_RDWR | O_CREAT | O_CLOEXEC | O_NOCTTY, 0600);
    if (fd < 0) {
        log_line("%s : cannot lock %s : %s\n", who, root, std::strerror(errno));
        return nullptr;
    }
    if (!set_lock(fd, F_WRLCK, kRecording, length)) {
        const int e = errno;
        if (e == EAGAIN || e == EACCES)
            log_line("%s : %s is being %s by another process\n", who, root,
                     held_elsewhere(fd, kMaintaining) ? "maintained" : "recorded");
        else
            log_line("%s : cannot lock %s : %s\n", who, root, std::strerror(e));
        close(fd); // this process holds no lock on the file: nothing is dropped
        return nullptr;
    }
    all.list.push_back(RootClaim{st.st_dev, st.st_ino, getpid(), fd, 0, 0});
    return &all.list.back();
}

// The nearest directory at or above `path` (up to a channel's index, four
// levels below the root) that holds a lock file; empty when there is none.
std::string store_root_of(const char *path) {
    struct stat st {};
    if (stat(path, &st) != 0) return {};
    std::string dir(path);
    for (int level = 0; level < 6; ++level) {
        if (level > 0 || !S_ISDIR(st.st_mode)) {
            const size_t end = dir.find_last_not_of('/');
            const size_t slash = end == std::string::npos ? 0 : dir.rfind('/', end);
            if (end == std::string::npos || slash == std::string::npos) return {};
            dir = dir.substr(0, slash == 0 ? 1 : slash);
        }
        Path p;
        if (root_lock_file(p, dir.c_str()) && access(p.text, F_OK) == 0) return dir;
        if (dir == "/") return {};
    }
    return {};
}

} // namespace

RootClaim *claim_root(const char *root, const char *who) {
    struct stat st {};
    if (stat(root, &st) != 0) {
        log_line("%s : cannot lock %s : %s\n", who, root, std::strerror(errno));
        return nullptr;
    }
    Claims &all = claims();
    const std::lock_guard<std::mutex> hold(all.mutex);
    RootClaim *c = find(all, st);
    if (!c) c = take(all, root, st, 1, who);
    if (c) ++c->recorders;
    return c;
}

void release_root(RootClaim *claim) {
    if (!claim) return;
    Claims &all = claims();
    const std::lock_guard<std::mutex> hold(all.mutex);
    if (claim->recorders > 0) --claim->recorders;
    if (claim->recorders + claim->maintainers > 0) return;
    close(claim->fd); // closing the descriptor unlocks
    all.list.remove_if([claim](const RootClaim &c) { return &c == claim; });
}

bool root_recorded(const char *root) {
    struct stat st {};
    if (stat(root, &st) != 0) return false;
    Claims &all = claims();
    const std::lock_guard<std::mutex> hold(all.mutex);
    // A claim of this process holds byte 0: no other process can.
    if (const RootClaim *c = find(all, st)) return c->recorders > 0;
    // No claim of this process on the root, and none can be taken while the
    // mutex is held: a descriptor opened and closed here drops no lock.
    Path p;
    if (!root_lock_file(p, root)) return false;
    const int fd = open(p.text, O_RDONLY | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) return false;
    // A process that only maintains holds byte 0 too: it is taken for a
    // recorder, which costs a paced wait at worst.
    const bool recorded = held_elsewhere(fd, kRecording);
    close(fd);
    return recorded;
}

MaintenanceHold::MaintenanceHold(const char *path, const char *who, unsigned flags) {
    const std::string root = !path                 ? std::string()
                             : flags & kHoldInside ? store_root_of(path)
                                                   : path;
    struct stat st {};
    if (root.empty() || stat(root.c_str(), &st) != 0) {
        ok_ = true; // no store that was ever recorded: nothing to coordinate with
        return;
    }
    Claims &all = claims();
    const std::lock_guard<std::mutex> hold(all.mutex);
    RootClaim *c = find(all, st);
    if (c && c->recorders > 0 && (flags & kHoldAlone)) {
        log_line("%s : %s is being recorded by this process\n", who, root.c_str());
        return;
    }
    if (c) {
        // This process records it already: byte 0 is ours; mark maintenance.
        if (c->maintainers == 0 && !set_lock(c->fd, F_WRLCK, kMaintaining, 1)) {
            log_line("%s : cannot lock %s : %s\n", who, root.c_str(), std::strerror(errno));
            return;
        }
    } else if (!(c = take(all, root.c_str(), st, 2, who))) {
        return;
    }
    ++c->maintainers;
    claim_ = c;
    ok_ = true;
}

MaintenanceHold::~MaintenanceHold() {
    if (!claim_) return;
    Claims &all = claims();
    const std::lock_guard<std::mutex> hold(all.mutex);
    RootClaim *c = claim_;
    if (--c->maintainers == 0 && c->recorders > 0) set_lock(c->fd, F_UNLCK, kMaintaining, 1);
    if (c->recorders + c->maintainers > 0) return;
    close(c->fd);
    all.list.remove_if([c](const RootClaim &x) { return &x == c; });
}

} // namespace vrix
