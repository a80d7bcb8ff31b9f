// One recording process per store, and no maintenance from another process
// beside it: POSIX record locks on the root's lock file, which belong to the
// process (a forked child never holds them) and go with it however it ends.
//
// Byte 0 of <root>/.vrixdb.lock is held while this process records the root
// or maintains it; byte 1 while it maintains it (repair, index rebuild,
// reduction), so that a process refused byte 0 can say who holds it.  Within
// the process, claims are counted: the first takes the lock, the last gives
// it back.  No other descriptor of the lock file is ever opened in the
// process (closing any descriptor of a file drops the process's locks on it).
#pragma once

namespace vrix {

struct RootClaim;

// Claims `root` for recording by this process.  Null, after one line, when
// another process records or maintains it ("<who> : <root> is being recorded
// by another process", "... is being maintained by another process") or when
// the lock cannot be had at all ("<who> : cannot lock <root> : <cause>").
RootClaim *claim_root(const char *root, const char *who);

// Gives a claim back (null is passed over); the last one of a root unlocks it.
void release_root(RootClaim *claim);

// Whether a process records `root`: this one (a recording context of it is
// open) or another that holds the root's recording lock (a process that
// maintains it holds that too, and counts).  False for a root that was never recorded (no lock
// file) or cannot be looked at.
bool root_recorded(const char *root);

// Held by a maintenance entry point for its run.  `path` is the store's root,
// or with `inside` anything inside a store (a day's directory, an index),
// whose root is then the nearest directory above it with a lock file.
// Refused, with one line as above, while another process records or
// maintains the store.  A root that does not exist, or a path in no store
// that was ever recorded, needs no lock.
class MaintenanceHold {
  public:
    MaintenanceHold(const char *path, const char *who, bool inside = false);
    ~MaintenanceHold();
    MaintenanceHold(const MaintenanceHold &) = delete;
    MaintenanceHold &operator=(const MaintenanceHold &) = delete;

    explicit operator bool() const { return ok_; }

  private:
    RootClaim *claim_ = nullptr;
    bool ok_ = false;
};

} // namespace vrix
