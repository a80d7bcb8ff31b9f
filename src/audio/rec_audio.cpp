// Recording the audio block of every audio channel.
#include "core/calendar.h"
#include "core/file_io.h"
#include "core/hour_journal.h"
#include "core/live_hours.h"
#include "core/messages.h"
#include "core/root_lock.h"
#include "core/store_access.h"
#include "core/syncer.h"
#include "media/index_row.h"
#include "media/record_scan.h"
#include "media/stream_file.h"
#include "rec_context.h"
#include "store/format.h"
#include "store/log.h"
#include "store/paths.h"
#include "store/records.h"
#include "store/schema.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

namespace vrix {
namespace {

struct CloseAudio {
    void operator()(AudioRecContext *ctx) const { vrix_db_close_rec_audio(ctx); }
};

// The rows waiting, committed; kept for the next commit when the commit
// fails (the index gets no hole), dropped with one line only when they no
// longer fit.
void commit_audio_rows(AudioRecContext &c) {
    const std::string undo = c.iIndexFailed ? undo_partial_batch(c.pSqlBuf, c.iSqlLen) : "";
    if (c.pAudioDb && c.iSqlRows && !commit_rows(audio_mutex(), c.pAudioDb, c.pSqlBuf, [&] {
            if (!undo.empty()) sql_submit(c.pAudioDb, undo.c_str(), "");
        })) {
        if (!c.iIndexFailed) report_disk_error("rec audio", 0, "index rows not committed , kept");
        c.iIndexFailed = 1;
        if (kAudioSqlBufSize - c.iSqlLen > 256) return;
        log_line("rec audio : %d index rows lost , the index keeps failing\n", c.iSqlRows);
    } else {
        c.iIndexFailed = 0;
    }
    c.iSqlLen = 0;
    c.iSqlRows = 0;
    c.pSqlBuf[0] = '\0';
}

// The hour's audio.db, with its tables and the hour registered in H.
void open_hour_db(AudioRecContext &c, const char *audio_dir, int hour) {
    Path p;
    dir_audio_db(p, audio_dir);
    SqlLock hold(audio_mutex());
    if (sql_open(p.text, &c.pAudioDb) != 0) {
        c.pAudioDb = nullptr; // treated as no database
        return;
    }
    sql_submit(c.pAudioDb, sql::kIndexNoSync, "");
    create_hour_table(c.pAudioDb, hour, false);
    sql_submit(c.pAudioDb, sql::kCreateHourH, "");
    Sql q;
    format_into(q.text, sizeof q.text, sql::kFindHour, hour);
    if (sql_submit(c.pAudioDb, q.text, "%d", &c.pIntResult) <= 0) {
        format_into(q.text, sizeof q.text, sql::kInsertHour, hour);
        sql_submit(c.pAudioDb, q.text, "");
    }
}

void close_channel_file(AudioRecChannel &ch) {
    if (!ch.fpStream) return;
    std::fclose(ch.fpStream);
    ch.fpStream = nullptr;
    ch.iBufLen = 0;
}

// Writes out channel k's buffered records; the caller holds pBufLock.  A
// failed write leaves its cut for settle(); the buffers are dropped until it
// ran.
void write_channel(AudioRecContext &c, int k) {
    AudioRecChannel &ch = c.pChannels[k];
    if (!ch.fpStream || !ch.iBufLen) return;
    if (c.iCutPending) {
        ch.iBufLen = 0;
        return;
    }
    const Written w = write_records(ch.fpStream, ch.pFrameBuf, static_cast<size_t>(ch.iBufLen));
    if (w.whole) {
        c.iWriteFailed = 0;
    } else {
        if (!c.iWriteFailed)
            report_short_write("rec audio", k + 1, w.written, static_cast<size_t>(ch.iBufLen));
        c.iWriteFailed = 1;
        c.iCutPending = 1;
        c.llCutAt = w.at;
    }
    ch.iBufLen = 0;
}

void write_out_locked(AudioRecContext &c) {
    for (int k = 0; k < c.iChannelCount; ++k)
        write_channel(c, k);
}

// The time of the record before `at` in a channel's file; 0 when none.
int second_before(FILE *fp, long long at) {
    unsigned char head[12];
    int32_t sec = 0;
    uint32_t w;
    const bool read = fp && at >= VRIX_AUDIO_RECORD_SIZE &&
                      fseeko(fp, at - VRIX_AUDIO_RECORD_SIZE, SEEK_SET) == 0 &&
                      std::fread(head, 1, sizeof head, fp) == sizeof head;
    if (fp) std::clearerr(fp);
    return read && parse_audio_record(head, sec, w) ? sec : 0;
}

// Every channel's file ends at the offset the index names for all of them.
// Should a cut fail, the channel is written from that offset all the same:
// its next records cover what lies there.
void cut_to_common_end(FILE *fp, int ch, long long at) {
    if (cut_stream(fp, at)) return;
    fseeko(fp, at, SEEK_SET);
    report_disk_error("rec audio", ch, "cannot cut its file , writing over what lies there");
}

// After a failed write: every channel's file goes back to where that write
// began (the rows name offsets of all channels alike), and the rows of the
// records lost go, waiting or committed.  The caller holds pBufLock.
void settle(AudioRecContext &c) {
    if (!c.iCutPending) return;
    c.iCutPending = 0;
    const long long at = c.llCutAt;
    // The next block starts a row unless it goes on in the second kept last.
    c.iLastSec = second_before(c.pChannels[0].fpStream, at);
    for (int k = 0; k < c.iChannelCount; ++k) {
        AudioRecChannel &ch = c.pChannels[k];
        ch.iBufLen = 0;
        ch.llOffset = at;
        if (ch.fpStream) cut_to_common_end(ch.fpStream, k + 1, at);
    }
    if (c.iHour < 0 || !c.pSqlBuf) return;
    c.iSqlRows -= drop_rows_from(c.pSqlBuf, c.iSqlLen, c.iHour, at);
    if (!c.pAudioDb) return;
    Sql q;
    format_into(q.text, sizeof q.text, sql::kDeleteRowsFrom, c.iHour, at);
    submit_locked(audio_mutex(), c.pAudioDb, q.text);
}

} // namespace

void write_out_audio(void *context) {
    auto &c = *static_cast<AudioRecContext *>(context);
    const std::lock_guard hold(*c.pBufLock);
    write_out_locked(c);
}

namespace {

// The audio writer's side of the restart search: rows at or below the
// shortest file's whole records `m`, checked in the first channel's file.
struct AudioRestart {
    static constexpr bool kInclusive = true;
    AudioRecContext &c;
    long long m;
    int query(const char *sql) {
        return query_locked(audio_mutex(), c.pAudioDb, sql, "%u", c.pOffsetResult);
    }
    ResultTable &offsets() { return c.pOffsetResult; }
    bool agrees(long long offset, int sec) {
        FILE *first = c.pChannels[0].fpStream;
        return first && audio_record_agrees(first, offset, m, sec);
    }
    void row_read() {}
};

// The common restart point at or below `m` (the shortest file's whole
// records); kIndexUnknown also when there is no audio.db.
long long restart_at(AudioRecContext &c, int hour, long long m) {
    if (!c.pAudioDb) return kIndexUnknown;
    AudioRestart w{c, m};
    return restart_point(w, hour, m);
}

// Opens every channel's file of the new hour and moves all of them to one
// record boundary.  False when a file could be neither opened nor created.
bool open_hour_files(AudioRecContext &c, const char *audio_dir, int hour) {
    long long m = -1;
    journal_hour(c.strRoot, kJournalAudio, c.strDay, 0, hour);
    for (int k = 0; k < c.iChannelCount; ++k) {
        AudioRecChannel &ch = c.pChannels[k];
        Path dir, p;
        dir_channel(dir, audio_dir, k + 1);
        io::make_dir(dir.text);
        close_channel_file(ch);
        ch.llOffset = 0;
        dir_stream(p, dir.text, hour);
        if (!(ch.fpStream = open_stream_for_writing(p.text))) {
            if (!c.iWriteFailed) {
                log_line("rec audio : cannot open %s\n", p.text);
                report_disk_error("rec audio", k + 1, "cannot open its hour file");
            }
            c.iWriteFailed = 1;
            // The later channels stop rather than write on into the old hour.
            for (int j = k + 1; j < c.iChannelCount; ++j)
                close_channel_file(c.pChannels[j]);
            return false;
        }
        const long long size = std::max(0LL, stream_size(ch.fpStream));
        ch.llOffset = size - size % VRIX_AUDIO_RECORD_SIZE;
        if (m < 0 || ch.llOffset < m) m = ch.llOffset;
    }
    const long long restart = m > 0 ? restart_at(c, hour, m) : 0;
    long long end = m;
    if (restart == kIndexUnknown || !c.pAudioDb) {
        log_line("rec audio : index of hour %d unreadable , continuing at %lld\n", hour, m);
    } else {
        // Every channel keeps the whole valid records all of them have from
        // the restart point on, and what lies behind a record the scan
        // rejects unless that is a torn tail; the first channel's seconds are
        // indexed.
        for (int k = 0; k < c.iChannelCount; ++k) {
            const ScanEnd e = scan_end(c.pChannels[k].fpStream, restart, m, hour, false);
            if (e.end < m && e.torn)
                end = std::min(end, e.end);
            else if (e.end < m)
                log_line("rec audio : ch%d hour %d record at %lld unreadable , %lld bytes behind "
                         "it kept\n",
                         k + 1, hour, e.end, m - e.end);
        }
        const ScanEnd kept = index_from(c.pChannels[0].fpStream, restart, end, hour, false,
                                        audio_mutex(), c.pAudioDb);
        // Behind unindexed records the next block starts a row of its own.
        c.iLastSec = kept.end == end ? kept.last_sec : 0;
    }
    // Every file ends where the next record goes: a torn tail and what one
    // channel holds beyond the others are cut.
    for (int k = 0; k < c.iChannelCount; ++k) {
        cut_to_common_end(c.pChannels[k].fpStream, k + 1, end);
        c.pChannels[k].llOffset = end;
    }
    return true;
}

// Steps of a block that opens a new hour; false when the block is not stored.
bool new_hour(AudioRecContext &c, int t, const std::tm &tm, bool date_changed, uint32_t w) {
    c.iPacing = 1;
    c.iPacedWord = static_cast<int>(w);
    c.iHour = tm.tm_hour;
    c.iLastSec = 0; // the hour's first block is always indexed
    const bool first_hour = c.strDay[0] == '\0';
    Path day, audio;
    if (date_changed) {
        day_name(c.strDay, tm);
        writer_day_dir(day, c.strRoot, c.strDay);
        io::make_dir(day.text);
    }
    writer_audio_dir(audio, c.strRoot, c.strDay);
    if (date_changed) io::make_dir(audio.text);
    if (c.pAudioDb) {
        commit_audio_rows(c);
        {
            SqlLock hold(audio_mutex());
            close_writer_db(c.pAudioDb);
        }
    }
    c.iSqlLen = c.iSqlRows = 0;
    open_hour_db(c, audio.text, tm.tm_hour);
    if (first_hour) {
        const char *root = c.strRoot;
        const IndexPlace place{[root](Path &p, const char *d) {
                                   Path dir;
                                   return writer_audio_dir(dir, root, d) &&
                                          dir_audio_db(p, dir.text);
                               },
                               [root](Path &p, const char *d, int h) {
                                   Path dir, first;
                                   return writer_audio_dir(dir, root, d) &&
                                          dir_channel(first, dir.text, 1) &&
                                          dir_stream(p, first.text, h);
                               },
                               false};
        catch_up_previous_hour(place, c.pAudioDb, c.strDay, day_start(t, tm), tm.tm_hour,
                               audio_mutex());
    }
    return open_hour_files(c, audio.text, tm.tm_hour);
}

// Room for one more record in every buffer: full buffers are written out
// (a failure cuts the files back first).
void make_room(AudioRecContext &c) {
    bool full = false;
    for (int k = 0; k < c.iChannelCount; ++k)
        full = full || kAudioBufSize - c.pChannels[k].iBufLen <= VRIX_AUDIO_RECORD_SIZE;
    if (!full) return;
    write_out_locked(c);
    settle(c);
}

void store_block(AudioRecContext &c, const unsigned char *block) {
    for (int k = 0; k < c.iChannelCount; ++k) {
        AudioRecChannel &ch = c.pChannels[k];
        if (!ch.fpStream) continue;
        unsigned char *rec = ch.pFrameBuf + ch.iBufLen;
        std::memcpy(rec, c.Header, sizeof c.Header);
        std::memcpy(rec + sizeof c.Header, block + VRIX_AUDIO_PIECE_SIZE * k,
                    VRIX_AUDIO_PIECE_SIZE);
        ch.iBufLen += VRIX_AUDIO_RECORD_SIZE;
        ch.llOffset += VRIX_AUDIO_RECORD_SIZE;
    }
}

} // namespace
} // namespace vrix

extern "C" AudioRecContext *vrix_db_open_rec_audio(const char *root, int count) {
    using namespace vrix;
    if (!root_fits(root, "vrix_db_open_rec_audio")) return nullptr;
    if (count < 1 || count > VRIX_AUDIO_CHANNELS) {
        log_line("vrix_db_open_rec_audio : channel count %d out of range 1..%d\n", count,
                 VRIX_AUDIO_CHANNELS);
        return nullptr;
    }
    refresh_timezone();
    auto *raw = static_cast<AudioRecContext *>(std::calloc(1, sizeof(AudioRecContext)));
    if (!raw) return nullptr;
    std::unique_ptr<AudioRecContext, CloseAudio> ctx(raw);
    if (!(ctx->pBufLock = new (std::nothrow) std::mutex)) return nullptr;
    if (!(ctx->pRootClaim = claim_root(root, "vrix_db_open_rec_audio"))) return nullptr;
    ctx->iRecSize = VRIX_AUDIO_RECORD_SIZE;
    ctx->iHour = -1;
    if (!(ctx->strRoot = make_writer_root(root))) return nullptr;
    if (!(ctx->pSqlBuf = static_cast<char *>(std::calloc(1, kAudioSqlBufSize)))) return nullptr;
    if (!(ctx->pIntResult = make_holder(1, kIntCell))) return nullptr;
    if (!(ctx->pOffsetResult = make_holder(1, kOffsetCell))) return nullptr;
    ctx->pChannels = static_cast<AudioRecChannel *>(std::calloc(count, sizeof(AudioRecChannel)));
    if (!ctx->pChannels) return nullptr;
    ctx->iChannelCount = count;
    for (int k = 0; k < count; ++k)
        if (!(ctx->pChannels[k].pFrameBuf =
                  static_cast<unsigned char *>(std::calloc(1, kAudioBufSize))))
            return nullptr;
    syncer_add({write_out_audio, ctx.get(), ctx->strRoot});
    return ctx.release();
}

extern "C" void vrix_db_close_rec_audio(AudioRecContext *ctx) {
    using namespace vrix;
    if (!ctx) return;
    syncer_remove(ctx);
    forget_live_hours(ctx);
    if (ctx->pChannels && ctx->pBufLock) {
        const std::lock_guard hold(*ctx->pBufLock);
        write_out_locked(*ctx);
        settle(*ctx);
    }
    std::free(ctx->pSqlBuf);
    db_free_sqlite(ctx->pIntResult, 1);
    db_free_sqlite(ctx->pOffsetResult, 1);
    for (int k = 0; k < ctx->iChannelCount && ctx->pChannels; ++k) {
        close_channel_file(ctx->pChannels[k]);
        std::free(ctx->pChannels[k].pFrameBuf);
    }
    std::free(ctx->pChannels);
    {
        SqlLock hold(audio_mutex());
        close_writer_db(ctx->pAudioDb);
    }
    sync_closed(ctx->strRoot);
    std::free(ctx->strRoot);
    release_root(ctx->pRootClaim);
    delete ctx->pBufLock;
    std::free(ctx);
}

extern "C" void vrix_db_rec_audio(AudioRecContext *ctx, const void *block) {
    using namespace vrix;
    if (!ctx || !block) return;
    const auto *b = static_cast<const unsigned char *>(block);
    const int t = static_cast<int>(load_le32(b + 192));
    uint32_t w = load_le32(b + 196);
    if (t <= 0) {
        log_line("vrix_db_rec_audio : drop block , time %d\n", t);
        return;
    }
    const std::lock_guard hold(*ctx->pBufLock);
    settle(*ctx); // a failure of the syncer's write-out
    std::tm tm{};
    sec_to_tm(&tm, t);
    bool date_changed = false;
    const bool new_day = ctx->iYear == 0 || ctx->iYear != tm.tm_year || ctx->iMon != tm.tm_mon ||
                         ctx->iMday != tm.tm_mday;
    if (new_day || ctx->iHour != tm.tm_hour) {
        // The hour being left is written out while its hour and day are
        // still the context's: a failure there drops the rows it names.
        write_out_locked(*ctx);
        settle(*ctx);
    }
    if (new_day) {
        ctx->iYear = tm.tm_year;
        ctx->iMon = tm.tm_mon;
        ctx->iMday = tm.tm_mday;
        ctx->iHour = -1;
        date_changed = true;
    }
    if (ctx->iHour != -1 && ctx->iHour == tm.tm_hour &&
        !ctx->pChannels[ctx->iChannelCount - 1].fpStream) {
        // The hour's files could not all be made (a full disk; a failure leaves
        // the channels from the failed one on closed): tried again.
        Path audio;
        writer_audio_dir(audio, ctx->strRoot, ctx->strDay);
        if (!open_hour_files(*ctx, audio.text, tm.tm_hour)) return;
    } else if (ctx->iHour != -1 && ctx->iHour == tm.tm_hour) {
        if (ctx->iPacing) {
            if (static_cast<long long>(w) - ctx->iPacedWord > 10000) {
                ctx->iPacedWord += 10000;
                w = static_cast<uint32_t>(ctx->iPacedWord);
            } else {
                ctx->iPacing = 0;
            }
        }
    } else {
        note_live_hour(ctx, 0, ctx->strRoot, day_start(t, tm), tm.tm_hour);
        if (!new_hour(*ctx, t, tm, date_changed, w)) return;
    }
    // Times may go back within an hour file (the clock was set back): the
    // blocks are a new pass of the hour.  A row starts every run of records
    // of one second.
    store_le32(ctx->Header, VRIX_AUDIO_PIECE_SIZE);
    store_le32(ctx->Header + 4, static_cast<uint32_t>(t));
    store_le32(ctx->Header + 8, w);
    make_room(*ctx);
    const bool index = ctx->iLastSec != t;
    if (index) {
        ctx->iLastSec = t;
        ctx->llIndexOffset = ctx->pChannels[0].llOffset;
    }
    store_block(*ctx, b);
    if (index &&
        append_index_row(ctx->pSqlBuf, kAudioSqlBufSize, ctx->iSqlLen, ctx->iHour, t,
                         ctx->llIndexOffset) &&
        ++ctx->iSqlRows > kAudioBatchRows)
        commit_audio_rows(*ctx);
}

extern "C" void vrix_db_rec_audio_flush(AudioRecContext *ctx) {
    using namespace vrix;
    if (!ctx) return;
    commit_audio_rows(*ctx);
    const std::lock_guard hold(*ctx->pBufLock);
    write_out_locked(*ctx);
    settle(*ctx);
}
