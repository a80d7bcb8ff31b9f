// Opening and closing a playback context, and its accessors.
#include "core/calendar.h"
#include "core/store_access.h"
#include "media/locate.h"
#include "play_context.h"
#include "store/log.h"
#include "store/paths.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace vrix {
namespace {

struct ClosePlay {
    void operator()(PlayContext *ctx) const { vrix_db_close_get_video(ctx); }
};

} // namespace
} // namespace vrix

extern "C" PlayContext *vrix_db_open_get_video(struct tm *start, struct tm *end, int ch,
                                               int bufSize, const char *root) {
    using namespace vrix;
    if (root && !root_fits(root, "vrix_db_open_get_video")) return nullptr;
    if (ch < 1 || ch > VRIX_VIDEO_CHANNELS) {
        log_line("vrix_db_open_get_video : channel %d out of range 1..%d\n", ch,
                 VRIX_VIDEO_CHANNELS);
        return nullptr;
    }
    if (!start || bufSize <= 0) {
        log_line("vrix_db_open_get_video : %s\n", start ? "no frame buffer size" : "no start time");
        return nullptr;
    }
    refresh_timezone();
    auto *raw = static_cast<PlayContext *>(std::calloc(1, sizeof(PlayContext)));
    if (!raw) return nullptr;
    std::unique_ptr<PlayContext, ClosePlay> ctx(raw);
    ctx->iCh = ch;
    ctx->iBufSize = bufSize;
    if (bufSize > 0 && (ctx->pRawBuf = std::malloc(static_cast<size_t>(bufSize) + 15)))
        ctx->pFrameBuf = reinterpret_cast<unsigned char *>(
            (reinterpret_cast<uintptr_t>(ctx->pRawBuf) + 15) & ~uintptr_t{15});
    if (!ctx->pRawBuf || !open_playback(*ctx, start, end, root)) return nullptr;
    return ctx.release();
}

extern "C" void vrix_db_close_get_video(PlayContext *ctx) {
    using namespace vrix;
    if (!ctx) return;
    std::free(ctx->pRawBuf);
    close_db(video_mutex(ctx->iCh), ctx->pVideoDb);
    close_playback(*ctx);
    std::free(ctx);
}

extern "C" int vrix_db_get_video(PlayContext *ctx, void **buf) {
    *buf = ctx->pFrameBuf;
    return ctx->iFrameLen;
}

extern "C" void vrix_db_video_get_current_time(PlayContext *ctx, int *sec, int *subTime) {
    *sec = ctx->iFrameSec;
    *subTime = ctx->iFrameSubTime;
}

extern "C" int vrix_db_video_get_current_scale(PlayContext *ctx) {
    return ctx->iFrameScale;
}
extern "C" int vrix_db_video_get_end(PlayContext *ctx) {
    return ctx->iEnd;
}
extern "C" int vrix_db_video_get_i_mode(PlayContext *ctx) {
    return ctx->iIMode;
}

extern "C" void vrix_db_video_set_i_mode(PlayContext *ctx, int mode, int step) {
    ctx->iIMode = mode;
    ctx->iStep = step;
}

extern "C" void vrix_db_video_set_skip_frame(PlayContext *ctx, int count) {
    ctx->iSkipFrame = count;
}

extern "C" void vrix_db_video_reset_start_time(PlayContext *ctx, int sec, int newPos) {
    using namespace vrix;
    if (!ctx) return;
    {
        SqlLock hold(video_mutex(ctx->iCh));
        if (ctx->pVideoDb) sql_close(ctx->pVideoDb);
        ctx->pVideoDb = nullptr;
    }
    if (ctx->fpStream) std::fclose(ctx->fpStream);
    ctx->fpStream = nullptr;
    ctx->iDirection = 0;
    ctx->iCurSec = sec;
    ctx->iHintPos = newPos ? -1 : ctx->iCurPos;
}

extern "C" void vrix_db_video_set_end_time_forever(PlayContext *ctx) {
    if (ctx && ctx->pVideoDb) ctx->iEndSec = vrix::kNoEnd;
}

extern "C" void vrix_db_show_current_pos(PlayContext *ctx) {
    vrix::log_line("ch%d current pos = %d\n", ctx->iCh, ctx->iCurPos);
}
