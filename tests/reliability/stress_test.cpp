// Everything at once, for ThreadSanitizer: a recorder (16 video channels and
// 4 audio channels), four video players and one audio player following live,
// an event writer, a paging reader, backups stopped and started from another
// thread, and reductions through the remove server.  A watchdog fails the
// test when any of them stops making progress.  10 s; VRIX_LONG=1 makes it
// 60 s (VRIX_STRESS_SECONDS sets any length).
#include "support/queues.h"
#include "verify.h"

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

// glibc's tzset() and localtime_r() share the time zone state under a lock
// internal to glibc, which ThreadSanitizer cannot see: two threads opening
// playback at once (each refreshes the zone) are reported as a race there.
extern "C" const char *__tsan_default_suppressions() {
    return "race:tzset_internal\n";
}

namespace vrix::rel {
namespace {

using Clock = std::chrono::steady_clock;

std::atomic<int> g_now{kT0};
int virtual_now() {
    return g_now.load();
}

struct Worker {
    Worker(const char *n) : name(n) {}
    const char *name;
    std::atomic<uint64_t> beats{0};
    std::atomic<uint64_t> wrong{0};
    std::string fault;
    std::thread thread;
};

class Stress : public ::testing::Test {
  protected:
    void SetUp() override {
        test::start_library();
        const VrixTestHooks hooks{1000000, virtual_now};
        vrix_db_set_test_hooks(&hooks);
        root = dir.path();
    }
    void TearDown() override { vrix_db_set_test_hooks(nullptr); }

    template <typename F> void start(Worker &w, F body) {
        w.thread = std::thread([this, &w, body] {
            while (!stop.load()) {
                body(w);
                ++w.beats;
            }
        });
    }
    static void fault(Worker &w, const std::string &what) {
        if (w.wrong++ == 0) w.fault = what;
    }

    // Plays a video channel following the recording: when it has caught up,
    // it waits a little and locates again after the last frame it had.
    void follow_video(Worker &w, int ch) {
        std::tm start = test::local_tm(kT0);
        PlayContext *p = vrix_db_open_get_video(&start, nullptr, ch, kPlayBuf, root.c_str());
        if (!p) return fault(w, "cannot open playback");
        long long last = -1;
        while (!stop.load()) {
            if (vrix_db_next_video(p) != 1) {
                std::this_thread::sleep_for(std::chrono::milliseconds(2));
                vrix_db_video_reset_start_time(p, last < 0 ? kT0 : round_sec(last) + 1, 1);
                ++w.beats;
                continue;
            }
            void *buf = nullptr;
            const int len = vrix_db_get_video(p, &buf);
            int sec = 0, sec2 = 0;
            vrix_db_video_get_current_time(p, &sec, &sec2);
            const auto r = identify(ch, sec, sec2, vrix_db_video_get_current_scale(p), buf, len);
            if (!r || *r > recording.load() || static_cast<long long>(*r) <= last)
                fault(w, "ch" + std::to_string(ch) + " delivered time " + std::to_string(sec) +
                             ", word " + std::to_string(sec2) + " after round " +
                             std::to_string(last));
            else
                last = *r;
            ++w.beats;
        }
        vrix_db_close_get_video(p);
    }

    void follow_audio(Worker &w, int ch) {
        std::tm start = test::local_tm(kT0);
        AudioPlayContext *p = vrix_db_open_get_audio(&start, nullptr, ch, 64, root.c_str());
        if (!p) return fault(w, "cannot open audio playback");
        long long last = -1;
        while (!stop.load()) {
            if (vrix_db_next_audio(p) != 1) {
                std::this_thread::sleep_for(std::chrono::milliseconds(2));
                vrix_db_reset_audio_strat_time(p, last < 0 ? kT0 : round_sec(last) + 1, 1);
                ++w.beats;
                continue;
            }
            void *buf = nullptr;
            const int len = vrix_db_get_audio(p, &buf);
            const auto r = identify_audio(ch, static_cast<unsigned char *>(buf), len);
            if (!r || *r > recording.load() || static_cast<long long>(*r) <= last)
                fault(w, "audio ch" + std::to_string(ch) + " delivered a record of time " +
                             std::to_string(vrix_get_audio_sec(p)) + " after round " +
                             std::to_string(last));
            else
                last = *r;
            ++w.beats;
        }
        vrix_db_close_get_audio(p);
    }

    test::ScratchDir dir;
    std::string root;
    std::atomic<bool> stop{false};
    std::atomic<int64_t> recording{-1}; // round being handed to the writers
    std::atomic<int> oldest{kT0};       // nothing before this second is left
    std::atomic<uint64_t> reductions{0};
};

TEST_F(Stress, RecordingPlaybackEventsAndMaintenanceTogether) {
    const char *env = std::getenv("VRIX_STRESS_SECONDS");
    const char *lng = std::getenv("VRIX_LONG");
    const int seconds = env ? std::atoi(env) : lng && std::atoi(lng) ? 60 : 10;
    constexpr int kRoundsPerSecond = 150; // 16 x 150 frames a second; an hour every 6 s

    RecContext *rec = vrix_db_open_rec_video(root.c_str(), kChannels + 1);
    AudioRecContext *audio = vrix_db_open_rec_audio(root.c_str(), kAudioChannels);
    EventRecContext *events = vrix_db_open_rec_event(root.c_str());
    VrixRmServer *rm = vrix_rm_server_start(root.c_str(), nullptr, nullptr);
    ASSERT_TRUE(rec && audio && events && rm);

    Worker recorder{"recorder"},
        players[4] = {{"player 1"}, {"player 2"}, {"player 8"}, {"player 16"}};
    Worker listener{"audio player"}, event_writer{"event writer"}, pager{"event pager"},
        backup{"backup"}, backup_switch{"backup stop/start"}, reducer{"reduction"};

    // Recording starts late in its first hour, so that even the short run
    // has an hour to reclaim.
    constexpr uint32_t kFirst = 800;
    const auto begin = Clock::now();
    uint32_t next = kFirst;
    start(recorder, [&](Worker &) {
        const auto due =
            begin + std::chrono::microseconds(1000000LL * (next - kFirst) / kRoundsPerSecond);
        std::this_thread::sleep_until(due);
        recording.store(next);
        g_now.store(round_sec(next));
        for (int ch = 1; ch <= kChannels; ++ch) {
            const auto f = frame(ch, next);
            vrix_db_rec_video(rec, f.data(), static_cast<int>(f.size()));
        }
        const VrixAudioBlock block = audio_block(next);
        vrix_db_rec_audio(audio, &block);
        ++next;
    });
    const int channels[4] = {1, 1, 8, 16};
    for (int i = 0; i < 4; ++i)
        players[i].thread =
            std::thread([this, &players, i, &channels] { follow_video(players[i], channels[i]); });
    listener.thread = std::thread([this, &listener] { follow_audio(listener, 2); });
    start(event_writer, [&](Worker &w) {
        vrix_db_rec_event(events, 1 + static_cast<int>(w.beats % kChannels), 1 << (w.beats % 3), 0,
                          0);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    });
    start(pager, [&](Worker &w) {
        std::tm from = test::local_tm(kT0);
        EventQueryContext *q =
            vrix_db_open_get_event(&from, 0xFFFFu, 0, 0, 0x7F, root.c_str(), 50, 0, 0);
        if (!q) return;
        long long last = 0;
        for (int n; (n = vrix_db_next_event(q)) > 0;) {
            const EventRecord *page = vrix_db_get_event(q);
            for (int i = 0; i < n; ++i) {
                const EventRecord &e = page[i];
                if (e.iSec < last || e.iSec > g_now.load() || e.iCh < 1 || e.iCh > kChannels ||
                    e.iType < 1 || e.iType > 4)
                    fault(w, "event of time " + std::to_string(e.iSec) + ", channel " +
                                 std::to_string(e.iCh) + ", type " + std::to_string(e.iType));
                last = e.iSec;
            }
        }
        vrix_db_pre_event(q);
        vrix_db_close_get_event(q);
    });
    start(backup, [&](Worker &) {
        std::tm t = test::local_tm(g_now.load());
        char day[40];
        std::snprintf(day, sizeof day, "%04d%02d%02d", t.tm_year + 1900, t.tm_mon + 1, t.tm_mday);
        vrix_db_backup(root.c_str(), day);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    });
    start(backup_switch, [&](Worker &) {
        vrix_db_stop_backup();
        std::this_thread::sleep_for(std::chrono::milliseconds(15));
        vrix_db_start_backup();
        std::this_thread::sleep_for(std::chrono::milliseconds(35));
    });
    // Reclaims the oldest hour once it lies an hour behind.
    start(reducer, [&](Worker &) {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        const int limit = vrix_db_get_reduce_sec(root.c_str());
        if (limit <= 0 || limit > g_now.load() - 3600) return;
        int no = 0, free_mb = 0;
        vrix_db_reduce_media(root.c_str(), &no, &free_mb, -1);
        vrix_db_reduce_event(root.c_str(), limit);
        oldest.store(limit + 1);
        ++reductions;
    });

    // The watchdog: every worker must show progress within 30 s.
    std::vector<Worker *> all = {&recorder, &listener,      &event_writer, &pager,
                                 &backup,   &backup_switch, &reducer};
    for (Worker &p : players)
        all.push_back(&p);
    auto watch = [&all](Clock::time_point until, const char *phase) {
        std::vector<uint64_t> seen(all.size(), 0);
        std::vector<Clock::time_point> moved(all.size(), Clock::now());
        while (Clock::now() < until) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            for (size_t i = 0; i < all.size(); ++i) {
                const uint64_t b = all[i]->beats.load();
                if (b != seen[i]) seen[i] = b, moved[i] = Clock::now();
                if (Clock::now() - moved[i] > std::chrono::seconds(30)) {
                    std::printf("watchdog: %s made no progress for 30 s %s\n", all[i]->name, phase);
                    std::fflush(stdout);
                    std::abort();
                }
            }
        }
    };
    watch(begin + std::chrono::seconds(seconds), "while running");
    stop.store(true);
    std::atomic<bool> joined{false};
    std::thread guard([&] {
        for (int i = 0; i < 600 && !joined.load(); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        if (!joined.load()) {
            std::puts("watchdog: the workers did not stop within 60 s");
            std::fflush(stdout);
            std::abort();
        }
    });
    for (Worker *w : all)
        w->thread.join();
    joined.store(true);
    guard.join();

    for (int ch = 1; ch <= kChannels; ++ch)
        vrix_db_rec_video_flush(rec, ch);
    vrix_db_rec_audio_flush(audio);
    vrix_db_close_rec_video(rec);
    vrix_db_close_rec_audio(audio);
    vrix_db_close_rec_event(events);

    uint64_t wrong = 0;
    for (Worker *w : all) {
        if (w->wrong) std::printf("%s: %s\n", w->name, w->fault.c_str());
        wrong += w->wrong;
        std::printf("%s: %llu steps\n", w->name, static_cast<unsigned long long>(w->beats.load()));
    }
    // What is left reads back whole, after the reductions as well.
    const auto last = static_cast<uint32_t>(recording.load());
    const FrameWritten written = [last](int, uint32_t r) { return r <= last; };
    for (int ch = 1; ch <= kChannels; ++ch) {
        const Walk fwd = play(root, ch, oldest.load(), Mode::Forward, written);
        const Walk keys = play(root, ch, oldest.load(), Mode::KeyFrames, written);
        if (fwd.wrong + keys.wrong)
            std::printf("ch%d: %s%s\n", ch, fwd.first_fault.c_str(), keys.first_fault.c_str());
        EXPECT_FALSE(fwd.rounds.empty()) << "ch" << ch;
        if (!fwd.rounds.empty()) {
            EXPECT_EQ(fwd.rounds.back(), last) << "ch" << ch;
        }
        wrong += fwd.wrong + keys.wrong;
    }
    for (int ch = 1; ch <= kAudioChannels; ++ch) {
        const Walk a =
            play_audio(root, ch, oldest.load(), [last](uint32_t r) { return r <= last; });
        if (a.wrong) std::printf("audio ch%d: %s\n", ch, a.first_fault.c_str());
        wrong += a.wrong;
    }
    vrix_rm_server_stop(rm);
    std::printf("stress figures: %d s, %u rounds (%u video frames), %llu reductions, wrong %llu\n",
                seconds, last + 1 - kFirst, (last + 1 - kFirst) * kChannels,
                static_cast<unsigned long long>(reductions.load()),
                static_cast<unsigned long long>(wrong));
    EXPECT_EQ(wrong, 0u);
}

} // namespace
} // namespace vrix::rel
