// Audio recorded by the writer and played back: index rows, batching,
// resume with unequal files, stepping in both directions.
#include "audio/play_context.h"
#include "audio/rec_context.h"
#include "support/frames.h"
#include "support/queues.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <array>
#include <fstream>
#include <map>

namespace {

using namespace vrix::test;
using Record = std::array<unsigned char, 60>;
using Bytes = std::vector<unsigned char>;

constexpr int kDay = 1710028800; // 2024-03-10 00:00:00 UTC
constexpr int kHour10 = kDay + 10 * 3600;

VrixAudioBlock make_block(int sec, uint32_t word, unsigned seq) {
    return audio_block(sec, word, [seq](int ch, unsigned char *piece) {
        for (int i = 0; i < 48; ++i)
            piece[i] = static_cast<unsigned char>(seq * 7 + (ch - 1) * 48 + i);
    });
}

Record record_of(const VrixAudioBlock &b, int k) {
    Record r{};
    const uint32_t head[3] = {48, b.iSec, b.iSec2};
    std::memcpy(r.data(), head, 12);
    std::memcpy(r.data() + 12, b.piece[k], 48);
    return r;
}

class Audio : public ::testing::Test {
  protected:
    void SetUp() override {
        start_library();
        // Audio days are found through date.db's H, which video or events fill.
        RecContext *v = vrix_db_open_rec_video(dir.path().c_str(), 17);
        vrix_db_close_rec_video(v);
        open(3);
    }
    void TearDown() override { vrix_db_close_rec_audio(rec); }
    void open(int count) {
        rec = vrix_db_open_rec_audio(dir.path().c_str(), count);
        ASSERT_NE(rec, nullptr);
    }
    void close() {
        vrix_db_close_rec_audio(rec);
        rec = nullptr;
    }
    void register_day(int day) {
        exec(dir / "date.db", "insert into H values(" + std::to_string(day) + ");");
    }
    // `per_second` blocks for every second of [from, from + seconds).
    void record_span(int from, int seconds, int per_second = 4) {
        for (int s = from; s < from + seconds; ++s)
            for (int i = 0; i < per_second; ++i) {
                blocks.push_back(make_block(s, static_cast<uint32_t>(blocks.size()),
                                            static_cast<unsigned>(blocks.size())));
                vrix_db_rec_audio(rec, &blocks.back());
            }
    }
    std::string audio_db(const char *day = "20240310") const {
        return dir / (std::string(day) + "/audio/audio.db");
    }
    std::string stream(int ch, int hour, const char *day = "20240310") const {
        return dir / (std::string(day) + "/audio/" + std::to_string(ch) + "/" +
                      std::to_string(hour) + ".stream");
    }
    AudioPlayContext *play(int ch, int start, int end = 0) {
        std::tm ts = local_tm(start), te = local_tm(end);
        return vrix_db_open_get_audio(&ts, end ? &te : nullptr, ch, 64, dir.path().c_str());
    }
    static uint32_t load_word(const Record &r, int at) {
        uint32_t v;
        std::memcpy(&v, r.data() + at, 4);
        return v;
    }
    static Record got(AudioPlayContext *p) {
        void *buf = nullptr;
        EXPECT_EQ(vrix_db_get_audio(p, &buf), 60);
        Record r{};
        std::memcpy(r.data(), buf, 60);
        return r;
    }

    ScratchDir dir;
    AudioRecContext *rec = nullptr;
    std::vector<VrixAudioBlock> blocks;
};

TEST_F(Audio, OneRowPerSecondInBatchesOfSix) {
    record_span(kHour10, 5);
    EXPECT_EQ(rows(audio_db(), "select hour from H"), std::vector<std::string>{"10"});
    EXPECT_TRUE(rows(audio_db(), "select * from h10").empty());
    record_span(kHour10 + 5, 1); // the sixth row commits all six
    const auto r = rows(audio_db(), "select sec,offset from h10 order by id");
    ASSERT_EQ(r.size(), 6u);
    for (int s = 0; s < 6; ++s)
        EXPECT_EQ(r[s], std::to_string(kHour10 + s) + "," + std::to_string(s * 4 * 60));
    vrix_db_rec_audio_flush(rec);
    for (int ch = 1; ch <= 3; ++ch)
        EXPECT_EQ(file_bytes(stream(ch, 10)).size(), 24u * 60u);
    EXPECT_EQ(file_bytes(stream(4, 10)).size(), 0u); // no fourth channel
}

TEST_F(Audio, StepModeEndTimeAndFirstBackwardStep) {
    register_day(kDay);
    record_span(kHour10, 20, 2);
    vrix_db_rec_audio_flush(rec);
    AudioPlayContext *p = play(1, kHour10);
    vrix_db_audio_set_i_mode(p, 1, 5);
    std::vector<int> secs;
    while (vrix_db_next_audio(p) == 1)
        secs.push_back(vrix_get_audio_sec(p) - kHour10);
    EXPECT_EQ(secs, (std::vector<int>{5, 10, 15}));
    vrix_db_close_get_audio(p);

    p = play(2, kHour10 + 3, kHour10 + 5);
    int n = 0;
    while (vrix_db_next_audio(p) == 1)
        ++n;
    EXPECT_EQ(n, 6); // seconds 3, 4 and 5, two records each
    vrix_db_close_get_audio(p);

    // Backward from 10:00:12: the second one row before the last at or before it.
    p = play(3, kHour10 + 12);
    ASSERT_EQ(vrix_db_pre_audio(p), 1);
    EXPECT_EQ(got(p), record_of(blocks[2 * 11], 2));
    ASSERT_EQ(vrix_db_pre_audio(p), 1);
    EXPECT_EQ(got(p), record_of(blocks[2 * 10], 2));
    vrix_db_close_get_audio(p);
}

// An emptied audio.db loses no record: the hour is indexed again from the
// first file, the rows that still waited at the close included.
TEST_F(Audio, ALostIndexIsRebuilt) {
    auto expect_all_kept = [&] {
        std::vector<std::string> want;
        for (size_t s = 0; s < blocks.size() / 2; ++s)
            want.push_back(std::to_string(kHour10 + static_cast<int>(s)) + "," +
                           std::to_string(s * 120));
        EXPECT_EQ(rows(audio_db(), "select sec,offset from h10 order by id"), want);
        for (int ch = 1; ch <= 3; ++ch) {
            std::vector<unsigned char> all;
            for (const VrixAudioBlock &b : blocks) {
                const Record r = record_of(b, ch - 1);
                all.insert(all.end(), r.begin(), r.end());
            }
            EXPECT_EQ(file_bytes(stream(ch, 10)), all) << ch;
        }
    };
    record_span(kHour10, 9, 2); // three rows still wait at the close
    close();
    ASSERT_EQ(truncate(audio_db().c_str(), 0), 0); // emptied
    open(3);
    record_span(kHour10 + 9, 1, 2);
    vrix_db_rec_audio_flush(rec);
    expect_all_kept();
}

// Rows that waited when the process ended are indexed by a writer that starts
// in a later hour, whether that hour is of the same day or of the next.
TEST_F(Audio, WriterStartingInALaterHourIndexesTheHourLeftBehind) {
    record_span(kDay - 3600, 3, 1);    // 2024-03-09, hour 23
    record_span(kHour10 - 3600, 3, 1); // hour 9
    close();
    for (const char *day : {"20240309", "20240310"}) {
        ASSERT_EQ(rows(audio_db(day), "select count(*) from H").size(), 1u) << day;
        exec(audio_db(day), "delete from h" + std::string(day[7] == '9' ? "23" : "9"));
    }
    open(3);
    record_span(kHour10, 1, 1);
    EXPECT_EQ(rows(audio_db(), "select sec,offset from h9"),
              (std::vector<std::string>{std::to_string(kHour10 - 3600) + ",0",
                                        std::to_string(kHour10 - 3599) + ",60",
                                        std::to_string(kHour10 - 3598) + ",120"}));
    EXPECT_TRUE(rows(audio_db("20240309"), "select sec from h23").empty())
        << "only the newest hour before is looked at";
    close();
    ASSERT_EQ(std::remove(audio_db().c_str()), 0);
    open(3);
    record_span(kHour10 + 5, 1, 1); // the day has no hour before: the day before
    EXPECT_EQ(rows(audio_db("20240309"), "select sec from h23").size(), 3u);
}

// One empty file: every channel starts over at 0 and the hour's old rows go.
TEST_F(Audio, ResumeWithAnEmptyFileStartsOver) {
    record_span(kHour10, 12, 1);
    vrix_db_rec_audio_flush(rec);
    close();
    ASSERT_EQ(truncate(stream(3, 10).c_str(), 0), 0);
    open(3);
    record_span(kHour10 + 50, 1, 1);
    vrix_db_rec_audio_flush(rec);
    EXPECT_EQ(rows(audio_db(), "select sec,offset from h10"),
              std::vector<std::string>{std::to_string(kHour10 + 50) + ",0"});
    for (int ch = 1; ch <= 3; ++ch)
        EXPECT_EQ(file_bytes(stream(ch, 10)).size(), 60u);
}

// A clock set back loses nothing: within the hour, into the hour before and
// back over midnight the blocks go on as further passes of their hour files,
// every run of a second gets its row, forward play delivers every block in
// file order, hour after hour, and a time recorded twice is found at its
// first pass.
TEST_F(Audio, ClockSetBackStartsAnotherPass) {
    const int midnight = kDay + 86400;
    register_day(kDay);
    register_day(midnight);
    const std::vector<std::pair<int, int>> spans = {
        {kHour10, 10},       {kHour10 + 3, 4},  {kHour10 + 3600, 5}, {kHour10 + 3598, 2},
        {kHour10 + 3605, 3}, {midnight - 2, 4}, {midnight - 1, 3}};
    std::map<int, std::vector<int>> files; // hour start -> blocks in file order
    for (const auto &[from, seconds] : spans) {
        const size_t before = blocks.size();
        record_span(from, seconds, 2);
        for (size_t i = before; i < blocks.size(); ++i) {
            const int sec = static_cast<int>(blocks[i].iSec);
            files[sec - sec % 3600].push_back(static_cast<int>(i));
        }
    }
    vrix_db_rec_audio_flush(rec);
    std::vector<int> in_play_order;
    for (const auto &[hour, list] : files) {
        const std::tm t = local_tm(hour);
        const char *day = hour < midnight ? "20240310" : "20240311";
        Bytes want, runs;
        std::vector<std::string> rows_wanted;
        for (size_t k = 0; k < list.size(); ++k) {
            const VrixAudioBlock &b = blocks[static_cast<size_t>(list[k])];
            const Record r = record_of(b, 0);
            want.insert(want.end(), r.begin(), r.end());
            if (k == 0 || blocks[static_cast<size_t>(list[k - 1])].iSec != b.iSec)
                rows_wanted.push_back(std::to_string(b.iSec) + "," + std::to_string(k * 60));
            in_play_order.push_back(list[k]);
        }
        EXPECT_EQ(file_bytes(stream(1, t.tm_hour, day)), want) << day << " " << t.tm_hour;
        EXPECT_EQ(rows(audio_db(day),
                       "select sec,offset from h" + std::to_string(t.tm_hour) + " order by id"),
                  rows_wanted);
    }
    AudioPlayContext *p = play(1, kHour10 - 1);
    std::vector<int> seen;
    while (vrix_db_next_audio(p) == 1 && seen.size() < 200)
        seen.push_back(static_cast<int>(load_word(got(p), 8)));
    vrix_db_close_get_audio(p);
    EXPECT_EQ(seen, in_play_order);
    p = play(1, kHour10 + 4);
    ASSERT_EQ(vrix_db_next_audio(p), 1);
    EXPECT_EQ(load_word(got(p), 8), 8u); // the first pass of 10:00:04
    vrix_db_close_get_audio(p);
}

// A record whose time lies outside the hour, or whose length word is wrong,
// is skipped with the rest of its second; play goes on at the next second.
TEST_F(Audio, DamagedRecordsSkipOnlyTheirSecond) {
    register_day(kDay);
    record_span(kHour10, 20, 3);
    vrix_db_rec_audio_flush(rec);
    auto patch = [&](int record, int at, uint32_t value) {
        std::fstream f(stream(1, 10), std::ios::in | std::ios::out | std::ios::binary);
        f.seekp(record * 60 + at);
        f.write(reinterpret_cast<const char *>(&value), 4);
    };
    patch(10, 4, 315532800); // second 3's second record says 1980
    patch(31, 0, 47);        // second 10's second record: a bad length word
    AudioPlayContext *p = play(1, kHour10);
    std::vector<int> want, seen;
    for (int i = 0; i < 60; ++i)
        if (i != 10 && i != 11 && i != 31 && i != 32) want.push_back(i);
    while (vrix_db_next_audio(p) == 1 && seen.size() < 100)
        seen.push_back(static_cast<int>(load_word(got(p), 8)));
    EXPECT_EQ(seen, want);
    vrix_db_close_get_audio(p);
}

// Records indexed while still in the writer's buffer are waited for; the end
// time holds backward too; starts that find nothing backward or lie before
// 1970 still play forward.
TEST_F(Audio, WaitsForBufferedRecordsAndKeepsToTheEnd) {
    register_day(kDay);
    record_span(kHour10, 6, 1);
    vrix_db_rec_audio_flush(rec);
    AudioPlayContext *p = play(1, kHour10);
    vrix_db_audio_set_i_mode(p, 1, 1);
    std::vector<int> secs;
    while (vrix_db_next_audio(p) == 1)
        secs.push_back(vrix_get_audio_sec(p) - kHour10);
    EXPECT_EQ(secs, (std::vector<int>{1, 2, 3, 4, 5}));
    record_span(kHour10 + 6, 6, 1); // six rows committed, the records buffered
    EXPECT_EQ(vrix_db_next_audio(p), 0);
    vrix_db_rec_audio_flush(rec);
    ASSERT_EQ(vrix_db_next_audio(p), 1);
    EXPECT_EQ(vrix_get_audio_sec(p), kHour10 + 6);
    vrix_db_close_get_audio(p);

    p = play(1, kHour10 + 15, kHour10 + 8);
    ASSERT_EQ(vrix_db_pre_audio(p), 1);
    EXPECT_EQ(vrix_get_audio_sec(p), kHour10 + 7); // a row before the end time's
    vrix_db_close_get_audio(p);

    p = play(1, kHour10 - 50);
    EXPECT_EQ(vrix_db_pre_audio(p), 0);
    ASSERT_EQ(vrix_db_next_audio(p), 1);
    EXPECT_EQ(vrix_get_audio_sec(p), kHour10);
    vrix_db_close_get_audio(p);

    std::tm t{};
    t.tm_year = 69;
    t.tm_mon = 11;
    t.tm_mday = 31;
    p = vrix_db_open_get_audio(&t, nullptr, 1, 64, dir.path().c_str());
    ASSERT_EQ(vrix_db_next_audio(p), 1);
    EXPECT_EQ(vrix_get_audio_sec(p), kHour10);
    vrix_db_close_get_audio(p);
}

} // namespace
