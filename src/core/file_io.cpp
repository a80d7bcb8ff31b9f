#include "file_io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <new>
#include <set>
#include <shared_mutex>
#include <string>
#include <unordered_map>

namespace vrix::io {
namespace {

std::atomic<Observer *> g_observer{nullptr};

// The names changed since take_changes() last ran, while tracking is on.
// `taken` numbers the takes, so that a stream notes its file once per take.
struct ChangeLog {
    std::mutex mutex;
    std::set<std::string> files;
    std::set<std::string> dirs;
    unsigned taken = 1;
};
ChangeLog &change_log() {
    static ChangeLog *c = new ChangeLog;
    return *c;
}
std::atomic<bool> g_tracking{false};
std::atomic<unsigned> g_taken{1};

// One spelling per name: no doubled or trailing "/".
std::string tidy(const char *path) {
    std::string s;
    for (const char *p = path; *p; ++p)
        if (*p != '/' || s.empty() || s.back() != '/') s += *p;
    while (s.size() > 1 && s.back() == '/')
        s.pop_back();
    return s;
}

std::string parent_of(const std::string &path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

// Notes a changed file and returns the take it is noted for.
unsigned note_file(const char *path) {
    ChangeLog &log = change_log();
    const std::lock_guard hold(log.mutex);
    log.files.insert(tidy(path));
    return log.taken;
}

// Notes a directory that gained or lost a name; `made`: the directory is
// new, so its parent gained one too.
void note_dir(const std::string &dir, bool made) {
    if (!g_tracking.load(std::memory_order_relaxed)) return;
    ChangeLog &log = change_log();
    const std::lock_guard hold(log.mutex);
    log.dirs.insert(dir);
    if (made) log.dirs.insert(parent_of(dir));
}

// What a stream of ours reads and writes through: the descriptor, the
// position (positioned I/O, so seeks cost no system call) and the name the
// observer is told.
struct Cookie {
    int fd;
    long long pos;
    std::string path;
    FILE *fp = nullptr;
    unsigned noted = 0; // the take of the change log that has this file
};

// Streams of ours by their FILE*, for the operations that need the
// descriptor.  Made on first use and never destroyed: streams are opened from
// static initializers and closed at exit.
struct Streams {
    std::shared_mutex mutex;
    std::unordered_map<FILE *, Cookie *> by_file;
};
Streams &streams() {
    static Streams *s = new Streams;
    return *s;
}

ssize_t cookie_read(void *c, char *buf, size_t n) {
    auto *f = static_cast<Cookie *>(c);
    const Access a{Op::Read, f->path.c_str(), f->pos, n};
    const Notice notice(observer(), a);
    if (notice.fails()) return -1;
    ssize_t r;
    do
        r = pread(f->fd, buf, n, f->pos);
    while (r < 0 && errno == EINTR);
    if (r < 0 && errno == ESPIPE) r = read(f->fd, buf, n); // a pipe has no positions
    if (r > 0) f->pos += r;
    return r;
}

// Returns the bytes written; 0 (errno kept) when nothing could be.
ssize_t cookie_write(void *c, const char *buf, size_t n) {
    auto *f = static_cast<Cookie *>(c);
    const Access a{Op::Write, f->path.c_str(), f->pos, n, buf};
    const Notice notice(observer(), a);
    if (notice.fails()) return 0;
    if (notice.fault().keep >= 0 && static_cast<size_t>(notice.fault().keep) < n) {
        n = static_cast<size_t>(notice.fault().keep);
        if (n == 0) {
            errno = ENOSPC;
            return 0;
        }
    }
    ssize_t r;
    do
        r = pwrite(f->fd, buf, n, f->pos);
    while (r < 0 && errno == EINTR);
    if (r < 0 && errno == ESPIPE) r = write(f->fd, buf, n);
    if (r <= 0) return 0;
    f->pos += r;
    // Noted after the bytes are in: a take that misses this write is
    // followed by one that has it.
    if (g_tracking.load(std::memory_order_relaxed) && f->noted != g_taken.load())
        f->noted = note_file(f->path.c_str());
    return r;
}

int cookie_seek(void *c, off64_t *to, int whence) {
    auto *f = static_cast<Cookie *>(c);
    long long base = 0;
    if (whence == SEEK_CUR) {
        base = f->pos;
    } else if (whence == SEEK_END) {
        struct stat st {};
        if (fstat(f->fd, &st) != 0) return -1;
        base = st.st_size;
    } else if (whence != SEEK_SET) {
        errno = EINVAL;
        return -1;
    }
    if (*to < -base) {
        errno = EINVAL;
        return -1;
    }
    f->pos = base + *to;
    *to = f->pos;
    return 0;
}

int cookie_close(void *c) {
    auto *f = static_cast<Cookie *>(c);
    {
        const std::unique_lock hold(streams().mutex);
        streams().by_file.erase(f->fp);
    }
    const int rc = close(f->fd);
    delete f;
    return rc;
}

// The open(2) flags of an fopen mode; false for a mode we do not make.
bool open_flags(const char *mode, int &flags, bool &truncate, const char *&cookie_mode) {
    std::string m;
    for (const char *p = mode; *p; ++p)
        if (*p != 'b') m += *p;
    truncate = false;
    if (m == "r") {
        flags = O_RDONLY;
        cookie_mode = "r";
    } else if (m == "r+") {
        flags = O_RDWR;
        cookie_mode = "r+";
    } else if (m == "w" || m == "w+") {
        flags = (m == "w" ? O_WRONLY : O_RDWR) | O_CREAT;
        truncate = true;
        cookie_mode = m == "w" ? "w" : "w+";
    } else {
        return false;
    }
    return true;
}

Cookie *cookie_of(FILE *fp) {
    Streams &s = streams();
    const std::shared_lock hold(s.mutex);
    const auto it = s.by_file.find(fp);
    return it == s.by_file.end() ? nullptr : it->second;
}

// The descriptor and name of a stream: ours, or any other C stream.
int fd_of(FILE *fp, const char *&path) {
    if (const Cookie *c = cookie_of(fp)) {
        path = c->path.c_str();
        return c->fd;
    }
    path = "";
    return fileno(fp);
}

} // namespace

Observer *observer() {
    return g_observer.load(std::memory_order_acquire);
}

void set_observer(Observer *o) {
    g_observer.store(o, std::memory_order_release);
    use_database_layer(o != nullptr);
}

FILE *open_file(const char *path, const char *mode) {
    int flags = 0;
    bool truncate = false;
    const char *cookie_mode = nullptr;
    if (!path || !mode || !open_flags(mode, flags, truncate, cookie_mode)) {
        errno = EINVAL;
        return nullptr;
    }
    int fd;
    {
        Access a{Op::Open, path};
        a.create = (flags & O_CREAT) != 0;
        const Notice notice(observer(), a);
        fd = notice.fails() ? -1 : open(path, flags | O_CLOEXEC, 0666);
    }
    if (fd < 0) return nullptr;
    if (flags & O_CREAT) note_dir(parent_of(tidy(path)), false);
    if (truncate) {
        const Access a{Op::Truncate, path, 0};
        const Notice notice(observer(), a);
        if (notice.fails() || ftruncate(fd, 0) != 0) {
            const int e = errno;
            close(fd);
            errno = e;
            return nullptr;
        }
    }
    auto *c = new (std::nothrow) Cookie{fd, 0, path};
    FILE *fp =
        c ? fopencookie(c, cookie_mode,
                        cookie_io_functions_t{cookie_read, cookie_write, cookie_seek, cookie_close})
          : nullptr;
    if (!fp) {
        const int e = c ? errno : ENOMEM;
        close(fd);
        delete c;
        errno = e;
        return nullptr;
    }
    c->fp = fp;
    // The C library's own streams buffer one block of the file system; ours
    // would take BUFSIZ, which costs backward play its seeks.
    struct stat st {};
    if (fstat(fd, &st) == 0 && st.st_blksize > 0)
        std::setvbuf(fp, nullptr, _IOFBF, static_cast<size_t>(st.st_blksize));
    const std::unique_lock hold(streams().mutex);
    streams().by_file[fp] = c;
    return fp;
}

long long file_size(FILE *fp) {
    const char *path;
    struct stat st {};
    return fstat(fd_of(fp, path), &st) == 0 ? static_cast<long long>(st.st_size) : -1;
}

bool truncate_file(FILE *fp, long long size) {
    std::fflush(fp);
    const char *path;
    const int fd = fd_of(fp, path);
    const Access a{Op::Truncate, path, size};
    const Notice notice(observer(), a);
    if (notice.fails() || ftruncate(fd, size) != 0) return false;
    if (g_tracking.load(std::memory_order_relaxed) && *path) note_file(path);
    return true;
}

bool sync_file(FILE *fp) {
    if (std::fflush(fp) != 0) return false;
    const char *path;
    const int fd = fd_of(fp, path);
    const Access a{Op::Sync, path};
    const Notice notice(observer(), a);
    return !notice.fails() && fdatasync(fd) == 0;
}

bool rename_file(const char *from, const char *to) {
    Access a{Op::Rename, from};
    a.to = to;
    const Notice notice(observer(), a);
    return !notice.fails() && std::rename(from, to) == 0;
}

bool remove_file(const char *path) {
    const Access a{Op::Remove, path};
    const Notice notice(observer(), a);
    return !notice.fails() && unlink(path) == 0;
}

void make_dir(const char *path) {
    const Access a{Op::MakeDir, path};
    const Notice notice(observer(), a);
    if (!notice.fails() && mkdir(path, 0700) == 0) note_dir(tidy(path), true);
}

namespace {

// fsync or syncfs on a directory opened for it.
bool sync_through_dir(const char *path, Op op) {
    const int fd = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return false;
    bool ok;
    {
        const Access a{op, path};
        const Notice notice(observer(), a);
        ok = !notice.fails() && (op == Op::SyncAll ? syncfs(fd) : fsync(fd)) == 0;
    }
    close(fd);
    return ok;
}

} // namespace

bool sync_dir(const char *path) {
    return sync_through_dir(path, Op::SyncDir);
}

bool sync_all(const char *path) {
    return sync_through_dir(path, Op::SyncAll);
}

int open_to_sync(const char *path) {
    return open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY);
}

bool sync_descriptor(int fd, const char *path, Op op) {
    const Access a{op, path};
    const Notice notice(observer(), a);
    if (notice.fails()) return false;
    switch (op) {
    case Op::SyncAll:
        return syncfs(fd) == 0;
    case Op::SyncDir:
        return fsync(fd) == 0;
    default:
        return fdatasync(fd) == 0;
    }
}

void track_changes(bool on) {
    ChangeLog &log = change_log();
    const std::lock_guard hold(log.mutex);
    g_tracking.store(on);
    if (!on) {
        log.files.clear();
        log.dirs.clear();
    }
}

Changes take_changes() {
    ChangeLog &log = change_log();
    const std::lock_guard hold(log.mutex);
    log.taken = g_taken.fetch_add(1) + 1;
    Changes c;
    c.files.assign(log.files.begin(), log.files.end());
    c.dirs.assign(log.dirs.begin(), log.dirs.end());
    log.files.clear();
    log.dirs.clear();
    return c;
}

} // namespace vrix::io
