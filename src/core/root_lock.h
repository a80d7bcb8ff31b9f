// One recording process per store: an advisory lock on the root's lock file,
// taken by the first recording context of this process on a root and released
// when its last one closes.  The lock goes with the process, however it ends.
#pragma once

namespace vrix {

struct RootClaim;

// Claims `root` for this process.  Null, after the line "<who> : <root> is
// being recorded by another process", when another process holds it.  A root
// whose lock file cannot be made (a missing directory) is claimed without a
// lock: nothing can be recorded there.
RootClaim *claim_root(const char *root, const char *who);

// Gives a claim back (null is passed over); the last one of a root unlocks it.
void release_root(RootClaim *claim);

} // namespace vrix
