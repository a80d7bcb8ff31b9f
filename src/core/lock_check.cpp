#include "lock_check.h"

#if VRIX_DEBUG_LOCKS

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace vrix {
namespace {

thread_local int t_depth = 0;

[[noreturn]] void broken(const char *rule, const char *what) {
    std::fprintf(stderr, "vrix lock rule : %s (%s)\n", rule, what);
    std::abort();
}

} // namespace

void note_db_lock_taken() {
    if (t_depth != 0) broken("at most one database mutex at a time", "second mutex taken");
    ++t_depth;
}

void note_db_lock_released() {
    --t_depth;
}

void require_no_db_lock(const char *what) {
    if (t_depth != 0) broken("no database mutex held across a wait", what);
}

void db_lock_failed(const char *op, int error) {
    std::fprintf(stderr, "vrix lock rule : %s of a database mutex failed : %s\n", op,
                 std::strerror(error));
    std::abort();
}

} // namespace vrix

#endif
