// Opening and closing the video recording context.
#include "core/calendar.h"
#include "core/live_hours.h"
#include "core/root_lock.h"
#include "core/store_access.h"
#include "core/syncer.h"
#include "rec_context.h"
#include "rec_writer.h"
#include "store/format.h"
#include "store/log.h"
#include "store/paths.h"
#include "store/schema.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

namespace vrix {
namespace {

// One recording context at a time: the submit thread serves only one.
std::atomic<bool> g_rec_open{false};

struct CloseRec {
    void operator()(RecContext *ctx) const { vrix_db_close_rec_video(ctx); }
};

void open_date_db(RecContext &ctx) {
    Path p;
    writer_date_db(p, ctx.strRoot);
    SqlLock hold(date_mutex());
    if (sql_open(p.text, &ctx.pDateDb) != 0) {
        ctx.pDateDb = nullptr;
        log_text("vrix_db_open_rec_video : open sqlite fail");
        return;
    }
    sql_submit(ctx.pDateDb, sql::kCommitsDurable, "");
    Sql q;
    for (int n = 1; n <= VRIX_VIDEO_CHANNELS; ++n) {
        format_into(q.text, sizeof q.text, sql::kCreateDateCh, n);
        sql_submit(ctx.pDateDb, q.text, "");
    }
    sql_submit(ctx.pDateDb, sql::kCreateDateH, "");
}

bool make_channel(RecChannel &c, int n) {
    c.iHour = -1;
    c.pFrameBuf = static_cast<unsigned char *>(std::aligned_alloc(16, kFrameBufSize));
    c.pSqlBuf = static_cast<char *>(std::calloc(1, kSqlBufSize));
    c.pBufLock = new (std::nothrow) std::mutex;
    if (!c.pFrameBuf || !c.pSqlBuf || !c.pBufLock) return false;
    std::memset(c.pFrameBuf, 0, kFrameBufSize);
    c.HourMsg.mtype = 1;
    c.HourMsg.mtext[0] = VRIX_MSG_HOUR;
    c.HourMsg.mtext[1] = static_cast<unsigned char>(n);
    return true;
}

} // namespace
} // namespace vrix

extern "C" RecContext *vrix_db_open_rec_video(const char *root, int count) {
    using namespace vrix;
    if (!root_fits(root, "vrix_db_open_rec_video")) return nullptr;
    if (count < 0 || count > kMaxRecSlots) {
        log_line("vrix_db_open_rec_video : channel count %d out of range 0..%d\n", count,
                 kMaxRecSlots);
        return nullptr;
    }
    if (g_rec_open.exchange(true)) {
        log_text("vrix_db_open_rec_video : a recording context is open already");
        return nullptr;
    }
    RootClaim *claim = claim_root(root, "vrix_db_open_rec_video");
    auto *raw = claim ? static_cast<RecContext *>(std::calloc(1, sizeof(RecContext))) : nullptr;
    if (!raw) {
        release_root(claim);
        g_rec_open.store(false);
        return nullptr;
    }
    refresh_timezone();
    std::unique_ptr<RecContext, CloseRec> ctx(raw);
    ctx->pRootClaim = claim;
    if (!(ctx->strRoot = make_writer_root(root))) return nullptr;
    if (!(ctx->pOffsetResult = make_holder(1, kOffsetCell))) return nullptr;
    if (!(ctx->pIntResult = make_holder(1, kIntCell))) return nullptr;
    open_date_db(*ctx);
    if (count > 0) {
        ctx->pChannels = static_cast<RecChannel *>(std::calloc(count, sizeof(RecChannel)));
        if (!ctx->pChannels) return nullptr;
        ctx->iChannelCount = count;
        for (int n = 1; n < count; ++n)
            if (!make_channel(ctx->pChannels[n], n)) return nullptr;
    }
    vrix_db_rec_open_thread(ctx.get());
    syncer_add({write_out_buffers, ctx.get(), ctx->strRoot});
    return ctx.release();
}

extern "C" void vrix_db_close_rec_video(RecContext *ctx) {
    using namespace vrix;
    if (!ctx) return;
    syncer_remove(ctx);
    vrix_db_rec_close_thread();
    forget_live_hours(ctx);
    db_free_sqlite(ctx->pOffsetResult, 1);
    db_free_sqlite(ctx->pIntResult, 1);
    for (int n = 0; n < ctx->iChannelCount && ctx->pChannels; ++n) {
        RecChannel &c = ctx->pChannels[n];
        close_hour_file(c, n);
        {
            SqlLock hold(video_mutex(n ? n : 1));
            close_writer_db(c.pVideoDb);
        }
        std::free(c.pFrameBuf);
        std::free(c.pSqlBuf);
        delete c.pBufLock;
    }
    std::free(ctx->pChannels);
    close_db(date_mutex(), ctx->pDateDb);
    sync_closed(ctx->strRoot);
    std::free(ctx->strRoot);
    release_root(ctx->pRootClaim);
    std::free(ctx);
    g_rec_open.store(false);
}
