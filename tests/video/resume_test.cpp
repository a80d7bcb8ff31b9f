// Resuming an hour file: the whole frames kept and indexed, the torn tail
// cut, and rows that do not agree with the file.
#include "rec_fixture.h"

#include <unistd.h>

namespace {

using namespace vrix::test;
using Bytes = std::vector<unsigned char>;

struct Walked {
    std::vector<Bytes> frames;
    bool clean_end; // the file ends on a record boundary
};

// Reads a stream file the way forward play does: record after record.
Walked walk(const std::string &path) {
    const Bytes b = file_bytes(path);
    Walked w{{}, true};
    size_t at = 0;
    while (at < b.size()) {
        if (b.size() - at < 16) return w.clean_end = false, w;
        const size_t len = b[at] | b[at + 1] << 8 | b[at + 2] << 16 | size_t(b[at + 3]) << 24;
        if (b.size() - at - 16 < len) return w.clean_end = false, w;
        w.frames.emplace_back(b.begin() + long(at), b.begin() + long(at + 16 + len));
        at += 16 + len;
    }
    return w;
}

std::string offsets(const std::string &db, int hour) {
    std::string out;
    for (const auto &r : rows(db, "select offset from h" + std::to_string(hour) + " order by id"))
        out += (out.empty() ? "" : " ") + r;
    return out;
}

std::string index_rows(const std::string &db, int hour) {
    std::string out;
    for (const auto &r :
         rows(db, "select offset,sec from h" + std::to_string(hour) + " order by id"))
        out += (out.empty() ? "" : " ") + r;
    return out;
}

// Where the scan of a resumed hour stops, only a torn tail is cut: fewer
// bytes than a header, a frame valid but for its end, or zero bytes to the
// end.  Anything else is damage in the middle of the file: the bytes behind
// it are kept and new frames go after them.  A time going back within the
// hour is no stop at all (a second pass).  The index is lost each time, so
// the hour is indexed from the file.
TEST_F(RecVideo, ResumeCutsOnlyATornTail) {
    const Bytes k1 = make_frame(2, kHour10, true, 200), p1 = make_frame(2, kHour10, false, 100),
                k2 = make_frame(2, kHour10 + 1, true, 200, 2);
    for (const Bytes *f : {&k1, &p1, &k2})
        record(ctx, *f);
    close();
    const long long base = size_of(stream(2, 10)); // 548
    auto header = [](int ch, int sec, uint32_t len) {
        Bytes h = make_frame(ch, sec, true, 100);
        std::memcpy(h.data(), &len, 4);
        return h;
    };
    const Bytes other_channel = make_frame(4, kHour10 + 2, true, 100),
                other_hour = make_frame(2, kHour10 + 3600, true, 100),
                time_zero = make_frame(2, 0, true, 100),
                too_long = header(2, kHour10 + 2, VRIX_MAX_FRAME_PAYLOAD + 1),
                earlier = make_frame(2, kHour10, true, 100, 0, 9);
    Bytes zeros_then_byte(300, 0);
    zeros_then_byte.back() = 1;
    struct Case {
        const char *what;
        Bytes tail;
        bool torn;
    };
    const std::vector<Case> cases = {
        {"half a header", Bytes(k1.begin(), k1.begin() + 10), true},
        {"a frame cut short", Bytes(k1.begin(), k1.begin() + 100), true},
        {"zeros", Bytes(5000, 0), true},
        {"a header running past the end", header(2, kHour10 + 2, 100000), true},
        {"another channel", other_channel, false},
        {"another hour", other_hour, false},
        {"time 0", time_zero, false},
        {"a length above the maximum", too_long, false},
        {"zeros, then a byte", zeros_then_byte, false},
        {"another channel's header running past the end", header(4, kHour10 + 2, 100000), false},
    };
    for (const Case &k : cases) {
        SCOPED_TRACE(k.what);
        ASSERT_EQ(truncate(stream(2, 10).c_str(), base), 0);
        std::ofstream(stream(2, 10), std::ios::binary | std::ios::app)
            .write(reinterpret_cast<const char *>(k.tail.data()),
                   static_cast<std::streamsize>(k.tail.size()));
        ASSERT_EQ(std::remove(video_db(2).c_str()), 0); // lost with the power
        open();
        const Bytes k3 = make_frame(2, kHour10 + 2, true, 100, 0, 3);
        testing::internal::CaptureStdout();
        record(ctx, k3);
        const std::string out = testing::internal::GetCapturedStdout();
        close();
        const long long at = base + (k.torn ? 0 : static_cast<long long>(k.tail.size()));
        EXPECT_EQ(size_of(stream(2, 10)), at + static_cast<long long>(k3.size()));
        Bytes want = k1;
        for (const Bytes *f : {&p1, &k2})
            want.insert(want.end(), f->begin(), f->end());
        if (!k.torn) want.insert(want.end(), k.tail.begin(), k.tail.end());
        want.insert(want.end(), k3.begin(), k3.end());
        EXPECT_EQ(file_bytes(stream(2, 10)), want);
        EXPECT_EQ(index_rows(video_db(2), 10),
                  "0," + std::to_string(kHour10) + " 332," + std::to_string(kHour10 + 1) + " " +
                      std::to_string(at) + "," + std::to_string(kHour10 + 2));
        EXPECT_EQ(out.find("548 unreadable , " + std::to_string(k.tail.size()) +
                           " bytes behind "
                           "it kept") != std::string::npos,
                  !k.torn)
            << out;
    }
    // A frame earlier in the hour is a second pass: kept and indexed.
    ASSERT_EQ(truncate(stream(2, 10).c_str(), base), 0);
    std::ofstream(stream(2, 10), std::ios::binary | std::ios::app)
        .write(reinterpret_cast<const char *>(earlier.data()),
               static_cast<std::streamsize>(earlier.size()));
    ASSERT_EQ(std::remove(video_db(2).c_str()), 0);
    open();
    record(ctx, make_frame(2, kHour10 + 2, true, 100, 0, 3));
    close();
    EXPECT_EQ(index_rows(video_db(2), 10),
              "0," + std::to_string(kHour10) + " 332," + std::to_string(kHour10 + 1) + " 548," +
                  std::to_string(kHour10) + " 664," + std::to_string(kHour10 + 2));
}

// An empty hour file keeps none of the hour's old rows: no row may name a
// new non-key frame.
TEST_F(RecVideo, EmptyHourFileDropsOldRows) {
    for (int s = 0; s < 3; ++s) {
        record(ctx, make_frame(6, kHour10 + s, true, 100));
        record(ctx, make_frame(6, kHour10 + s, false, 100));
    }
    close();
    ASSERT_EQ(offsets(video_db(6), 10), "0 232 464");
    ASSERT_EQ(truncate(stream(6, 10).c_str(), 0), 0);
    open();
    const Bytes p = make_frame(6, kHour10 + 9, false, 100),
                k = make_frame(6, kHour10 + 9, true, 100);
    record(ctx, p); // stored at offset 0 without a row
    record(ctx, k);
    close();
    EXPECT_EQ(offsets(video_db(6), 10), "116");
    EXPECT_EQ(walk(stream(6, 10)).frames, (std::vector<Bytes>{p, k}));
}

// Rows that name no whole key frame of their time (a row ahead of its data
// after a crash, a wrong time, a non-key record) are passed over; the frames
// after the row that agrees are kept and indexed again.
TEST_F(RecVideo, ResumeSkipsRowsThatDisagreeWithTheFile) {
    const Bytes k1 = make_frame(9, kHour10, true, 100), p1 = make_frame(9, kHour10, false, 100),
                k2 = make_frame(9, kHour10 + 1, true, 100),
                p2 = make_frame(9, kHour10 + 1, false, 100);
    for (const Bytes *f : {&k1, &p1, &k2, &p2})
        record(ctx, *f);
    close();
    sqlite3 *db = nullptr;
    ASSERT_EQ(sqlite3_open(video_db(9).c_str(), &db), SQLITE_OK);
    const std::string bad = "delete from h10 where offset = 232;"
                            "insert into h10 values(NULL,5,232);" // k2 with a wrong time
                            "insert into h10 values(NULL," +
                            std::to_string(kHour10 + 1) +
                            ",348);" // p2: not a key frame
                            "insert into h10 values(NULL," +
                            std::to_string(kHour10 + 1) + ",460);"; // past the end of the data
    ASSERT_EQ(sqlite3_exec(db, bad.c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(db);
    open();
    const Bytes k3 = make_frame(9, kHour10 + 2, true, 100);
    record(ctx, k3);
    close();
    EXPECT_EQ(walk(stream(9, 10)).frames, (std::vector<Bytes>{k1, p1, k2, p2, k3}));
    EXPECT_EQ(index_rows(video_db(9), 10), "0," + std::to_string(kHour10) + " 232," +
                                               std::to_string(kHour10 + 1) + " 464," +
                                               std::to_string(kHour10 + 2));
}

// An index that cannot be read is no reason to destroy the hour: the file is
// continued at its end.
TEST_F(RecVideo, UnreadableIndexNeverCutsTheFile) {
    const Bytes k1 = make_frame(5, kHour10, true, 100);
    record(ctx, k1);
    close();
    {
        std::ofstream junk(video_db(5), std::ios::binary | std::ios::trunc);
        junk << std::string(4096, 'x');
    }
    open();
    const Bytes k2 = make_frame(5, kHour10 + 1, true, 100);
    testing::internal::CaptureStdout();
    record(ctx, k2);
    const std::string out = testing::internal::GetCapturedStdout();
    close();
    EXPECT_NE(out.find("index of hour 10 unreadable"), std::string::npos) << out;
    EXPECT_EQ(walk(stream(5, 10)).frames, (std::vector<Bytes>{k1, k2}));
}

} // namespace
