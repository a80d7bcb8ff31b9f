// The library's file operations: stream files, directories and syncs, and
// (through the SQLite file layer in sql_vfs.cpp) the databases.  By default
// each is the plain system call.  A test installs an Observer that is told of
// every operation before it runs and after it returned, so that it can keep
// the bytes a power cut would lose, count reads, hold all I/O still, or make
// an operation fail as a full or failing disk would.
//
// Streams opened here are C library streams over the library's own
// read/write/seek, so every byte moved through them is seen.  They have no
// descriptor for fileno(): use file_size / truncate_file / sync_file.
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <string>
#include <vector>

namespace vrix::io {

enum class Op : unsigned char {
    Open,     // a file is opened; `create`: it is made when missing
    Read,     // `length` bytes at `offset`
    Write,    // `length` bytes of `data` at `offset`
    Truncate, // the file is cut (or extended) to `offset` bytes
    Sync,     // the file's data and size are made durable
    Remove,   // the file's name is removed
    MakeDir,  // a directory is made when missing
    SyncDir,  // the names in directory `path` are made durable
    SyncAll,  // everything on the file system holding `path` is made durable
    Lock,     // a database lock is taken (`length`: SQLite's lock level)
    Rename,   // `path` is renamed to `to`, replacing what `to` named
};

struct Access {
    Op op;
    const char *path; // the file or directory
    long long offset = 0;
    size_t length = 0;
    const void *data = nullptr;
    bool create = false;      // Open: the file is made when missing
    bool with_name = false;   // Sync: the names in the file's directory too
    const char *to = nullptr; // Rename: the new name
};

// What an observer makes of an operation instead of letting it run: it
// fails with `error` (an errno value; EBUSY on a Lock is a busy database),
// or a Write puts only its first `keep` bytes on the disk and reports that
// many written (a short write; `error` is then ignored).
struct Fault {
    int error = 0;
    long long keep = -1;
    bool any() const { return error != 0 || keep >= 0; }
};

// Told of every operation.  before() runs first and may block (a gate that
// freezes all I/O at one instant); fault() is asked next and decides whether
// the operation runs; after() runs once the operation returned, whatever its
// outcome.  All may be called from any thread.
class Observer {
  public:
    virtual ~Observer() = default;
    virtual void before(const Access &a) = 0;
    virtual Fault fault(const Access &) { return {}; }
    virtual void after(const Access &) {}
};

// Installs `o` for every later operation, null for none; while one is
// installed the library's databases go through it too.  Not for use while
// other threads are inside an operation.
void set_observer(Observer *o);

// Opens a stream with an fopen mode ("r", "rb", "rb+", "w", "wb", "wb+"; any
// other is refused).  Null with errno set on failure.
FILE *open_file(const char *path, const char *mode);

// Size of an open file without moving it; -1 on failure.
long long file_size(FILE *fp);

// Writes the stream's buffer, then cuts the file at `size`.  The position is
// left as it was.
bool truncate_file(FILE *fp, long long size);

// Writes the stream's buffer and makes the file's data durable (fdatasync).
bool sync_file(FILE *fp);

// Renames `from` to `to`, replacing a file `to` names (rename(2)); durable
// once the directory is synced.  False with errno set on failure.
bool rename_file(const char *from, const char *to);

// Removes a file's name (unlink).  False with errno set on failure.
bool remove_file(const char *path);

// mkdir with mode 0700; an existing directory is no error.
void make_dir(const char *path);

// Makes the names in a directory durable (fsync of the directory).
bool sync_dir(const char *path);

// Makes everything on the file system holding `path` durable (syncfs).
bool sync_all(const char *path);

// A descriptor kept to sync the file or directory `path` by (read-only, so
// any file will do); -1 with errno set on failure.  Linux reports a failed
// write-back to the descriptors that were open when it failed: one kept open
// from before the write sees the error at its next sync.
int open_to_sync(const char *path);

// Syncs through a kept descriptor of `path`: `op` Sync (fdatasync), SyncDir
// (fsync) or SyncAll (syncfs).  False with errno set on failure.
bool sync_descriptor(int fd, const char *path, Op op);

// Names changed since they were last taken, for file systems where only a
// sync of each file makes it durable: stream files written or cut, and
// directories that gained or lost a name (a made directory counts with its
// parent).  Kept only while tracking is on; turning it off forgets them.
struct Changes {
    std::vector<std::string> files;
    std::vector<std::string> dirs;
};
void track_changes(bool on);
Changes take_changes();

// Used by the database layer: the installed observer, or null.
Observer *observer();

// Tells the observer (if any) of one operation for the scope of the guard,
// and holds the fault it chose for the operation.
class Notice {
  public:
    Notice(Observer *o, const Access &a) : o_(o), a_(a) {
        if (!o_) return;
        o_->before(a_);
        fault_ = o_->fault(a_);
    }
    ~Notice() {
        if (o_) o_->after(a_);
    }
    Notice(const Notice &) = delete;
    Notice &operator=(const Notice &) = delete;

    const Fault &fault() const { return fault_; }
    // True (errno set) when the operation is to fail as a whole.
    bool fails() const {
        if (!fault_.error || fault_.keep >= 0) return false;
        errno = fault_.error;
        return true;
    }

  private:
    Observer *o_;
    const Access &a_;
    Fault fault_;
};

// Registers or withdraws the database layer as SQLite's default (sql_vfs.cpp).
void use_database_layer(bool on);

} // namespace vrix::io
