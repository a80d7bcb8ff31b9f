// Named points in the library's threads where a test can step in, to make a
// race happen deterministically.  VRIX_SYNC_POINT("name") compiles to
// nothing unless the build defines VRIX_SYNC_POINTS (CMake option, on in
// every build type but Release).
//
// A callback runs on the thread that reaches the point, with no database
// mutex held (points are only placed outside every guard).  Callbacks of
// several threads may run at the same time.
#pragma once

#include <functional>

#if VRIX_SYNC_POINTS
#define VRIX_SYNC_POINT(name) ::vrix::sync_point(name)
#else
#define VRIX_SYNC_POINT(name) ((void)0)
#endif

namespace vrix {

#if VRIX_SYNC_POINTS

// Runs the callback installed for `name`, if any.
void sync_point(const char *name);

// Installs (or, with an empty function, removes) the callback of a point.
void set_sync_point(const char *name, std::function<void()> callback);

// Removes every callback.
void clear_sync_points();

#endif

} // namespace vrix
