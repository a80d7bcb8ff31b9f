// Test support: a child copy of the test binary.  The test sets a variable
// that makes the copy act a part (a recorder to kill, a process holding a
// root) instead of running the tests, and waits for it.
#pragma once

#include <sys/types.h>

#include <string>

namespace vrix::test {

// Starts /proc/self/exe with `name`=`value` added to this environment (an
// inherited `name` is replaced) and its standard output on `out` (-1: this
// process's).  Everything is made before fork: this process may have threads,
// so the child calls only exec-safe functions.  The child's id, or -1.
pid_t spawn_self(const std::string &name, const std::string &value, int out = -1);

// Waits for the child to end: its wait status.
int wait_status(pid_t pid);

// A decimal number from the environment, `fallback` when unset or empty.  As
// wide as a seed on every target: `long` is 32 bits on armhf, where strtol
// would turn a seed above 2^31 printed by one run into LONG_MAX in the next.
long long env_number(const char *name, long long fallback);

} // namespace vrix::test
