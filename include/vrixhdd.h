/*
 * libvrixhdd - the store access layer under libvrixdb.
 *
 * A board may ship its own companion library with these names; this one is
 * written over SQLite 3.
 *
 * Handles: sql_open writes an opaque pointer-sized handle; 0 means "no handle".
 * sql_submit and sql_close accept 0 and refuse it harmlessly.
 *
 * Result holders (ResultTable): an array of row slots, each null (SQL NULL) or
 * pointing to a 4-byte ("%d", signed 32-bit) or 8-byte ("%u", unsigned 64-bit)
 * value.  sql_submit takes the address of the caller's holder variable; when
 * the variable holds null it allocates a holder with one slot per result row.
 * Every array and buffer is released with free() (libvrixdb's db_free_sqlite).
 *
 * Return values of sql_submit: the number of rows stored for a query with a
 * format, 0 for other statements, -1 when the database is busy or locked (the
 * same call may succeed later), below -1 for any other failure.
 *
 * sql_open sets a busy timeout of VRIX_SQL_BUSY_TIMEOUT_MS and keeps SQLite's
 * rollback journal.
 */
#ifndef VRIXHDD_H
#define VRIXHDD_H

#include <pthread.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The export marker; vrixdb.h defines it the same way. */
#ifndef VRIX_API
#if defined(__GNUC__)
#define VRIX_API __attribute__((visibility("default")))
#else
#define VRIX_API
#endif
#endif

/* Milliseconds SQLite waits on a lock held by another handle before it reports busy. */
#define VRIX_SQL_BUSY_TIMEOUT_MS 50

/* Opaque database handle; 0 means none. */
typedef void *SqlHandle;

/* One result column: an array of row slots (see above). */
typedef void **ResultTable;

VRIX_API int sql_open(const char *path, SqlHandle *handle);
VRIX_API int sql_submit(SqlHandle handle, const char *sql, const char *format, ...);
VRIX_API int sql_close(SqlHandle handle);

/* Prints the thread's scheduling policy and priority on standard output. */
VRIX_API int vrix_thread_print_priority(pthread_t thread);

/* Progress of the integrity check: the value is recorded, printed as one line
 * and handed to the registered callback, if any. */
typedef void (*VrixCorrectStepFn)(int step, void *user);
VRIX_API int vrix_hdd_correct_step(int step);
VRIX_API void vrix_hdd_set_correct_step_callback(VrixCorrectStepFn fn, void *user);
/* The last value reported, -1 before the first. */
VRIX_API int vrix_hdd_last_correct_step(void);

#ifdef __cplusplus
}
#endif

#endif /* VRIXHDD_H */
