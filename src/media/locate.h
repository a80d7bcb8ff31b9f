// Locating a recording by time, shared by video and audio playback: the day
// from date.db, the hour from the day's table H, the row from the hour's
// index.  What differs between the media comes from a traits class:
//
//   using Context;                          the playback context
//   static pthread_mutex_t *mutex(const Context &);
//   static SqlHandle &db(Context &);        the context's day database
//   static bool day_db(Path &, const Context &, const std::tm &day);
//   static bool stream(Path &, const Context &, const std::tm &day, int hour);
//   static void day_query(Sql &, const Context &, int direction, int midnight);
//   static constexpr int kAttempts;         attempts of the last-id and position queries
//   static void open_failed();              the day database did not open
//   static void no_rows(const Context &);   the hour's index holds no row
//   static void hint_missed(const Context &);
//   static void position_missing(const char *sql, int rows);
#pragma once

#include "core/calendar.h"
#include "core/file_io.h"
#include "core/flags.h"
#include "core/store_access.h"
#include "store/format.h"
#include "store/log.h"
#include "store/paths.h"
#include "store/schema.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace vrix {

// What opening a playback context does alike for video and audio, after the
// frame buffer: the root, date.db, the two holders and the times (read with
// the zone's rules by local_seconds; the caller's records are left as they
// are).  False
// when something could not be had; the caller then closes the context.
template <class Ctx>
bool open_playback(Ctx &c, const struct tm *start, const struct tm *end, const char *root) {
    if (root) c.strRoot = copy_root(root);
    if (c.strRoot) {
        Path p;
        reader_date_db(p, c.strRoot);
        open_db(date_mutex(), p.text, c.pDateDb);
    }
    if (!c.strRoot || !c.pDateDb) return false;
    if (!(c.pIntResult = make_holder(1, kIntCell))) return false;
    if (!(c.pOffsetResult = make_holder(1, kOffsetCell))) return false;
    auto seconds = [](const struct tm *t) {
        const long long s = local_seconds(*t);
        return static_cast<int>(s < INT_MIN ? INT_MIN : s > INT_MAX ? INT_MAX : s);
    };
    c.iDirection = 0;
    c.iStep = 1;
    c.iEndSec = end && end->tm_year != 0 ? seconds(end) : kNoEnd;
    c.iCurSec = seconds(start);
    c.iHintPos = -1;
    return true;
}

// Releases what open_playback made, and the stream.
template <class Ctx> void close_playback(Ctx &c) {
    std::free(c.strRoot);
    if (c.fpStream) std::fclose(c.fpStream);
    close_db(date_mutex(), c.pDateDb);
    db_free_sqlite(c.pIntResult, 1);
    db_free_sqlite(c.pOffsetResult, 1);
}

// Locates within the day of `t`, in the direction c.iDirection: 1 found
// (*pos, *endPos written, the hour's stream installed), 0 the hour is not
// usable, -1 the day is not.  `t` and `*sec` move to the hour tried.
// `day` is the connection used; on 1 it is left open for the caller to keep.
//
// Rows follow the file, and a clock set back makes a time recur in an hour
// (a second pass).  `own`: `*sec` is the time asked for, and in its own hour
// the position is the earliest time at or after it, its first pass (forward),
// or the latest at or before it, its last pass (backward).  An hour entered
// otherwise (crossed into, or the next recorded one) is played from its
// first row forward and from its last row to play backward, so that play
// across hours delivers every pass.
template <class Media>
int locate_in_day(typename Media::Context &c, Db &day, std::tm *t, int *pos, int *endPos, int *sec,
                  bool own = true) {
    Path p;
    if (!Media::day_db(p, c, *t) || !day.open(p.text)) {
        Media::open_failed();
        return -1;
    }
    const bool fwd = c.iDirection == 1;
    Sql q;
    format_into(q.text, sizeof q.text, fwd ? sql::kHourFrom : sql::kHourUpTo, t->tm_hour);
    int h;
    if (!day.value(c.pIntResult, q.text, h) || h < 0 || h > 23) return -1;
    own = own && h == t->tm_hour;
    if (h != t->tm_hour) {
        *sec = static_cast<int>(fwd ? hour_start_of(*sec, h) : hour_start_of(*sec, h + 1) - 1);
        t->tm_hour = h;
        t->tm_min = t->tm_sec = fwd ? 0 : 59;
    }
    // Forward, an hour that begins after the end time is not entered.
    if (fwd && *sec > c.iEndSec) return 0;
    File stream;
    if (!Media::stream(p, c, *t, t->tm_hour) || !(stream = File(io::open_file(p.text, "rb"))))
        return 0;

    // The last row to play: up to the end time when it lies in this hour.
    const std::tm e = fields_of(c.iEndSec);
    const bool end_here = e.tm_year == t->tm_year && e.tm_mon == t->tm_mon &&
                          e.tm_mday == t->tm_mday && e.tm_hour == t->tm_hour;
    if (end_here)
        format_into(q.text, sizeof q.text, sql::kLastIdUpTo, t->tm_hour, c.iEndSec);
    else
        format_into(q.text, sizeof q.text, sql::kLastId, t->tm_hour);
    int last;
    // A last id that is not there yet is asked for again, like a busy store.
    if (retry_busy([&] { return day.value(c.pIntResult, q.text, last) ? 1 : kBusy; },
                   Media::kAttempts) == kBusy)
        return 0;
    if (!end_here && last == 0) {
        Media::no_rows(c);
        return 0;
    }

    // The position: in the time's own hour the first row at or after it
    // (forward), the last at or before it (backward), near the hinted row
    // when there is one; else the hour's first row, or its last to play.
    const int hint = c.iHintPos;
    c.iHintPos = -1;
    int found = last;
    if (own || fwd) {
        if (!own)
            format_into(q.text, sizeof q.text, sql::kFirstId, t->tm_hour);
        else if (hint == -1)
            format_into(q.text, sizeof q.text, fwd ? sql::kIdFrom : sql::kIdUpTo, t->tm_hour, *sec);
        else
            format_into(q.text, sizeof q.text, fwd ? sql::kHintIdFrom : sql::kHintIdUpTo,
                        t->tm_hour, *sec, hint);
        const int rows = retry_busy(
            [&] {
                const int r = query_locked(day.mutex(), day.get(), q.text, "%d", c.pIntResult);
                return r < 0 ? kBusy : r;
            },
            Media::kAttempts);
        if (rows <= 0 || !holder_int(c.pIntResult, found)) {
            if (rows >= 0) Media::position_missing(q.text, rows);
            return 0;
        }
    }
    *pos = found;
    *endPos = last;
    if (c.fpStream) std::fclose(c.fpStream);
    c.fpStream = stream.release();
    return 1;
}

// Whether a record's time lies in the local hour being played (either of
// its spans); one outside is damage.
template <class Ctx> bool in_played_hour(const Ctx &c, int sec) {
    return (sec >= c.iHourStart && sec < c.iHourEnd) || (sec >= c.iHourStart2 && sec < c.iHourEnd2);
}

// A search that would move against its direction: reported, nothing found.
inline int went_back(long long to, long long from) {
    log_line("locate : time %lld does not move on from %lld , stop\n", to, from);
    return 0;
}

// Whether a crossing moved the way it should: forward to a later hour,
// backward to an earlier one.  One that did not is reported and ends the step.
inline bool moved_on(int before, int after, int direction) {
    if (direction == 1 ? after > before : after < before) return true;
    went_back(after, before);
    return false;
}

template <class Media>
int locate_in_day(typename Media::Context &c, std::tm *t, int *pos, int *endPos, int *sec) {
    Db day(Media::mutex(c));
    return locate_in_day<Media>(c, day, t, pos, endPos, sec);
}

// Locates from `sec` in `direction` (1 or -1), walking hours and recorded
// days: 1 positioned (day database, stream, hour, rows and time set), 0
// nothing found.
template <class Media> int locate(typename Media::Context &c, int sec, int direction) {
    // Forward from before 1970 is forward from 1970; backward never starts
    // after the end time.
    long long s = direction == 1 && sec < 0 ? 0 : sec;
    if (direction == -1 && s > c.iEndSec) s = c.iEndSec;
    std::tm tm = fields_of(static_cast<int>(s));
    int pos = 0, endPos = 0;
    // Every hour tried lies beyond the one before in the direction of the
    // search: a calendar mistake ends the search instead of looping.
    long long tried = direction == 1 ? LLONG_MIN : LLONG_MAX;
    // Only a first location starts from the time asked for; a crossing, and
    // every hour tried after the first, is entered at its first (last) row.
    bool asked = c.iDirection == 0;
    for (;;) {
        if (direction == 1 && s > c.iEndSec) return 0;
        if (c.iDirection == 1)
            s = hour_span(s).next;
        else if (c.iDirection == -1)
            s = hour_span(s).start - 1;
        if (s < 0 || s > kNoEnd) return 0;
        if (direction == 1 ? s <= tried : s >= tried) return went_back(s, tried);
        tm = fields_of(static_cast<int>(s));
        c.iDirection = direction;
        const int midnight = day_start(static_cast<int>(s), tm);
        Sql q;
        Media::day_query(q, c, direction, midnight);
        int d;
        if (!query_int(date_mutex(), c.pDateDb, q.text, c.pIntResult, d)) return 0;
        if (d != midnight) {
            s = d;
            tm = fields_of(d);
            if (direction == -1) {
                // The day's last second in the store's own calendar.
                s = next_day_start(d) - 1;
                tm = fields_of(s);
            }
        }
        int at = static_cast<int>(s);
        Db day(Media::mutex(c));
        const int r = locate_in_day<Media>(c, day, &tm, &pos, &endPos, &at, asked && d == midnight);
        asked = false;
        if (direction == 1 ? at < s : at > s) return went_back(at, s);
        s = tried = at;
        if (r == 1) {
            // The day's connection that found the position becomes the context's.
            close_db(Media::mutex(c), Media::db(c));
            Media::db(c) = day.release();
            break;
        }
        // A day that is not usable: on from its last hour (forward) or its
        // first (backward).
        if (r == -1) s = direction == 1 ? hour_start_of(s, 23) : hour_start_of(s, 1) - 1;
        tm = fields_of(static_cast<int>(s));
        if (c.iDirection == -1 && s < 0) return 0;
    }
    c.iHour = tm.tm_hour;
    const HourSpan hour = hour_span(s);
    auto clamp = [](long long t) { return static_cast<int>(std::min<long long>(t, INT_MAX)); };
    c.iHourStart = clamp(hour.start);
    c.iHourEnd = clamp(hour.end);
    c.iHourStart2 = clamp(hour.start2);
    c.iHourEnd2 = clamp(hour.end2);
    c.iCurSec = static_cast<int>(s);
    c.iCurPos = pos;
    c.iEndPos = endPos;
    return 1;
}

} // namespace vrix
