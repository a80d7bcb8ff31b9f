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

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace vrix {

namespace {

// Writes `len` bytes at the end of the channel's file; the caller holds the
// buffer lock.  False when the write failed: the file was cut back to `cut`
// and the disk error reported (once until a write succeeds again).
bool write_locked(RecChannel &c, int n, const void *data, int len, long long &cut) {
    const Written w = write_records(c.fpStream, data, static_cast<size_t>(len));
    if (w.whole) {
        c.iWriteFailed = 0;
        return true;
    }
    if (!c.iWriteFailed) report_short_write("rec", n, w.written, static_cast<size_t>(len));
    c.iWriteFailed = 1;
    cut = w.at;
    return false;
}

// The recording thread goes on where a failed write cut the file (at its
// end, should the cut have failed too): the buffer is dropped and the next
// frame stored must be a key frame.  Under the buffer lock.
void go_on_at(RecChannel &c, long long at) {
    c.iBufLen = 0;
    c.llOffset = std::max(at, file_size(c.fpStream));
    c.iWaitKey = 1;
}

// A failure the syncer met, taken over by the recording thread (the bytes
// buffered since go with the rest).  Under the buffer lock; the offset the
// file was cut at, -1 for none.
long long take_failure(RecChannel &c) {
    if (!c.iCutPending) return -1;
    c.iCutPending = 0;
    go_on_at(c, c.llCutAt);
    return c.llCutAt;
}

// The recording thread writes out the buffer (hour change, flush, close):
// the offset a failure cut the file at, -1 for none.  Under the buffer lock.
long long write_out_own(RecChannel &c, int n) {
    long long cut = take_failure(c);
    if (cut < 0 && c.iBufLen && !write_locked(c, n, c.pFrameBuf, c.iBufLen, cut)) go_on_at(c, cut);
    c.iBufLen = 0;
    return cut;
}

// After a failed write cut the hour file at `cut` (-1: nothing failed): the
// rows of the frames lost go, waiting or committed.
void drop_lost_rows(RecChannel &c, int n, long long cut) {
    if (cut < 0 || c.iHour < 0) return;
    c.iSqlRows -= drop_rows_from(c.pSqlBuf, c.iSqlLen, c.iHour, cut);
    if (!c.pVideoDb) return;
    Sql q;
    format_into(q.text, sizeof q.text, sql::kDeleteRowsFrom, c.iHour, cut);
    submit_locked(video_mutex(n), c.pVideoDb, q.text);
}

} // namespace

void close_hour_file(RecChannel &c, int n) {
    if (!c.fpStream) return;
    long long cut;
    {
        const std::lock_guard hold(*c.pBufLock);
        cut = write_out_own(c, n);
        std::fclose(c.fpStream);
        c.fpStream = nullptr;
    }
    drop_lost_rows(c, n, cut);
    c.llOffset = 0;
}

void write_out_buffers(void *rec_context) {
    auto &ctx = *static_cast<RecContext *>(rec_context);
    for (int n = 1; n < ctx.iChannelCount; ++n) {
        RecChannel &c = ctx.pChannels[n];
        const std::lock_guard hold(*c.pBufLock);
        if (!c.fpStream || !c.iBufLen) continue;
        // Bytes buffered after a failure are dropped unwritten: their rows
        // name offsets the cut file no longer has.
        long long cut;
        if (!c.iCutPending && !write_locked(c, n, c.pFrameBuf, c.iBufLen, cut)) {
            c.iCutPending = 1;
            c.llCutAt = cut;
        }
        c.iBufLen = 0;
    }
}

void commit_channel(RecContext &ctx, RecChannel &c, int n) {
    unsigned hours = c.iPendingTables;
    if (c.iNewTable && c.iHour >= 0) hours |= 1u << c.iHour;
    if (hours && c.pVideoDb) register_channel_day(ctx, n, message_word(c.HourMsg, 4));
    const std::string undo = c.iIndexFailed ? undo_partial_batch(c.pSqlBuf, c.iSqlLen) : "";
    const bool ok = commit_rows(video_mutex(n), c.pVideoDb, c.pSqlBuf, [&] {
        if (!undo.empty()) sql_submit(c.pVideoDb, undo.c_str(), "");
        if (hours) sql_submit(c.pVideoDb, sql::kCreateHourH, "");
        for (int h = 0; h < 24; ++h)
            if (hours & (1u << h)) prepare_hour(ctx, c.pVideoDb, h);
    });
    if (!ok && c.pVideoDb) {
        // The rows stay for the next commit: the index gets no hole.
        if (!c.iIndexFailed)
            report_disk_error("vrix_db_rec_video", n, "index rows not committed , kept");
        c.iIndexFailed = 1;
        return;
    }
    c.iIndexFailed = 0;
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
    if (!c.pVideoDb) return {kIndexUnknown, 0, false};
    // Rows still waiting for this very hour (the clock went back) must be in
    // the table before it is read.
    if (c.iSqlRows) commit_channel(ctx, c, n);
    VideoRestart w{ctx, c, n, size};
    const long long offset = restart_point(w, c.iHour, size);
    if (offset == kIndexUnknown) return {kIndexUnknown, 0, false};
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
    Path p;
    if (!writer_video_stream(p, ctx.strRoot, day, n, hour)) return false;
    FILE *fp = open_stream_for_writing(p.text);
    if (!fp) {
        // A full disk refuses a new file as it refuses a write.
        if (!c.iWriteFailed) report_disk_error("vrix_db_rec_video", n, "cannot open its hour file");
        c.iWriteFailed = 1;
        return false;
    }
    journal_hour(ctx.strRoot, kJournalVideo, day, n, hour);
    long long size = stream_size(fp);
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
    } else if (kept.torn) {
        // Only a torn tail goes: nothing but whole records lies behind new data.
        if (cut_stream(c.fpStream, kept.end))
            size = kept.end;
        else
            report_disk_error("vrix_db_rec_video", n, "cannot cut a torn tail , appending");
    } else {
        log_line("vrix_db_rec_video : ch%d hour %d record at %lld unreadable , %lld bytes behind "
                 "it kept\n",
                 n, hour, kept.end, size - kept.end);
    }
    c.llOffset = size;
    fseeko(c.fpStream, size, SEEK_SET);
    if (!key) {
        c.iWaitKey = 1;
        return false;
    }
    return true;
}

// Stores a frame at the end of the hour file, into the buffer or, when it is
// larger, written straight.  Returns the offset it lies at, or -1 when it is
// not stored (its write failed, or a key frame is awaited after a failure).
// `cut` is where a failed write cut the file, -1 for none.
long long store_frame(RecChannel &c, int n, const unsigned char *frame, int size, bool key,
                      long long &cut) {
    const std::lock_guard hold(*c.pBufLock);
    auto failed = [&](long long at) {
        cut = cut < 0 ? at : std::min(cut, at);
        go_on_at(c, at);
    };
    cut = take_failure(c);
    if (kFrameBufSize - c.iBufLen <= size && c.iBufLen) {
        long long at;
        if (!write_locked(c, n, c.pFrameBuf, c.iBufLen, at)) failed(at);
        c.iBufLen = 0;
    }
    if (c.iWaitKey) {
        if (!key) return -1;
        c.iWaitKey = 0;
    }
    const long long offset = c.llOffset;
    if (size < kFrameBufSize) {
        std::memcpy(c.pFrameBuf + c.iBufLen, frame, static_cast<size_t>(size));
        c.iBufLen += size;
    } else if (long long at; !write_locked(c, n, frame, size, at)) {
        failed(at);
        return -1;
    }
    c.llOffset += size;
    return offset;
}

void index_key_frame(RecContext &ctx, RecChannel &c, int n, int sec, unsigned scale,
                     long long offset) {
    if (!append_index_row(c.pSqlBuf, kSqlBufSize, c.iSqlLen, c.iHour, sec, offset)) {
        // Only a threshold raised far beyond its defaults, or an index that
        // keeps failing, fills the batch: commit what is there and start the
        // batch again with this row.
        commit_channel(ctx, c, n);
        if (c.iSqlLen) {
            log_line("vrix_db_rec_video : ch%d %d index rows lost , the index keeps failing\n", n,
                     c.iSqlRows);
            c.iSqlLen = c.iSqlRows = 0;
            c.pSqlBuf[0] = '\0';
        }
        append_index_row(c.pSqlBuf, kSqlBufSize, c.iSqlLen, c.iHour, sec, offset);
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
    if (c.iWaitKey && !f.key) return;
    const bool first_hour = c.iYear == 0;
    const bool new_day =
        first_hour || c.iYear != tm.tm_year || c.iMon != tm.tm_mon || c.iMday != tm.tm_mday;
    // The hour file being left is written out while its hour and day are
    // still the channel's: a failure there drops the rows it names.
    if (new_day || c.iHour != tm.tm_hour) close_hour_file(c, n);
    if (new_day) {
        if (!first_hour) {
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
        // Only a restart waits for a key frame: within a context the frames
        // go on where they are, also into an hour file the clock went back to.
        if (!open_hour(*ctx, c, n, day, tm.tm_hour, f.key || !first_hour)) return;
    } else if (!c.fpStream) {
        // The hour's file could not be made (a full disk): tried again at each
        // key frame, which the frames after a failure wait for anyway.
        if (!f.key) return;
        char day[12];
        day_name(day, tm);
        if (!open_hour(*ctx, c, n, day, tm.tm_hour, true)) return;
    }
    if (!c.fpStream) return;
    // Times may go back within an hour file (the clock was set back): the
    // frames are a new pass of the hour, after the first in the file.
    long long cut;
    const long long at = store_frame(c, n, bytes, size, f.key, cut);
    drop_lost_rows(c, n, cut);
    if (at >= 0 && f.key) index_key_frame(*ctx, c, n, f.sec, frame_scale(f), at);
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
    long long cut = -1;
    {
        const std::lock_guard hold(*c.pBufLock);
        if (c.fpStream) cut = write_out_own(c, ch);
    }
    drop_lost_rows(c, ch, cut);
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
