// Playing one audio channel back by time, record by record.
#include "core/calendar.h"
#include "core/flags.h"
#include "core/store_access.h"
#include "media/index_row.h"
#include "media/locate.h"
#include "media/stream_file.h"
#include "play_context.h"
#include "store/format.h"
#include "store/log.h"
#include "store/paths.h"
#include "store/records.h"
#include "store/schema.h"

#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <memory>

namespace vrix {
namespace {

struct AudioMedia {
    using Context = AudioPlayContext;
    static constexpr int kAttempts = 1;
    static pthread_mutex_t *mutex(const AudioPlayContext &) { return audio_mutex(); }
    static SqlHandle &db(AudioPlayContext &c) { return c.pAudioDb; }
    static bool day_db(Path &p, const AudioPlayContext &c, const std::tm &d) {
        return reader_audio_db(p, c.strRoot, d);
    }
    static bool stream(Path &p, const AudioPlayContext &c, const std::tm &d, int hour) {
        return reader_audio_stream(p, c.strRoot, d, c.iCh, hour);
    }
    static void day_query(Sql &q, const AudioPlayContext &, int direction, int midnight) {
        format_into(q.text, sizeof q.text, direction == -1 ? sql::kDayUpTo : sql::kDayFrom,
                    midnight);
    }
    static void open_failed() { log_text("play audio : open sql fail"); }
    static void no_rows(const AudioPlayContext &) { log_text("play audio : get end point fail"); }
    static void hint_missed(const AudioPlayContext &) {}
    static void position_missing(const char *, int) {}
};

struct CloseAudioPlay {
    void operator()(AudioPlayContext *ctx) const { vrix_db_close_get_audio(ctx); }
};

void offset_message(const AudioPlayContext &c, int rows) {
    log_line("play audio : get offset iCount = %d , curpos = %d , endpos = %d\n", rows, c.iCurPos,
             c.iEndPos);
}

// The offset of index row `id`, checked against the record there; sought to
// when it agrees.  NotYet: the record runs past the end of the file as it is.
RowCheck seek_row(AudioPlayContext &c, int id) {
    long long offset;
    int sec;
    const IndexRows ix{audio_mutex(), c.pAudioDb, c.iHour, c.pOffsetResult, c.pIntResult};
    const RowCheck r =
        read_index_row(ix, id, offset, sec, [&c](int rows) { offset_message(c, rows); });
    if (r != RowCheck::Good) return r;
    const AtRow at = audio_record_at(c.fpStream, offset, file_size(c.fpStream), sec);
    std::clearerr(c.fpStream);
    if (at != AtRow::Agrees) return row_check(at);
    if (fseeko(c.fpStream, offset, SEEK_SET) != 0) return RowCheck::Disagrees;
    c.llNextRecord = offset;
    return RowCheck::Good;
}

// Reads one record; false on a short read (position kept at its start).
bool read_record(AudioPlayContext &c) {
    if (std::fread(c.pFrameBuf, 1, VRIX_AUDIO_RECORD_SIZE, c.fpStream) != VRIX_AUDIO_RECORD_SIZE) {
        std::clearerr(c.fpStream);
        fseeko(c.fpStream, c.llNextRecord, SEEK_SET);
        return false;
    }
    c.iFrameLen = VRIX_AUDIO_RECORD_SIZE;
    c.llNextRecord += VRIX_AUDIO_RECORD_SIZE;
    return true;
}

// Puts the record just read back, to be read again by a later step.
void unread_record(AudioPlayContext &c) {
    c.llNextRecord -= VRIX_AUDIO_RECORD_SIZE;
    fseeko(c.fpStream, c.llNextRecord, SEEK_SET);
}

// The record in the buffer as play sees it: damage (a length word other than
// 48, or a time outside the hour being played), after the end time, or good.
enum class Held { Damaged, PastEnd, Good };
Held check_record(const AudioPlayContext &c, int32_t &sec) {
    uint32_t w;
    if (!parse_audio_record(c.pFrameBuf, sec, w)) return Held::Damaged;
    if (!in_played_hour(c, sec)) return Held::Damaged;
    return sec > c.iEndSec ? Held::PastEnd : Held::Good;
}

// The first index row of the hour whose record starts after `offset` (0 for
// none yet); false when the store keeps failing.
bool row_after(AudioPlayContext &c, long long offset, int &id) {
    Sql q;
    format_into(q.text, sizeof q.text, sql::kIdAfter, c.iHour, offset);
    const int rows = retry_busy(
        [&] { return query_locked(audio_mutex(), c.pAudioDb, q.text, "%d", c.pIntResult); });
    if (rows == kBusy) return false;
    if (rows <= 0 || !holder_int(c.pIntResult, id)) id = 0;
    return true;
}

bool usable(const AudioPlayContext &c) {
    return c.pAudioDb && c.fpStream;
}

int give_up(const char *step) {
    log_line("%s : audio index unavailable , giving up\n", step);
    return 0;
}

// Crosses into the next (previous) recorded hour from the hour being played.
// A crossing that does not move on in its direction ends the step.
bool cross_hour(AudioPlayContext *ctx, int direction) {
    const int from = ctx->iHourStart;
    return db_audio_get_new(ctx, from, direction) && moved_on(from, ctx->iHourStart, direction);
}

} // namespace
} // namespace vrix

extern "C" AudioPlayContext *vrix_db_open_get_audio(struct tm *start, struct tm *end, int ch,
                                                    int bufSize, const char *root) {
    using namespace vrix;
    if (root && !root_fits(root, "vrix_db_open_get_audio")) return nullptr;
    if (!start || ch < 1 || ch > VRIX_AUDIO_CHANNELS || bufSize < VRIX_AUDIO_RECORD_SIZE) {
        log_line("vrix_db_open_get_audio : %s\n", !start ? "no start time"
                                                  : bufSize < VRIX_AUDIO_RECORD_SIZE
                                                      ? "buffer smaller than one record"
                                                      : "channel out of range 1..4");
        return nullptr;
    }
    refresh_timezone();
    auto *raw = static_cast<AudioPlayContext *>(std::calloc(1, sizeof(AudioPlayContext)));
    if (!raw) return nullptr;
    std::unique_ptr<AudioPlayContext, CloseAudioPlay> ctx(raw);
    ctx->iCh = ch;
    ctx->iBufSize = bufSize;
    ctx->pFrameBuf = static_cast<unsigned char *>(std::malloc(static_cast<size_t>(bufSize)));
    ctx->pHeader = ctx->pFrameBuf;
    if (!ctx->pFrameBuf || !open_playback(*ctx, start, end, root)) return nullptr;
    return ctx.release();
}

extern "C" void vrix_db_close_get_audio(AudioPlayContext *ctx) {
    using namespace vrix;
    if (!ctx) return;
    std::free(ctx->pFrameBuf);
    close_db(audio_mutex(), ctx->pAudioDb);
    close_playback(*ctx);
    std::free(ctx);
}

extern "C" int db_audio_date_rec_init(AudioPlayContext *ctx, struct tm *t, int *pos, int *endPos,
                                      int *sec) {
    if (!ctx || !t || !pos || !endPos || !sec) return -1;
    const int r = vrix::locate_in_day<vrix::AudioMedia>(*ctx, t, pos, endPos, sec);
    if (r == 1) ctx->llNextRecord = 0;
    return r;
}

extern "C" int db_audio_get_new(AudioPlayContext *ctx, int sec, int direction) {
    if (!ctx) return 0;
    if (direction != 1 && direction != -1) {
        vrix::log_line("db_audio_get_new : direction %d is neither 1 nor -1\n", direction);
        return 0;
    }
    if (ctx->iDirection < 0 && (sec < 0 || ctx->iDirection != -1)) return 0;
    return vrix::locate<vrix::AudioMedia>(*ctx, sec, direction) ? 1 : 0;
}

extern "C" int vrix_db_next_audio(AudioPlayContext *ctx) {
    using namespace vrix;
    if (!ctx) return 0;
    AudioPlayContext &c = *ctx;
    bool seek = false;
    // A backward step that found nothing leaves no position to go on from.
    if (!usable(c)) c.iDirection = 0;
    if (c.iDirection == 0) {
        seek = true;
        if (!db_audio_get_new(ctx, c.iCurSec, 1)) return 0;
    } else if (c.iDirection == -1 && !c.iIMode) {
        ++c.iCurPos; // reading on in the second just delivered
    }
    c.iDirection = 1;
    // A step that finds nothing leaves the position as it was, so that the
    // next step tries the same row again.
    const int from = c.iCurPos;
    bool moved = false;
    auto none = [&] {
        if (!moved) c.iCurPos = from;
        return 0;
    };
    if (c.iIMode) {
        seek = true;
        c.iCurPos += c.iStep;
        if (c.iCurPos > c.iEndPos + 1) c.iCurPos = c.iEndPos + 2;
    }
    long long damaged = -1; // offset of a damaged record: resume at the next row after it
    for (;;) {
        bool used_up = !usable(c);
        if (!used_up && damaged >= 0) {
            int id;
            if (!row_after(c, damaged, id)) return give_up("vrix_db_next_audio");
            if (id > 0) {
                c.iCurPos = id;
                damaged = -1;
            }
            used_up = id == 0;
        } else if (!used_up) {
            used_up = seek && c.iCurPos > c.iEndPos + 1;
        }
        if (!used_up && seek) {
            switch (seek_row(c, c.iCurPos)) {
            case RowCheck::Failed:
                return give_up("vrix_db_next_audio");
            case RowCheck::Missing:
            case RowCheck::NotYet: // the growing end: wait for it, never pass it
                used_up = true;
                break;
            case RowCheck::Disagrees:
                ++c.iCurPos;
                continue;
            case RowCheck::Good:
                seek = false;
                break;
            }
        }
        if (!used_up && read_record(c)) {
            int32_t s;
            switch (check_record(c, s)) {
            case Held::Damaged:
                damaged = c.llNextRecord - VRIX_AUDIO_RECORD_SIZE;
                seek = true;
                continue;
            case Held::PastEnd:
                unread_record(c);
                return none();
            case Held::Good:
                break;
            }
            if (!c.iIMode && s != c.iLastSec) {
                c.iLastSec = s;
                ++c.iCurPos;
            }
            return 1;
        }
        // The hour is used up: rows of a recording in progress, or the next
        // hour, found from this hour.
        if (usable(c) && c.iEndSec == kNoEnd) {
            Sql q;
            format_into(q.text, sizeof q.text, sql::kLastId, c.iHour);
            int last = 0;
            if (!query_int(audio_mutex(), c.pAudioDb, q.text, c.pIntResult, last))
                log_text("play audio : get endpos fail !");
            if (last > c.iEndPos) {
                c.iEndPos = last;
                continue;
            }
        }
        if (!cross_hour(ctx, 1)) return none();
        moved = true;
        damaged = -1;
    }
}

extern "C" int vrix_db_pre_audio(AudioPlayContext *ctx) {
    using namespace vrix;
    if (!ctx) return 0;
    AudioPlayContext &c = *ctx;
    if (!usable(c)) c.iDirection = 0;
    if (c.iDirection == 0 && !db_audio_get_new(ctx, c.iCurSec, -1)) return 0;
    c.iCurPos = c.iCurPos < c.iStep ? 0 : c.iCurPos - c.iStep;
    c.iDirection = -1;
    for (;;) {
        if (c.iCurPos <= 0) {
            if (!cross_hour(ctx, -1)) return 0;
            continue;
        }
        switch (seek_row(c, c.iCurPos)) {
        case RowCheck::Failed:
            return give_up("vrix_db_pre_audio");
        case RowCheck::Missing:
            c.iCurPos = 0;
            continue; // locate backward
        case RowCheck::Disagrees:
        case RowCheck::NotYet:
            --c.iCurPos;
            continue;
        case RowCheck::Good:
            break;
        }
        if (!read_record(c)) {
            c.iCurPos = 0;
            continue;
        }
        int32_t s;
        if (check_record(c, s) != Held::Good) {
            --c.iCurPos;
            continue;
        }
        c.iLastSec = s; // forward play reads on in this second
        return 1;
    }
}

extern "C" int vrix_db_get_audio(AudioPlayContext *ctx, void **buf) {
    *buf = ctx->pFrameBuf;
    return ctx->iFrameLen;
}

extern "C" int vrix_get_audio_sec(AudioPlayContext *ctx) {
    return static_cast<int>(vrix::load_le32(ctx->pHeader + 4));
}

extern "C" void vrix_db_audio_set_i_mode(AudioPlayContext *ctx, int mode, int step) {
    ctx->iIMode = mode;
    ctx->iStep = step;
}

extern "C" int vrix_db_reset_audio_strat_time(AudioPlayContext *ctx, int sec, int newPos) {
    using namespace vrix;
    if (!ctx) return 0;
    close_db(audio_mutex(), ctx->pAudioDb);
    if (ctx->fpStream) std::fclose(ctx->fpStream);
    ctx->fpStream = nullptr;
    ctx->iDirection = 0;
    ctx->iCurSec = sec;
    ctx->iHintPos = newPos ? -1 : ctx->iCurPos;
    return 1;
}

extern "C" void vrix_db_audio_set_end_time_forever(AudioPlayContext *ctx) {
    if (ctx && ctx->pAudioDb) ctx->iEndSec = vrix::kNoEnd;
}

extern "C" void vrix_db_show_audio_current_pos(AudioPlayContext *ctx) {
    vrix::log_line("ch%d audio current pos = %d\n", ctx->iCh, ctx->iCurPos);
}
