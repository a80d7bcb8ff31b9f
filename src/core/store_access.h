// The library's side of the store access layer: the mutex of each database
// kind, a guard that holds it, result holders and the transaction convention.
//
// Lock rules (checked in builds with VRIX_DEBUG_LOCKS, see lock_check.h):
// - The database mutexes (g_pVideoSqlMutex[1..16], g_pAudioSqlMutex,
//   g_pDateSqlMutex, g_pEventSqlMutex) are taken only through SqlLock, or the
//   helpers below that hold one for a single call.
// - A thread holds at most one of them at a time: no helper that locks is
//   called while a guard is held.
// - None is held across a sleep, a poll pause, a queue send or receive, or the
//   remove handshake: a guard's scope ends before any of these.
// - Helpers that work on a handle whose mutex the caller holds say so with a
//   "Requires: <mutex> held" line.
//
// Ownership of the video recording context (video/rec_context.h):
// - The writer thread (the recorder's calls on the context) owns everything
//   in RecChannel and RecContext, and pOffsetResult is its holder.
// - The submit thread reads RecChannel::strDay and pVideoDb only under the
//   channel's video mutex; the writer changes both together under it.
// - pDateDb is used by both threads, always under the date mutex.
// - pIntResult is the submit thread's holder; the writer never touches it.
// - strRoot and iChannelCount do not change while the context is open.
#pragma once

#include "flags.h"
#include "lock_check.h"
#include "vrixdb.h"

#include <cstdio>
#include <functional>
#include <initializer_list>
#include <memory>

namespace vrix {

// Holds a database mutex for the guard's lifetime.  A null mutex (the
// library not started, or repair, which takes no lock) is passed over rather
// than dereferenced.
class SqlLock {
  public:
    explicit SqlLock(pthread_mutex_t *m) : m_(m) {
        if (!m_) return;
        note_db_lock_taken();
        [[maybe_unused]] const int rc = pthread_mutex_lock(m_);
#if VRIX_DEBUG_LOCKS
        if (rc != 0) db_lock_failed("lock", rc);
#endif
    }
    ~SqlLock() {
        if (!m_) return;
        [[maybe_unused]] const int rc = pthread_mutex_unlock(m_);
#if VRIX_DEBUG_LOCKS
        if (rc != 0) db_lock_failed("unlock", rc);
#endif
        note_db_lock_released();
    }
    SqlLock(const SqlLock &) = delete;
    SqlLock &operator=(const SqlLock &) = delete;

  private:
    pthread_mutex_t *m_;
};

// The mutexes of the database kinds; channel must be 1..16.
inline pthread_mutex_t *video_mutex(int channel) {
    return g_pVideoSqlMutex[channel];
}
inline pthread_mutex_t *date_mutex() {
    return g_pDateSqlMutex;
}
inline pthread_mutex_t *audio_mutex() {
    return g_pAudioSqlMutex;
}
inline pthread_mutex_t *event_mutex() {
    return g_pEventSqlMutex;
}

// Cell widths of the two conversions.
constexpr int kIntCell = 4;
constexpr int kOffsetCell = 8;

// Makes a holder of `rows` zeroed slots with a zeroed `width`-byte buffer
// each.  Prints "vrix : malloc output error 2 !" when the slot array cannot be
// had and "vrix : malloc output error 1 !" when a buffer cannot; returns null
// then, having freed what it made.
ResultTable make_holder(int rows, int width);

// Opens / closes a database under its mutex.  open_db stores 0 in `handle`
// on failure and returns false.
bool open_db(pthread_mutex_t *m, const char *path, SqlHandle &handle);
void close_db(pthread_mutex_t *m, SqlHandle &handle);
// Closes a writer's index connection (kIndexNoSync), removing its kept
// journal; the caller holds the database's mutex.
void close_writer_db(SqlHandle &handle);

// One statement under one hold of the mutex.
int submit_locked(pthread_mutex_t *m, SqlHandle db, const char *sql);

// The writers' index rows in one transaction: BEGIN, `prelude()` (tables made
// when missing; its results are not examined), `rows` and COMMIT, each
// repeated while the store is busy, under one hold of the mutex.  False, the
// transaction rolled back, when the rows or the commit failed: the writer
// keeps its rows for its next commit, so that no failure leaves a hole in an
// index.
bool commit_rows(pthread_mutex_t *m, SqlHandle db, const char *rows,
                 const std::function<void()> &prelude = {});

// One query into a one-slot holder under one hold of the mutex; the store's
// count.  query_int / query_offset also read the value: false when the query
// yields no row, fails or the value is NULL.
int query_locked(pthread_mutex_t *m, SqlHandle db, const char *sql, const char *format,
                 ResultTable &holder);
bool query_int(pthread_mutex_t *m, SqlHandle db, const char *sql, ResultTable &holder, int &out);
bool query_offset(pthread_mutex_t *m, SqlHandle db, const char *sql, ResultTable &holder,
                  long long &out);

// The store's answer "busy" (sql_submit's -1).  Every retry of the library
// goes through retry_busy: at most kBusyAttempts attempts, which with SQLite's
// own busy wait in each is about a second, and a poll pause between two
// attempts unless the caller holds a database mutex (`pause` false: the lock
// rules allow no pause then, and SQLite's own wait spaces the attempts).  The
// pause is not shortened by the test hooks, so a retry never spins.
constexpr int kBusy = -1;
constexpr int kBusyAttempts = 20;

// Runs `attempt` until it returns anything but kBusy, at most `attempts`
// times; returns its last result.
template <class Attempt>
int retry_busy(Attempt &&attempt, int attempts = kBusyAttempts, bool pause = true) {
    int r = kBusy;
    for (int i = 0; i < attempts && r == kBusy; ++i) {
        if (i && pause) poll_pause();
        r = attempt();
    }
    return r;
}

// A statement repeated while the database is busy, so that a reader in
// another process holding a lock for a moment costs no statement.
// Requires: the mutex of `db` held.
int submit_busy(SqlHandle db, const char *sql, const char *format = "",
                ResultTable *holder = nullptr);

// Adds a row with `insert` unless `find` yields one; a lookup that failed
// adds it too (a second row does no harm, a missing one hides footage).
// `holder` has at least one int cell.
// Requires: the mutex of `db` held.
void ensure_row(SqlHandle db, const char *find, const char *insert, ResultTable &holder);

// Creates the table of hour `hour` (a table that exists stays as it is) and,
// when the table is new or `in_order` says that all its rows were just made
// from the stream file, its index on the times.
void create_hour_table(SqlHandle db, int hour, bool in_order);

// The day (a local midnight) in date.db's H, found or added.
// Requires: the date mutex held.
void ensure_day(SqlHandle date_db, int day, ResultTable &holder);

// Reads slot 0 of a holder after a positive count; false when it is null.
bool holder_int(ResultTable t, int &out);
bool holder_offset(ResultTable t, long long &out);

// A database connection opened and closed under its kind's mutex (a null
// mutex, as repair uses, takes no lock); closed on every way out.
class Db {
  public:
    explicit Db(pthread_mutex_t *m) : m_(m) {}
    ~Db() { close(); }
    Db(const Db &) = delete;
    Db &operator=(const Db &) = delete;

    bool open(const char *path) { return open_db(m_, path, h_); }
    void close() { close_db(m_, h_); }
    bool is_open() const { return h_ != nullptr; }
    SqlHandle get() const { return h_; }
    pthread_mutex_t *mutex() const { return m_; }
    // Hands the connection over; the caller closes it under the same mutex.
    SqlHandle release() {
        SqlHandle h = h_;
        h_ = nullptr;
        return h;
    }

    // One statement under the mutex, empty result format.
    int run(const char *sql) const { return submit_locked(m_, h_, sql); }
    // A "%d" query under the mutex into a one-slot holder; true when it
    // returned a row holding a value, which is stored in `out`.
    bool value(ResultTable &holder, const char *sql, int &out) const {
        return query_int(m_, h_, sql, holder, out);
    }
    // The reclamation's transaction: "BEGIN TRANSACTION", the parts, "COMMIT
    // TRANSACTION", under one hold of the mutex; results are not examined.
    void transaction(std::initializer_list<const char *> parts) const;

  private:
    pthread_mutex_t *m_;
    SqlHandle h_ = nullptr;
};

// A result holder of `rows` slots freed on scope exit.
struct Holder {
    ResultTable t = nullptr;
    int rows = 1;
    Holder() = default;
    Holder(int slots, int width) : t(make_holder(slots, width)), rows(slots) {}
    ~Holder() { db_free_sqlite(t, rows); }
    Holder(const Holder &) = delete;
    Holder &operator=(const Holder &) = delete;
};

// A C stream closed on scope exit.
struct FileCloser {
    void operator()(FILE *fp) const { std::fclose(fp); }
};
using File = std::unique_ptr<FILE, FileCloser>;

} // namespace vrix
