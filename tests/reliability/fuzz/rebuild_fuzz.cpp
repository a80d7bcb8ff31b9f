// Fuzz target: rebuilding an hour's index from a stream file of arbitrary
// bytes (byte 0 picks video or audio).  Besides not crashing, every row the
// rebuild writes must name a whole record of the file with the row's time.
#include "scratch.h"
#include "vrixdb.h"

#include <sqlite3.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace {

uint32_t word(const uint8_t *p) {
    return p[0] | p[1] << 8 | p[2] << 16 | static_cast<uint32_t>(p[3]) << 24;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    static const vrix::fuzz::Scratch s;
    const bool audio = data[0] & 1;
    const uint8_t *file = data + 1;
    const size_t n = size - 1;
    const std::string stream = s.path() + "/10.stream", db = s.path() + "/index.db";
    std::remove(db.c_str());
    if (FILE *f = std::fopen(stream.c_str(), "wb")) {
        std::fwrite(file, 1, n, f);
        std::fclose(f);
    }
    FILE *f = std::fopen(stream.c_str(), "rb");
    SqlHandle h = nullptr;
    if (!f || sql_open(db.c_str(), &h) != 0) std::abort();
    if (audio)
        vrix_db_repair_audio(f, h, 10);
    else
        vrix_db_repair_video(f, h, 10);
    std::fclose(f);
    sql_close(h);

    sqlite3 *check = nullptr;
    sqlite3_open(db.c_str(), &check);
    sqlite3_stmt *q = nullptr;
    sqlite3_prepare_v2(check, "select sec,offset from h10", -1, &q, nullptr);
    while (q && sqlite3_step(q) == SQLITE_ROW) {
        const long long sec = sqlite3_column_int64(q, 0), off = sqlite3_column_int64(q, 1);
        const long long rec = audio ? VRIX_AUDIO_RECORD_SIZE : 16;
        if (off < 0 || off + rec > static_cast<long long>(n)) std::abort();
        const uint8_t *r = file + off;
        const long long whole = audio ? rec : 16 + static_cast<long long>(word(r));
        if (off + whole > static_cast<long long>(n) || static_cast<int32_t>(word(r + 4)) != sec)
            std::abort();
        if (!audio && (whole < 19 || (r[18] & 0xC0) != 0)) std::abort(); // not a key frame
        if (audio && word(r) != VRIX_AUDIO_PIECE_SIZE) std::abort();
    }
    sqlite3_finalize(q);
    sqlite3_close(check);
    return 0;
}
