// A read-only look at a store through its index databases (date.db, each
// channel's video.db, audio.db, event.db), for listing and drawing.
//
// The library's public functions play, count and maintain a store but do not
// list its days and hours nor name its files.  This file alone mirrors the
// store layout the library writes (directories, database and stream file
// names, table names); the rest of the program asks it.
//
// The program reads the databases with the companion library's sql_*
// functions; it opens only files that exist, so looking never creates
// anything.
//
// A database that exists but cannot be read is noted, never taken for an
// empty one: it fails to open, or a query on a table it holds fails (SQLite
// finds the file damaged or not a database, or it stays busy).  A table that
// is not there (a store that never recorded video, a day without events) is
// simply empty.
#pragma once

#include "vrixhdd.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vrixtool {

using Row = std::vector<std::optional<int64_t>>;

// One open database; closed when it goes.
class IndexDb {
  public:
    // Opens `path` when the file exists; check ok().
    explicit IndexDb(const std::string &path);
    ~IndexDb();
    IndexDb(const IndexDb &) = delete;
    IndexDb &operator=(const IndexDb &) = delete;

    bool ok() const { return handle_ != nullptr; }
    // The file is there but could not be opened, or a query failed.
    bool failed() const { return failed_; }
    const std::string &path() const { return path_; }
    // Whether the database holds table `name`.
    bool has_table(const std::string &name);
    // Rows of a query of `columns` integer columns (empty on failure).
    std::vector<Row> rows(const std::string &sql, int columns);
    // The first column of the first row, if any.
    std::optional<int64_t> value(const std::string &sql);
    // Integers of the first column, nulls skipped.
    std::vector<int64_t> column(const std::string &sql);

  private:
    std::string path_;
    SqlHandle handle_ = nullptr;
    bool failed_ = false;
};

struct KeyFrame {
    int sec;
    int64_t offset;
};

struct HourIndex {
    int hour;
    std::vector<KeyFrame> keys; // in id order
    int64_t streamBytes;        // size of <hour>.stream, -1 when missing
};

struct EventRow {
    int id;
    int sec;
    int ch;
    int type;
};

class StoreIndex {
  public:
    explicit StoreIndex(std::string root);

    bool exists() const; // date.db is there
    const std::string &root() const { return root_; }

    // Where the library keeps things (day keys are local midnights).
    std::string date_db() const;                               // <root>/date.db
    std::string day_dir(long day) const;                       // <root>/<YYYYMMDD>
    std::string event_db(long day) const;                      // <day>/event.db
    std::string video_db(long day, int ch) const;              // <day>/video/<ch>/video.db
    std::string stream_file(long day, int ch, int hour) const; // <day>/video/<ch>/<hour>.stream

    std::vector<long> days();               // day keys of table H, ascending
    std::vector<long> channel_days(int ch); // day keys of table ch<ch>
    std::vector<HourIndex> video(long day, int ch);
    // Audio of a day: hours with their index rows (one per second).
    std::vector<HourIndex> audio(long day);
    int audio_channels(long day) const; // channel directories under audio/
    std::vector<EventRow> events(long day);

    // Reads every table of the databases that playing channel `ch` (0: the
    // events) over the days first..last (day keys, inclusive) goes through,
    // noting those that cannot be read.
    void check_span(int ch, long first, long last);

    // The databases found unreadable so far, each once.
    const std::vector<std::string> &unreadable() const { return unreadable_; }

  private:
    std::vector<long> day_keys(const std::string &table);
    // The hours of a video.db or audio.db with their rows, and the size of
    // each hour's stream file in `streamDir`.
    std::vector<HourIndex> hours(const std::string &dbPath, const std::string &streamDir);
    void note(const IndexDb &db);
    void check_tables(IndexDb &db, const std::vector<std::string> &tables);

    std::string root_;
    std::vector<std::string> unreadable_;
};

// Exit status of a command that found part of the store unreadable.
constexpr int kUnreadableStatus = 2;

// One line on standard error per unreadable database, suggesting repair;
// kUnreadableStatus when there is any, else 0.
int report_unreadable(const StoreIndex &store, const char *command);

// After the library played channel `ch` (0: listed events) from `from`
// towards `to` (0: no end; with `backward` the earlier end) and may have
// stopped short: checks and reports the databases it went through.
int check_played_span(const std::string &root, int ch, long from, long to, bool backward,
                      const char *command);

} // namespace vrixtool
