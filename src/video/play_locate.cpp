// Locating a channel's recording by time: day from date.db, hour from the
// day's video.db, key frame from the hour's index.
#include "core/calendar.h"
#include "core/store_access.h"
#include "play_context.h"
#include "play_video.h"
#include "store/format.h"
#include "store/paths.h"
#include "store/schema.h"

#include <unistd.h>

#include <cstdio>

namespace vrix {
namespace {

constexpr int kAttempts = 7;

std::tm fields_of(int sec) {
    std::tm tm{};
    sec_to_tm(&tm, sec);
    return tm;
}

// A database opened for one location and closed on every way out.
struct DayIndex {
    pthread_mutex_t *m;
    SqlHandle db = nullptr;
    ~DayIndex() { close_db(m, db); }
};

// A stream opened by a location, handed to the context only on success.
struct Stream {
    FILE *fp = nullptr;
    ~Stream() {
        if (fp) std::fclose(fp);
    }
};

// The last id of the hour to play: up to the end time when it lies in this
// hour.  Tried kAttempts times while it yields nothing.
bool last_id(PlayContext &c, DayIndex &day, const std::tm &t, int &endPos) {
    const std::tm e = fields_of(c.iEndSec);
    const bool end_here = e.tm_year == t.tm_year && e.tm_mon == t.tm_mon &&
                          e.tm_mday == t.tm_mday && e.tm_hour == t.tm_hour;
    Sql q;
    if (end_here)
        format_into(q.text, sizeof q.text, sql::kIdUpTo, t.tm_hour, c.iEndSec);
    else
        format_into(q.text, sizeof q.text, sql::kLastId, t.tm_hour);
    for (int i = 0; i < kAttempts; ++i) {
        if (i) usleep(1);
        int v;
        if (!query_int(day.m, day.db, q.text, c.pIntResult, v)) continue;
        endPos = v;
        return end_here || v != 0;
    }
    return false;
}

// The position query of the direction, with or without the hint.  Returns
// false (with the hint's message) when the hint finds no second.
bool position_query(PlayContext &c, DayIndex &day, int hour, int sec, Sql &q) {
    const bool fwd = c.iDirection == 1;
    if (c.iHintPos == -1) {
        format_into(q.text, sizeof q.text, fwd ? sql::kIdFrom : sql::kIdUpTo, hour, sec);
        return true;
    }
    const int hint = c.iHintPos;
    c.iHintPos = -1;
    format_into(q.text, sizeof q.text, fwd ? sql::kHintSecFrom : sql::kHintSecUpTo, hour, sec,
                hint);
    int s;
    if (!query_int(day.m, day.db, q.text, c.pIntResult, s)) {
        std::printf("ch%d not found\n", c.iCh);
        return false;
    }
    format_into(q.text, sizeof q.text, fwd ? sql::kHintIdFrom : sql::kHintIdUpTo, hour, s, hint);
    return true;
}

} // namespace
} // namespace vrix

extern "C" int db_video_date_rec_init(PlayContext *ctx, struct tm *t, int *pos, int *endPos,
                                      int *sec) {
    using namespace vrix;
    if (!ctx || !t || !pos || !endPos || !sec) return -1;
    PlayContext &c = *ctx;
    DayIndex day{video_mutex(c.iCh)};
    Path p;
    if (!reader_video_db(p, c.strRoot, *t, c.iCh) || !open_db(day.m, p.text, day.db)) return -1;

    Sql q;
    format_into(q.text, sizeof q.text, c.iDirection == 1 ? sql::kHourFrom : sql::kHourUpTo,
                t->tm_hour);
    int h;
    if (!query_int(day.m, day.db, q.text, c.pIntResult, h) || h < 0 || h > 23) return -1;
    if (h != t->tm_hour) {
        const int midnight = *sec - (t->tm_hour * 3600 + t->tm_min * 60 + t->tm_sec);
        *sec = midnight + h * 3600;
        t->tm_hour = h;
        t->tm_min = t->tm_sec = c.iDirection == 1 ? 0 : 59;
        if (c.iDirection != 1) *sec += 3599;
    }

    Stream stream;
    if (!reader_video_stream(p, c.strRoot, *t, c.iCh, t->tm_hour) ||
        !(stream.fp = std::fopen(p.text, "rb")))
        return 0;
    int end = 0;
    if (!last_id(c, day, *t, end)) return 0;
    if (!position_query(c, day, t->tm_hour, *sec, q)) return 0;

    int rows = -1;
    for (int i = 0; i < kAttempts && rows < 0; ++i) {
        if (i) usleep(1);
        rows = query_locked(day.m, day.db, q.text, "%d", c.pIntResult);
    }
    if (rows < 0) return 0;
    if (rows == 0) {
        std::printf("count = 0 , %s\n", q.text);
        return 0;
    }
    int found;
    if (!holder_int(c.pIntResult, found)) {
        std::printf("db : output is NULL , count = %d\nstrFile = %s\n", rows, q.text);
        return 0;
    }
    *pos = found;
    *endPos = end;
    if (c.fpStream) std::fclose(c.fpStream);
    c.fpStream = stream.fp;
    stream.fp = nullptr;
    c.llNextRecord = 0;
    return 1;
}

extern "C" int db_video_get_new(PlayContext *ctx, int sec, int direction) {
    using namespace vrix;
    if (!ctx) return 0;
    if (direction != 1 && direction != -1) {
        std::printf("db_video_get_new : direction %d is neither 1 nor -1\n", direction);
        return 0;
    }
    PlayContext &c = *ctx;
    auto end = [&c] {
        c.iEnd = 1;
        return 0;
    };
    if (!c.pVideoDb) c.iDirection = 0;
    if (c.iDirection == -1 && sec < 0) return end();
    long long s = sec;
    std::tm tm = fields_of(sec);
    int pos = 0, endPos = 0;
    for (;;) {
        if (c.iEndSec != kNoEnd && c.iEndSec <= s) return end();
        if (c.iDirection == 1)
            s = s - tm.tm_min * 60 - tm.tm_sec + 3600;
        else if (c.iDirection == -1)
            s = s - tm.tm_min * 60 - tm.tm_sec - 1;
        if (s < 0 || s > kNoEnd) return end();
        tm = fields_of(static_cast<int>(s));
        c.iDirection = direction;
        const int midnight = day_start(static_cast<int>(s), tm);
        Sql q;
        format_into(q.text, sizeof q.text,
                    direction == -1 ? sql::kChannelDayUpTo : sql::kChannelDayFrom, c.iCh, midnight);
        int d;
        if (!query_int(date_mutex(), c.pDateDb, q.text, c.pIntResult, d)) return end();
        if (d != midnight) {
            s = d;
            tm = fields_of(d);
            if (direction == -1) {
                // 23:59:59 of that day in the store's own calendar.
                tm.tm_hour = 23;
                tm.tm_min = tm.tm_sec = 59;
                s = local_seconds(tm);
            }
        }
        int at = static_cast<int>(s);
        const int r = db_video_date_rec_init(ctx, &tm, &pos, &endPos, &at);
        s = at;
        if (r == 1) break;
        if (r == -1) s = day_start(static_cast<int>(s), tm) + (c.iDirection == 1 ? 82800 : 3599);
        tm = fields_of(static_cast<int>(s));
        if (c.iDirection == -1 && s < 0) return end();
    }
    Path p;
    reader_video_db(p, c.strRoot, tm, c.iCh);
    {
        SqlLock hold(video_mutex(c.iCh));
        if (c.pVideoDb) sql_close(c.pVideoDb);
        if (sql_open(p.text, &c.pVideoDb) != 0) c.pVideoDb = nullptr;
    }
    if (!c.pVideoDb) return end();
    c.iHour = tm.tm_hour;
    c.iCurSec = static_cast<int>(s);
    c.iCurPos = pos;
    c.iEndPos = endPos;
    c.iEnd = 0;
    return 1;
}
