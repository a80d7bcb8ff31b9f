// The maintenance a recorder runs, as the reduce and repair commands and the
// demo run it.
#pragma once

#include <atomic>
#include <cstdio>
#include <string>

namespace vrixtool {

// What the remove server did while a reduction ran.
struct RemoveLog {
    std::FILE *lines = nullptr; // a line per removal goes here when set
    std::atomic<int> removed{0};
    std::atomic<int> absent{0}; // nothing there to remove: not a failure
    std::atomic<int> other{0};  // refused or failed
};

// Reclaims the oldest recorded hour of `root`: its media through the remove
// server (noted in `log`), then its index rows and events.  Returns the last
// second reclaimed, 0 when the oldest day had no audio index and went as a
// whole, -1 when the remove server did not start.  `freeMB` gets the free
// space above the reserve, -1 when unknown.
long reclaim_oldest_hour(const std::string &root, RemoveLog &log, int &freeMB);

// The library's integrity check of `root`, its steps drawn as a progress bar
// on `out`.  True when it ran to the end.
bool run_integrity_check(const std::string &root, std::FILE *out);

} // namespace vrixtool
