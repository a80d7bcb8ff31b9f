// The pieces of the integrity check and repair.  Repair takes no database
// mutex (it runs before any context is opened), acts only on a definite
// verdict of damage (db_check.h), sets a damaged file aside rather than
// removing it (set_aside.h), and only reads stream files.
#pragma once

#include "core/store_access.h"
#include "db_check.h"
#include "set_aside.h"
#include "store/format.h"

#include <ctime>
#include <vector>

namespace vrix {

// What became of one database.
enum class Outcome {
    Sound,     // passed its check; nothing done
    Restored,  // replaced by its checked copy (the damaged one set aside)
    Rebuilt,   // made again from the stream files or the day directories
    SetAside,  // damaged and set aside, nothing to put in its place
    Missing,   // no database (or one without tables) and nothing to make it from
    LeftAlone, // busy or could not be checked (or set aside): as it was, one line said so
};

// What a checker prints around the check, as the recorder's tools expect.
struct Voice {
    bool open_fail = false;           // "open fail" when there is no file
    bool show_integrity = false;      // "integrity check <path>" before the check
    const char *count_line = nullptr; // printed with the check's result code
};

// The verdict, with the voice's lines, and one line for a file left alone.
CheckResult checked(const char *path, const char *table, const Voice &voice);

// date.db, event.db (and any database given to vrix_db_correct): a damaged
// one is set aside (its new name in `aside`) and replaced by its ".sql" copy
// once that copy passes the check; a missing one, or one without tables, is
// replaced by the copy too.
Outcome correct_with_copy(const char *db, const char *table, const Voice &voice, AsidePath &aside);

// A day of the store: its key (the local midnight) and its directory name.
struct StoreDay {
    int key;
    char name[12];
    std::tm tm; // the calendar fields of the key
};
StoreDay store_day(int key);
// The day of a directory name "YYYYMMDD"; false when it names no day.
bool store_day(const char *name, StoreDay &d);

// Every day directory of the store, oldest first.
std::vector<StoreDay> day_directories(const char *root);

// The hour numbers (0..23) of the non-empty "<h>.stream" files in `dir`.
std::vector<int> stream_hours(const char *dir);

// Registers the day in date.db: H, and ch<channel> unless channel is 0.
void register_day(SqlHandle date, int channel, int key);

// date.db of the root checked, restored from its copy or rebuilt from the
// day directories; a restored copy gets every day directory's registrations
// it lacks.  LeftAlone when it is busy or could not be checked.
Outcome correct_date_db(const char *root, const char *date_db);

// What differs between a video and an audio index.
struct IndexKind {
    const char *who; // "<who> : path too long"
    bool (*db)(SidePath &, const char *dir);
    bool (*stream)(Path &, const char *dir, int hour);
    void (*rebuild)(FILE *, SqlHandle, int hour);
    Voice voice;
    bool announce_db; // "open <db>" before the check
    bool per_stream;  // "open <stream>" for each hour looked for
    bool video;
};
extern const IndexKind kVideoIndex;
extern const IndexKind kAudioIndex;

// Checks the index in `dir` (ending in "/"): a damaged one is set aside and,
// like a missing or empty one, made again from the hour files.
Outcome correct_index(const IndexKind &k, const char *dir);

// Reconciles hour `hour` of the sound index in `dir` with its stream file, as
// a resume would, registering the hour in the index's H.  False when the
// stream or the index could not be read; true also when there is no stream.
bool reconcile_index_hour(const IndexKind &k, const char *dir, int hour);

// Reconciles every hour the index in `dir` lists.
void reconcile_listed_hours(const IndexKind &k, const char *dir);

} // namespace vrix
