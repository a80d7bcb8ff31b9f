#include "registration.h"

#include "core/calendar.h"
#include "core/file_io.h"
#include "core/store_access.h"
#include "core/submit_target.h"
#include "store/format.h"
#include "store/paths.h"
#include "store/schema.h"

#include <cstring>

namespace vrix {

void register_channel_day(RecContext &ctx, int n, int day) {
    Sql find, insert;
    SqlLock hold(date_mutex());
    format_into(find.text, sizeof find.text, sql::kFindChannelDay, n, day);
    format_into(insert.text, sizeof insert.text, sql::kInsertChannelDay, n, day);
    ensure_row(ctx.pDateDb, find.text, insert.text, ctx.pOffsetResult);
    ensure_day(ctx.pDateDb, day, ctx.pOffsetResult);
}

void prepare_hour(RecContext &ctx, SqlHandle db, int hour) {
    Sql q, insert;
    create_hour_table(db, hour, false);
    format_into(q.text, sizeof q.text, sql::kFindHour, hour);
    format_into(insert.text, sizeof insert.text, sql::kInsertHour, hour);
    ensure_row(db, q.text, insert.text, ctx.pOffsetResult);
}

// What the submit thread does, through the context's pIntResult.

namespace {

void prepare_next_day(RecContext &ctx, int day) {
    std::tm tm{};
    sec_to_tm(&tm, static_cast<int>(next_day_start(day)));
    char name[12];
    day_name(name, tm);
    Path p;
    if (!writer_day_dir(p, ctx.strRoot, name)) return;
    io::make_dir(p.text);
    if (!writer_video_dir(p, ctx.strRoot, name)) return;
    io::make_dir(p.text);
    for (int n = 1; n < ctx.iChannelCount; ++n) {
        if (!writer_channel_dir(p, ctx.strRoot, name, n)) continue;
        io::make_dir(p.text);
        if (!writer_video_db(p, ctx.strRoot, name, n)) continue;
        SqlHandle db = nullptr;
        if (open_db(video_mutex(n), p.text, db)) close_db(video_mutex(n), db);
    }
}

// Registers the hour in the channel's video.db of the message's day.  That is
// normally the database the writer has open; when the writer has moved on to
// another day meanwhile, the day's own file is opened for the registration.
void register_hour(RecContext &ctx, int ch, int hour, int day) {
    std::tm tm{};
    sec_to_tm(&tm, day);
    char name[12];
    day_name(name, tm);
    Path p;
    writer_video_db(p, ctx.strRoot, name, ch);
    RecChannel &c = ctx.pChannels[ch];
    Sql q;
    format_into(q.text, sizeof q.text, sql::kFindHour, hour);
    SqlLock hold(video_mutex(ch));
    SqlHandle db = c.pVideoDb;
    SqlHandle own = nullptr;
    if (std::memcmp(c.strDay, name, 9) != 0) db = sql_open(p.text, &own) == 0 ? own : nullptr;
    if (sql_submit(db, q.text, "%d", &ctx.pIntResult) <= 0) {
        sql_submit(db, sql::kCreateHourH, "");
        format_into(q.text, sizeof q.text, sql::kInsertHour, hour);
        sql_submit(db, q.text, "");
    }
    if (own) sql_close(own);
}

} // namespace

int channel_slots(const RecContext &ctx) {
    return ctx.iChannelCount;
}

void register_day_message(RecContext &ctx, int day) {
    prepare_next_day(ctx, day);
    SqlLock hold(date_mutex());
    ensure_day(ctx.pDateDb, day, ctx.pIntResult);
}

void register_hour_message(RecContext &ctx, int ch, int hour, int day) {
    {
        Sql find, insert;
        format_into(find.text, sizeof find.text, sql::kFindChannelDay, ch, day);
        format_into(insert.text, sizeof insert.text, sql::kInsertChannelDay, ch, day);
        SqlLock hold(date_mutex());
        ensure_row(ctx.pDateDb, find.text, insert.text, ctx.pIntResult);
    }
    register_hour(ctx, ch, hour, day);
}

} // namespace vrix
