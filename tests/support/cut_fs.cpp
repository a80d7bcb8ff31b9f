// vrix_cut_fs BACKING MOUNTPOINT [SEED]: a FUSE file system for tests that
// passes everything through to a backing directory and keeps, per file, what
// was not made durable yet, like a disk whose driver keeps data in a cache
// until it is asked to sync.
//
// - A write or truncation is durable once the file is synced (fsync or
//   fdatasync of any of its descriptors).
// - A new file or directory is durable once its directory is synced
//   (fsyncdir).  Removals and renames are applied at once and count as
//   durable.
// - FUSE passes no syncfs to its server: nothing else makes anything durable.
//
// SIGUSR1 cuts the power: every operation is held, everything not durable is
// dropped from the backing directory (writes and truncations undone newest
// first, names never made durable removed with all below them), the mount is
// detached and the process exits 0.  SIGUSR2 does the same but lets a random
// subset of the unsynced writes land (seeded by SEED), as write-back that
// reorders would.  SIGTERM or SIGINT unmounts with nothing dropped.
#define FUSE_USE_VERSION 35
#include <fuse.h>

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

// One unsynced change of a file: what it overwrote and what it wrote.
struct Change {
    long long offset;                 // a write's offset; a truncation's new size
    std::vector<unsigned char> old;   // bytes overwritten or cut off
    std::vector<unsigned char> fresh; // bytes written (none for a truncation)
    long long size_before;
    bool truncation;
};

struct State {
    std::mutex gate; // held across every operation, and for good by a cut
    int backing = -1;
    std::string mountpoint;
    unsigned seed = 0;
    std::map<std::string, std::vector<Change>> changes; // by path, oldest first
    std::set<std::string> new_names;                    // not durable yet
};
State g;

// The backing directory's name of a path of the mount.
const char *rel(const char *path) {
    return path[1] ? path + 1 : ".";
}

std::string parent_of(const std::string &path) {
    const size_t slash = path.rfind('/');
    return slash == 0 || slash == std::string::npos ? "/" : path.substr(0, slash);
}

bool below(const std::string &path, const std::string &dir) {
    return path.size() > dir.size() && path.compare(0, dir.size(), dir) == 0 &&
           path[dir.size()] == '/';
}

long long size_at(int fd) {
    struct stat st {};
    return fstat(fd, &st) == 0 ? st.st_size : 0;
}

std::vector<unsigned char> bytes_at(int fd, long long offset, long long end) {
    std::vector<unsigned char> b;
    if (offset >= end) return b;
    b.resize(static_cast<size_t>(end - offset));
    const ssize_t n = pread(fd, b.data(), b.size(), offset);
    b.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return b;
}

int result(int rc) {
    return rc < 0 ? -errno : rc;
}

// ---- pass-through operations ----

int fs_getattr(const char *path, struct stat *st, fuse_file_info *) {
    const std::lock_guard hold(g.gate);
    return result(fstatat(g.backing, rel(path), st, AT_SYMLINK_NOFOLLOW));
}

int fs_readdir(const char *path, void *buf, fuse_fill_dir_t fill, off_t, fuse_file_info *,
               fuse_readdir_flags) {
    const std::lock_guard hold(g.gate);
    const int fd = openat(g.backing, rel(path), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return -errno;
    DIR *d = fdopendir(fd);
    if (!d) {
        close(fd);
        return -errno;
    }
    while (const dirent *e = readdir(d))
        fill(buf, e->d_name, nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
    closedir(d);
    return 0;
}

int fs_mkdir(const char *path, mode_t mode) {
    const std::lock_guard hold(g.gate);
    if (mkdirat(g.backing, rel(path), mode) != 0) return -errno;
    g.new_names.insert(path);
    return 0;
}

// Forgets what is kept about `path` and everything below it.
void forget(const std::string &path) {
    g.new_names.erase(path);
    for (auto it = g.new_names.begin(); it != g.new_names.end();)
        it = below(*it, path) ? g.new_names.erase(it) : std::next(it);
    g.changes.erase(path);
    for (auto it = g.changes.begin(); it != g.changes.end();)
        it = below(it->first, path) ? g.changes.erase(it) : std::next(it);
}

int fs_unlink(const char *path) {
    const std::lock_guard hold(g.gate);
    if (unlinkat(g.backing, rel(path), 0) != 0) return -errno;
    forget(path);
    return 0;
}

int fs_rmdir(const char *path) {
    const std::lock_guard hold(g.gate);
    if (unlinkat(g.backing, rel(path), AT_REMOVEDIR) != 0) return -errno;
    forget(path);
    return 0;
}

int fs_rename(const char *from, const char *to, unsigned int flags) {
    const std::lock_guard hold(g.gate);
    if (flags) return -EINVAL;
    if (renameat(g.backing, rel(from), g.backing, rel(to)) != 0) return -errno;
    const bool fresh = g.new_names.count(from) != 0;
    auto kept = g.changes.extract(from);
    forget(from);
    forget(to);
    if (fresh) g.new_names.insert(to);
    if (!kept.empty()) {
        kept.key() = to;
        g.changes.insert(std::move(kept));
    }
    return 0;
}

int fs_truncate(const char *path, off_t size, fuse_file_info *fi) {
    const std::lock_guard hold(g.gate);
    const int fd = fi ? static_cast<int>(fi->fh) : openat(g.backing, rel(path), O_RDWR | O_CLOEXEC);
    if (fd < 0) return -errno;
    const long long before = size_at(fd);
    g.changes[path].push_back(Change{size, bytes_at(fd, size, before), {}, before, true});
    const int rc = result(ftruncate(fd, size));
    if (!fi) close(fd);
    return rc;
}

// Backing files open for writing are opened for reading too: a write reads
// what it overwrites.
int backing_flags(int flags) {
    const int access = (flags & O_ACCMODE) == O_RDONLY ? O_RDONLY : O_RDWR;
    return (flags & ~(O_ACCMODE | O_APPEND | O_CREAT)) | access | O_CLOEXEC;
}

int fs_open(const char *path, fuse_file_info *fi) {
    const std::lock_guard hold(g.gate);
    const int fd = openat(g.backing, rel(path), backing_flags(fi->flags));
    if (fd < 0) return -errno;
    fi->fh = static_cast<uint64_t>(fd);
    return 0;
}

int fs_create(const char *path, mode_t mode, fuse_file_info *fi) {
    const std::lock_guard hold(g.gate);
    const bool existed = faccessat(g.backing, rel(path), F_OK, AT_SYMLINK_NOFOLLOW) == 0;
    const int fd = openat(g.backing, rel(path), backing_flags(fi->flags) | O_CREAT, mode);
    if (fd < 0) return -errno;
    if (!existed) g.new_names.insert(path);
    fi->fh = static_cast<uint64_t>(fd);
    return 0;
}

int fs_read(const char *, char *buf, size_t size, off_t off, fuse_file_info *fi) {
    const std::lock_guard hold(g.gate);
    return result(static_cast<int>(pread(static_cast<int>(fi->fh), buf, size, off)));
}

int fs_write(const char *path, const char *buf, size_t size, off_t off, fuse_file_info *fi) {
    const std::lock_guard hold(g.gate);
    const int fd = static_cast<int>(fi->fh);
    const long long before = size_at(fd);
    Change c{off, bytes_at(fd, off, std::min<long long>(off + size, before)), {}, before, false};
    c.fresh.assign(buf, buf + size);
    const ssize_t n = pwrite(fd, buf, size, off);
    if (n < 0) return -errno;
    c.fresh.resize(static_cast<size_t>(n));
    g.changes[path].push_back(std::move(c));
    return static_cast<int>(n);
}

int fs_release(const char *, fuse_file_info *fi) {
    const std::lock_guard hold(g.gate);
    close(static_cast<int>(fi->fh));
    return 0;
}

// The data of a file is on the disk; its name only once its directory is.
int fs_fsync(const char *path, int, fuse_file_info *) {
    const std::lock_guard hold(g.gate);
    g.changes.erase(path);
    return 0;
}

int fs_fsyncdir(const char *path, int, fuse_file_info *) {
    const std::lock_guard hold(g.gate);
    for (auto it = g.new_names.begin(); it != g.new_names.end();)
        it = parent_of(*it) == path ? g.new_names.erase(it) : std::next(it);
    return 0;
}

int fs_statfs(const char *, struct statvfs *st) {
    const std::lock_guard hold(g.gate);
    return result(fstatvfs(g.backing, st));
}

int fs_utimens(const char *path, const timespec tv[2], fuse_file_info *) {
    const std::lock_guard hold(g.gate);
    return result(utimensat(g.backing, rel(path), tv, AT_SYMLINK_NOFOLLOW));
}

int fs_chmod(const char *path, mode_t mode, fuse_file_info *) {
    const std::lock_guard hold(g.gate);
    return result(fchmodat(g.backing, rel(path), mode, 0));
}

int fs_chown(const char *path, uid_t uid, gid_t gid, fuse_file_info *) {
    const std::lock_guard hold(g.gate);
    return result(fchownat(g.backing, rel(path), uid, gid, AT_SYMLINK_NOFOLLOW));
}

// ---- the cut ----

void remove_tree(const std::string &path) {
    const char *r = rel(path.c_str());
    struct stat st {};
    if (fstatat(g.backing, r, &st, AT_SYMLINK_NOFOLLOW) != 0) return;
    if (!S_ISDIR(st.st_mode)) {
        unlinkat(g.backing, r, 0);
        return;
    }
    std::vector<std::string> names;
    const int fd = openat(g.backing, r, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (DIR *d = fd >= 0 ? fdopendir(fd) : nullptr) {
        while (const dirent *e = readdir(d))
            if (std::strcmp(e->d_name, ".") && std::strcmp(e->d_name, ".."))
                names.push_back(path + "/" + e->d_name);
        closedir(d);
    }
    for (const std::string &n : names)
        remove_tree(n);
    unlinkat(g.backing, r, AT_REMOVEDIR);
}

// Leaves the backing directory as the disk would be after a power cut now:
// with `some`, each unsynced change lands or not at random.
void drop_unsynced(bool some) {
    std::mt19937 rng(g.seed);
    for (auto &[path, list] : g.changes) {
        const int fd = openat(g.backing, rel(path.c_str()), O_RDWR | O_CLOEXEC);
        if (fd < 0) continue;
        for (auto it = list.rbegin(); it != list.rend(); ++it) {
            if (!it->old.empty() && pwrite(fd, it->old.data(), it->old.size(), it->offset) !=
                                        static_cast<ssize_t>(it->old.size()))
                std::perror("vrix_cut_fs: put back");
            if (ftruncate(fd, it->size_before) != 0) std::perror("vrix_cut_fs: put back size");
        }
        if (some)
            for (const Change &c : list) {
                if (rng() % 2) continue;
                if (c.truncation) {
                    if (ftruncate(fd, c.offset) != 0) std::perror("vrix_cut_fs: land");
                } else if (pwrite(fd, c.fresh.data(), c.fresh.size(), c.offset) < 0) {
                    std::perror("vrix_cut_fs: land");
                }
            }
        close(fd);
    }
    // Shallow names first: a vanished directory takes what lies below.
    for (const std::string &n : g.new_names)
        remove_tree(n);
}

// Waits for a cut signal; holds the gate for good, drops, detaches, exits.
void cut_thread(sigset_t set) {
    int sig = 0;
    if (sigwait(&set, &sig) != 0) return;
    g.gate.lock();
    drop_unsynced(sig == SIGUSR2);
    umount2(g.mountpoint.c_str(), MNT_DETACH);
    std::fflush(stdout);
    _exit(0);
}

} // namespace

int main(int argc, char **argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: vrix_cut_fs BACKING MOUNTPOINT [SEED]\n");
        return 2;
    }
    g.backing = open(argv[1], O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (g.backing < 0) {
        std::perror(argv[1]);
        return 2;
    }
    g.mountpoint = argv[2];
    g.seed = argc > 3 ? static_cast<unsigned>(std::strtoul(argv[3], nullptr, 10)) : 0;
    umask(0);

    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR1);
    sigaddset(&set, SIGUSR2);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    std::thread(cut_thread, set).detach();

    fuse_operations ops{};
    ops.getattr = fs_getattr;
    ops.readdir = fs_readdir;
    ops.mkdir = fs_mkdir;
    ops.unlink = fs_unlink;
    ops.rmdir = fs_rmdir;
    ops.rename = fs_rename;
    ops.truncate = fs_truncate;
    ops.open = fs_open;
    ops.create = fs_create;
    ops.read = fs_read;
    ops.write = fs_write;
    ops.release = fs_release;
    ops.fsync = fs_fsync;
    ops.fsyncdir = fs_fsyncdir;
    ops.statfs = fs_statfs;
    ops.utimens = fs_utimens;
    ops.chmod = fs_chmod;
    ops.chown = fs_chown;

    char name[] = "vrix_cut_fs";
    char opt[] = "-o";
    char opts[] = "fsname=vrix_cut_fs,default_permissions";
    char *fargv[] = {name, opt, opts, nullptr};
    fuse_args args = FUSE_ARGS_INIT(3, fargv);
    fuse *f = fuse_new(&args, &ops, sizeof ops, nullptr);
    fuse_opt_free_args(&args);
    if (!f) return 1;
    if (fuse_mount(f, argv[2]) != 0) {
        fuse_destroy(f);
        return 1;
    }
    fuse_set_signal_handlers(fuse_get_session(f));
    const int rc = fuse_loop(f);
    fuse_remove_signal_handlers(fuse_get_session(f));
    fuse_unmount(f);
    fuse_destroy(f);
    return rc == 0 ? 0 : 1;
}
