// Index rows as video and audio keep them: appending one to a batch, reading
// one back and checking it against its record, and the search for the point
// an hour file restarts at.
#pragma once

#include <string>

#include "core/store_access.h"
#include "record_check.h"
#include "store/format.h"
#include "store/schema.h"

namespace vrix {

// Appends "insert into h%d values(NULL,%d,%lld);" to a batch of `size`
// bytes holding `len`; false (nothing appended) when it would not fit.
bool append_index_row(char *batch, int size, int &len, int hour, int sec, long long offset);

// Removes from a batch the rows of hour `hour` whose offset is `from` or
// beyond (frames a failed write lost); returns how many went.
int drop_rows_from(char *batch, int &len, int hour, long long from);

// Statements that take out of an index whatever a failed commit of `batch`
// may have left of it ("delete from h%d where offset >= %lld;" for each hour
// at the batch's first offset of that hour): a batch that fails part-way
// may have committed some of its rows on its own, and it is committed again
// whole.
std::string undo_partial_batch(const char *batch, int len);

// What an index row of a playing hour turned out to be: one that agrees with
// its record, no such row, a row naming something else, a row whose record
// runs past the end of the file as it is now, or an index that kept failing.
enum class RowCheck { Good, Missing, Disagrees, NotYet, Failed };

inline RowCheck row_check(AtRow at) {
    return at == AtRow::Agrees   ? RowCheck::Good
           : at == AtRow::NotYet ? RowCheck::NotYet
                                 : RowCheck::Disagrees;
}

// Where a player reads its hour's index: the database under its mutex, the
// hour, and the player's "%u" and "%d" holders.
struct IndexRows {
    pthread_mutex_t *m;
    SqlHandle db;
    int hour;
    ResultTable &offsets;
    ResultTable &ints;
};

// Row `id`: its offset and time.  Good when the row was read (the record is
// not looked at), Missing when there is none, Failed when the store failed
// kBusyAttempts times.  `note(rows)` hears of each failure and of a missing
// row.
template <class Note>
RowCheck read_index_row(const IndexRows &ix, int id, long long &offset, int &sec, Note note) {
    Sql q;
    format_into(q.text, sizeof q.text, sql::kRowOfId, ix.hour, id);
    // A failing store is asked again for about a second, then the reader
    // gives up.
    const int rows = retry_busy([&] {
        int r;
        {
            SqlLock hold(ix.m);
            r = sql_submit(ix.db, q.text, "%u %d", &ix.offsets, &ix.ints);
        }
        if (r < 0) note(r);
        return r < 0 ? kBusy : r;
    });
    if (rows < 0) return RowCheck::Failed;
    if (rows == 0 || !holder_offset(ix.offsets, offset) || !holder_int(ix.ints, sec)) {
        note(rows);
        return RowCheck::Missing;
    }
    return RowCheck::Good;
}

// The restart point of an hour file being resumed: the newest index row at
// (kInclusive) or below `bound` whose record agrees with it, 0 when the hour
// has no such row or no table, kIndexUnknown when the index cannot be read.
// The writer's side comes from a class W:
//   int query(const char *sql);       the query into offsets() ("%u"); the store's count
//   ResultTable &offsets();
//   bool agrees(long long offset, int sec);
//   void row_read();                  after each row query
//   static constexpr bool kInclusive; the first query includes `bound`; a
//                                     row at `bound` is then taken unchecked
constexpr long long kIndexUnknown = -1;

template <class W> long long restart_point(W &w, int hour, long long bound) {
    bool inclusive = W::kInclusive;
    Sql q;
    for (;;) {
        format_into(q.text, sizeof q.text, inclusive ? sql::kAudioResumeOffset : sql::kResumeOffset,
                    hour, bound);
        const int rows = w.query(q.text);
        w.row_read();
        if (rows <= 0) {
            // A failed query means no row only when the table is truly missing.
            format_into(q.text, sizeof q.text, sql::kTableExists, hour);
            long long tables = -1;
            return w.query(q.text) > 0 && holder_offset(w.offsets(), tables) && tables == 0
                       ? 0
                       : kIndexUnknown;
        }
        long long found = 0;
        if (!holder_offset(w.offsets(), found) || found <= 0) return 0; // max() over no row
        if (inclusive && found == bound) return bound;                  // rewritten from here on
        format_into(q.text, sizeof q.text, sql::kSecAtOffset, hour, found);
        long long sec = 0;
        if (w.query(q.text) <= 0 || !holder_offset(w.offsets(), sec)) sec = 0;
        if (w.agrees(found, static_cast<int>(sec))) return found;
        bound = found; // the row names no whole record there: try the one before
        inclusive = false;
    }
}

} // namespace vrix
