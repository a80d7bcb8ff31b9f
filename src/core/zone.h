// The recorder's time zone as the library reads it itself: the offsets of
// the zone the C library would use for TZ (a zone file in the TZif format,
// or a POSIX TZ string), as one immutable table of changes.  The library
// converts with its own table only, so a zone is adopted at one moment for
// every thread and two zones are never mixed.
#pragma once

#include <string>
#include <vector>

namespace vrix::zone {

// From `at` on (seconds since 1970), the offset is `off` seconds east of UTC.
struct Change {
    long long at;
    int off;
    bool operator==(const Change &) const = default;
};

struct Table {
    std::string name;            // what TZ named (or the default zone file)
    int initial = 0;             // the offset before the first change
    std::vector<Change> changes; // in time order, each one a change of offset, up to 2100
    // The offset in force at `t`.
    int offset_at(long long t) const;
    // The changes around `t`: the instants [lo, hi) over which offset_at(t) holds.
    void span_of(long long t, long long &lo, long long &hi) const;
    bool same_rules(const Table &o) const { return initial == o.initial && changes == o.changes; }
};

// Where the zone comes from: TZ's value (unset and empty told apart) and the
// identity of the zone file it names, if any.  Equal sources give equal
// tables; a file replaced or rewritten gives another source.
struct Source {
    bool tz_set = false;
    std::string tz;
    std::string file;  // the zone file read, empty for a POSIX string
    std::string stamp; // the file's device, inode, size and change time
    bool operator==(const Source &) const = default;
};
Source current_source();

// Reads the zone of a source.  A zone that cannot be read is UTC, as the C
// library takes it.
Table load(const Source &s);

// Parsing, for the zone's readers and its tests.
bool parse_tzif(const std::vector<unsigned char> &bytes, Table &out);
bool parse_posix(const std::string &text, Table &out, long long after = -(1LL << 62));

} // namespace vrix::zone
