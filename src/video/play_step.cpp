// Stepping through a channel's recording: forward frame by frame (or key
// frame by key frame), backward key frame by key frame.
#include "core/calendar.h"
#include "core/flags.h"
#include "core/store_access.h"
#include "media/index_row.h"
#include "media/locate.h"
#include "media/stream_file.h"
#include "play_context.h"
#include "play_video.h"
#include "store/format.h"
#include "store/log.h"
#include "store/records.h"
#include "store/schema.h"

#include <sys/stat.h>

#include <cstdio>

namespace vrix {
namespace {

bool seek_to(PlayContext &c, long long offset) {
    std::clearerr(c.fpStream);
    if (fseeko(c.fpStream, offset, SEEK_SET) != 0) return false;
    c.llNextRecord = offset;
    return true;
}

// After a short read at the growing end of a file: back to the start of the
// record, with the end-of-file state cleared, so that appended data is seen.
void rewind_record(PlayContext &c) {
    seek_to(c, c.llNextRecord);
}

// Crosses into the next (previous) recorded hour from the hour being played.
// A crossing that does not move on in its direction ends the step.
bool cross_hour(PlayContext *ctx, int direction) {
    const int from = ctx->iHourStart;
    return db_video_get_new(ctx, from, direction) && moved_on(from, ctx->iHourStart, direction);
}

enum class Read { Frame, Short, Impossible, PastEnd };

// Reads the record at the file position into the context.  A record with an
// impossible length, time 0 or a time outside the hour being played is
// damage (Impossible); one after the end time is PastEnd.  Neither changes
// the frame held.
Read read_record(PlayContext &c, FrameInfo &f) {
    unsigned char head[VRIX_FRAME_HEADER_SIZE];
    if (std::fread(head, 1, sizeof head, c.fpStream) != sizeof head) return Read::Short;
    parse_frame(head, sizeof head, f);
    const int len = static_cast<int>(f.len);
    if (len < 1 || len > c.iBufSize || f.sec == 0 || !in_played_hour(c, f.sec))
        return Read::Impossible;
    if (f.sec > c.iEndSec) return Read::PastEnd;
    c.iFrameSec = f.sec;
    c.iFrameSubTime = static_cast<int>(f.sec2);
    c.iFrameScale = static_cast<int>(f.scale);
    c.iCurSec = f.sec;
    const size_t got = std::fread(c.pFrameBuf, 1, static_cast<size_t>(len), c.fpStream);
    c.iFrameLen = static_cast<int>(got);
    if (got < static_cast<size_t>(len)) return Read::Short;
    f.key =
        (c.pFrameBuf[VRIX_FRAME_KEY_BYTE] & VRIX_FRAME_KEY_MASK) == 0 && len > VRIX_FRAME_KEY_BYTE;
    c.llNextRecord += VRIX_FRAME_HEADER_SIZE + len;
    return Read::Frame;
}

// A one-value query on the day's database, asked again while the store fails;
// false when it kept failing, else `value` is the value or 0 for none.
bool ask(PlayContext &c, const char *sql, int &value) {
    const int rows = retry_busy(
        [&] { return query_locked(video_mutex(c.iCh), c.pVideoDb, sql, "%d", c.pIntResult); });
    if (rows == kBusy) return false;
    if (rows <= 0 || !holder_int(c.pIntResult, value)) value = 0;
    return true;
}

// Largest key-frame id of the current hour, for following a recording.
bool refresh_end(PlayContext &c, int &last) {
    Sql q;
    format_into(q.text, sizeof q.text, sql::kLastId, c.iHour);
    return ask(c, q.text, last) && last > 0;
}

// The first key frame of the hour whose record starts after `offset`.
bool row_after(PlayContext &c, long long offset, int &id) {
    Sql q;
    format_into(q.text, sizeof q.text, sql::kIdAfter, c.iHour, offset);
    return ask(c, q.text, id);
}

int give_up(PlayContext &c, const char *step) {
    log_line("%s : ch%d index of hour %d unavailable , giving up\n", step, c.iCh, c.iHour);
    c.iEnd = 1;
    return 0;
}

} // namespace

RowCheck key_frame_row(PlayContext &c, int id, long long &offset) {
    int sec;
    const IndexRows ix{video_mutex(c.iCh), c.pVideoDb, c.iHour, c.pOffsetResult, c.pIntResult};
    const RowCheck r = read_index_row(ix, id, offset, sec, [](int) {});
    if (r != RowCheck::Good) return r;
    const AtRow at = key_frame_at(c.fpStream, offset, file_size(c.fpStream), sec, c.iBufSize);
    std::clearerr(c.fpStream);
    return row_check(at);
}

} // namespace vrix

extern "C" int vrix_db_next_video(PlayContext *ctx) {
    using namespace vrix;
    if (!ctx) return 0;
    PlayContext &c = *ctx;
    bool seek = false;
    // A backward step that found nothing leaves no position to reverse from.
    if (c.iDirection == -1 && !c.pVideoDb) c.iDirection = 0;
    if (c.iDirection == 0) {
        seek = true;
        if (!db_video_get_new(ctx, c.iCurSec, 1)) return 0;
    } else {
        if (c.iDirection == -1 && c.iEnd == 1) {
            c.iEnd = 0;
            c.iCurPos = 1;
            seek = true;
        } else if (c.iDirection == -1 && !c.iIMode) {
            ++c.iCurPos; // reading on past the key frame just delivered
        } else if (c.iDirection == 1 && c.iEnd != 0) {
            return 0;
        }
        if (c.iIMode) {
            c.iCurPos += c.iStep;
            if (c.iCurPos > c.iEndPos + 1) c.iCurPos = c.iEndPos + 2;
            seek = true;
        }
    }
    c.iDirection = 1;
    if (!c.pVideoDb || !c.fpStream) {
        c.iEnd = 1;
        return 0;
    }
    long long damaged = -1; // offset of a damaged record: resume at the next row after it
    for (;;) {
        bool used_up = false;
        if (damaged >= 0) {
            int id;
            if (!row_after(c, damaged, id)) return give_up(c, "vrix_db_next_video");
            if (id > 0) {
                c.iCurPos = id;
                damaged = -1;
            }
            used_up = id == 0;
        } else {
            used_up = seek && c.iCurPos > c.iEndPos + 1;
        }
        if (!used_up && seek) {
            long long offset = 0;
            switch (key_frame_row(c, c.iCurPos, offset)) {
            case RowCheck::Failed:
                return give_up(c, "vrix_db_next_video");
            case RowCheck::Missing:
            case RowCheck::NotYet: // the growing end: wait for it, never pass it
                used_up = true;
                break;
            case RowCheck::Disagrees:
                ++c.iCurPos;
                continue;
            case RowCheck::Good:
                seek_to(c, offset);
                seek = false;
                break;
            }
        }
        if (!used_up) {
            FrameInfo f{};
            switch (read_record(c, f)) {
            case Read::Impossible:
                damaged = c.llNextRecord;
                seek = true;
                continue;
            case Read::PastEnd:
                rewind_record(c);
                c.iEnd = 1;
                return 0;
            case Read::Short:
                rewind_record(c);
                if (c.iIMode) seek = true;
                used_up = true;
                break;
            case Read::Frame:
                if (f.key) {
                    c.iSkipCount = 0;
                    if (!c.iIMode) ++c.iCurPos;
                    return 1;
                }
                ++c.iSkipCount;
                if (c.iSkipFrame == 0 || c.iSkipCount < c.iSkipFrame) return 1;
                continue; // dropped by the skip-frame limit
            }
        }
        // The hour is used up: new key frames of a recording in progress, or
        // the next recorded hour, found from this hour and never from the time
        // of a frame.
        int last;
        if (c.iEndSec == kNoEnd && refresh_end(c, last) && last > c.iEndPos) {
            c.iEndPos = last;
            continue;
        }
        if (!cross_hour(ctx, 1)) return 0;
        damaged = -1;
        if (!seek) c.llNextRecord = 0;
    }
}

extern "C" int vrix_db_pre_video(PlayContext *ctx) {
    using namespace vrix;
    if (!ctx) return 0;
    PlayContext &c = *ctx;
    auto back = [&c](int by) { c.iCurPos = c.iCurPos < by ? 0 : c.iCurPos - by; };
    if (c.iDirection == 0) {
        if (!db_video_get_new(ctx, c.iCurSec, -1)) return 0;
    } else if (c.iDirection == -1) {
        if (c.iEnd != 0) return 0;
        back(c.iStep);
    } else {
        bool relocate = false;
        if (c.iEnd != 0) {
            c.iCurPos = c.iEndPos;
            c.iEnd = 0;
            relocate = !c.pVideoDb;
        }
        if (relocate) {
            if (!db_video_get_new(ctx, c.iCurSec, -1)) return 0;
        } else {
            back(c.iStep);
            if (c.iCurPos == 0) {
                c.iDirection = -1;
                if (!cross_hour(ctx, -1)) {
                    if (!c.pVideoDb) return 0;
                    c.iCurPos = 1;
                }
            }
        }
    }
    c.iDirection = -1;
    if (!c.pVideoDb || !c.fpStream) {
        c.iEnd = 1;
        return 0;
    }
    for (;;) {
        if (c.iCurPos <= 0) {
            if (!cross_hour(ctx, -1)) return 0;
            continue;
        }
        long long offset = 0;
        switch (key_frame_row(c, c.iCurPos, offset)) {
        case RowCheck::Failed:
            return give_up(c, "vrix_db_pre_video");
        case RowCheck::Missing:
        case RowCheck::Disagrees:
        case RowCheck::NotYet:
            back(1);
            continue;
        case RowCheck::Good:
            break;
        }
        FrameInfo f{};
        if (!seek_to(c, offset) || read_record(c, f) != Read::Frame) {
            back(1);
            continue;
        }
        c.iSkipCount = 0; // forward play reads on in this key frame's group
        return 1;
    }
}
