// A read-only look at a store through its index databases (date.db, each
// channel's video.db, audio.db, event.db), for listing and drawing.
//
// The program reads them with the companion library's sql_* functions; it
// opens only files that exist, so looking never creates anything.
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
    // Rows of a query of `columns` integer columns (empty on failure).
    std::vector<Row> rows(const std::string &sql, int columns);
    // The first column of the first row, if any.
    std::optional<int64_t> value(const std::string &sql);
    // Integers of the first column, nulls skipped.
    std::vector<int64_t> column(const std::string &sql);

  private:
    SqlHandle handle_ = nullptr;
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

    std::vector<long> days();               // day keys of table H, ascending
    std::vector<long> channel_days(int ch); // day keys of table ch<ch>
    std::string day_dir(long day) const;    // <root>/<YYYYMMDD>
    std::vector<HourIndex> video(long day, int ch);
    // Audio of a day: hours with their index rows (one per second).
    std::vector<HourIndex> audio(long day);
    int audio_channels(long day) const; // channel directories under audio/
    std::vector<EventRow> events(long day);

  private:
    std::string root_;
};

} // namespace vrixtool
