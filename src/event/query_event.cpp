// Event query: pages of filtered events in id order, walking the days
// registered in date.db forwards or backwards; a page may span days.
#include "core/calendar.h"
#include "core/pacing.h"
#include "core/store_access.h"
#include "event/event_context.h"
#include "store/format.h"
#include "store/log.h"
#include "store/paths.h"
#include "store/schema.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace vrix {
namespace {

constexpr uint32_t kTypeBits = 0x7f;      // the seven type codes 1..64
constexpr uint32_t kMinusOneTypes = 0x49; // types 1, 8 and 64 also select channel -1
constexpr time_t kDaySeconds = 86400;
constexpr time_t kLastStoreSec = INT_MAX; // store times are 32-bit
constexpr char kWho[] = "vrix_db_open_get_event";

// ---- filter clauses: "(f=a or f=b ...) and " ----

struct Clause {
    char *buf;
    size_t size;
    size_t len = 0;
    bool ok = true;
};

void alternative(Clause &c, const char *field, int value) {
    if (!c.ok) return;
    c.ok = format_into(c.buf + c.len, c.size - c.len, c.len ? " or %s=%d" : "(%s=%d", field, value);
    if (c.ok) c.len += std::strlen(c.buf + c.len);
}

bool finish(Clause &c) {
    return c.ok && format_into(c.buf + c.len, c.size - c.len, "%s", ") and ");
}

bool build_filters(EventQueryContext &q, uint32_t lo, uint32_t hi, int withCh0, uint32_t types) {
    Clause ch{q.strChFilter, sizeof q.strChFilter};
    if (types & kMinusOneTypes) alternative(ch, "ch", -1);
    if (withCh0) alternative(ch, "ch", 0);
    for (int b = 0; b < 32; ++b)
        if (lo >> b & 1u) alternative(ch, "ch", b + 1);
    for (int b = 0; b < 32; ++b)
        if (hi >> b & 1u) alternative(ch, "ch", b + 33);
    Clause type{q.strTypeFilter, sizeof q.strTypeFilter};
    for (int b = 0; b < 7; ++b)
        if (types >> b & 1u) alternative(type, "type", 1 << b);
    return finish(ch) && finish(type);
}

// ---- time in the library's zone ----
// Day starts and days' ends come from the library's calendar, the one
// recording named its days with, so they always equal the store's day keys.

time_t midnight_of(time_t t) {
    return day_start(static_cast<int>(t), fields_of(t));
}

time_t seconds_of(const std::tm &local) {
    return static_cast<time_t>(local_seconds(local));
}

int store_sec(time_t t) {
    return static_cast<int>(std::clamp<time_t>(t, INT_MIN, INT_MAX));
}

// ---- store access ----

// The first id at or after `sec` (backward: the last at or before it); false
// when there is none or the store failed.  A day with the index on the times
// is searched through it, within the day's lateness of the time found there.
bool first_position(EventQueryContext &c, const Db &db, int sec, int &id) {
    const bool back = c.iDirection < 0;
    Sql q;
    int indexed = 0, late = 0, near = 0;
    if (!db.value(c.pIntResult, sql::kEventSecIndexExists, indexed) || !indexed ||
        !db.value(c.pIntResult, sql::kEventLateness, late) || late < 0) {
        format_into(q.text, sizeof q.text, back ? sql::kEventLastIdUpTo : sql::kEventFirstIdFrom,
                    sec);
        return db.value(c.pIntResult, q.text, id);
    }
    format_into(q.text, sizeof q.text, back ? sql::kEventSecUpTo : sql::kEventSecFrom, sec);
    if (!db.value(c.pIntResult, q.text, near)) return false;
    const long long lo = back ? static_cast<long long>(near) - late : sec;
    const long long hi = back ? sec : static_cast<long long>(near) + late;
    format_into(q.text, sizeof q.text, back ? sql::kEventLastIdIn : sql::kEventFirstIdIn,
                static_cast<int>(std::max<long long>(lo, INT_MIN)),
                static_cast<int>(std::min<long long>(hi, INT_MAX)));
    return db.value(c.pIntResult, q.text, id);
}

// The last id of the day of `day` and the first (forward) or last (backward)
// at `sec`, through `db`, which is left open on success.  A day without an
// event.db has no events; the file is not created here.
bool day_positions(EventQueryContext &c, Db &db, const std::tm &day, int &startPos, int &endPos,
                   time_t sec) {
    Path p;
    if (!reader_event_db(p, c.strRoot, day) || access(p.text, F_OK) != 0) return false;
    if (!db.open(p.text)) return false;
    int last = 0;
    if (!db.value(c.pIntResult, sql::kEventLastId, last) || last == 0) return false;
    int first = 0;
    if (!first_position(c, db, store_sec(sec), first)) return false;
    endPos = last;
    startPos = first;
    return true;
}

int cell(ResultTable t, int row) {
    int32_t v = 0;
    if (t[row]) std::memcpy(&v, t[row], sizeof v);
    return v;
}

// Runs the page statement of `dir` from id `from` for at most `limit` rows
// into the column holders.  A failing statement counts as no row.
int run_page(EventQueryContext &c, int dir, int from, int limit) {
    if (limit <= 0) return 0;
    const char *fmt = dir > 0 ? sql::kEventPageForward : sql::kEventPageBackward;
    if (!format_into(c.strSql, kEventSqlSize, fmt, c.strChFilter, c.strTypeFilter, from, limit))
        return 0;
    int rows;
    {
        SqlLock hold(event_mutex());
        rows = sql_submit(c.pEventDb, c.strSql, "%d %d %d %d", &c.pIdResult, &c.pSecResult,
                          &c.pChResult, &c.pTypeResult);
    }
    return rows > 0 ? std::min(rows, limit) : 0;
}

// Copies `rows` rows of the last page statement into the page from record n
// on; the cursor follows the last one copied.
void take_rows(EventQueryContext &c, int rows, int &n) {
    for (int i = 0; i < rows && n < c.pageSize; ++i, ++n) {
        EventRecord &e = c.pRecords[n];
        std::memset(e.strText, 0, sizeof e.strText);
        e.iSec = cell(c.pSecResult, i);
        e.iCh = cell(c.pChResult, i);
        e.iType = cell(c.pTypeResult, i);
        c.iCurPos = cell(c.pIdResult, i);
    }
}

// Re-reads the current day's last id; true when events were recorded into
// the day since it was entered.  Busy is retried a bounded number of times.
bool day_grew(EventQueryContext &c) {
    const int rc = retry_busy([&] {
        return query_locked(event_mutex(), c.pEventDb, sql::kEventLastId, "%d", c.pIntResult);
    });
    int last = 0;
    if (rc <= 0 || !holder_int(c.pIntResult, last) || last <= c.iEndPos) return false;
    c.iEndPos = last;
    return true;
}

// Moves the cursor over `count` matching events in `dir` (the reversal of an
// exact walk), entering days as needed.  False when no day is left.
bool walk_over(EventQueryContext &c, int dir, int count) {
    while (count > 0) {
        const int rows = run_page(c, dir, c.iCurPos, count);
        if (rows > 0) {
            count -= rows;
            c.iCurPos = cell(c.pIdResult, rows - 1) + dir;
            continue;
        }
        c.iDirection = dir;
        if (!db_event_get_new(&c, c.iStartSec, dir)) return false;
    }
    return true;
}

// One page in `dir` (1 ascending, -1 newest first).
int page(EventQueryContext &c, int dir) {
    if (c.iDirection == 0) {
        if (!db_event_get_new(&c, c.iStartSec, dir)) return 0;
    } else if (c.iDirection == dir) {
        if (c.iEnd) return 0;
        if (dir > 0 || c.iCurPos != 0) c.iCurPos += dir; // past the edge shown
        c.iEnd = 0;
    } else {
        // Reversal: the cursor is at the far edge of the page shown; move it
        // across that page.
        if (!c.exactWalk)
            c.iCurPos += dir * c.iPageCount;
        else if (!walk_over(c, dir, c.iPageCount))
            return 0;
        c.iEnd = 0;
    }
    c.iDirection = dir;
    int n = 0;
    for (;;) {
        if (dir > 0 ? c.iCurPos <= c.iEndPos : c.iCurPos > 0) {
            take_rows(c, run_page(c, dir, c.iCurPos, c.pageSize - n), n);
            // Rows recorded since the day was entered may lie past iEndPos;
            // the day's end moves with them so they are not read twice.
            if (dir > 0 && c.iCurPos > c.iEndPos) c.iEndPos = c.iCurPos;
            if (n == c.pageSize) {
                c.iPageCount = n;
                return n;
            }
            c.iCurPos = dir > 0 ? c.iEndPos + 1 : 0;
            continue;
        }
        if (dir > 0 && !c.exactWalk && day_grew(c)) continue;
        if (db_event_get_new(&c, c.iStartSec, dir)) continue;
        if (n > 0) c.iPageCount = n;
        if (dir > 0 && c.iCurPos > c.iEndPos) c.iCurPos = c.iEndPos;
        if (dir < 0 && c.iCurPos <= 0) c.iCurPos = 1;
        return n;
    }
}

} // namespace
} // namespace vrix

extern "C" EventQueryContext *vrix_db_open_get_event(struct tm *start, uint32_t chMaskLo,
                                                     uint32_t chMaskHi, int withCh0,
                                                     uint32_t typeMask, const char *root,
                                                     int pageSize, size_t scratchSize,
                                                     int exactWalk) {
    using namespace vrix;
    refresh_timezone();
    const bool noChannel = !chMaskLo && !chMaskHi && !withCh0 && !(typeMask & kMinusOneTypes);
    if (!start || noChannel || !root || !typeMask || pageSize <= 0) return nullptr;
    if (!(typeMask & kTypeBits)) {
        log_line("%s : no event type selected\n", kWho);
        return nullptr;
    }
    if (!root_fits(root, kWho)) return nullptr;

    auto *ctx = static_cast<EventQueryContext *>(std::calloc(1, sizeof(EventQueryContext)));
    if (!ctx) return nullptr;
    ctx->pageSize = pageSize;
    const size_t pageCount = static_cast<size_t>(pageSize);
    Path p;
    const bool ok =
        build_filters(*ctx, chMaskLo, chMaskHi, withCh0, typeMask) &&
        (ctx->strRoot = copy_root(root)) != nullptr && reader_date_db(p, root) &&
        open_db(date_mutex(), p.text, ctx->pDateDb) &&
        (ctx->pScratch = std::calloc(std::max<size_t>(scratchSize, 1), 1)) != nullptr &&
        (ctx->pRecords = static_cast<EventRecord *>(std::calloc(pageCount, sizeof(EventRecord)))) !=
            nullptr &&
        (ctx->strSql = static_cast<char *>(std::calloc(kEventSqlSize, 1))) != nullptr &&
        (ctx->pIdResult = make_holder(pageSize, kIntCell)) != nullptr &&
        (ctx->pSecResult = make_holder(pageSize, kIntCell)) != nullptr &&
        (ctx->pChResult = make_holder(pageSize, kIntCell)) != nullptr &&
        (ctx->pTypeResult = make_holder(pageSize, kIntCell)) != nullptr &&
        (ctx->pIntResult = make_holder(1, kIntCell)) != nullptr;
    if (!ok) {
        vrix_db_close_get_event(ctx);
        return nullptr;
    }
    ctx->scratchSize = scratchSize;
    ctx->iDirection = 0;
    ctx->iStartSec = seconds_of(*start);
    ctx->exactWalk = exactWalk != 0;
    return ctx;
}

extern "C" void vrix_db_close_get_event(EventQueryContext *ctx) {
    using namespace vrix;
    if (!ctx) return;
    std::free(ctx->strRoot);
    std::free(ctx->pScratch);
    close_db(date_mutex(), ctx->pDateDb);
    close_db(event_mutex(), ctx->pEventDb);
    std::free(ctx->pRecords);
    std::free(ctx->strSql);
    db_free_sqlite(ctx->pIntResult, 1);
    for (ResultTable t : {ctx->pIdResult, ctx->pSecResult, ctx->pChResult, ctx->pTypeResult})
        db_free_sqlite(t, ctx->pageSize);
    std::free(ctx);
}

extern "C" int vrix_db_next_event(EventQueryContext *ctx) {
    return ctx ? vrix::page(*ctx, 1) : 0;
}

extern "C" int vrix_db_pre_event(EventQueryContext *ctx) {
    return ctx ? vrix::page(*ctx, -1) : 0;
}

extern "C" EventRecord *vrix_db_get_event(EventQueryContext *ctx) {
    return ctx ? ctx->pRecords : nullptr;
}

// Failing leaves the current day, cursor and database as they were, sets
// iEnd, and leaves a query that had not started still unstarted.
extern "C" int db_event_get_new(EventQueryContext *ctx, time_t sec, int direction) {
    using namespace vrix;
    if (!ctx || (direction != 1 && direction != -1)) return 0;
    const int before = ctx->iDirection;
    // Recorded days lie within the store's 32-bit seconds.
    if (direction > 0 && sec < 0) sec = 0;
    sec = std::min(sec, kLastStoreSec - kDaySeconds);
    for (;;) {
        if (ctx->iDirection == 1)
            sec = next_day_start(sec);
        else if (ctx->iDirection == -1)
            sec = midnight_of(sec) - 1;
        else
            ctx->iDirection = direction;
        if (sec < 0 || sec > kLastStoreSec - kDaySeconds) break;

        const time_t midnight = midnight_of(sec);
        Sql q;
        format_into(q.text, sizeof q.text, direction > 0 ? sql::kDayFrom : sql::kDayUpTo,
                    static_cast<int>(midnight));
        int day;
        if (!query_int(date_mutex(), ctx->pDateDb, q.text, ctx->pIntResult, day)) break;
        if (day != midnight) sec = direction > 0 ? day : next_day_start(day) - 1;
        if (sec < 0 || sec > kLastStoreSec - kDaySeconds) break;

        std::tm fields = fields_of(sec);
        int startPos = 0, endPos = 0;
        Db db(event_mutex());
        if (!day_positions(*ctx, db, fields, startPos, endPos, sec)) continue;
        // The connection that found the positions becomes the context's day.
        close_db(event_mutex(), ctx->pEventDb);
        ctx->pEventDb = db.release();
        ctx->iCurPos = startPos;
        ctx->iEndPos = endPos;
        ctx->iStartSec = sec;
        ctx->iEnd = 0;
        return 1;
    }
    ctx->iEnd = 1;
    if (before == 0) ctx->iDirection = 0;
    return 0;
}

// A day without an event.db has no events; the file is not created here.
extern "C" int db_event_date_rec_init(EventQueryContext *ctx, struct tm *day, int *startPos,
                                      int *endPos, time_t sec) {
    using namespace vrix;
    if (!ctx || !day || !startPos || !endPos) return 0;
    Db db(event_mutex());
    return day_positions(*ctx, db, *day, *startPos, *endPos, sec) ? 1 : 0;
}
