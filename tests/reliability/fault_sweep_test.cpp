// Fault sweep: each scenario of a store's life runs in a child process with
// one file operation failing: ENOSPC, EIO, a short write or a database lock
// that stays busy, on the Nth operation such a fault applies to.  A first run
// without a fault counts the operations.  After each trial the harness runs
// the start-up repair and checks that
//   - every frame and audio record that lay whole on disk when the fault
//     struck still plays (the stream files' sizes are taken at that moment),
//   - nothing wrong plays, forward or backward, and no event that was never
//     recorded is paged,
//   - nothing was deleted: every file of the store before the trial is still
//     there, or renamed aside as damaged,
//   - a failed stream write or sync reached the application's queue,
//   - the store works again: a recorder resumes and what it records plays.
//
// The scenarios: recording across an hour and a day, resuming an hour,
// start-up repair of a damaged store, backup, reduction, event recording.
// CI runs a seeded sample of trials (VRIX_SEED repeats one); VRIX_LONG=1 runs
// every N of every scenario and fault.  VRIX_SWEEP=scenario[,scenario] picks
// scenarios, VRIX_TRIALS=n the sample size per scenario, VRIX_SWEEP_AT=n runs
// operation n alone (with VRIX_SWEEP, VRIX_SWEEP_KIND=ENOSPC|EIO|short
// write|busy and VRIX_KEEP_SCRATCH=1, to look at a failure; the trial's
// output is kept in trial.log).
#include "support/child.h"
#include "support/faults.h"
#include "support/frames.h"
#include "support/queues.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/msg.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <sstream>

namespace vrix::sweep {
namespace {

namespace fs = std::filesystem;

// ---- the workload: 4 video channels, 4 audio channels, events ----

constexpr int kChannels = 4;
constexpr int kRounds = 120;     // one frame per channel and one audio block per round
constexpr int kResumeAt = 80;    // the resume scenario starts from rounds [0, 80)
constexpr int kDay = 1718323200; // 2024-06-14 00:00 UTC (the test runs in UTC)
// Rounds 0..59 from 22:59:30 (23:00 at round 30), rounds 60..119 from
// 23:59:30 (midnight at round 90), one second apart.
int sec_of(uint32_t r) {
    return (r < 60 ? kDay + 22 * 3600 + 59 * 60 + 30 : kDay + 23 * 3600 + 59 * 60 + 30 - 60) +
           static_cast<int>(r);
}
bool is_key(int ch, uint32_t r) {
    return (r + static_cast<uint32_t>(ch)) % 6 == 0;
}
uint32_t mix(uint32_t a, uint32_t b) {
    uint32_t h = a * 0x9E3779B1u ^ (b + 0x7F4A7C15u) * 0x85EBCA77u;
    return h ^ (h >> 15);
}
// Key frames of 10-40 KB, one of 150 KB a channel (beyond the write-behind
// buffer), others of 2-6 KB.
int payload_of(int ch, uint32_t r) {
    if (r == 40u + static_cast<uint32_t>(ch) * 6u - static_cast<uint32_t>(ch)) return 150000;
    return is_key(ch, r) ? 10000 + static_cast<int>(mix(ch, r) % 30000)
                         : 2000 + static_cast<int>(mix(ch, r) % 4000);
}
std::vector<unsigned char> frame(int ch, uint32_t r) {
    return test::make_frame(ch, sec_of(r), is_key(ch, r), payload_of(ch, r), 0, r);
}
VrixAudioBlock audio(uint32_t r) {
    return test::audio_block(sec_of(r), r, [r](int ch, unsigned char *p) {
        for (int i = 0; i < VRIX_AUDIO_PIECE_SIZE; ++i)
            p[i] = static_cast<unsigned char>(mix(static_cast<uint32_t>(ch * 97 + i), r));
    });
}
bool has_event(uint32_t r) {
    return r % 7 == 3;
}
int event_ch(uint32_t r) {
    return 1 + static_cast<int>(r % kChannels);
}
int event_type(uint32_t r) {
    return 1 << (r % 3);
}

std::atomic<int> g_clock{0};
int library_clock() {
    return g_clock.load();
}
void use_test_clock(int sec) {
    g_clock.store(sec);
    static const VrixTestHooks hooks{1000000, library_clock};
    vrix_db_set_test_hooks(&hooks);
}

// Records rounds [from, to) with the three recording contexts; the number of
// events handed over before `fault_seen` turned true.
struct Recorded {
    uint32_t handed = 0;
    int events_before_fault = 0;
};
Recorded record(const std::string &root, uint32_t from, uint32_t to, bool video_too,
                const std::function<bool()> &fault_seen) {
    Recorded out;
    use_test_clock(sec_of(from));
    RecContext *v = video_too ? vrix_db_open_rec_video(root.c_str(), kChannels + 1) : nullptr;
    AudioRecContext *a = video_too ? vrix_db_open_rec_audio(root.c_str(), 4) : nullptr;
    EventRecContext *e = vrix_db_open_rec_event(root.c_str());
    for (uint32_t r = from; r < to; ++r) {
        g_clock.store(sec_of(r));
        for (int ch = 1; v && ch <= kChannels; ++ch)
            test::record(v, frame(ch, r));
        if (a) {
            const VrixAudioBlock b = audio(r);
            vrix_db_rec_audio(a, &b);
        }
        if (e && has_event(r)) {
            const bool before = !fault_seen();
            vrix_db_rec_event(e, event_ch(r), event_type(r), 0, 0);
            out.events_before_fault += before && !fault_seen();
        }
        out.handed = r + 1;
    }
    vrix_db_close_rec_event(e);
    vrix_db_close_rec_audio(a);
    vrix_db_close_rec_video(v);
    return out;
}

// ---- the scenarios ----

struct Scenario {
    const char *name;
    uint32_t base_rounds; // rounds recorded into the store before the trial
    void (*damage)(const std::string &root);
    uint32_t handed; // rounds handed over once the trial ran
    // Runs in the child with the fault layer in place.
    std::function<Recorded(const std::string &root, const std::function<bool()> &fault_seen)> run;
    bool reduces = false; // the trial deletes the oldest hour on purpose
};

// YYYYMMDD of the local day of `sec`.
std::string day_name(int sec) {
    const std::tm t = test::local_tm(sec);
    char d[40];
    std::snprintf(d, sizeof d, "%04d%02d%02d", t.tm_year + 1900, t.tm_mon + 1, t.tm_mday);
    return d;
}
std::string day_dir(const std::string &root, int sec) {
    return root + "/" + day_name(sec);
}

void damage_store(const std::string &root) {
    const std::string day = day_dir(root, sec_of(0));
    // A torn tail on channel 1's 23:00 hour.
    fs::resize_file(day + "/video/1/23.stream", fs::file_size(day + "/video/1/23.stream") - 1000);
    // Channel 2 lost its newest rows of hour 23.
    test::exec(day + "/video/2/video.db", "delete from h23 where id > 2;");
    // Channel 3's index is damaged: its second page overwritten.
    {
        std::fstream f(day + "/video/3/video.db", std::ios::in | std::ios::out | std::ios::binary);
        f.seekp(4096);
        const std::string junk(4096, '\x5a');
        f.write(junk.data(), static_cast<std::streamsize>(junk.size()));
    }
    // The new day never got registered for channel 4.
    const std::tm t = test::local_tm(sec_of(kRounds - 1));
    const int midnight = sec_of(kRounds - 1) - t.tm_hour * 3600 - t.tm_min * 60 - t.tm_sec;
    test::exec(root + "/date.db", "delete from ch4 where date = " + std::to_string(midnight) + ";");
}

void backup_first(const std::string &root) {
    vrix_db_backup(root.c_str(), day_name(sec_of(0)).c_str());
    // The sources move on after the copy, so that a new copy differs.
    record(root, kRounds, kRounds + 14, false, [] { return false; });
}

std::vector<Scenario> scenarios() {
    std::vector<Scenario> s;
    s.push_back({"record", 0, nullptr, kRounds, [](const std::string &root, auto seen) {
                     return record(root, 0, kRounds, true, seen);
                 }});
    s.push_back({"resume", kResumeAt, nullptr, kRounds, [](const std::string &root, auto seen) {
                     return record(root, kResumeAt, kRounds, true, seen);
                 }});
    s.push_back({"repair", kRounds, damage_store, kRounds, [](const std::string &root, auto) {
                     vrix_db_correct_all(root.c_str());
                     return Recorded{kRounds, 0};
                 }});
    s.push_back({"backup", kRounds, backup_first, kRounds + 14, [](const std::string &root, auto) {
                     vrix_db_backup(root.c_str(), day_name(sec_of(0)).c_str());
                     return Recorded{kRounds + 14, 0};
                 }});
    Scenario reduce{"reduce", kRounds, nullptr, kRounds, [](const std::string &root, auto) {
                        use_test_clock(sec_of(kRounds));
                        VrixRmServer *rm = vrix_rm_server_start(root.c_str(), nullptr, nullptr);
                        int stop = 0, free_mb = 0;
                        vrix_db_reduce_media(root.c_str(), &stop, &free_mb, -1);
                        vrix_rm_server_stop(rm);
                        return Recorded{kRounds, 0};
                    }};
    reduce.reduces = true;
    s.push_back(reduce);
    s.push_back({"events", 0, nullptr, kRounds, [](const std::string &root, auto seen) {
                     return record(root, 0, kRounds, false, seen);
                 }});
    return s;
}

// ---- the trial, in the child ----

// What the child reports to the harness.
struct Report {
    long ops = 0;
    bool fired = false;
    std::string op, path;
    int told = 0; // disk-error messages on the application's queue
    Recorded rec;
    std::map<std::string, long long> sizes; // stream files when the fault struck
};

std::map<std::string, long long> stream_sizes(const std::string &root) {
    std::map<std::string, long long> out;
    std::error_code ec;
    for (fs::recursive_directory_iterator it(root, ec), end; !ec && it != end; it.increment(ec))
        if (it->path().extension() == ".stream")
            out[it->path().string()] = static_cast<long long>(it->file_size(ec));
    return out;
}

[[noreturn]] void trial_main(const char *recipe) {
    char name[32], root[256], out_path[256];
    int kind = 0;
    long n = 0;
    if (std::sscanf(recipe, "%31[^|]|%255[^|]|%d|%ld|%255[^|]", name, root, &kind, &n, out_path) !=
        5)
        _exit(2);
    unshare(CLONE_NEWIPC); // queues of its own, when allowed
    test::remove_stale_queues();
    if (vrix_db_init(test::app_queue()) != 1) _exit(3);
    vrix_db_set_sync_interval(2000);
    const std::string store = root;
    std::mutex m;
    std::map<std::string, long long> sizes;
    Report rep;
    {
        test::FaultAt faults(store, static_cast<test::FaultKind>(kind), n, [&](const io::Access &) {
            const std::lock_guard hold(m);
            sizes = stream_sizes(store);
        });
        for (const Scenario &s : scenarios())
            if (s.name == std::string(name))
                rep.rec = s.run(store, [&faults] { return faults.fired(); });
        rep.ops = faults.count();
        rep.fired = faults.fired();
        if (rep.fired) {
            rep.op = test::op_name(faults.failed_op());
            rep.path = faults.failed_path();
        }
    }
    if (!rep.fired) sizes = stream_sizes(store);
    NotifyMessage msg{};
    while (msgrcv(test::app_queue(), &msg, VRIX_MSG_TEXT_SIZE, 0, IPC_NOWAIT | MSG_NOERROR) >= 0)
        rep.told += static_cast<unsigned char>(msg.mtext[0]) == VRIX_MSG_DISK_ERROR;
    std::ofstream out(out_path);
    out << rep.ops << ' ' << rep.fired << ' ' << rep.told << ' ' << rep.rec.handed << ' '
        << rep.rec.events_before_fault << '\n'
        << (rep.op.empty() ? "-" : rep.op) << '\n'
        << (rep.path.empty() ? "-" : rep.path) << '\n';
    for (const auto &[p, z] : sizes)
        out << z << ' ' << p << '\n';
    out.close();
    std::fflush(stdout);
    _exit(0);
}

std::optional<Report> read_report(const std::string &path) {
    std::ifstream in(path);
    Report r;
    if (!(in >> r.ops >> r.fired >> r.told >> r.rec.handed >> r.rec.events_before_fault))
        return std::nullopt;
    in.ignore();
    std::getline(in, r.op);
    std::getline(in, r.path);
    long long z;
    std::string p;
    while (in >> z && in.ignore() && std::getline(in, p))
        r.sizes[p] = z;
    return r;
}

// ---- the checks, in the harness ----

struct Verdict {
    std::vector<std::string> faults;
    void fail(const std::string &what) {
        if (faults.size() < 6) faults.push_back(what);
    }
};

// The channel and round of a video frame record, if it is exactly the
// workload's.
std::optional<std::pair<int, uint32_t>> identify(const unsigned char *rec, size_t avail) {
    if (avail < VRIX_FRAME_HEADER_SIZE + 37) return std::nullopt;
    uint32_t len, sec, r;
    std::memcpy(&len, rec, 4);
    std::memcpy(&sec, rec + 4, 4);
    std::memcpy(&r, rec + 8, 4);
    const int ch = rec[VRIX_FRAME_HEADER_SIZE + 36] + 1;
    if (r >= 1000 || ch > kChannels || static_cast<int>(sec) != sec_of(r) ||
        avail < VRIX_FRAME_HEADER_SIZE + static_cast<size_t>(len))
        return std::nullopt;
    const auto f = frame(ch, r);
    if (f.size() != VRIX_FRAME_HEADER_SIZE + len || !std::equal(f.begin(), f.end(), rec))
        return std::nullopt;
    return std::make_pair(ch, r);
}

// The frames whole in the first `size` bytes of an hour file that playback can
// reach: the run of whole workload frames from the file's start, from its
// first key frame on.
std::vector<uint32_t> whole_frames(const std::string &path, long long size) {
    const auto bytes = test::file_bytes(path);
    std::vector<uint32_t> out;
    size_t at = 0;
    bool keyed = false;
    const size_t end = std::min(bytes.size(), static_cast<size_t>(std::max(0LL, size)));
    while (at < end) {
        const auto id = identify(bytes.data() + at, end - at);
        if (!id) break;
        keyed = keyed || is_key(id->first, id->second);
        if (keyed) out.push_back(id->second);
        at += frame(id->first, id->second).size();
    }
    return out;
}

// Plays channel `ch` from the first round, forward and backward; every frame
// must be the workload's, handed over, in order.
std::set<uint32_t> play(const std::string &root, int ch, uint32_t handed, Verdict &v) {
    std::set<uint32_t> got;
    for (int dir : {1, -1}) {
        std::tm start = test::local_tm(dir == 1 ? sec_of(0) : sec_of(handed) + 10);
        PlayContext *p = vrix_db_open_get_video(&start, nullptr, ch, 1 << 18, root.c_str());
        if (!p) {
            v.fail("ch" + std::to_string(ch) + ": playback does not open");
            continue;
        }
        long long last = dir == 1 ? -1 : 1 << 30;
        for (int steps = 0; steps < 4 * kRounds; ++steps) {
            if ((dir == 1 ? vrix_db_next_video(p) : vrix_db_pre_video(p)) != 1) break;
            void *buf = nullptr;
            const int len = vrix_db_get_video(p, &buf);
            int sec = 0, word = 0;
            vrix_db_video_get_current_time(p, &sec, &word);
            const uint32_t r = static_cast<uint32_t>(word);
            const auto f = frame(ch, r);
            const bool ok = r < handed && sec == sec_of(r) &&
                            f.size() == VRIX_FRAME_HEADER_SIZE + static_cast<size_t>(len) &&
                            std::equal(f.begin() + VRIX_FRAME_HEADER_SIZE, f.end(),
                                       static_cast<unsigned char *>(buf));
            const bool ordered = dir == 1 ? r > last : r < last;
            if (!ok || !ordered) {
                v.fail("ch" + std::to_string(ch) + (dir == 1 ? " forward" : " backward") +
                       ": frame of time " + std::to_string(sec) + " word " + std::to_string(word) +
                       (ok ? " out of order" : " is wrong"));
                continue;
            }
            last = r;
            if (dir == 1) got.insert(r);
        }
        vrix_db_close_get_video(p);
    }
    return got;
}

// Every audio record of channel 1 whole in the hour files at the fault.
void check_audio(const std::string &root, const Report &rep, Verdict &v) {
    std::set<uint32_t> whole;
    for (const auto &[path, size] : rep.sizes) {
        if (path.find("/audio/1/") == std::string::npos) continue;
        const auto bytes = test::file_bytes(path);
        for (long long at = 0; at + 60 <= std::min<long long>(size, bytes.size()); at += 60) {
            uint32_t w[3];
            std::memcpy(w, bytes.data() + at, sizeof w);
            const VrixAudioBlock b = audio(w[2]);
            if (w[0] != 48 || w[2] >= 1000 || static_cast<int>(w[1]) != sec_of(w[2]) ||
                std::memcmp(bytes.data() + at + 12, b.piece[0], 48) != 0)
                break;
            whole.insert(w[2]);
        }
    }
    std::tm start = test::local_tm(sec_of(0));
    AudioPlayContext *p = vrix_db_open_get_audio(&start, nullptr, 1, 64, root.c_str());
    std::set<uint32_t> got;
    while (p && vrix_db_next_audio(p) == 1) {
        void *buf = nullptr;
        const int len = vrix_db_get_audio(p, &buf);
        uint32_t w[3];
        std::memcpy(w, buf, sizeof w);
        const VrixAudioBlock b = audio(w[2]);
        if (len != 60 || w[2] >= rep.rec.handed || static_cast<int>(w[1]) != sec_of(w[2]) ||
            std::memcmp(static_cast<unsigned char *>(buf) + 12, b.piece[0], 48) != 0)
            v.fail("audio: record of time " + std::to_string(w[1]) + " is wrong");
        else
            got.insert(w[2]);
    }
    if (p) vrix_db_close_get_audio(p);
    for (uint32_t r : whole)
        if (!got.count(r)) {
            v.fail("audio: record of round " + std::to_string(r) + " was whole on disk, lost");
            break;
        }
}

void check_events(const std::string &root, const Scenario &s, const Report &rep, Verdict &v) {
    std::tm start = test::local_tm(sec_of(0));
    EventQueryContext *q =
        vrix_db_open_get_event(&start, 0xFFFFu, 0, 0, 0x7F, root.c_str(), 20, 64, 0);
    std::set<uint32_t> got;
    for (int n; q && (n = vrix_db_next_event(q)) > 0;) {
        const EventRecord *page = vrix_db_get_event(q);
        for (int i = 0; i < n; ++i) {
            const auto &e = page[i];
            uint32_t r = 0;
            while (r < rep.rec.handed && !(has_event(r) && sec_of(r) == e.iSec))
                ++r;
            if (r == rep.rec.handed || e.iCh != event_ch(r) || e.iType != event_type(r))
                v.fail("event of time " + std::to_string(e.iSec) + " was never recorded");
            else
                got.insert(r);
        }
    }
    if (q) vrix_db_close_get_event(q);
    const uint32_t from = std::string(s.name) == "resume" ? kResumeAt : 0;
    int before = 0;
    for (uint32_t r = 0; r < rep.rec.handed; ++r) {
        if (!has_event(r)) continue;
        const bool base = r < s.base_rounds;
        const bool recorded_before_fault = r >= from && before++ < rep.rec.events_before_fault;
        if ((base || recorded_before_fault) && !got.count(r)) {
            v.fail("event of round " + std::to_string(r) + " was committed before the fault, lost");
            break;
        }
    }
}

// Every file of the store before the trial is still there or aside.
void check_nothing_deleted(const std::set<std::string> &before, const std::string &root,
                           const Scenario &s, Verdict &v) {
    std::error_code ec;
    std::set<std::string> now;
    for (fs::recursive_directory_iterator it(root, ec), end; !ec && it != end; it.increment(ec))
        now.insert(it->path().string());
    if (ec) {
        std::string beside;
        for (const auto &e : fs::directory_iterator(fs::path(root).parent_path(), ec))
            beside += " " + e.path().filename().string();
        return v.fail("cannot list " + root + " : " + ec.message() + "; beside it:" + beside);
    }
    for (const std::string &f : before) {
        if (now.count(f) || f.ends_with("-journal")) continue;
        const bool aside = std::any_of(now.begin(), now.end(), [&f](const std::string &x) {
            return x.starts_with(f + ".damaged-");
        });
        // Reduction removes the oldest hour's stream files on purpose.
        const bool reduced = s.reduces && f.ends_with("/22.stream");
        if (!aside && !reduced) v.fail(f + " was deleted");
    }
}

// A recorder resumes on the repaired store and what it records plays.
void check_service(const std::string &root, Verdict &v) {
    const uint32_t from = kRounds + 20, to = from + 12;
    record(root, from, to, true, [] { return false; });
    for (int ch = 1; ch <= kChannels; ++ch) {
        std::tm start = test::local_tm(sec_of(from));
        PlayContext *p = vrix_db_open_get_video(&start, nullptr, ch, 1 << 18, root.c_str());
        int frames = 0;
        while (p && vrix_db_next_video(p) == 1)
            ++frames;
        if (p) vrix_db_close_get_video(p);
        uint32_t first_key = from;
        while (!is_key(ch, first_key))
            ++first_key;
        if (frames < static_cast<int>(to - first_key))
            v.fail("ch" + std::to_string(ch) + ": after repair only " + std::to_string(frames) +
                   " of the new frames play");
    }
}

Verdict judge(const std::string &root, const Scenario &s, const Report &rep,
              const std::set<std::string> &before) {
    Verdict v;
    vrix_db_correct_all(root.c_str());
    if (std::string(s.name) != "events") {
        for (int ch = 1; ch <= kChannels; ++ch) {
            const std::set<uint32_t> got = play(root, ch, rep.rec.handed, v);
            for (const auto &[path, size] : rep.sizes) {
                if (path.find("/video/" + std::to_string(ch) + "/") == std::string::npos) continue;
                if (s.reduces && path.ends_with("/22.stream")) continue;
                for (uint32_t r : whole_frames(path, size))
                    if (!got.count(r)) {
                        v.fail("ch" + std::to_string(ch) + ": frame of round " + std::to_string(r) +
                               " was whole on disk, does not play");
                        break;
                    }
            }
        }
        if (!s.reduces) check_audio(root, rep, v);
    }
    check_events(root, s, rep, v);
    check_nothing_deleted(before, root, s, v);
    // A failed stream write or sync must reach the application.
    const bool data_fault =
        rep.fired && (rep.path.ends_with(".stream") || rep.op == "sync all") &&
        (rep.op == "write" || rep.op == "sync" || rep.op == "sync all" || rep.op == "truncate");
    if (data_fault && rep.told == 0) v.fail("the application was not told of the failed " + rep.op);
    check_service(root, v);
    return v;
}

// Trials that found defects: a page of event.db that could not be read taken
// for damage (the day's events set aside); an audio.db that could not be
// opened taken for a day without audio (the day removed).
struct Regression {
    const char *scenario;
    test::FaultKind kind;
    long n;
};
constexpr Regression kRegressions[] = {
    {"repair", test::FaultKind::IoError, 132},
    {"reduce", test::FaultKind::IoError, 6},
};

using test::env_number;

std::set<std::string> listing(const std::string &root) {
    std::set<std::string> out;
    for (const auto &e : fs::recursive_directory_iterator(root))
        out.insert(e.path().string());
    return out;
}

TEST(FaultSweep, EveryFaultLeavesTheStoreWhole) {
    if (const char *recipe = std::getenv("VRIX_FAULT_TRIAL")) trial_main(recipe);
    test::start_library();
    if (access("/dev/shm", W_OK) == 0) setenv("TMPDIR", "/dev/shm", 1);
    test::ScratchDir dir;
    const bool full = env_number("VRIX_LONG", 0) != 0;
    const long sample = env_number("VRIX_TRIALS", 6);
    const auto seed = static_cast<unsigned>(env_number("VRIX_SEED", std::random_device{}()));
    const char *only = std::getenv("VRIX_SWEEP");
    std::mt19937 rng(seed);
    std::printf("fault sweep: %s, VRIX_SEED=%u\n", full ? "every operation" : "a sample", seed);

    long trials = 0, failed = 0, not_fired = 0;
    for (const Scenario &s : scenarios()) {
        if (only && !std::string(only).empty() &&
            std::string(only).find(s.name) == std::string::npos)
            continue;
        // The store the scenario starts from, made once.
        const std::string base = dir / (std::string("base-") + s.name);
        fs::create_directories(base);
        if (s.base_rounds) record(base, 0, s.base_rounds, true, [] { return false; });
        if (s.damage) s.damage(base);
        for (test::FaultKind kind : test::kFaultKinds) {
            const char *only_kind = std::getenv("VRIX_SWEEP_KIND");
            if (only_kind && *only_kind && std::string(test::fault_name(kind)) != only_kind)
                continue;
            auto run = [&](long n, Report &rep, std::set<std::string> &before) {
                const std::string root = dir / "trial";
                fs::remove_all(root);
                fs::copy(base, root, fs::copy_options::recursive);
                before = listing(root);
                const std::string out = dir / "report";
                fs::remove(out);
                const std::string recipe = std::string(s.name) + "|" + root + "|" +
                                           std::to_string(static_cast<int>(kind)) + "|" +
                                           std::to_string(n) + "|" + out;
                const int log = open((dir / "trial.log").c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
                const pid_t pid = test::spawn_self("VRIX_FAULT_TRIAL", recipe, log);
                close(log);
                const int status = pid > 0 ? test::wait_status(pid) : -1;
                const auto r = read_report(out);
                if (!WIFEXITED(status) || WEXITSTATUS(status) != 0 || !r) {
                    std::printf("trial status %d, %s\n", status, r ? "report read" : "no report");
                    return false;
                }
                rep = *r;
                return true;
            };
            Report count;
            std::set<std::string> before;
            ASSERT_TRUE(run(0, count, before)) << s.name << ": the trial without a fault failed";
            std::vector<long> ns;
            for (long n = 1; n <= count.ops; ++n)
                ns.push_back(n);
            if (const long at = env_number("VRIX_SWEEP_AT", 0); at > 0) {
                ns.assign(1, at);
            } else if (!full) {
                std::shuffle(ns.begin(), ns.end(), rng);
                ns.resize(std::min<size_t>(ns.size(), static_cast<size_t>(sample)));
                // Operations that once found a defect, in the scenarios whose
                // operations come in a fixed order, always run.
                for (const Regression &k : kRegressions)
                    if (s.name == std::string(k.scenario) && kind == k.kind) ns.push_back(k.n);
            }
            long bad = 0;
            for (long n : ns) {
                Report rep;
                ++trials;
                if (!run(n, rep, before)) {
                    ++bad;
                    std::printf("%s, %s at operation %ld: the child crashed (see %s)\n", s.name,
                                test::fault_name(kind), n, (dir / "trial.log").c_str());
                    continue;
                }
                not_fired += !rep.fired;
                const Verdict v = judge(dir / "trial", s, rep, before);
                if (v.faults.empty()) continue;
                ++bad;
                std::printf("%s, %s at operation %ld of %ld (%s %s):\n", s.name,
                            test::fault_name(kind), n, count.ops, rep.op.c_str(), rep.path.c_str());
                for (const std::string &f : v.faults)
                    std::printf("    %s\n", f.c_str());
            }
            failed += bad;
            std::printf("fault sweep: %-7s %-11s %4ld operations, %4zu trials, %ld failed\n",
                        s.name, test::fault_name(kind), count.ops, ns.size(), bad);
        }
    }
    std::printf("fault sweep figures: %ld trials, %ld failed, %ld where the fault never struck, "
                "seed %u\n",
                trials, failed, not_fired, seed);
    EXPECT_EQ(failed, 0);
}

} // namespace
} // namespace vrix::sweep
