// Rebuilding one hour's index from its stream file, the primary data: a row
// per key frame for video, a row per second for audio, exactly as the
// writers make them.  The scan ends at the first record that is not whole
// and valid; every SQL failure is passed over.
#include "maintenance.h"
#include "store/format.h"
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

} // namespace
} // namespace vrix

extern "C" void vrix_db_repair_video(FILE *fp, SqlHandle db, int hour) {
    using namespace vrix;
    Buffer buf(static_cast<unsigned char *>(std::malloc(kMaxPayload)));
    if (!buf) {
        std::puts("vrix_db_repair_video : not enough memory !");
        return;
    }
    if (!fp) return;
    fseeko(fp, 0, SEEK_SET);
    begin_hour(db, hour);
    long long offset = 0;
    for (;;) {
        unsigned char head[VRIX_FRAME_HEADER_SIZE];
        FrameInfo f{};
        if (std::fread(head, 1, sizeof head, fp) != sizeof head ||
            !parse_frame(head, sizeof head, f) || f.len < 1 || f.len > kMaxPayload || f.sec == 0)
            break;
        if (std::fread(buf.get(), 1, f.len, fp) != f.len) break;
        if (f.len > VRIX_FRAME_KEY_BYTE &&
            (buf.get()[VRIX_FRAME_KEY_BYTE] & VRIX_FRAME_KEY_MASK) == 0)
            insert_row(db, hour, f.sec, offset);
        offset += VRIX_FRAME_HEADER_SIZE + static_cast<long long>(f.len);
    }
    sql_submit(db, sql::kCommit, "");
}

extern "C" void vrix_db_repair_audio(FILE *fp, SqlHandle db, int hour) {
    using namespace vrix;
    Buffer rec(static_cast<unsigned char *>(std::malloc(VRIX_AUDIO_RECORD_SIZE)));
    if (!rec) {
        std::puts("vrix_db_repair_video : not enough memory !");
        return;
    }
    if (!fp) return;
    fseeko(fp, 0, SEEK_SET);
    begin_hour(db, hour);
    long long offset = 0;
    int last = 0;
    for (;;) {
        int32_t sec;
        uint32_t sec2;
        if (std::fread(rec.get(), 1, VRIX_AUDIO_RECORD_SIZE, fp) != VRIX_AUDIO_RECORD_SIZE ||
            !parse_audio_record(rec.get(), sec, sec2))
            break;
        if (last == 0 || sec != last) {
            last = sec;
            insert_row(db, hour, sec, offset);
        }
        offset += VRIX_AUDIO_RECORD_SIZE;
    }
    sql_submit(db, sql::kCommit, "");
}
