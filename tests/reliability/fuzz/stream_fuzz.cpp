// Fuzz target: an hour's stream file of arbitrary bytes with an index that
// matches it (a row for every record that parses as a key frame, following
// the records from the start) plus a few rows from the input that may point
// anywhere.  Playback in every mode must neither crash nor hand out more than
// its buffer holds.  Playback runs without vrix_db_init: it needs no queue,
// and with no mutexes made it takes none.
//
// Input: byte 0 selects buffer size, end time, way of playing and skip
// limit; byte 1 the number of extra rows (0..7), each 8 bytes (offset,
// time); the rest is the file.
#include "scratch.h"
#include "vrixdb.h"

#include <sqlite3.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

namespace {

constexpr int kHour10 = 1710064800; // 2024-03-10 10:00 UTC

struct Store {
    vrix::fuzz::Scratch dir;
    std::string root, stream;
    sqlite3 *index = nullptr;

    Store() {
        setenv("TZ", "UTC", 1);
        root = dir.path();
        const std::string ch = root + "/20240310/video/1";
        std::filesystem::create_directories(ch);
        stream = ch + "/10.stream";
        sqlite3 *date = nullptr;
        sqlite3_open((root + "/date.db").c_str(), &date);
        sqlite3_exec(date,
                     "create table H(date int); create table ch1(date int);"
                     "insert into H values(1710028800); insert into ch1 values(1710028800);",
                     nullptr, nullptr, nullptr);
        sqlite3_close(date);
        sqlite3_open((ch + "/video.db").c_str(), &index);
        sqlite3_exec(index,
                     "PRAGMA synchronous=OFF; create table H(hour int); insert into H values(10);"
                     "create table h10(id integer primary key , sec int,offset int);",
                     nullptr, nullptr, nullptr);
    }
    ~Store() { sqlite3_close(index); }
    static Store &store();
};

Store &Store::store() {
    static Store s;
    return s;
}

uint32_t word(const uint8_t *p) {
    return p[0] | p[1] << 8 | p[2] << 16 | static_cast<uint32_t>(p[3]) << 24;
}

void write_index(Store &s, const uint8_t *file, size_t n, const uint8_t *extra, int extras) {
    std::string sql = "BEGIN; delete from h10;";
    char row[96];
    for (size_t at = 0; at + 16 <= n;) {
        const uint64_t len = word(file + at);
        if (len == 0 || at + 16 + len > n) break;
        if (len > 2 && (file[at + 18] & 0xC0) == 0) {
            std::snprintf(row, sizeof row, "insert into h10 values(NULL,%d,%zu);",
                          static_cast<int>(word(file + at + 4)), at);
            sql += row;
        }
        at += 16 + len;
    }
    for (int i = 0; i < extras; ++i) {
        std::snprintf(row, sizeof row, "insert into h10 values(NULL,%d,%u);",
                      static_cast<int>(word(extra + 8 * i + 4)), word(extra + 8 * i));
        sql += row;
    }
    sqlite3_exec(s.index, (sql + "COMMIT;").c_str(), nullptr, nullptr, nullptr);
}

void check(PlayContext *p, int bufSize) {
    void *buf = nullptr;
    const int len = vrix_db_get_video(p, &buf);
    if (len < 1 || len > bufSize || !buf) {
        std::fprintf(stderr, "delivered %d bytes with a buffer of %d\n", len, bufSize);
        std::abort();
    }
    int sec = 0, sub = 0;
    vrix_db_video_get_current_time(p, &sec, &sub);
    if (sec == 0) std::abort(); // a record with time 0 is never delivered
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 2) return 0;
    Store &s = Store::store();
    static constexpr int kBufs[] = {16, 100, 1000, 70000};
    const int bufSize = kBufs[data[0] & 3];
    const bool withEnd = data[0] & 4;
    const int skip = data[0] >> 5 & 3;
    const int extras = data[1] & 7;
    if (size < 2 + 8u * extras) return 0;
    const uint8_t *file = data + 2 + 8 * extras;
    const size_t n = size - 2 - 8 * extras;
    if (FILE *f = std::fopen(s.stream.c_str(), "wb")) {
        std::fwrite(file, 1, n, f);
        std::fclose(f);
    }
    write_index(s, file, n, data + 2, extras);

    const time_t t0 = kHour10, t1 = kHour10 + 1800;
    std::tm start{}, end{};
    gmtime_r(&t0, &start);
    gmtime_r(&t1, &end);
    const char *root = s.root.c_str();
    PlayContext *p = vrix_db_open_get_video(&start, withEnd ? &end : nullptr, 1, bufSize, root);
    if (!p) std::abort();
    switch (data[0] >> 3 & 3) {
    case 0: // forward frame by frame, a reset half-way, then back
        vrix_db_video_set_skip_frame(p, skip);
        for (int i = 0; i < 4000 && vrix_db_next_video(p) == 1; ++i) {
            check(p, bufSize);
            if (i == 7) vrix_db_video_reset_start_time(p, kHour10, 0);
        }
        for (int i = 0; i < 50 && vrix_db_pre_video(p) == 1; ++i)
            check(p, bufSize);
        break;
    case 1: // key frame by key frame, two at a time, and back
        vrix_db_video_set_i_mode(p, 1, 2);
        for (int i = 0; i < 1000 && vrix_db_next_video(p) == 1; ++i)
            check(p, bufSize);
        for (int i = 0; i < 1000 && vrix_db_pre_video(p) == 1; ++i)
            check(p, bufSize);
        break;
    default: // backward from the end of the range, then forward again
        vrix_db_video_reset_start_time(p, kHour10 + 1800, 1);
        for (int i = 0; i < 1000 && vrix_db_pre_video(p) == 1; ++i)
            check(p, bufSize);
        for (int i = 0; i < 100 && vrix_db_next_video(p) == 1; ++i)
            check(p, bufSize);
        break;
    }
    vrix_db_close_get_video(p);
    return 0;
}
