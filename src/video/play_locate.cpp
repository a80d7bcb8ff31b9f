// Locating a channel's video by time: the day from its ch<N> table, the hour
// from the day's video.db, the key frame from the hour's index.
#include "media/locate.h"
#include "play_context.h"
#include "store/log.h"
#include "store/paths.h"

namespace vrix {
namespace {

struct VideoMedia {
    using Context = PlayContext;
    static constexpr int kAttempts = 7;
    static pthread_mutex_t *mutex(const PlayContext &c) { return video_mutex(c.iCh); }
    static SqlHandle &db(PlayContext &c) { return c.pVideoDb; }
    static bool day_db(Path &p, const PlayContext &c, const std::tm &d) {
        return reader_video_db(p, c.strRoot, d, c.iCh);
    }
    static bool stream(Path &p, const PlayContext &c, const std::tm &d, int hour) {
        return reader_video_stream(p, c.strRoot, d, c.iCh, hour);
    }
    static void day_query(Sql &q, const PlayContext &c, int direction, int midnight) {
        format_into(q.text, sizeof q.text,
                    direction == -1 ? sql::kChannelDayUpTo : sql::kChannelDayFrom, c.iCh, midnight);
    }
    static void open_failed() {}
    static void no_rows(const PlayContext &) {}
    static void hint_missed(const PlayContext &c) { log_line("ch%d not found\n", c.iCh); }
    static void position_missing(const char *sql, int rows) {
        if (rows == 0)
            log_line("count = 0 , %s\n", sql);
        else
            log_line("db : output is NULL , count = %d\nstrFile = %s\n", rows, sql);
    }
};

} // namespace
} // namespace vrix

extern "C" int db_video_date_rec_init(PlayContext *ctx, struct tm *t, int *pos, int *endPos,
                                      int *sec) {
    if (!ctx || !t || !pos || !endPos || !sec) return -1;
    const int r = vrix::locate_in_day<vrix::VideoMedia>(*ctx, t, pos, endPos, sec);
    if (r == 1) ctx->llNextRecord = 0;
    return r;
}

extern "C" int db_video_get_new(PlayContext *ctx, int sec, int direction) {
    if (!ctx) return 0;
    if (direction != 1 && direction != -1) {
        vrix::log_line("db_video_get_new : direction %d is neither 1 nor -1\n", direction);
        return 0;
    }
    if (!ctx->pVideoDb) ctx->iDirection = 0;
    const bool found =
        !(ctx->iDirection == -1 && sec < 0) && vrix::locate<vrix::VideoMedia>(*ctx, sec, direction);
    ctx->iEnd = found ? 0 : 1;
    return found ? 1 : 0;
}
