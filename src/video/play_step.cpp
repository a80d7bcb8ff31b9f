// Stepping through a channel's recording: forward frame by frame (or key
// frame by key frame), backward key frame by key frame.
#include "core/calendar.h"
#include "core/flags.h"
#include "core/store_access.h"
#include "play_context.h"
#include "play_video.h"
#include "store/format.h"
#include "store/records.h"
#include "store/schema.h"
#include "stream_file.h"

#include <sys/stat.h>

#include <cstdio>

namespace vrix {
namespace {

// A failing store is asked again for about a second (SQLite waits on a busy
// lock itself), then the step gives up.
constexpr int kStoreAttempts = 20;

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

enum class Read { Frame, Short, Impossible };

// Reads the record at the file position into the context.
Read read_record(PlayContext &c, FrameInfo &f) {
    unsigned char head[VRIX_FRAME_HEADER_SIZE];
    if (std::fread(head, 1, sizeof head, c.fpStream) != sizeof head) return Read::Short;
    parse_frame(head, sizeof head, f);
    const int len = static_cast<int>(f.len);
    if (len < 1 || len > c.iBufSize || f.sec == 0) return Read::Impossible;
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

// Largest key-frame id of the current hour, for following a recording.
bool refresh_end(PlayContext &c, int &last) {
    Sql q;
    format_into(q.text, sizeof q.text, sql::kLastId, c.iHour);
    for (int i = 0; i < kStoreAttempts; ++i) {
        if (i) poll_pause();
        const int rows = query_locked(video_mutex(c.iCh), c.pVideoDb, q.text, "%d", c.pIntResult);
        if (rows == -1) continue;
        return rows > 0 && holder_int(c.pIntResult, last);
    }
    return false;
}

int give_up(PlayContext &c, const char *step) {
    std::printf("%s : ch%d index of hour %d unavailable , giving up\n", step, c.iCh, c.iHour);
    c.iEnd = 1;
    return 0;
}

} // namespace

RowCheck key_frame_row(PlayContext &c, int id, long long &offset) {
    Sql q;
    format_into(q.text, sizeof q.text, sql::kRowOfId, c.iHour, id);
    int rows = -1;
    for (int i = 0; i < kStoreAttempts && rows < 0; ++i) {
        if (i) poll_pause();
        SqlLock hold(video_mutex(c.iCh));
        rows = sql_submit(c.pVideoDb, q.text, "%u %d", &c.pOffsetResult, &c.pIntResult);
    }
    if (rows < 0) return RowCheck::Failed;
    int sec;
    if (rows == 0 || !holder_offset(c.pOffsetResult, offset) || !holder_int(c.pIntResult, sec))
        return RowCheck::Missing;
    const bool agrees = key_frame_agrees(c.fpStream, offset, file_size(c.fpStream), sec);
    std::clearerr(c.fpStream);
    return agrees ? RowCheck::Good : RowCheck::Disagrees;
}

} // namespace vrix

extern "C" int vrix_db_next_video(PlayContext *ctx) {
    using namespace vrix;
    if (!ctx) return 0;
    PlayContext &c = *ctx;
    bool seek = false;
    if (c.iDirection == 0) {
        seek = true;
        if (!db_video_get_new(ctx, c.iCurSec, 1)) return 0;
    } else {
        if (c.iDirection == -1 && c.iEnd == 1) {
            c.iEnd = 0;
            c.iCurPos = 1;
            seek = true;
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
    for (;;) {
        bool used_up = c.iCurPos > c.iEndPos + 1;
        bool sought = false;
        if (!used_up && seek) {
            long long offset = 0;
            switch (key_frame_row(c, c.iCurPos, offset)) {
            case RowCheck::Failed:
                return give_up(c, "vrix_db_next_video");
            case RowCheck::Missing:
                used_up = true;
                break;
            case RowCheck::Disagrees:
                ++c.iCurPos;
                continue;
            case RowCheck::Good:
                seek_to(c, offset);
                seek = false;
                sought = true;
                break;
            }
        }
        if (!used_up) {
            FrameInfo f{};
            const Read r = read_record(c, f);
            if (r == Read::Impossible) {
                // Resume at the next indexed key frame: in normal play that is
                // iCurPos already, unless the bad record is the one just
                // sought to.
                if (sought || c.iIMode) ++c.iCurPos;
                seek = true;
                continue;
            }
            if (r == Read::Short) {
                rewind_record(c);
                if (c.iIMode) seek = true;
                used_up = true;
            } else if (f.key) {
                c.iSkipCount = 0;
                if (!c.iIMode) ++c.iCurPos;
                return 1;
            } else {
                ++c.iSkipCount;
                if (c.iSkipFrame == 0 || c.iSkipCount < c.iSkipFrame) return 1;
                continue; // dropped by the skip-frame limit
            }
        }
        // The hour is used up: new key frames of a recording in progress, or
        // the next recorded hour.
        int last;
        if (c.iEndSec == kNoEnd && refresh_end(c, last) && last > c.iEndPos) {
            c.iEndPos = last;
            continue;
        }
        if (!db_video_get_new(ctx, c.iCurSec, 1)) return 0;
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
                if (!db_video_get_new(ctx, c.iCurSec, -1)) {
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
            if (!db_video_get_new(ctx, c.iCurSec, -1)) return 0;
            continue;
        }
        long long offset = 0;
        switch (key_frame_row(c, c.iCurPos, offset)) {
        case RowCheck::Failed:
            return give_up(c, "vrix_db_pre_video");
        case RowCheck::Missing:
        case RowCheck::Disagrees:
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
        return 1;
    }
}
