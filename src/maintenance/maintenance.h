// Shared pieces of reclamation, backup and repair: database and file handles
// that close themselves, the remove handshake, and running a helper program.
#pragma once

#include "core/store_access.h"
#include "vrixdb.h"

#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <memory>

namespace vrix {

// A database handle opened and closed under its kind's mutex (a null mutex,
// as repair uses, takes no lock).
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

    // One statement under the mutex, empty result format.
    int run(const char *sql) const { return submit_locked(m_, h_, sql); }
    // A "%d" query under the mutex into a one-slot holder; true when it
    // returned a row holding a value, which is stored in `out`.
    bool value(ResultTable &holder, const char *sql, int &out) const;
    // The reclamation's transaction: "BEGIN TRANSACTION", the parts, "COMMIT
    // TRANSACTION", under one hold of the mutex; results are not examined.
    void transaction(std::initializer_list<const char *> parts) const;

  private:
    pthread_mutex_t *m_;
    SqlHandle h_ = nullptr;
};

// A one-slot result holder freed on scope exit.
struct Holder {
    ResultTable t = nullptr;
    int rows = 1;
    ~Holder() { db_free_sqlite(t, rows); }
};

struct FileCloser {
    void operator()(FILE *fp) const { std::fclose(fp); }
};
using File = std::unique_ptr<FILE, FileCloser>;

// Remove commands of the remove request (text byte 0).
constexpr unsigned char kRemoveFile = 0;
constexpr unsigned char kRemoveTree = 1;

// The remove handshake: fills g_RmMsg with the command and the path, sends it
// on the remove queue and blocks until any reply arrives on the ack queue.
// No mutex may be held.  When the request cannot be sent no reply is awaited.
// `announce` prints "before wait" once sent and "after wait" once answered.
void request_remove(unsigned char command, const char *path, bool announce = false);

// True when a writer of this process is recording in day `day` (named `name`)
// of the store under `root` at an hour up to `last_hour`: what it writes is
// never removed, and one line "<who> : hour H of <name> is being recorded ,
// kept" (or "day <name>" when `last_hour` is kWholeDay) says so.  Recorders in
// other processes are not seen.
constexpr int kWholeDay = 99;
bool kept_for_recording(const char *who, const char *root, int day, const char *name,
                        int last_hour);

// Deletes a day's rows from date.db: H, then ch1..ch16, each under the date
// mutex by itself, with the reclamation's wait after each channel.
void unregister_day(const Db &date_db, int day);

// The free-space figure: MiB above a 9 GiB reserve, from statfs's available
// blocks and block size, truncated; INT_MAX for anything larger.
int free_space_figure(uint64_t bavail, uint64_t bsize);

// Runs a program found on PATH with the given argument vector (null-ended),
// with no command interpreter in between.  Returns its wait status as
// system() would (0 for a clean exit 0), or -1 when it could not be started.
int run_program(const char *const argv[], bool quiet = false);

// True when the sqlite3 shell can be started and exits cleanly.
bool shell_runs();

} // namespace vrix
