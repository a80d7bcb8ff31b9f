// The catalogue against a model of what was recorded: seeded random stores
// of key frames (every second or every other), audio and events over three
// days around the change back from summer time (25 hours in Europe/Berlin),
// the repeated hour recorded through, and random questions compared with
// the model.  Then what the writers' model cannot make: a second recorded
// twice with rows out of time order, a remembered day whose file changes,
// and databases that cannot be read.
#include "report/catalogue_seconds.h"
#include "support/frames.h"
#include "support/queues.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <random>
#include <set>
#include <tuple>

// Spans compare and print in the test's messages.
inline bool operator==(const VrixCatSpan &a, const VrixCatSpan &b) {
    return a.iStart == b.iStart && a.iEnd == b.iEnd && a.iSeconds == b.iSeconds &&
           a.iRows == b.iRows;
}
inline void PrintTo(const VrixCatSpan &s, std::ostream *os) {
    *os << "[" << s.iStart << "," << s.iEnd << ") " << s.iSeconds << "s " << s.iRows << "r";
}

namespace {

using namespace vrix::test;

int local(int year, int mon, int mday, int hour, int min, int dst = -1) {
    std::tm tm{};
    tm.tm_year = year - 1900;
    tm.tm_mon = mon - 1;
    tm.tm_mday = mday;
    tm.tm_hour = hour;
    tm.tm_min = min;
    tm.tm_isdst = dst;
    return static_cast<int>(mktime(&tm));
}

int day_of(int sec) {
    std::tm tm = local_tm(sec);
    tm.tm_hour = tm.tm_min = tm.tm_sec = 0;
    tm.tm_isdst = -1;
    return static_cast<int>(mktime(&tm));
}

template <class R> int take(const R *r, void *out) {
    static_cast<std::vector<R> *>(out)->push_back(*r);
    return 0;
}

struct Problem {
    std::string path;
    int reason;
};
void note(const char *path, int reason, void *user) {
    static_cast<std::vector<Problem> *>(user)->push_back({path, reason});
}

// Records take() into a vector and problems into `problems`: the catalogue
// hands one `user` to both callbacks.
template <class R> struct Sink {
    std::vector<R> got;
    std::vector<Problem> problems;
};
template <class R> int into(const R *r, void *s) {
    static_cast<Sink<R> *>(s)->got.push_back(*r);
    return 0;
}
template <class R> void bad(const char *path, int reason, void *s) {
    static_cast<Sink<R> *>(s)->problems.push_back({path, reason});
}

std::vector<VrixCatSpan> model_spans(const std::vector<int> &keys, int from, int to, int gap) {
    std::vector<VrixCatSpan> out;
    int last = 0;
    for (int s : keys) {
        if (s < from || s >= to) continue;
        if (out.empty() || s - (out.back().iEnd - 1) > gap) out.push_back({s, s, 0, 0});
        if (s != last || out.back().iSeconds == 0) ++out.back().iSeconds;
        out.back().iEnd = s + 1;
        ++out.back().iRows;
        last = s;
    }
    return out;
}

class Catalogue : public ::testing::Test {
  protected:
    void SetUp() override {
        start_library();
        vrix::cat::forget_day_seconds();
    }
    std::vector<VrixCatSpan> spans(int kind, int ch, int from, int to, int gap) {
        Sink<VrixCatSpan> s;
        EXPECT_EQ(vrix_cat_spans(root(), kind, ch, from, to, gap, into<VrixCatSpan>, &s,
                                 bad<VrixCatSpan>),
                  0);
        EXPECT_TRUE(s.problems.empty());
        return s.got;
    }
    const char *root() const { return dir.path().c_str(); }
    std::string path(int kind, int day, int ch = 1, int hour = 0) {
        char buf[256];
        EXPECT_GT(vrix_cat_path(root(), kind, day, ch, hour, buf, sizeof buf), 0);
        return buf;
    }
    // Key frames of `ch` at `secs` (ascending), 48-byte payloads.
    void record_keys(int ch, const std::vector<int> &secs) {
        RecContext *rec = vrix_db_open_rec_video(root(), 17);
        ASSERT_NE(rec, nullptr);
        for (int s : secs)
            record(rec, make_frame(ch, s, true, 48));
        vrix_db_rec_video_flush(rec, ch);
        vrix_db_close_rec_video(rec);
    }

    ScratchDir dir;
};

TEST_F(Catalogue, AgreesWithAModelOfRandomStores) {
    const int t0 = local(2024, 10, 26, 0, 0), t1 = local(2024, 10, 29, 0, 0);
    const int repeatedStart = local(2024, 10, 27, 1, 50, 1); // summer time, before the change
    const bool summer = local(2024, 10, 28, 0, 0) - local(2024, 10, 27, 0, 0) == 90000;
    const char *fixed = std::getenv("VRIX_SEED");
    const unsigned seed =
        fixed ? static_cast<unsigned>(std::strtoul(fixed, nullptr, 10)) : std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 rng(seed);
    const std::vector<int> channels{2, 5, 9, 16};
    std::map<int, std::vector<int>> keys; // channel: key-frame seconds, ascending

    RecContext *rec = vrix_db_open_rec_video(root(), 17);
    ASSERT_NE(rec, nullptr);
    for (int ch : channels) {
        // Segments at random, one through the repeated hour on channel 2.
        std::set<int> secs;
        for (int n = 0; n < 8; ++n) {
            const int start =
                ch == 2 && n == 0 ? repeatedStart : t0 + static_cast<int>(rng() % (t1 - t0 - 600));
            const int length = ch == 2 && n == 0 ? 4800 : 20 + static_cast<int>(rng() % 400);
            const int step = 1 + static_cast<int>(rng() % 2);
            for (int s = start; s < start + length && s < t1; s += step)
                secs.insert(s);
        }
        for (int s : secs)
            record(rec, make_frame(ch, s, true, 48));
        vrix_db_rec_video_flush(rec, ch);
        keys[ch].assign(secs.begin(), secs.end());
    }
    vrix_db_close_rec_video(rec);

    // Events on the test clock.
    static int clock;
    VrixTestHooks hooks{1, [] { return clock; }};
    vrix_db_set_test_hooks(&hooks);
    // (day, ch, type): count, first and last second
    std::map<std::tuple<int, int, int>, std::tuple<int, int, int>> eventModel;
    EventRecContext *ev = vrix_db_open_rec_event(root());
    ASSERT_NE(ev, nullptr);
    std::set<int> eventSecs;
    for (int n = 0; n < 60; ++n)
        eventSecs.insert(t0 + static_cast<int>(rng() % (t1 - t0)));
    for (int s : eventSecs) {
        clock = s;
        const int ch = static_cast<int>(rng() % 4), type = 1 << (rng() % 3);
        vrix_db_rec_event(ev, ch, type, 0, 0);
        auto &[count, first, last] = eventModel[{day_of(s), ch, type}];
        first = count++ ? first : s;
        last = s;
    }
    vrix_db_close_rec_event(ev);
    vrix_db_set_test_hooks(nullptr);

    // Days: every day with a key frame or an event, its end the next day's key.
    std::map<int, uint32_t> dayModel;
    for (auto &[ch, secs] : keys)
        for (int s : secs)
            dayModel[day_of(s)] |= 1u << (ch - 1);
    for (int s : eventSecs)
        dayModel[day_of(s)] |= 0;
    Sink<VrixCatDay> days;
    ASSERT_EQ(vrix_cat_days(root(), 0, 0x7fffffff, into<VrixCatDay>, &days, bad<VrixCatDay>), 0);
    ASSERT_EQ(days.got.size(), dayModel.size());
    for (size_t i = 0; i < days.got.size(); ++i) {
        const auto it = std::next(dayModel.begin(), static_cast<long>(i));
        EXPECT_EQ(days.got[i].iDay, it->first);
        EXPECT_EQ(days.got[i].uVideo, it->second);
        EXPECT_EQ(days.got[i].iEnd, day_of(it->first + 30 * 3600));
        if (days.got[i].iDay == local(2024, 10, 27, 0, 0)) {
            EXPECT_EQ(days.got[i].iEnd - days.got[i].iDay, summer ? 90000 : 86400);
        }
    }

    // Spans of random channels, windows and gaps.
    for (int q = 0; q < 200; ++q) {
        const int ch = channels[rng() % channels.size()];
        const int gap = std::vector<int>{0, 1, 2, 7, 600}[rng() % 5];
        int from = t0 - 100 + static_cast<int>(rng() % (t1 - t0 + 200));
        int to = from + static_cast<int>(rng() % (t1 - t0));
        if (q == 0) from = 0, to = 0x7fffffff;
        SCOPED_TRACE("ch " + std::to_string(ch) + " gap " + std::to_string(gap) + " [" +
                     std::to_string(from) + ", " + std::to_string(to) + ")");
        ASSERT_EQ(spans(VRIX_CAT_VIDEO, ch, from, to, gap), model_spans(keys[ch], from, to, gap));
    }

    // Hours: rows, first and last second and bytes of each hour file.
    for (int ch : channels) {
        std::map<std::pair<int, int>, std::vector<int>> model; // (day, hour): seconds
        for (int s : keys[ch])
            model[{day_of(s), local_tm(s).tm_hour}].push_back(s);
        Sink<VrixCatHour> hours;
        ASSERT_EQ(vrix_cat_hours(root(), VRIX_CAT_VIDEO, ch, 0, 0x7fffffff, into<VrixCatHour>,
                                 &hours, bad<VrixCatHour>),
                  0);
        ASSERT_EQ(hours.got.size(), model.size());
        auto it = model.begin();
        for (const VrixCatHour &h : hours.got) {
            EXPECT_EQ(std::make_pair(h.iDay, h.iHour), it->first);
            EXPECT_EQ(h.iRows, static_cast<int>(it->second.size()));
            EXPECT_EQ(h.iFirst, it->second.front());
            EXPECT_EQ(h.iLast, it->second.back());
            EXPECT_EQ(h.lBytes, 64LL * h.iRows);
            EXPECT_LE(h.iStart, h.iFirst);
            EXPECT_LT(h.iLast, h.iEnd);
            if (ch == 2 && summer && h.iStart <= repeatedStart + 600 &&
                repeatedStart + 600 < h.iEnd) {
                EXPECT_EQ(h.iEnd - h.iStart, 7200); // both passes in one file
            }
            ++it;
        }
    }

    // Bounds and event counts.
    int first = 0, last = 0;
    EXPECT_EQ(vrix_cat_bounds(root(), VRIX_CAT_VIDEO, 0, &first, &last, note, nullptr), 0);
    int lo = t1, hi = 0;
    for (auto &[ch, secs] : keys)
        lo = std::min(lo, secs.front()), hi = std::max(hi, secs.back());
    EXPECT_EQ(first, lo);
    EXPECT_EQ(last, hi);
    EXPECT_EQ(vrix_cat_bounds(root(), VRIX_CAT_EVENTS, 0, &first, &last, note, nullptr), 0);
    EXPECT_EQ(first, *eventSecs.begin());
    EXPECT_EQ(last, *eventSecs.rbegin());
    Sink<VrixCatEvents> events;
    ASSERT_EQ(
        vrix_cat_events(root(), 0, 0x7fffffff, into<VrixCatEvents>, &events, bad<VrixCatEvents>),
        0);
    std::map<std::tuple<int, int, int>, std::tuple<int, int, int>> got;
    for (const VrixCatEvents &e : events.got)
        got[{e.iDay, e.iCh, e.iType}] = {e.iCount, e.iFirst, e.iLast};
    EXPECT_EQ(got, eventModel);
}

// A second recorded twice (a clock stepped back within the hour: rows out of
// time order by id) lies once in a span and its rows count twice; a day
// remembered from an unchanged file is read again once the file changes.
TEST_F(Catalogue, PassesAndRememberedDays) {
    const int h10 = local(2024, 6, 14, 10, 0);
    std::vector<int> secs;
    for (int s = h10; s < h10 + 100; ++s)
        secs.push_back(s);
    record_keys(3, secs);
    const std::string db = path(VRIX_PATH_VIDEO_DB, day_of(h10), 3);
    // Settled: the file looks older than the catalogue's two seconds.
    const timespec old[2] = {{h10, 0}, {h10, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, db.c_str(), old, 0), 0);
    EXPECT_EQ(spans(VRIX_CAT_VIDEO, 3, h10, h10 + 3600, 1),
              (std::vector<VrixCatSpan>{{h10, h10 + 100, 100, 100}}));

    // A second pass over 10:00:40..10:00:49 and a key frame at 10:02:00.
    std::string sql = "insert into h10(sec, offset) values(" + std::to_string(h10 + 120) + ", 0);";
    for (int s = h10 + 40; s < h10 + 50; ++s)
        sql += "insert into h10(sec, offset) values(" + std::to_string(s) + ", 0);";
    exec(db, sql);
    EXPECT_EQ(spans(VRIX_CAT_VIDEO, 3, h10, h10 + 3600, 1),
              (std::vector<VrixCatSpan>{{h10, h10 + 100, 100, 110}, {h10 + 120, h10 + 121, 1, 1}}));
    EXPECT_EQ(spans(VRIX_CAT_VIDEO, 3, h10 + 45, h10 + 3600, 21),
              (std::vector<VrixCatSpan>{{h10 + 45, h10 + 121, 56, 61}}));
    exec(db, "delete from h10 where sec >= " + std::to_string(h10 + 50) + ";");
    EXPECT_EQ(spans(VRIX_CAT_VIDEO, 3, h10, h10 + 3600, 1),
              (std::vector<VrixCatSpan>{{h10, h10 + 50, 50, 60}}));
}

// A database that cannot be read is named, never listed as empty; the rest
// is still listed, and looking creates nothing.
TEST_F(Catalogue, UnreadableIsNotEmpty) {
    const int h10 = local(2024, 6, 14, 10, 0);
    record_keys(3, {h10, h10 + 1});
    record_keys(4, {h10 + 5});
    const std::string v3 = path(VRIX_PATH_VIDEO_DB, day_of(h10), 3);
    const auto root = std::filesystem::path(dir.path());
    auto files = [&] {
        std::set<std::string> all;
        for (const auto &e : std::filesystem::recursive_directory_iterator(root))
            all.insert(e.path().string());
        return all;
    };
    const auto before = files();
    Sink<VrixCatSpan> empty;
    EXPECT_EQ(vrix_cat_spans(root.c_str(), VRIX_CAT_VIDEO, 3, h10 + 86400, h10 + 5 * 86400, 1,
                             into<VrixCatSpan>, &empty, bad<VrixCatSpan>),
              0);
    EXPECT_TRUE(empty.got.empty());
    EXPECT_EQ(files(), before);

    // Damaged: the hour table's pages overwritten.
    {
        std::FILE *f = std::fopen(v3.c_str(), "r+b");
        ASSERT_NE(f, nullptr);
        std::fseek(f, 4096, SEEK_SET);
        const std::string junk(8192, '\x5a');
        std::fwrite(junk.data(), 1, junk.size(), f);
        std::fclose(f);
    }
    Sink<VrixCatHour> hours;
    EXPECT_EQ(vrix_cat_hours(root.c_str(), VRIX_CAT_VIDEO, 3, day_of(h10), day_of(h10) + 1,
                             into<VrixCatHour>, &hours, bad<VrixCatHour>),
              1);
    ASSERT_EQ(hours.problems.size(), 1u);
    EXPECT_EQ(hours.problems[0].path, v3);
    EXPECT_EQ(hours.problems[0].reason, VRIX_CAT_DAMAGED);
    EXPECT_EQ(vrix_cat_check(root.c_str(), VRIX_CAT_VIDEO, 3, h10, h10, note, &hours.problems), 1);
    EXPECT_EQ(spans(VRIX_CAT_VIDEO, 4, 0, 0x7fffffff, 1).size(), 1u);
    EXPECT_EQ(vrix_cat_check(root.c_str(), VRIX_CAT_VIDEO, 4, h10, h10, nullptr, nullptr), 0);

    // Locked: a writer holding date.db past the retry.
    sqlite3 *h = nullptr;
    ASSERT_EQ(sqlite3_open(path(VRIX_PATH_DATE_DB, 0).c_str(), &h), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(h, "begin exclusive;", nullptr, nullptr, nullptr), SQLITE_OK);
    Sink<VrixCatDay> days;
    EXPECT_EQ(vrix_cat_days(root.c_str(), 0, 0x7fffffff, into<VrixCatDay>, &days, bad<VrixCatDay>),
              1);
    EXPECT_TRUE(days.got.empty());
    ASSERT_EQ(days.problems.size(), 1u);
    EXPECT_EQ(days.problems[0].reason, VRIX_CAT_LOCKED);
    sqlite3_exec(h, "rollback;", nullptr, nullptr, nullptr);
    sqlite3_close(h);
    days = {};
    EXPECT_EQ(vrix_cat_days(root.c_str(), 0, 0x7fffffff, into<VrixCatDay>, &days, bad<VrixCatDay>),
              0);
    EXPECT_EQ(days.got.size(), 1u);
}

} // namespace
