// What a store holds, through the library's catalogue (vrix_cat_*): the
// recorded days, the hours, rows and bytes of each channel's day, the
// recorded spans, the events per day and type, and the paths of the files
// the program names.  The program knows nothing of the store's layout: it
// asks the library.
//
// A database that cannot be read is collected, never taken for an empty one
// (the catalogue names it and leaves out what it holds).
#pragma once

#include "vrixdb.h"

#include <climits>
#include <string>
#include <vector>

namespace vrixtool {

class Catalogue {
  public:
    explicit Catalogue(std::string root) : root_(std::move(root)) {}
    const std::string &root() const { return root_; }

    // A file of the store (VRIX_PATH_*), empty when the library refuses.
    std::string path(int kind, long day = 0, int ch = 1, int hour = 0) const;

    // Recorded days with keys in [from, to), ascending.
    std::vector<VrixCatDay> days(long from = 0, long to = INT_MAX);
    // The hours that video channel `ch` (or audio channel `ch`) lists on `day`.
    std::vector<VrixCatHour> hours(int kind, int ch, long day);
    // Recorded spans within [from, to); gap 0 gives every recorded second.
    std::vector<VrixCatSpan> spans(int kind, int ch, long from, long to, int gap);
    // The events of `day` per channel and type.
    std::vector<VrixCatEvents> events(long day);
    // Reads every table playing `ch` (kind) from `from` to `to` goes through.
    void check(int kind, int ch, long from, long to);

    // The databases found unreadable so far, each once.
    const std::vector<std::string> &unreadable() const { return unreadable_; }
    void add_unreadable(const char *path);

  private:
    std::string root_;
    std::vector<std::string> unreadable_;
};

// Exit status of a command that found part of the store unreadable.
constexpr int kUnreadableStatus = 2;

// One line on standard error per unreadable database, suggesting repair;
// kUnreadableStatus when there is any, else 0.
int report_unreadable(const Catalogue &store, const char *command);

// After the library played channel `ch` (0: listed events) from `from`
// towards `to` (0: no end; with `backward` the earlier end) and may have
// stopped short: checks and reports the databases it went through.
int check_played_span(const std::string &root, int ch, long from, long to, bool backward,
                      const char *command);

} // namespace vrixtool
