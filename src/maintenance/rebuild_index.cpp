// Rebuilding one hour's index from its stream file, the primary data: a row
// per key frame for video, a row per second for audio, exactly as the
// writers make them.  The scan ends at the first record that is not whole
// and valid; every SQL failure is passed over.
#include "maintenance.h"
#include "store/format.h"
#include "store/log.h"
#include "store/records.h"
#include "store/schema.h"

#include <cstdlib>

namespace vrix {
namespace {

constexpr uint32_t kMaxPayload = 131072;

struct FreeBuffer {
    void operator()(unsigned char *p) const { std::free(p); }
};
using Buffer = std::unique_ptr<unsigned char, FreeBuffer>;

// Opens the hour's rebuild: the index table and the hour's row in H.
void begin_hour(SqlHandle db, int hour) {
    Sql q;
    sql_submit(db, sql::kBegin, "");
    format_into(q.text, sizeof q.text, sql::kCreateIndex, hour);
    sql_submit(db, q.text, "");
    format_into(q.text, sizeof q.text, sql::kInsertHour, hour);
    sql_submit(db, q.text, "");
}

void insert_row(SqlHandle db, int hour, int sec, long long offset) {
    Sql q;
    format_into(q.text, sizeof q.text, sql::kInsertIndex, hour, sec, offset);
    sql_submit(db, q.text, "");
}

// The scan both rebuilds share: a buffer of `size` bytes, the hour opened,
// `next(buffer, offset)` called record after record until it returns 0 (the
// bytes it consumed otherwise), the hour committed.
template <class Next> void rebuild(FILE *fp, SqlHandle db, int hour, size_t size, Next next) {
    Buffer buf(static_cast<unsigned char *>(std::malloc(size)));
    if (!buf) {
        log_text("vrix_db_repair_video : not enough memory !");
        return;
    }
    if (!fp) return;
    fseeko(fp, 0, SEEK_SET);
    begin_hour(db, hour);
    for (long long offset = 0, n; (n = next(buf.get(), offset)) > 0;)
        offset += n;
    sql_submit(db, sql::kCommit, "");
}

} // namespace
} // namespace vrix

extern "C" void vrix_db_repair_video(FILE *fp, SqlHandle db, int hour) {
    using namespace vrix;
    rebuild(fp, db, hour, kMaxPayload, [&](unsigned char *buf, long long offset) -> long long {
        unsigned char head[VRIX_FRAME_HEADER_SIZE];
        FrameInfo f{};
        if (std::fread(head, 1, sizeof head, fp) != sizeof head ||
            !parse_frame(head, sizeof head, f) || f.len < 1 || f.len > kMaxPayload || f.sec == 0)
            return 0;
        if (std::fread(buf, 1, f.len, fp) != f.len) return 0;
        if (f.len > VRIX_FRAME_KEY_BYTE && (buf[VRIX_FRAME_KEY_BYTE] & VRIX_FRAME_KEY_MASK) == 0)
            insert_row(db, hour, f.sec, offset);
        return VRIX_FRAME_HEADER_SIZE + static_cast<long long>(f.len);
    });
}

extern "C" void vrix_db_repair_audio(FILE *fp, SqlHandle db, int hour) {
    using namespace vrix;
    int last = 0;
    rebuild(fp, db, hour, VRIX_AUDIO_RECORD_SIZE,
            [&](unsigned char *rec, long long offset) -> long long {
                int32_t sec;
                uint32_t sec2;
                if (std::fread(rec, 1, VRIX_AUDIO_RECORD_SIZE, fp) != VRIX_AUDIO_RECORD_SIZE ||
                    !parse_audio_record(rec, sec, sec2))
                    return 0;
                if (last == 0 || sec != last) {
                    last = sec;
                    insert_row(db, hour, sec, offset);
                }
                return VRIX_AUDIO_RECORD_SIZE;
            });
}
