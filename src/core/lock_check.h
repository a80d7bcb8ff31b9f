// The checks behind the lock rules of store_access.h.  Built with
// VRIX_DEBUG_LOCKS, every thread counts the database mutexes it holds and a
// broken rule aborts with one line naming it; without it these are empty.
#pragma once

namespace vrix {

#if VRIX_DEBUG_LOCKS

// A database mutex is about to be taken (depth must be 0) / was let go.
void note_db_lock_taken();
void note_db_lock_released();
// `what` (a sleep, a poll pause, a queue send or receive) is about to run:
// the thread must hold no database mutex.
void require_no_db_lock(const char *what);
// A lock or unlock of an error-checking mutex that failed.
[[noreturn]] void db_lock_failed(const char *op, int error);

#else

inline void note_db_lock_taken() {}
inline void note_db_lock_released() {}
inline void require_no_db_lock(const char *) {}

#endif

} // namespace vrix
