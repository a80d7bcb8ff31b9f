// The databases' way through the file layer: a SQLite VFS over the default
// "unix" one.  Opening, locking and I/O are the unix VFS's own; this layer
// only tells the observer of file_io.h around opens, reads, writes,
// truncations, syncs, locks and deletions, and fails them as the observer
// asks (a full disk is SQLITE_FULL, a busy lock SQLITE_BUSY, anything else
// the operation's I/O error).  libvrixhdd opens its connections with
// SQLite's default VFS, so while an observer is installed this one is made
// the default and every database the library opens afterwards goes through it.
#include "file_io.h"

#include <sqlite3.h>

#include <string>

namespace vrix::io {
namespace {

sqlite3_vfs *g_unix = nullptr;

// Our file, followed in the same allocation by the unix VFS's own.
struct alignas(8) File {
    sqlite3_file base;
    const char *path;   // SQLite keeps the name until xClose; null for temporary files
    bool names_pending; // the first sync also syncs the directory (a new journal)
    sqlite3_file *real() { return reinterpret_cast<sqlite3_file *>(this + 1); }
};
static_assert(sizeof(File) % 8 == 0, "the unix VFS's file that follows stays aligned");

File *own(sqlite3_file *f) {
    return reinterpret_cast<File *>(f);
}
sqlite3_file *real(sqlite3_file *f) {
    return own(f)->real();
}
const sqlite3_io_methods &methods(sqlite3_file *f) {
    return *real(f)->pMethods;
}

// A notice for a named file only: temporary files hold nothing to keep.
Observer *observer_for(const char *path) {
    return path ? observer() : nullptr;
}

// The SQLite result of an operation the observer made fail.
int failed(const Notice &n, int ioerr) {
    return n.fault().error == ENOSPC ? SQLITE_FULL : ioerr;
}

int x_close(sqlite3_file *f) {
    return methods(f).xClose(real(f));
}

int x_read(sqlite3_file *f, void *buf, int n, sqlite3_int64 off) {
    const Access a{Op::Read, own(f)->path, off, static_cast<size_t>(n)};
    const Notice notice(observer_for(a.path), a);
    if (notice.fails()) return failed(notice, SQLITE_IOERR_READ);
    return methods(f).xRead(real(f), buf, n, off);
}

int x_write(sqlite3_file *f, const void *buf, int n, sqlite3_int64 off) {
    const Access a{Op::Write, own(f)->path, off, static_cast<size_t>(n), buf};
    const Notice notice(observer_for(a.path), a);
    const long long keep = notice.fault().keep;
    if (keep >= 0 && keep < n) {
        // A short write: SQLite is told the disk is full.
        if (keep > 0) methods(f).xWrite(real(f), buf, static_cast<int>(keep), off);
        return SQLITE_FULL;
    }
    if (notice.fails()) return failed(notice, SQLITE_IOERR_WRITE);
    return methods(f).xWrite(real(f), buf, n, off);
}

int x_truncate(sqlite3_file *f, sqlite3_int64 size) {
    const Access a{Op::Truncate, own(f)->path, size};
    const Notice notice(observer_for(a.path), a);
    if (notice.fails()) return failed(notice, SQLITE_IOERR_TRUNCATE);
    return methods(f).xTruncate(real(f), size);
}

// The unix VFS syncs a journal's directory at the journal's first sync.
int x_sync(sqlite3_file *f, int flags) {
    Access a{Op::Sync, own(f)->path};
    a.with_name = own(f)->names_pending;
    const Notice notice(observer_for(a.path), a);
    if (notice.fails()) return failed(notice, SQLITE_IOERR_FSYNC);
    const int rc = methods(f).xSync(real(f), flags);
    if (rc == SQLITE_OK) own(f)->names_pending = false;
    return rc;
}

int x_file_size(sqlite3_file *f, sqlite3_int64 *size) {
    return methods(f).xFileSize(real(f), size);
}
int x_lock(sqlite3_file *f, int level) {
    const Access a{Op::Lock, own(f)->path, 0, static_cast<size_t>(level)};
    const Notice notice(observer_for(a.path), a);
    if (notice.fails())
        return notice.fault().error == EBUSY ? SQLITE_BUSY : failed(notice, SQLITE_IOERR_LOCK);
    return methods(f).xLock(real(f), level);
}
int x_unlock(sqlite3_file *f, int level) {
    return methods(f).xUnlock(real(f), level);
}
int x_check_reserved(sqlite3_file *f, int *out) {
    return methods(f).xCheckReservedLock(real(f), out);
}
int x_file_control(sqlite3_file *f, int op, void *arg) {
    return methods(f).xFileControl(real(f), op, arg);
}
int x_sector_size(sqlite3_file *f) {
    return methods(f).xSectorSize(real(f));
}
int x_device(sqlite3_file *f) {
    return methods(f).xDeviceCharacteristics(real(f));
}
int x_shm_map(sqlite3_file *f, int region, int size, int extend, void volatile **pp) {
    return methods(f).xShmMap(real(f), region, size, extend, pp);
}
int x_shm_lock(sqlite3_file *f, int offset, int n, int flags) {
    return methods(f).xShmLock(real(f), offset, n, flags);
}
void x_shm_barrier(sqlite3_file *f) {
    methods(f).xShmBarrier(real(f));
}
int x_shm_unmap(sqlite3_file *f, int remove) {
    return methods(f).xShmUnmap(real(f), remove);
}
int x_fetch(sqlite3_file *f, sqlite3_int64 off, int n, void **pp) {
    return methods(f).xFetch(real(f), off, n, pp);
}
int x_unfetch(sqlite3_file *f, sqlite3_int64 off, void *p) {
    return methods(f).xUnfetch(real(f), off, p);
}

const sqlite3_io_methods kMethods = {
    3,           x_close,   x_read,     x_write,          x_truncate,     x_sync,
    x_file_size, x_lock,    x_unlock,   x_check_reserved, x_file_control, x_sector_size,
    x_device,    x_shm_map, x_shm_lock, x_shm_barrier,    x_shm_unmap,    x_fetch,
    x_unfetch,
};

int v_open(sqlite3_vfs *, const char *name, sqlite3_file *f, int flags, int *out_flags) {
    File *mine = own(f);
    mine->base.pMethods = nullptr;
    mine->path = name;
    constexpr int kJournals =
        SQLITE_OPEN_MAIN_JOURNAL | SQLITE_OPEN_SUPER_JOURNAL | SQLITE_OPEN_WAL;
    const bool create = (flags & SQLITE_OPEN_CREATE) != 0;
    mine->names_pending = create && (flags & kJournals) != 0;
    Access a{Op::Open, name};
    a.create = create;
    int rc;
    {
        const Notice notice(observer_for(name), a);
        rc = notice.fails() ? SQLITE_CANTOPEN
                            : g_unix->xOpen(g_unix, name, mine->real(), flags, out_flags);
    }
    if (mine->real()->pMethods) mine->base.pMethods = &kMethods;
    return rc;
}

// A deletion the caller wants durable syncs the directory through file_io,
// as the unix VFS would.
int v_delete(sqlite3_vfs *, const char *name, int sync_dir_too) {
    int rc;
    {
        const Access a{Op::Remove, name};
        const Notice notice(observer_for(name), a);
        rc = notice.fails() ? SQLITE_IOERR_DELETE : g_unix->xDelete(g_unix, name, 0);
    }
    if (rc == SQLITE_OK && sync_dir_too && name) {
        std::string dir(name);
        const size_t slash = dir.rfind('/');
        dir.resize(slash == std::string::npos ? 0 : slash);
        if (!sync_dir(dir.empty() ? "." : dir.c_str())) rc = SQLITE_IOERR_DIR_FSYNC;
    }
    return rc;
}

int v_access(sqlite3_vfs *, const char *name, int flags, int *out) {
    return g_unix->xAccess(g_unix, name, flags, out);
}
int v_full_pathname(sqlite3_vfs *, const char *name, int n, char *out) {
    return g_unix->xFullPathname(g_unix, name, n, out);
}
void *v_dl_open(sqlite3_vfs *, const char *name) {
    return g_unix->xDlOpen(g_unix, name);
}
void v_dl_error(sqlite3_vfs *, int n, char *out) {
    g_unix->xDlError(g_unix, n, out);
}
void (*v_dl_sym(sqlite3_vfs *, void *h, const char *sym))(void) {
    return g_unix->xDlSym(g_unix, h, sym);
}
void v_dl_close(sqlite3_vfs *, void *h) {
    g_unix->xDlClose(g_unix, h);
}
int v_randomness(sqlite3_vfs *, int n, char *out) {
    return g_unix->xRandomness(g_unix, n, out);
}
int v_sleep(sqlite3_vfs *, int us) {
    return g_unix->xSleep(g_unix, us);
}
int v_current_time(sqlite3_vfs *, double *out) {
    return g_unix->xCurrentTime(g_unix, out);
}
int v_last_error(sqlite3_vfs *, int n, char *out) {
    return g_unix->xGetLastError(g_unix, n, out);
}
int v_current_time64(sqlite3_vfs *, sqlite3_int64 *out) {
    return g_unix->xCurrentTimeInt64(g_unix, out);
}

sqlite3_vfs g_vfs = {};

// Finds the unix VFS and fills ours from it, once; false when there is none.
bool prepare() {
    static const bool ready = [] {
        g_unix = sqlite3_vfs_find("unix");
        if (!g_unix || g_unix->iVersion < 2) return false;
        g_vfs.iVersion = 2;
        g_vfs.szOsFile = static_cast<int>(sizeof(File)) + g_unix->szOsFile;
        g_vfs.mxPathname = g_unix->mxPathname;
        g_vfs.zName = "vrix";
        g_vfs.xOpen = v_open;
        g_vfs.xDelete = v_delete;
        g_vfs.xAccess = v_access;
        g_vfs.xFullPathname = v_full_pathname;
        g_vfs.xDlOpen = v_dl_open;
        g_vfs.xDlError = v_dl_error;
        g_vfs.xDlSym = v_dl_sym;
        g_vfs.xDlClose = v_dl_close;
        g_vfs.xRandomness = v_randomness;
        g_vfs.xSleep = v_sleep;
        g_vfs.xCurrentTime = v_current_time;
        g_vfs.xGetLastError = v_last_error;
        g_vfs.xCurrentTimeInt64 = v_current_time64;
        return true;
    }();
    return ready;
}

} // namespace

void use_database_layer(bool on) {
    if (!prepare()) return;
    // Connections opened meanwhile keep using whichever VFS they opened with.
    sqlite3_vfs_register(on ? &g_vfs : g_unix, 1);
}

} // namespace vrix::io
