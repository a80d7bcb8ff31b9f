// The one scanner of stream files: the whole, valid records of an hour file
// from an offset on, as the writers accept them.  Resume, the index rebuild
// and the start-up reconcile all read through it, and index what it finds.
#pragma once

#include "core/store_access.h"
#include "store/paths.h"

#include <cstdio>
#include <functional>

namespace vrix {

// One record the scan accepted.
struct ScannedRecord {
    long long offset;
    int sec;
    bool key; // a video key frame; always false for audio
};

// Valid video record: a header whose payload length lies within
// 37..VRIX_MAX_FRAME_PAYLOAD (the channel byte present), a scale up to
// VRIX_MAX_SCALE, the channel of the scan's first record, and a time in local
// hour `hour` of the first record's day.  Times may go back within the hour:
// a clock set back starts another pass of the same hour file.  Valid audio
// record: 60 bytes whose first word is 48, with the same rule for the time.
// A record must end within `size`.
//
// Where the scan stops, what lies from there to `size` is a torn tail when
// it is one of: fewer bytes than a header; a record valid in every field but
// running past `size` (a write cut short); zero bytes only (blocks the file
// system allocated but never wrote).  Only a torn tail may be cut.  Anything
// else (a record of another channel or hour, an impossible length, a time 0,
// anything followed by a byte that is not zero) is damage in the middle of
// the file: the bytes behind it are whole records as far as anyone knows,
// and are kept.
class RecordScan {
  public:
    RecordScan(FILE *fp, long long from, long long size, int hour, bool video)
        : fp_(fp), at_(from), size_(size), hour_(hour), video_(video) {}

    // The next whole valid record; false at the first that is not (or the end).
    bool next(ScannedRecord &r);
    // The end of the last record accepted: where the file is cut.
    long long end() const { return at_; }
    // Time of the last record accepted; 0 when none was.
    int last_sec() const { return last_sec_; }
    // Once next() returned false: whether what lies from end() on is a torn
    // tail (nothing at all included).
    bool torn() const { return torn_; }

  private:
    bool in_hour(int sec);
    bool zeros_to_end() const;
    FILE *fp_;
    long long at_;
    long long size_;
    int hour_;
    bool video_;
    int channel_ = -1; // the first record's channel byte
    int last_sec_ = 0;
    bool torn_ = false;
    int day_ = -1; // the first record's day of the year, and its year
    int year_ = -1;
};

// Where the scan from a restart point ended, and whether what lies behind
// that end is a torn tail.
struct ScanEnd {
    long long end;
    int last_sec;
    bool torn;
};

// The hour's index made to match its file from `from` on: one row per key
// frame (video) or per second (audio: the first record of each second, the
// record at `from` always) of the whole valid records from `from` up to
// `size`, and no other row at or after `from` (a row at `from` that names its
// record is kept as it is), in one transaction under `m` (null: no lock).  The hour's table and its
// row in H are created when missing.  Returns where the records end and the last time.
ScanEnd index_from(FILE *fp, long long from, long long size, int hour, bool video,
                   pthread_mutex_t *m, SqlHandle db);

// Makes hour `hour` of a sound index `db` agree with its stream file `fp`,
// each query under `m` (null: no lock): rows from the newest one whose record
// agrees on are replaced by a row per key frame (video) or second (audio) of
// the whole valid records there.  The file is only read.
void reconcile_hour(SqlHandle db, FILE *fp, int hour, bool video, pthread_mutex_t *m);

// Where a kind of index lies: its database of a day, and the stream file
// that hour `hour` of it follows (audio: the first channel's).
struct IndexPlace {
    std::function<bool(Path &, const char *day)> db;
    std::function<bool(Path &, const char *day, int hour)> stream;
    bool video;
};

// A process that ended uncleanly may leave whole records on disk whose rows
// it had not committed.  A writer re-indexes the hour it resumes; before its
// first hour in a context it also calls this, which reconciles the newest hour
// before `hour` that `db` (the index of `day`, starting at `day_start`) lists,
// or, when it lists none, the newest hour of the day before.  Queries under `m`.
void catch_up_previous_hour(const IndexPlace &place, SqlHandle db, const char *day, int day_start,
                            int hour, pthread_mutex_t *m);

// Where the whole valid records from `from` up to `size` end, nothing indexed.
ScanEnd scan_end(FILE *fp, long long from, long long size, int hour, bool video);

} // namespace vrix
