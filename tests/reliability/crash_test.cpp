// Crash harness: a recorder process (16 video channels and events) is killed
// with SIGKILL at random moments; each time the next recorder resumes the
// store, and the store is read back through the library.  Nothing may come
// back that was not written, and every frame that lay whole on disk at a kill
// must survive: a kill loses only what was in the write-behind buffers (and
// the non-key frames a resume drops while it waits for a key frame).
//
// The recorder is this test binary run again with VRIX_CRASH_RECORDER set; it
// reports how far it got through a small shared file.  VRIX_LONG=1 (or
// VRIX_KILLS=n) sets the number of kills, VRIX_SEED repeats a run.
#include "support/child.h"
#include "support/queues.h"
#include "verify.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <random>
#include <set>
#include <thread>

namespace vrix::rel {
namespace {

// Shared between the harness and one recorder.
struct Progress {
    std::atomic<int64_t> attempt;       // frame index (round * 16 + ch - 1) last handed over
    std::atomic<int64_t> audio_attempt; // round of the last audio block handed over
    std::atomic<int64_t> event_attempt; // round of the last event handed over
    std::atomic<int64_t> event_done;    // round of the last event that returned
    std::atomic<int> closed;            // contexts closed cleanly
};

// The tests run in UTC, where hours start at multiples of 3600 s.
int hour_start(int sec) {
    return sec - sec % 3600;
}

int64_t frame_index(int ch, uint32_t r) {
    return static_cast<int64_t>(r) * kChannels + ch - 1;
}

Progress *map_progress(const char *path, bool create) {
    const int fd = open(path, O_RDWR | (create ? O_CREAT | O_TRUNC : 0), 0600);
    if (fd < 0 || (create && ftruncate(fd, sizeof(Progress)) != 0)) return nullptr;
    void *m = mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    return m == MAP_FAILED ? nullptr : static_cast<Progress *>(m);
}

// ---- the recorder process ----

// Events come from a thread of their own, as in the application, a little
// behind the video: each is stamped with the time of its round.
thread_local int t_event_now = kT0;
int event_clock() {
    return t_event_now;
}

void record_events(const char *root, Progress *p, uint32_t first, const std::atomic<int64_t> &video,
                   const std::atomic<bool> &stop) {
    EventRecContext *ev = vrix_db_open_rec_event(root);
    if (!ev) _exit(5);
    uint32_t r = (first + kEventEvery - 1) / kEventEvery * kEventEvery;
    for (;;) {
        const bool last = stop.load();
        if (static_cast<int64_t>(r) > video.load()) {
            if (last) break;
            usleep(200);
            continue;
        }
        t_event_now = round_sec(r);
        p->event_attempt.store(r);
        vrix_db_rec_event(ev, event_ch(r), event_type(r), 0, 0);
        p->event_done.store(r);
        r += kEventEvery;
    }
    vrix_db_close_rec_event(ev);
}

// Records from round `start` for `rounds` rounds (0: until killed), then
// flushes and closes as an application does at a clean stop.
[[noreturn]] void recorder_main(const char *recipe) {
    char root[256], progress[256];
    unsigned start = 0, rounds = 0;
    int queue = -1;
    if (std::sscanf(recipe, "%255[^|]|%255[^|]|%u|%u|%d", root, progress, &start, &rounds,
                    &queue) != 5)
        _exit(2);
    Progress *p = map_progress(progress, false);
    if (!p || vrix_db_init(queue) != 1) _exit(3);
    const VrixTestHooks hooks{0, event_clock};
    vrix_db_set_test_hooks(&hooks);
    RecContext *rec = vrix_db_open_rec_video(root, kChannels + 1);
    AudioRecContext *audio = vrix_db_open_rec_audio(root, kAudioChannels);
    if (!rec || !audio) _exit(4);
    std::atomic<int64_t> video{static_cast<int64_t>(start) - 1};
    std::atomic<bool> stop{false};
    std::thread events(record_events, root, p, start, std::cref(video), std::cref(stop));
    for (uint32_t r = start; rounds == 0 || r < start + rounds; ++r) {
        video.store(r);
        for (int ch = 1; ch <= kChannels; ++ch) {
            const auto f = frame(ch, r);
            p->attempt.store(frame_index(ch, r));
            vrix_db_rec_video(rec, f.data(), static_cast<int>(f.size()));
        }
        const VrixAudioBlock block = audio_block(r);
        p->audio_attempt.store(r);
        vrix_db_rec_audio(audio, &block);
    }
    stop.store(true);
    events.join();
    for (int ch = 1; ch <= kChannels; ++ch)
        vrix_db_rec_video_flush(rec, ch);
    vrix_db_rec_audio_flush(audio);
    vrix_db_close_rec_video(rec);
    vrix_db_close_rec_audio(audio);
    p->closed.store(1);
    std::fflush(stdout);
    _exit(0);
}

// The recorder runs before main(): nothing of the test framework is needed.
[[maybe_unused]] const bool g_is_recorder = [] {
    if (const char *recipe = std::getenv("VRIX_CRASH_RECORDER")) recorder_main(recipe);
    return false;
}();

// ---- the harness ----

struct Recorder {
    uint32_t start = 0;
    int64_t attempt = -1; // last frame index handed over; -1 none
    int64_t audio_attempt = -1, event_attempt = -1, event_done = -1;
    int delay_ms = 0;
    bool clean = false;
    int64_t first_index() const { return frame_index(1, start); }
    uint64_t frames() const {
        return attempt < first_index() ? 0 : static_cast<uint64_t>(attempt - first_index() + 1);
    }
};

struct Env {
    long long get(const char *name, long long fallback) const {
        return test::env_number(name, fallback);
    }
};

class CrashHarness : public ::testing::Test {
  protected:
    void SetUp() override {
        test::start_library();
        root = dir / "store";
        progress_path = dir / "progress";
        ASSERT_EQ(mkdir(root.c_str(), 0700), 0);
        p = map_progress(progress_path.c_str(), true);
        ASSERT_NE(p, nullptr);
        log_fd = open((dir / "recorder.log").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        ASSERT_GE(log_fd, 0);
    }
    void TearDown() override {
        if (p) munmap(p, sizeof(Progress));
        if (log_fd >= 0) close(log_fd);
    }

    pid_t spawn(uint32_t start, uint32_t rounds) {
        p->attempt.store(-1);
        p->audio_attempt.store(-1);
        p->event_attempt.store(-1);
        p->event_done.store(-1);
        p->closed.store(0);
        const std::string recipe = root + "|" + progress_path + "|" + std::to_string(start) + "|" +
                                   std::to_string(rounds) + "|" + std::to_string(test::app_queue());
        return test::spawn_self("VRIX_CRASH_RECORDER", recipe, log_fd);
    }

    Recorder take(uint32_t start, int delay_ms, bool clean) const {
        Recorder r;
        r.start = start;
        r.attempt = p->attempt.load();
        r.audio_attempt = p->audio_attempt.load();
        r.event_attempt = p->event_attempt.load();
        r.event_done = p->event_done.load();
        r.delay_ms = delay_ms;
        r.clean = clean;
        return r;
    }

    bool written(int ch, uint32_t r) const {
        const int64_t i = frame_index(ch, r);
        for (const Recorder &run : runs)
            if (i >= run.first_index() && i <= run.attempt) return true;
        return false;
    }
    bool audio_written(uint32_t r) const {
        for (const Recorder &run : runs)
            if (r >= run.start && static_cast<int64_t>(r) <= run.audio_attempt) return true;
        return false;
    }
    bool event_written(uint32_t r) const {
        for (const Recorder &run : runs)
            if (r >= run.start && static_cast<int64_t>(r) <= run.event_attempt) return true;
        return false;
    }

    std::string stream_path(int ch, int hour_start) const {
        const std::tm t = test::local_tm(hour_start);
        char s[64];
        std::snprintf(s, sizeof s, "/%04d%02d%02d/video/%d/", t.tm_year + 1900, t.tm_mon + 1,
                      t.tm_mday, ch);
        return root + s;
    }

    // What a kill left on disk, read without the library.  Every row must
    // name its whole key frame or lie ahead of its data; every whole frame on
    // disk is protected: resume keeps it.
    void note_kill(const Recorder &run) {
        if (run.attempt < run.first_index()) return;
        const int first = round_sec(run.start), last = round_sec(run.attempt / kChannels);
        for (int h = hour_start(first); h <= last; h += 3600) {
            const int hour = test::local_tm(h).tm_hour;
            for (int ch = 1; ch <= kChannels; ++ch) {
                const std::string dirp = stream_path(ch, h);
                const auto bytes = test::file_bytes(dirp + std::to_string(hour) + ".stream");
                if (bytes.empty()) continue;
                const auto ids =
                    test::rows(dirp + "video.db", "select sec,offset from h" +
                                                      std::to_string(hour) + " order by offset");
                for (const std::string &row : ids) {
                    long long sec = 0, off = 0;
                    std::sscanf(row.c_str(), "%lld,%lld", &sec, &off);
                    const auto r = record_at(ch, bytes, off);
                    if (r == kPartial) continue; // a row ahead of its data
                    if (r < 0 || round_sec(static_cast<uint32_t>(r)) != sec || !is_key(ch, r)) {
                        ++bad_rows;
                        std::printf("ch%d hour %d: row %s names no frame written there\n", ch, hour,
                                    row.c_str());
                    }
                }
                if (std::getenv("VRIX_CRASH_TRACE"))
                    std::printf("  ch%d hour %d: size %zu, %zu rows\n", ch, hour, bytes.size(),
                                ids.size());
                for (long long off = 0;;) {
                    const long long r = record_at(ch, bytes, off);
                    if (r == kPartial) break;
                    if (r < 0) {
                        ++bad_records;
                        std::printf("ch%d hour %d: offset %lld holds no frame that was written\n",
                                    ch, hour, off);
                        break;
                    }
                    is_protected[ch][static_cast<uint32_t>(r)] = true;
                    off += VRIX_FRAME_HEADER_SIZE + payload_of(ch, static_cast<uint32_t>(r));
                }
            }
        }
    }

    void trace(const Recorder &run) {
        msqid_ds q{};
        msgctl(msgget(VRIX_SUBMIT_MQ_KEY, 0), IPC_STAT, &q);
        std::printf("  submit queue holds %lu messages\n", static_cast<unsigned long>(q.msg_qnum));
        if (run.attempt < run.first_index()) return;
        const int first = round_sec(run.start), last = round_sec(run.attempt / kChannels);
        for (int h = hour_start(first); h <= last; h += 3600)
            for (int ch = 1; ch <= kChannels; ++ch) {
                std::string hours;
                for (const auto &row :
                     test::rows(stream_path(ch, h) + "video.db", "select hour from H"))
                    hours += row + " ";
                std::printf("  ch%d day of %d: hours %s\n", ch, h, hours.c_str());
            }
    }

    // Whether playback can find the hour of `sec` on channel `ch`: the day in
    // date.db's ch<N>, the hour in the day's video.db H.
    bool registered(int ch, int sec) {
        const int hour = hour_start(sec);
        const auto key = std::make_pair(ch, hour);
        if (const auto it = known.find(key); it != known.end()) return it->second;
        const int day = sec - test::local_tm(sec).tm_hour * 3600 - test::local_tm(sec).tm_min * 60 -
                        test::local_tm(sec).tm_sec;
        const bool yes = !test::rows(root + "/date.db", "select date from ch" + std::to_string(ch) +
                                                            " where date = " + std::to_string(day))
                              .empty() &&
                         !test::rows(stream_path(ch, hour) + "video.db",
                                     "select hour from H where hour = " +
                                         std::to_string(test::local_tm(sec).tm_hour))
                              .empty();
        return known[key] = yes;
    }
    std::map<std::pair<int, int>, bool> known;

    // Whether the hour file of `sec` on channel `ch` holds no key frame.
    bool keyless(int ch, int sec) {
        const int h = hour_start(sec);
        const auto key = std::make_pair(ch, h);
        if (const auto it = no_key.find(key); it != no_key.end()) return it->second;
        const auto bytes = test::file_bytes(stream_path(ch, h) +
                                            std::to_string(test::local_tm(h).tm_hour) + ".stream");
        bool none = true;
        for (long long off = 0, r; none && (r = record_at(ch, bytes, off)) >= 0;
             off += VRIX_FRAME_HEADER_SIZE + payload_of(ch, static_cast<uint32_t>(r)))
            none = !is_key(ch, static_cast<uint32_t>(r));
        return no_key[key] = none;
    }
    std::map<std::pair<int, int>, bool> no_key;

    static constexpr long long kPartial = -2;
    // The round of the whole, correct frame record at `off`; kPartial when
    // the file ends inside it; -1 when something else is there.
    long long record_at(int ch, const std::vector<unsigned char> &b, long long off) const {
        if (off < 0 || off + VRIX_FRAME_HEADER_SIZE > static_cast<long long>(b.size()))
            return kPartial;
        const unsigned char *h = b.data() + off;
        auto word = [h](int i) {
            return static_cast<int>(h[4 * i] | h[4 * i + 1] << 8 | h[4 * i + 2] << 16 |
                                    static_cast<unsigned>(h[4 * i + 3]) << 24);
        };
        const long long len = static_cast<unsigned>(word(0));
        if (off + VRIX_FRAME_HEADER_SIZE + len > static_cast<long long>(b.size())) return kPartial;
        const auto r = identify(ch, word(1), word(2), word(3), h + VRIX_FRAME_HEADER_SIZE,
                                static_cast<int>(len));
        return r && written(ch, *r) ? static_cast<long long>(*r) : -1;
    }

    struct Checked {
        uint64_t wrong = 0;
        std::map<int, std::vector<uint32_t>> delivered; // forward play, per channel
        std::vector<uint32_t> events;
        uint64_t audio = 0; // audio records delivered, all channels
    };

    // Reads the store back through the library from `from_sec`: forward play
    // and key-frame play of every channel, some backward steps, every audio
    // channel, every event.
    Checked check(int from_sec, uint64_t backward_steps) {
        Checked c;
        const FrameWritten w = [this](int ch, uint32_t r) { return written(ch, r); };
        auto count = [&c](const Walk &walk, int ch, const char *how) {
            if (walk.wrong) std::printf("ch%d %s: %s\n", ch, how, walk.first_fault.c_str());
            c.wrong += walk.wrong;
        };
        for (int ch = 1; ch <= kChannels; ++ch) {
            Walk fwd = play(root, ch, from_sec, Mode::Forward, w);
            count(fwd, ch, "forward");
            const Walk keys = play(root, ch, from_sec, Mode::KeyFrames, w);
            count(keys, ch, "key frames");
            const Walk back = play(root, ch, 0x7FFF0000, Mode::Backward, w, backward_steps);
            count(back, ch, "backward");
            c.delivered[ch] = std::move(fwd.rounds);
        }
        for (int ch = 1; ch <= kAudioChannels; ++ch) {
            const Walk a =
                play_audio(root, ch, from_sec, [this](uint32_t r) { return audio_written(r); });
            if (a.wrong) std::printf("audio ch%d: %s\n", ch, a.first_fault.c_str());
            c.wrong += a.wrong;
            c.audio += a.rounds.size();
        }
        const EventWalk ev =
            page_events(root, kT0, [this](uint32_t r) { return event_written(r); });
        if (ev.wrong) std::printf("events: %s\n", ev.first_fault.c_str());
        c.wrong += ev.wrong;
        c.events = ev.rounds;
        return c;
    }

    test::ScratchDir dir;
    std::string root, progress_path;
    Progress *p = nullptr;
    int log_fd = -1;
    std::vector<Recorder> runs;
    std::map<int, std::map<uint32_t, bool>> is_protected;
    uint64_t bad_rows = 0, bad_records = 0;
};

int wait_for(pid_t pid, int seconds) {
    int status = 0;
    for (int i = 0; i < seconds * 100; ++i) {
        if (waitpid(pid, &status, WNOHANG) == pid) return status;
        usleep(10000);
    }
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
    return -1;
}

TEST_F(CrashHarness, KillsLoseOnlyTheWriteBehindBuffers) {
    const Env env;
    const int kills = static_cast<int>(env.get("VRIX_KILLS", env.get("VRIX_LONG", 0) ? 200 : 20));
    const auto seed = static_cast<unsigned>(env.get("VRIX_SEED", std::random_device{}()));
    std::printf("crash harness: %d kills, VRIX_SEED=%u, store %s\n", kills, seed, root.c_str());
    std::mt19937 rng(seed);

    uint32_t next = 0;
    uint64_t wrong = 0;
    for (int k = 0; k < kills; ++k) {
        // Now and then the recorder comes back after a pause, in another hour.
        if (k > 0 && rng() % 6 == 0) next += 450 + rng() % 900;
        const int delay = static_cast<int>(rng() % 300);
        const pid_t pid = spawn(next, 0);
        ASSERT_GT(pid, 0);
        std::this_thread::sleep_for(std::chrono::milliseconds(delay));
        kill(pid, SIGKILL);
        const int status = test::wait_status(pid);
        ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL)
            << "the recorder ended by itself before kill " << k << " (status " << status << ")";
        runs.push_back(take(next, delay, false));
        const Recorder &run = runs.back();
        note_kill(run);
        if (std::getenv("VRIX_CRASH_TRACE")) {
            trace(run);
            const std::string cmd = "cp -a " + root + " " + root + ".kill" + std::to_string(k + 1);
            if (std::system(cmd.c_str()) != 0) std::puts("snapshot failed");
        }
        const Checked c = check(hour_start(round_sec(run.start)), 40);
        wrong += c.wrong;
        std::printf("kill %d after %d ms: rounds from %u, %llu frames handed over, %llu wrong\n",
                    k + 1, delay, run.start, static_cast<unsigned long long>(run.frames()),
                    static_cast<unsigned long long>(c.wrong));
        if (run.attempt >= 0) next = static_cast<uint32_t>(run.attempt / kChannels) + 1;
    }

    // A last recorder resumes and stops cleanly; then everything is read back.
    const pid_t pid = spawn(next, 300);
    ASSERT_GT(pid, 0);
    const int status = wait_for(pid, 120);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "final recorder: " << status;
    runs.push_back(take(next, 0, true));
    const Checked all = check(kT0, UINT64_MAX);
    wrong += all.wrong;
    uint64_t audio_handed = 0;
    for (const Recorder &run : runs)
        if (run.audio_attempt >= run.start)
            audio_handed += kAudioChannels * (run.audio_attempt - run.start + 1);
    std::printf("audio records: %llu handed over, %llu delivered\n",
                static_cast<unsigned long long>(audio_handed),
                static_cast<unsigned long long>(all.audio));

    // Every frame handed over and not delivered now is charged to a kill: to
    // the kill that ended its recorder, or, for the non-key frames a resume
    // drops while it waits for a key frame, to the kill before.  A frame that
    // a kill left protected must never be missing.
    uint64_t missing = 0, stranded = 0, unreachable = 0;
    std::vector<uint64_t> lost(runs.size(), 0);
    for (int ch = 1; ch <= kChannels; ++ch) {
        const std::vector<uint32_t> &got = all.delivered.at(ch);
        std::set<uint32_t> have(got.begin(), got.end());
        // Playback enters the first recorded hour at its first key frame: the
        // non-key frames before it in that file are never delivered.
        for (uint32_t r = got.empty() ? 0 : got.front();
             r-- > 0 && !is_key(ch, r) &&
             hour_start(round_sec(r)) == hour_start(round_sec(got.front()));)
            have.insert(r);
        for (size_t i = 0; i < runs.size(); ++i) {
            const Recorder &run = runs[i];
            if (run.attempt < frame_index(ch, run.start)) continue;
            const auto last = static_cast<uint32_t>((run.attempt - (ch - 1)) / kChannels);
            bool leading = true;
            for (uint32_t r = run.start; r <= last; ++r) {
                leading = leading && !is_key(ch, r);
                if (have.count(r)) continue;
                // Only a frame that lay on disk can be stranded; one that was
                // still in the write-behind buffer at a kill is simply lost.
                if (!registered(ch, round_sec(r)) && is_protected[ch].count(r)) {
                    ++stranded;
                    continue;
                }
                const auto kept = is_protected[ch].find(r);
                // Playback enters an hour at a key frame: in an hour file
                // that never got one (the recorder was killed before it and
                // the next began in a later hour) no frame is reachable.
                const bool on_disk = kept != is_protected[ch].end() && kept->second;
                if (on_disk && keyless(ch, round_sec(r))) ++unreachable;
                if (on_disk && !keyless(ch, round_sec(r))) {
                    if (++missing <= 10)
                        std::printf("ch%d: frame of round %u was lost after a kill left it "
                                    "protected\n",
                                    ch, r);
                }
                if (leading && i > 0) {
                    ++lost[i - 1];
                } else if (run.clean) {
                    if (lost.back()++ < 10)
                        std::printf("ch%d: frame of round %u, recorded before a clean stop, was "
                                    "lost\n",
                                    ch, r);
                } else {
                    ++lost[i];
                }
            }
        }
    }
    EXPECT_EQ(lost.back(), 0u) << "frames lost by the recorder that stopped cleanly";

    const std::set<uint32_t> events(all.events.begin(), all.events.end());
    uint64_t events_missing = 0;
    for (const Recorder &run : runs)
        for (int64_t r = run.start; r <= run.event_done; ++r)
            if (has_event(static_cast<uint32_t>(r)) && !events.count(static_cast<uint32_t>(r)))
                ++events_missing;

    // Frames in an hour that playback cannot reach ("stranded") would mean a
    // day or hour registration lost with a killed process; the writer
    // registers its rows' day and hour before it commits them, so there must
    // be none.

    uint64_t lost_max = 0, lost_sum = 0, frames = 0;
    for (size_t i = 0; i + 1 < runs.size(); ++i) {
        lost_max = std::max(lost_max, lost[i]);
        lost_sum += lost[i];
        frames += runs[i].frames();
    }
    std::printf("crash harness figures: kills %d, frames handed over %llu, wrong frames %llu, "
                "frames lost per kill max %llu mean %.1f, protected frames missing %llu, "
                "frames stranded in unregistered hours %llu, frames in hours without a key frame "
                "%llu, events missing %llu, rows naming other data %llu, seed %u\n",
                kills, static_cast<unsigned long long>(frames),
                static_cast<unsigned long long>(wrong), static_cast<unsigned long long>(lost_max),
                kills ? static_cast<double>(lost_sum) / kills : 0.0,
                static_cast<unsigned long long>(missing), static_cast<unsigned long long>(stranded),
                static_cast<unsigned long long>(unreachable),
                static_cast<unsigned long long>(events_missing),
                static_cast<unsigned long long>(bad_rows + bad_records), seed);
    // Reclaiming the oldest hour of the crashed store works, and what is
    // left still reads back right.
    VrixRmServer *rm = vrix_rm_server_start(root.c_str(), nullptr, nullptr);
    ASSERT_NE(rm, nullptr);
    const VrixTestHooks fast{1000000, nullptr};
    vrix_db_set_test_hooks(&fast);
    const int limit = vrix_db_get_reduce_sec(root.c_str());
    vrix_db_reduce_media(root.c_str(), nullptr, nullptr, -1);
    vrix_db_reduce_event(root.c_str(), limit);
    vrix_db_set_test_hooks(nullptr);
    vrix_rm_server_stop(rm);
    const Checked rest = check(limit + 1, 100);
    EXPECT_EQ(rest.wrong, 0u) << "after reclaiming up to " << limit;

    RecordProperty("kills", kills);
    RecordProperty("wrong_frames", static_cast<int>(wrong));
    RecordProperty("lost_per_kill_max", static_cast<int>(lost_max));
    EXPECT_EQ(wrong, 0u);
    EXPECT_EQ(missing, 0u);
    EXPECT_EQ(stranded, 0u);
    EXPECT_EQ(events_missing, 0u);
    EXPECT_EQ(bad_rows + bad_records, 0u);
}

} // namespace
} // namespace vrix::rel
