// The catalogue's reading side: one call's account of what could not be
// read, and a read-only look at one index database of the store.
//
// Every catalogue function reads through these, so that a database that is
// there but cannot be read is reported, never taken for an empty one, and a
// database or table that is not there reads as empty without being created.
#pragma once

#include "core/store_access.h"
#include "store/format.h"
#include "vrixdb.h"

#include <ctime>
#include <vector>

namespace vrix::cat {

// One catalogue call: where problems go and whether there was any.
class Call {
  public:
    Call(const char *root, VrixCatProblemFn problem, void *user)
        : root_(root), problem_(problem), user_(user) {}
    const char *root() const { return root_; }
    // Hands `path` to the caller's callback once per call.
    void report(const char *path, int reason);
    // 0 when everything could be read, 1 otherwise: the functions' result.
    int result() const { return incomplete_ ? 1 : 0; }

  private:
    const char *root_;
    VrixCatProblemFn problem_;
    void *user_;
    bool incomplete_ = false;
    std::vector<Path> reported_;
};

// An index database opened read-only when its file is there.  Each query is
// one statement under the database kind's mutex (when the library is
// started), retried while busy.  A failure is reported once through the
// call; a damaged table leaves the others readable, but a database still
// locked after the retry is not asked again.
class ReadDb {
  public:
    ReadDb(Call &call, pthread_mutex_t *m, const char *path);
    ~ReadDb();
    ReadDb(const ReadDb &) = delete;
    ReadDb &operator=(const ReadDb &) = delete;

    // The file is there and opened, and not locked.
    bool usable() const { return h_ && !locked_; }
    // Something of it could not be read.
    bool failed() const { return failed_; }
    const char *path() const { return path_.text; }
    // Rows of `columns` (1..8) integer columns, flat, appended to `out` (a
    // NULL reads as `null_as`); false when the query failed.
    bool query(const char *sql, int columns, std::vector<long long> &out, long long null_as = 0);
    // The tables of a video.db / audio.db: whether H is there, and the
    // hours that have a table of rows.
    bool hour_tables(bool &has_h, std::vector<int> &tables);
    // The distinct hours 0..23 of H, ascending (none without H).
    bool listed_hours(std::vector<int> &hours);

  private:
    void fail(int reason);

    Call &call_;
    pthread_mutex_t *m_;
    Path path_;
    SqlHandle h_ = nullptr;
    bool failed_ = false;
    bool locked_ = false;
};

// The calendar fields of a day key, for the store's path forms.
inline std::tm day_fields(int day) {
    std::tm tm{};
    sec_to_tm(&tm, day);
    return tm;
}

// The key of the local day of instant t.
int day_key(long long t);

// Day keys of date.db's `table` (H, or ch<N>) in [from, to), ascending.
bool days_in(ReadDb &date, const char *table, long long from, long long to, std::vector<int> &days);

// The mutex of a kind's day database (video: channel `ch`).
pthread_mutex_t *index_mutex(int kind, int ch);

// The path of the day's index database of `kind` (video: channel `ch`).
bool index_db_path(Path &p, const char *root, int kind, int day, int ch);

// Whether a file or directory exists (nothing else is asked of it).
bool exists(const char *path);
long long size_of(const char *path); // -1 when there is no such file

// Refuses what no catalogue function takes, with one line naming `who`.
bool root_ok(const char *root, const char *who);

} // namespace vrix::cat
