// The frame writer: every frame of every channel goes through here.
#include "core/calendar.h"
#include "core/file_io.h"
#include "core/hour_journal.h"
#include "core/live_hours.h"
#include "core/messages.h"
#include "core/store_access.h"
#include "core/sync_point.h"
#include "media/index_row.h"
#include "media/record_scan.h"
#include "media/stream_file.h"
#include "rec_context.h"
#include "rec_writer.h"
#include "registration.h"
#include "store/format.h"
#include "store/log.h"
#include "store/paths.h"
#include "store/records.h"
#include "store/schema.h"

#include <cstdio>
#include <cstring>

namespace vrix {

void close_hour_file(RecChannel &c, int) {
    if (!c.fpStream) return;
    const std::lock_guard hold(*c.pBufLock);
    write_bytes(c.fpStream, c.pFrameBuf, static_cast<size_t>(c.iBufLen));
    std::fclose(c.fpStream);
    c.fpStream = nullptr;
    c.iBufLen = 0;
    c.llOffset = 0;
}

namespace {

// Writes out the buffer; the caller holds the channel's buffer lock.
void write_buffer(RecChannel &c, int n) {
    if (!c.iBufLen) return;
    const size_t w = write_bytes(c.fpStream, c.pFrameBuf, static_cast<size_t>(c.iBufLen));
    if (w < static_cast<size_t>(c.iBufLen)) report_short_write(n, w, c.iBufLen);
    c.iBufLen = 0;
}

} // namespace

void write_out_buffers(void *rec_context) {
    auto &ctx = *static_cast<RecContext *>(rec_context);
    for (int n = 1; n < ctx.iChannelCount; ++n) {
        RecChannel &c = ctx.pChannels[n];
        const std::lock_guard hold(*c.pBufLock);
        if (c.fpStream) write_buffer(c, n);
    }
}

void commit_channel(RecContext &ctx, RecChannel &c, int n) {
    unsigned hours = c.iPendingTables;
    if (c.iNewTable && c.iHour >= 0) hours |= 1u << c.iHour;
    if (hours && c.pVideoDb) register_channel_day(ctx, n, message_word(c.HourMsg, 4));
    {
        SqlLock hold(video_mutex(n));
        submit_busy(c.pVideoDb, sql::kBegin);
        if (hours) sql_submit(c.pVideoDb, sql::kCreateHourH, "");
        for (int h = 0; h < 24; ++h)
            if (hours & (1u << h)) prepare_hour(ctx, c.pVideoDb, h);
        submit_busy(c.pVideoDb, c.pSqlBuf);
        submit_busy(c.pVideoDb, sql::kCommit);
    }
    c.iNewTable = 0;
    c.iPendingTables = 0;
    c.iSqlLen = 0;
    c.iSqlRows = 0;
    c.pSqlBuf[0] = '\0';
}

namespace {

// Rows waiting for an hour whose table was never created keep that hour as
// pending, so that the next commit creates its table too.
void keep_pending_table(RecChannel &c) {
    if (c.iSqlRows && c.iNewTable && c.iHour >= 0) c.iPendingTables |= 1u << c.iHour;
}

// The channel's video.db follows the day of its frames; rows waiting for the
// old day go into the old database first.  The day text and the handle change
// together under the channel's mutex: the submit thread reads both.
void move_to_day(RecContext &ctx, RecChannel &c, int n) {
    if (c.pVideoDb && c.iSqlRows) commit_channel(ctx, c, n);
    Path p;
    writer_video_db(p, ctx.strRoot, ctx.strDay, n);
    bool opened;
    {
        SqlLock hold(video_mutex(n));
        close_writer_db(c.pVideoDb);
        opened = sql_open(p.text, &c.pVideoDb) == 0;
        if (!opened) {
            Path dir;
            writer_channel_dir(dir, ctx.strRoot, ctx.strDay, n);
            io::make_dir(dir.text);
            opened = sql_open(p.text, &c.pVideoDb) == 0;
        }
        if (opened)
            sql_submit(c.pVideoDb, sql::kIndexNoSync, "");
        else
            c.pVideoDb = nullptr;
        std::memcpy(c.strDay, ctx.strDay, 9);
    }
    if (!opened) log_text("vrix_db_rec_video : open sqlite fail");
    c.iSqlRows = 0;
    c.iSqlLen = 0;
    c.pSqlBuf[0] = '\0';
    c.iPendingTables = 0;
}

// A query into the context's holder, repeated while the database is busy.
int query_retrying(SqlHandle db, int n, const char *sql, const char *format, ResultTable &holder) {
    return retry_busy([&] {
        SqlLock hold(video_mutex(n));
        return sql_submit(db, sql, format, &holder);
    });
}

// The video writer's side of the restart search: the writer's own holder
// (pIntResult belongs to the submit thread), queries repeated while busy, and
// rows exclusive of the file's size.
struct VideoRestart {
    static constexpr bool kInclusive = false;
    RecContext &ctx;
    RecChannel &c;
    int n;
    long long size;
    int query(const char *sql) {
        return query_retrying(c.pVideoDb, n, sql, "%u", ctx.pOffsetResult);
    }
    ResultTable &offsets() { return ctx.pOffsetResult; }
    bool agrees(long long offset, int sec) {
        return key_frame_agrees(c.fpStream, offset, size, sec);
    }
    void row_read() { VRIX_SYNC_POINT("rec_video:resume_row_read"); }
};

// Resumes an hour file that has data: from the newest indexed key frame whose
// record is whole and agrees with its row (or from 0), the whole valid
// records are kept and their key frames indexed; the end of the last one is
// where writing continues.  kIndexUnknown when the index cannot be read (no
// database, or a damaged one): the file is then continued at its end, never
// cut.
ScanEnd resume_point(RecContext &ctx, RecChannel &c, int n, long long size) {
    if (!c.pVideoDb) return {kIndexUnknown, 0};
    // Rows still waiting for this very hour (the clock went back) must be in
    // the table before it is read.
    if (c.iSqlRows) commit_channel(ctx, c, n);
    VideoRestart w{ctx, c, n, size};
    const long long offset = restart_point(w, c.iHour, size);
    if (offset == kIndexUnknown) return {kIndexUnknown, 0};
    return index_from(c.fpStream, offset, size, c.iHour, true, video_mutex(n), c.pVideoDb);
}

// Opens or resumes the hour's file.  Returns false when the frame is not to
// be stored (no file, or a non-key frame at a restart point).
bool open_hour(RecContext &ctx, RecChannel &c, int n, const char *day, int hour, bool key) {
    close_hour_file(c, n);
    keep_pending_table(c);
    c.iBufLen = 0;
    c.iNewTable = 1;
    c.iHour = hour;
    c.iLastSec = 0;
    Path p;
    if (!writer_video_stream(p, ctx.strRoot, day, n, hour)) return false;
    FILE *fp = open_stream_for_writing(p.text);
    if (!fp) return false;
    journal_hour(ctx.strRoot, kJournalVideo, day, n, hour);
    const long long size = stream_size(fp);
    if (size < 0) {
        log_line("vrix_db_rec_video : ch%d cannot size %s\n", n, p.text);
        std::fclose(fp);
        return false;
    }
    {
        const std::lock_guard hold(*c.pBufLock);
        c.fpStream = fp;
    }
    if (size == 0) {
        // An empty file keeps no rows: they would name the new frames.
        c.llOffset = 0;
        Sql q;
        format_into(q.text, sizeof q.text, sql::kDeleteHour, hour);
        submit_locked(video_mutex(n), c.pVideoDb, q.text);
        return true;
    }
    const ScanEnd kept = resume_point(ctx, c, n, size);
    if (kept.end == kIndexUnknown) {
        log_line("vrix_db_rec_video : ch%d index of hour %d unreadable , appending\n", n, hour);
        c.llOffset = size;
    } else {
        // Only a torn or invalid tail goes: nothing but whole records of
        // this hour lies behind new data.
        c.llOffset = kept.end;
        c.iLastSec = kept.last_sec;
        cut_stream(c.fpStream, kept.end);
    }
    if (!key) {
        c.iWaitKey = 1;
        return false;
    }
    return true;
}

void store_frame(RecChannel &c, int n, const unsigned char *frame, int size) {
    const std::lock_guard hold(*c.pBufLock);
    if (kFrameBufSize - c.iBufLen > size) {
        std::memcpy(c.pFrameBuf + c.iBufLen, frame, static_cast<size_t>(size));
        c.iBufLen += size;
        return;
    }
    write_buffer(c, n);
    if (size < kFrameBufSize) {
        std::memcpy(c.pFrameBuf, frame, static_cast<size_t>(size));
        c.iBufLen = size;
        return;
    }
    const size_t w = write_bytes(c.fpStream, frame, static_cast<size_t>(size));
    if (w < static_cast<size_t>(size)) report_short_write(n, w, size);
}

void index_key_frame(RecContext &ctx, RecChannel &c, int n, int sec, unsigned scale) {
    if (!append_index_row(c.pSqlBuf, kSqlBufSize, c.iSqlLen, c.iHour, sec, c.llOffset)) {
        // Only a threshold raised far beyond its defaults fills the batch:
        // commit what is there and start the batch again with this row.
        commit_channel(ctx, c, n);
        append_index_row(c.pSqlBuf, kSqlBufSize, c.iSqlLen, c.iHour, sec, c.llOffset);
    }
    ++c.iSqlRows;
    if (c.iSqlRows > g_iCommit[scale]) commit_channel(ctx, c, n);
}

// The frame's own checks: size, header, scale and channel slot.
bool frame_usable(const RecContext &ctx, const unsigned char *frame, int size, FrameInfo &f) {
    if (!frame || size < VRIX_FRAME_HEADER_SIZE || !parse_frame(frame, size, f)) {
        log_line("vrix_db_rec_video : drop frame of size %d\n", size);
        return false;
    }
    if (f.len > VRIX_MAX_FRAME_PAYLOAD) {
        log_line("vrix_db_rec_video : drop frame , payload length %u above %d\n", f.len,
                 VRIX_MAX_FRAME_PAYLOAD);
        return false;
    }
    if (static_cast<long long>(f.len) + VRIX_FRAME_HEADER_SIZE != size) {
        log_line("vrix_db_rec_video : drop frame , size %d but payload length %u\n", size, f.len);
        return false;
    }
    if (frame_scale(f) > VRIX_MAX_SCALE) {
        log_line("vrix_db_rec_video : drop frame , scale %u out of range\n", frame_scale(f));
        return false;
    }
    if (f.channel < 1 || f.channel >= ctx.iChannelCount) {
        log_line("vrix_db_rec_video : drop frame , channel %d has no slot\n", f.channel);
        return false;
    }
    if (f.sec <= 0) {
        log_line("vrix_db_rec_video : drop frame , time %d\n", f.sec);
        return false;
    }
    return true;
}

} // namespace
} // namespace vrix

extern "C" void vrix_db_rec_video(RecContext *ctx, const void *frame, int size) {
    using namespace vrix;
    if (!ctx) return;
    const auto *bytes = static_cast<const unsigned char *>(frame);
    FrameInfo f;
    if (!frame_usable(*ctx, bytes, size, f)) return;
    const int n = f.channel;
    RecChannel &c = ctx->pChannels[n];

    std::tm tm{};
    sec_to_tm(&tm, f.sec);
    if (c.iWaitKey) {
        if (!f.key) return;
        c.iWaitKey = 0;
    }
    const bool first_hour = c.iYear == 0;
    if (c.iYear == 0 || c.iYear != tm.tm_year || c.iMon != tm.tm_mon || c.iMday != tm.tm_mday) {
        if (c.iYear != 0) {
            keep_pending_table(c);
            c.iHour = -1;
        }
        c.iYear = tm.tm_year;
        c.iMon = tm.tm_mon;
        c.iMday = tm.tm_mday;
    }
    if (c.iHour == -1 || c.iHour != tm.tm_hour) {
        char day[12];
        day_name(day, tm);
        const int start = day_start(f.sec, tm);
        note_live_hour(ctx, n, ctx->strRoot, start, tm.tm_hour);
        db_chech_video_dir(ctx, day, start);
        if (std::memcmp(c.strDay, ctx->strDay, 9) != 0) move_to_day(*ctx, c, n);
        c.HourMsg.mtext[2] = static_cast<unsigned char>(tm.tm_hour);
        put_message_word(c.HourMsg, 4, start);
        send_message(g_iSubmitMq, c.HourMsg);
        if (first_hour) {
            const char *root = ctx->strRoot;
            const IndexPlace video{
                [&](Path &p, const char *d) { return writer_video_db(p, root, d, n); },
                [&](Path &p, const char *d, int h) {
                    return writer_video_stream(p, root, d, n, h);
                },
                true};
            catch_up_previous_hour(video, c.pVideoDb, day, start, tm.tm_hour, video_mutex(n));
        }
        if (!open_hour(*ctx, c, n, day, tm.tm_hour, f.key)) return;
    }
    if (!c.fpStream) return;
    // An hour file's times never go back: resume and repair read a time below
    // the one before as the end of the valid records.
    if (f.sec < c.iLastSec) {
        log_line("vrix_db_rec_video : drop frame , time %d before %d\n", f.sec, c.iLastSec);
        c.iWaitKey = 1; // what follows it needs a key frame again
        return;
    }
    c.iLastSec = f.sec;
    store_frame(c, n, bytes, size);
    if (f.key) index_key_frame(*ctx, c, n, f.sec, frame_scale(f));
    c.llOffset += size;
}

extern "C" void vrix_db_rec_video_flush(RecContext *ctx, int ch) {
    using namespace vrix;
    if (!ctx) return;
    if (ch < 1 || ch >= ctx->iChannelCount) {
        log_line("vrix_db_rec_video_flush : channel %d has no slot\n", ch);
        return;
    }
    RecChannel &c = ctx->pChannels[ch];
    if (c.pVideoDb && c.iSqlRows) commit_channel(*ctx, c, ch);
    c.iSqlRows = 0;
    const std::lock_guard hold(*c.pBufLock);
    if (c.fpStream && c.iBufLen) {
        write_bytes(c.fpStream, c.pFrameBuf, static_cast<size_t>(c.iBufLen));
        std::fflush(c.fpStream);
        c.iBufLen = 0;
    }
}

extern "C" int db_chech_video_dir(RecContext *ctx, const char *day, int dayStart) {
    using namespace vrix;
    if (!ctx || !day) return -1;
    if (std::strncmp(ctx->strDay, day, 9) == 0) return 0;
    std::memset(ctx->strDay, 0, sizeof ctx->strDay);
    std::memcpy(ctx->strDay, day, strnlen(day, 8));
    Path p;
    if (writer_day_dir(p, ctx->strRoot, ctx->strDay)) io::make_dir(p.text);
    if (writer_video_dir(p, ctx->strRoot, ctx->strDay)) io::make_dir(p.text);
    prepare_message(ctx->DayMsg, VRIX_MSG_DAY);
    put_message_word(ctx->DayMsg, 4, dayStart);
    send_message(g_iSubmitMq, ctx->DayMsg);
    return 1;
}
