// Linked into every test program where the build found that test processes
// may own their System V queues: before main, the process takes a private set
// (an IPC namespace of its own), so that tests which start the library run
// side by side instead of taking turns for the machine-wide keys 1220-1222.
// The programs a test starts (copies of itself, the vrixdb program) inherit
// the set and the marker, and stay with their parent's queues.
#include <sched.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr const char *kMarker = "VRIX_TEST_OWN_QUEUES";

const bool owned = [] {
    if (std::getenv(kMarker)) return true;
    if (unshare(CLONE_NEWIPC) != 0) {
        // The tests were set up to run side by side: sharing the machine's
        // queues now would let them take each other's messages.
        std::fprintf(stderr,
                     "test: cannot take a private set of queues (unshare: %s); configure "
                     "with -DVRIX_TEST_OWN_QUEUES=OFF to run the tests in turns\n",
                     std::strerror(errno));
        std::exit(1);
    }
    setenv(kMarker, "1", 1);
    return true;
}();

} // namespace
