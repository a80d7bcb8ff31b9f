// Recording and playback through the changes to and from summer time (run
// under Europe/Berlin, Australia/Sydney, Pacific/Chatham,
// whose clock goes back at :45 so that hour 2 comes again after hour 3 began,
// and Australia/Lord_Howe, which changes by 30 minutes): a recorder runs two
// hours before and after each change of 2024, restarts inside the repeated
// time, and everything is read back from a summer clock and from a winter
// one.  Playback goes through the hour files in their order, each file in
// the order it was recorded.
#include "support/frames.h"
#include "support/queues.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <map>
#include <numeric>
#include <set>

namespace {

using namespace vrix::test;
using Bytes = std::vector<unsigned char>;

constexpr int kCh = 3, kAudioCh = 2;
constexpr int kSpan = 2 * 3600;   // recorded before and after each change
constexpr int kYear = 1704067200; // 2024-01-01 UTC
constexpr int kSummerNorth = 1718452800, kWinterNorth = 1734264000; // June, December

std::atomic<int> g_now{0};

// The instants of 2024 at which the offset changes.
std::vector<int> changes() {
    std::vector<int> out;
    for (int t = kYear; t < kYear + 366 * 86400; t += 3600)
        if (local_tm(t).tm_gmtoff != local_tm(t + 3600).tm_gmtoff) {
            int lo = t, hi = t + 3600;
            while (hi - lo > 1)
                (local_tm(lo + (hi - lo) / 2).tm_gmtoff == local_tm(t).tm_gmtoff ? lo : hi) =
                    lo + (hi - lo) / 2;
            out.push_back(hi);
        }
    return out;
}

struct Frame {
    int sec;
    bool key;
    Bytes bytes;
};

class SummerTime : public ::testing::Test {
  protected:
    void SetUp() override {
        start_library();
        const VrixTestHooks hooks{1, [] { return g_now.load(); }};
        vrix_db_set_test_hooks(&hooks);
        const std::vector<int> c = changes();
        ASSERT_EQ(c.size(), 2u) << "tzdata is not installed";
        for (int t : c)
            (local_tm(t).tm_gmtoff < local_tm(t - 1).tm_gmtoff ? back : forward) = t;
        record_all();
    }
    void TearDown() override { vrix_db_set_test_hooks(nullptr); }

    // A frame every 5 s (a key frame every 10 s), an audio block and every
    // 10 minutes an event with each key frame.  The restart 30 minutes into
    // the second pass of the repeated hour keeps everything before it.
    void record_all() {
        g_now = std::min(forward, back) - kSpan;
        RecContext *rec = vrix_db_open_rec_video(root(), 17);
        AudioRecContext *audio = vrix_db_open_rec_audio(root(), 4);
        EventRecContext *events = vrix_db_open_rec_event(root());
        ASSERT_TRUE(rec && audio && events);
        for (int change : {std::min(forward, back), std::max(forward, back)}) {
            for (int t = change - kSpan; t < change + kSpan; t += 5) {
                const bool key = (t - change) % 10 == 0;
                if (change == back && t == back + 1800) {
                    vrix_db_rec_video_flush(rec, kCh);
                    vrix_db_rec_audio_flush(audio);
                    vrix_db_close_rec_video(rec);
                    vrix_db_close_rec_audio(audio);
                    rec = vrix_db_open_rec_video(root(), 17);
                    audio = vrix_db_open_rec_audio(root(), 4);
                    ASSERT_TRUE(rec && audio);
                }
                Bytes f =
                    make_frame(kCh, t, key, 100 + t % 13, 0, static_cast<unsigned>(frames.size()));
                vrix::test::record(rec, f);
                frames.push_back({t, key, std::move(f)});
                if (!key) continue;
                const VrixAudioBlock block = audio_block(t, 0, [&](int ch, unsigned char *piece) {
                    std::memset(piece, t % 251 + ch, VRIX_AUDIO_PIECE_SIZE);
                });
                vrix_db_rec_audio(audio, &block);
                audioSecs.push_back(t);
                if ((t - change) % 600 == 0) {
                    g_now = t;
                    vrix_db_rec_event(events, 1, VRIX_EVENT_MOTION, 0, 0);
                    eventSecs.push_back(t);
                }
            }
        }
        vrix_db_rec_video_flush(rec, kCh);
        vrix_db_rec_audio_flush(audio);
        vrix_db_close_rec_video(rec);
        vrix_db_close_rec_audio(audio);
        vrix_db_close_rec_event(events);
    }

    const char *root() const { return dir.path().c_str(); }
    // The hour file a frame of `t` belongs in, by the C library's local time.
    std::string hour_file(int t) const {
        const std::tm tm = local_tm(t);
        char name[64];
        std::snprintf(name, sizeof name, "/%04d%02d%02d/video/%d/%d.stream", tm.tm_year + 1900,
                      tm.tm_mon + 1, tm.tm_mday, kCh, tm.tm_hour);
        return dir.path() + name;
    }
    // The frames as forward play delivers them: hour file by hour file (by
    // local day and hour), each in the order it was recorded.
    std::vector<const Frame *> play_order(bool keys_only = false) const {
        std::vector<const Frame *> out;
        for (const Frame &f : frames)
            if (f.key || !keys_only) out.push_back(&f);
        std::stable_sort(out.begin(), out.end(), [this](const Frame *a, const Frame *b) {
            return hour_file(a->sec) < hour_file(b->sec);
        });
        return out;
    }
    // How far the clock went back at the change.
    int shift() const {
        return static_cast<int>(local_tm(back - 1).tm_gmtoff - local_tm(back).tm_gmtoff);
    }

    ScratchDir dir;
    int forward = 0, back = 0;
    std::vector<Frame> frames;
    std::vector<int> audioSecs, eventSecs;
};

// Every hour file holds exactly the frames of its local hour, in order: the
// repeated hour both passes (the restart kept the first), the skipped
// hour has no file.
TEST_F(SummerTime, HourFilesFollowTheLocalClock) {
    std::map<std::string, Bytes> want;
    for (const Frame &f : frames) {
        Bytes &b = want[hour_file(f.sec)];
        b.insert(b.end(), f.bytes.begin(), f.bytes.end());
    }
    std::set<std::string> dirs, files;
    for (const auto &[path, bytes] : want) {
        EXPECT_EQ(file_bytes(path), bytes) << path;
        dirs.insert(std::filesystem::path(path).parent_path().string());
    }
    for (const std::string &d : dirs)
        for (const auto &e : std::filesystem::directory_iterator(d))
            if (e.path().extension() == ".stream") files.insert(e.path().string());
    EXPECT_EQ(files.size(), want.size());
    EXPECT_EQ(hour_file(back - shift()), hour_file(back)); // one file, two passes
}

// From a summer clock and a winter one: forward play delivers every frame in
// order across both changes and the days between; backward every key frame;
// opening at the local time of a key frame (the pass named by the flag)
// delivers that frame first.
TEST_F(SummerTime, VideoPlaysInOrderFromEitherSeason) {
    for (int now : {kSummerNorth, kWinterNorth}) {
        g_now = now;
        const std::vector<const Frame *> order = play_order();
        std::tm start = local_tm(frames.front().sec);
        PlayContext *p = vrix_db_open_get_video(&start, nullptr, kCh, 4096, root());
        ASSERT_NE(p, nullptr);
        size_t n = 0;
        while (n <= frames.size() && vrix_db_next_video(p) == 1) {
            int sec = 0, sub = 0;
            vrix_db_video_get_current_time(p, &sec, &sub);
            void *buf = nullptr;
            const int len = vrix_db_get_video(p, &buf);
            ASSERT_LT(n, frames.size());
            const Bytes &want = order[n]->bytes;
            ASSERT_EQ(sec, order[n]->sec) << "frame " << n << ", now " << now;
            ASSERT_EQ(
                Bytes(static_cast<unsigned char *>(buf), static_cast<unsigned char *>(buf) + len),
                Bytes(want.begin() + 16, want.end()));
            ++n;
        }
        EXPECT_EQ(n, frames.size()) << "now " << now;
        vrix_db_close_get_video(p);

        const std::vector<const Frame *> k = play_order(true);
        std::tm end = local_tm(frames.back().sec);
        p = vrix_db_open_get_video(&end, nullptr, kCh, 4096, root());
        ASSERT_NE(p, nullptr);
        for (size_t i = k.size(); i-- > 0;) {
            ASSERT_EQ(vrix_db_pre_video(p), 1) << "key frame " << i << ", now " << now;
            int sec = 0, sub = 0;
            vrix_db_video_get_current_time(p, &sec, &sub);
            ASSERT_EQ(sec, k[i]->sec);
        }
        EXPECT_EQ(vrix_db_pre_video(p), 0);
        vrix_db_close_get_video(p);

        for (size_t i = 0; i < k.size(); i += 37) {
            std::tm at = local_tm(k[i]->sec);
            p = vrix_db_open_get_video(&at, nullptr, kCh, 4096, root());
            int sec = 0, sub = 0;
            ASSERT_EQ(vrix_db_next_video(p), 1);
            vrix_db_video_get_current_time(p, &sec, &sub);
            EXPECT_EQ(sec, k[i]->sec) << "now " << now;
            vrix_db_close_get_video(p);
        }
    }
}

// Audio and events alike, from either season; size totals count the bytes
// written, also across the repeated hour's two passes.
TEST_F(SummerTime, AudioEventsAndSizesFromEitherSeason) {
    for (int now : {kSummerNorth, kWinterNorth}) {
        g_now = now;
        std::tm start = local_tm(audioSecs.front());
        AudioPlayContext *a =
            vrix_db_open_get_audio(&start, nullptr, kAudioCh, VRIX_AUDIO_RECORD_SIZE, root());
        ASSERT_NE(a, nullptr);
        std::vector<int> got;
        while (got.size() <= audioSecs.size() && vrix_db_next_audio(a) == 1)
            got.push_back(vrix_get_audio_sec(a));
        vrix_db_close_get_audio(a);
        std::vector<int> want_audio;
        for (const Frame *f : play_order(true))
            want_audio.push_back(f->sec);
        EXPECT_EQ(got, want_audio) << "now " << now;

        for (int dir : {1, -1}) {
            std::tm from = local_tm(dir == 1 ? eventSecs.front() : eventSecs.back());
            EventQueryContext *q =
                vrix_db_open_get_event(&from, 1, 0, 0, VRIX_EVENT_MOTION, root(), 7, 16, 0);
            ASSERT_NE(q, nullptr);
            std::vector<int> pages;
            for (int n; pages.size() <= eventSecs.size() &&
                        (n = dir == 1 ? vrix_db_next_event(q) : vrix_db_pre_event(q)) > 0;)
                for (int i = 0; i < n; ++i)
                    pages.push_back(vrix_db_get_event(q)[i].iSec);
            vrix_db_close_get_event(q);
            std::vector<int> want = eventSecs;
            if (dir == -1) std::reverse(want.begin(), want.end());
            EXPECT_EQ(pages, want) << "direction " << dir << ", now " << now;
        }

        long long written = 0, repeated = 0;
        for (const Frame &f : frames) {
            written += static_cast<long long>(f.bytes.size());
            if (f.sec >= back - 3000 && f.sec < back + 600) repeated += f.bytes.size();
        }
        std::tm a0 = local_tm(frames.front().sec), a1 = local_tm(frames.back().sec + 1);
        EXPECT_EQ(vrix_db_get_video_total_size(&a0, &a1, root(), kCh), written) << "now " << now;
        std::tm r0 = local_tm(back - 3000), r1 = local_tm(back + 600);
        EXPECT_EQ(vrix_db_get_video_total_size(&r0, &r1, root(), kCh), repeated) << "now " << now;
    }
}

} // namespace

// Reduction takes every pass of an hour: reclaimed hour by hour up to the
// one the clock went back into, its table and file are gone whole.
TEST_F(SummerTime, ReductionTakesEveryPassOfAnHour) {
    const VrixTestHooks fast{1000000, [] { return g_now.load(); }};
    vrix_db_set_test_hooks(&fast);
    VrixRmServer *rm = vrix_rm_server_start(root(), nullptr, nullptr);
    ASSERT_NE(rm, nullptr);
    const std::string file = hour_file(back);
    for (int i = 0; i < 48 && std::filesystem::exists(file); ++i)
        vrix_db_reduce_media(root(), nullptr, nullptr, -1);
    vrix_rm_server_stop(rm);
    EXPECT_FALSE(std::filesystem::exists(file));
    const std::tm t = local_tm(back);
    const std::string db = std::filesystem::path(file).parent_path().string() + "/video.db";
    EXPECT_EQ(rows(db, "select count(*) from h" + std::to_string(t.tm_hour)),
              std::vector<std::string>{"0"});
}

// A converter whose offset disagrees with the store's (set by the application
// after the open) still moves on: forward strictly later, backward strictly
// earlier, and both end.
TEST_F(SummerTime, DisagreeingOffsetNeverLoops) {
    std::tm start = local_tm(frames.front().sec), end = local_tm(frames.back().sec);
    PlayContext *p = vrix_db_open_get_video(&start, nullptr, kCh, 4096, root());
    PlayContext *b = vrix_db_open_get_video(&end, nullptr, kCh, 4096, root());
    ASSERT_TRUE(p && b);
    g_TimeZone.tz_minuteswest = 90;
    int last = 0, steps = 0, sec = 0, sub = 0;
    for (; steps <= static_cast<int>(frames.size()) && vrix_db_next_video(p) == 1; ++steps) {
        vrix_db_video_get_current_time(p, &sec, &sub);
        ASSERT_GT(sec, last);
        last = sec;
    }
    EXPECT_LE(steps, static_cast<int>(frames.size()));
    last = INT32_MAX;
    for (steps = 0; steps <= static_cast<int>(frames.size()) && vrix_db_pre_video(b) == 1;
         ++steps) {
        vrix_db_video_get_current_time(b, &sec, &sub);
        ASSERT_LT(sec, last);
        last = sec;
    }
    EXPECT_LE(steps, static_cast<int>(frames.size()));
    vrix_db_close_get_video(p);
    vrix_db_close_get_video(b);
}

// A recorder whose clock was never set starts at 100 s since 1970: west of
// Greenwich that is the evening of 1969-12-31, a day and hour like any other.
TEST(BeforeLocal1970, RecordedAndPlayedLikeAnyOtherTime) {
    start_library();
    ScratchDir dir;
    g_now = 100;
    const VrixTestHooks hooks{1, [] { return g_now.load(); }};
    vrix_db_set_test_hooks(&hooks);
    RecContext *ctx = vrix_db_open_rec_video(dir.path().c_str(), kCh + 1);
    ASSERT_NE(ctx, nullptr);
    std::vector<Bytes> frames;
    for (int sec = 100; sec < 400; ++sec) {
        frames.push_back(make_frame(1, sec, sec % 5 == 0, 200 + sec % 7));
        record(ctx, frames.back());
    }
    vrix_db_rec_video_flush(ctx, 1);
    vrix_db_close_rec_video(ctx);
    vrix_db_set_test_hooks(nullptr);
    const std::tm at = local_tm(100);
    char hour_file[64];
    std::snprintf(hour_file, sizeof hour_file, "/%04d%02d%02d/video/1/%d.stream", at.tm_year + 1900,
                  at.tm_mon + 1, at.tm_mday, at.tm_hour);
    EXPECT_TRUE(std::filesystem::exists(dir.path() + hour_file)) << hour_file;
    std::tm start = local_tm(100);
    PlayContext *p = vrix_db_open_get_video(&start, nullptr, 1, 4096, dir.path().c_str());
    ASSERT_NE(p, nullptr);
    size_t played = 0;
    while (vrix_db_next_video(p) == 1)
        ++played;
    vrix_db_close_get_video(p);
    EXPECT_EQ(played, frames.size());
    std::tm end = local_tm(400);
    EXPECT_EQ(vrix_db_get_video_total_size(&start, &end, dir.path().c_str(), 1),
              std::accumulate(frames.begin(), frames.end(), 0u, [](unsigned n, const Bytes &f) {
                  return n + static_cast<unsigned>(f.size());
              }));
}
