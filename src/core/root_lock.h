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

// How a maintenance entry point names its store, and whether it may run
// beside this process's own writers.
enum HoldFlags : unsigned {
    kHoldRoot = 0,   // `path` is the store's root
    kHoldInside = 1, // `path` is inside a store (a day's directory, an index)
    kHoldAlone = 2,  // refused too while this process records the store
};

// Held by a maintenance entry point for its run.  With kHoldInside, the root
// is the nearest directory at or above `path` with a lock file.  Refused,
// with one line as above, while another process records or maintains the
// store; with kHoldAlone also while this process records it ("<who> : <root>
// is being recorded by this process"): a repair reconciles indexes with
// stream files, and a writer's frames still in its buffer would look torn.
// A root that does not exist, or a path in no store that was ever recorded,
// needs no lock.
class MaintenanceHold {
  public:
    MaintenanceHold(const char *path, const char *who, unsigned flags = kHoldRoot);
    ~MaintenanceHold();
    MaintenanceHold(const MaintenanceHold &) = delete;
    MaintenanceHold &operator=(const MaintenanceHold &) = delete;

    explicit operator bool() const { return ok_; }

  private:
    RootClaim *claim_ = nullptr;
    bool ok_ = false;
};

} // namespace vrix
