// Event recording: one row per event in the event.db of the event's local
// day, the day registered in date.db at its first event.
#include "core/calendar.h"
#include "core/file_io.h"
#include "core/pacing.h"
#include "core/store_access.h"
#include "core/syncer.h"
#include "event/event_context.h"
#include "store/format.h"
#include "store/log.h"
#include "store/paths.h"
#include "store/schema.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace vrix {

bool reopen_event_db(SqlHandle &db, const char *path) {
    SqlLock hold(event_mutex());
    if (db) sql_close(db);
    db = nullptr;
    if (!path || sql_open(path, &db) != 0) {
        db = nullptr;
        return false;
    }
    sql_submit(db, sql::kCommitsDurable, "");
    return true;
}

namespace {

constexpr int kMinuteType = 8;

// Opens a day database as the context's day; prints "<who> : open sqlite fail"
// when it cannot be had (a null path is a name that did not fit).
int open_day(EventRecContext &ctx, const char *path, const char *who) {
    if (!reopen_event_db(ctx.pEventDb, path)) {
        log_line("%s : open sqlite fail\n", who);
        return 0;
    }
    SqlLock hold(event_mutex());
    SqlHandle db = ctx.pEventDb;
    if (sql_submit(db, sql::kCreateEvents, "") >= 0) {
        sql_submit(db, sql::kCreateEventSecIndex, "");
        return 1;
    }
    // A day that an older library began gets its index and lateness at the
    // first write: one pass over its events.
    int indexed = 1, late = 0;
    if (!query_int(nullptr, db, sql::kEventSecIndexExists, ctx.pIntResult, indexed) || indexed ||
        !query_int(nullptr, db, sql::kEventDayLateness, ctx.pIntResult, late))
        return 1;
    Sql q;
    format_into(q.text, sizeof q.text, sql::kSetEventLateness, late);
    submit_busy(db, sql::kBegin);
    sql_submit(db, q.text, "");
    sql_submit(db, sql::kCreateEventSecIndex, "");
    submit_busy(db, sql::kCommit);
    return 1;
}

// An event stamped before the day's latest raises the day's lateness to how
// far it went back.  The caller holds the mutex and a write transaction.
// kBusy when the store was busy, else 0 (a day without the index keeps no
// lateness).
int note_lateness(SqlHandle db, int sec, ResultTable &holder) {
    auto value = [&](const char *sql, int &out) {
        const int rows = query_locked(nullptr, db, sql, "%d", holder);
        if (rows == kBusy) return kBusy;
        return rows > 0 && holder_int(holder, out) ? 1 : 0;
    };
    int indexed = 0, latest = 0, late = 0, r;
    if ((r = value(sql::kEventSecIndexExists, indexed)) != 1 || !indexed) return r == kBusy ? r : 0;
    if ((r = value(sql::kEventLatestSec, latest)) != 1 || sec >= latest) return r == kBusy ? r : 0;
    if ((r = value(sql::kEventLateness, late)) != 1) return r == kBusy ? r : 0;
    const long long back = std::min<long long>(static_cast<long long>(latest) - sec, INT_MAX);
    if (back <= late) return 0;
    Sql q;
    format_into(q.text, sizeof q.text, sql::kSetEventLateness, static_cast<int>(back));
    return sql_submit(db, q.text, "") == kBusy ? kBusy : 0;
}

// The event and the day's lateness are written in one transaction, repeated
// whole while the store is busy: a reader, a crash or a second connection
// never sees the event without the lateness that lets the first page find
// it.  The caller holds the mutex.
int insert_event(SqlHandle db, int sec, const char *insert, ResultTable &holder) {
    return retry_busy(
        [&] {
            int r = sql_submit(db, sql::kBeginImmediate, "");
            if (r != 0) return r;
            r = note_lateness(db, sec, holder);
            if (r == 0) r = sql_submit(db, insert, "");
            if (r == 0) r = sql_submit(db, sql::kCommit, "");
            if (r != 0) sql_submit(db, sql::kRollback, "");
            return r;
        },
        kBusyAttempts, false);
}

} // namespace
} // namespace vrix

extern "C" EventRecContext *vrix_db_open_rec_event(const char *root) {
    using namespace vrix;
    refresh_timezone();
    if (!root_fits(root, "vrix_db_open_rec_event")) return nullptr;
    auto *ctx = static_cast<EventRecContext *>(std::calloc(1, sizeof(EventRecContext)));
    if (!ctx) return nullptr;
    Path p;
    bool ok = (ctx->strRoot = make_writer_root(root)) != nullptr &&
              (ctx->pIntResult = make_holder(1, kIntCell)) != nullptr &&
              writer_date_db(p, ctx->strRoot) && open_db(date_mutex(), p.text, ctx->pDateDb);
    if (!ok) {
        vrix_db_close_rec_event(ctx);
        return nullptr;
    }
    submit_locked(date_mutex(), ctx->pDateDb, sql::kCommitsDurable);
    submit_locked(date_mutex(), ctx->pDateDb, sql::kCreateDateH);
    // Each commit of event.db syncs it; the syncer makes new day
    // directories durable.
    syncer_add({nullptr, ctx, ctx->strRoot});
    return ctx;
}

extern "C" void vrix_db_close_rec_event(EventRecContext *ctx) {
    using namespace vrix;
    if (!ctx) return;
    syncer_remove(ctx);
    db_free_sqlite(ctx->pIntResult, 1);
    close_db(date_mutex(), ctx->pDateDb);
    close_db(event_mutex(), ctx->pEventDb);
    sync_closed(ctx->strRoot);
    std::free(ctx->strRoot);
    std::free(ctx);
}

extern "C" int vrix_db_rec_event(EventRecContext *ctx, int ch, int type, int arg1, int arg2) {
    using namespace vrix;
    if (!ctx) return 0;
    const Now now = clock_now();
    int sec = static_cast<int>(now.sec);
    std::tm tm{};
    sec_to_tm(&tm, sec);
    if (type == kMinuteType && tm.tm_sec != 0) {
        sec -= tm.tm_sec;
        sec_to_tm(&tm, sec);
    }
    char day[12];
    day_name(day, tm);
    db_chech_event_dir(ctx, day, tm, sec);
    db_insert_event(ctx, arg1, arg2, &tm, sec, now.usec, ch, type);
    return 0;
}

// strDay is taken over before anything can fail: a day whose database cannot
// be opened is not retried until the next day.
extern "C" void db_chech_event_dir(EventRecContext *ctx, const char *day, struct tm tm,
                                   time_t sec) {
    using namespace vrix;
    if (!ctx || !day) return;
    if (std::strncmp(day, ctx->strDay, sizeof ctx->strDay) == 0) return;
    std::snprintf(ctx->strDay, sizeof ctx->strDay, "%s", day);

    {
        SqlLock hold(date_mutex());
        ensure_day(ctx->pDateDb, day_start(static_cast<int>(sec), tm), ctx->pIntResult);
    }

    Path dir, db;
    const bool named = writer_day_dir(dir, ctx->strRoot, ctx->strDay) && dir_event_db(db, dir.text);
    if (named) io::make_dir(dir.text);
    open_day(*ctx, named ? db.text : nullptr, "db_chech_event_dir");
}

extern "C" int db_insert_event(EventRecContext *ctx, int, int, struct tm *, time_t sec, long,
                               int ch, int type) {
    using namespace vrix;
    if (!ctx || !ctx->pEventDb) return -2;
    Sql q;
    format_into(q.text, sizeof q.text, sql::kInsertEvent, static_cast<int>(sec), ch, type);
    SqlLock hold(event_mutex());
    return insert_event(ctx->pEventDb, static_cast<int>(sec), q.text, ctx->pIntResult);
}

extern "C" int db_create_event(EventRecContext *ctx, const char *dir) {
    using namespace vrix;
    if (!ctx || !dir) return 0;
    io::make_dir(dir);
    Path p;
    if (!dir_event_db(p, dir)) return open_day(*ctx, nullptr, "db_create_event_db");
    return db_create_event_db(ctx, p.text);
}

extern "C" int db_create_event_db(EventRecContext *ctx, char *path) {
    if (!ctx || !path) return 0;
    return vrix::open_day(*ctx, path, "db_create_event_db");
}
