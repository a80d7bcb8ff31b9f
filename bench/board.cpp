// The board benchmark: what a recorder of 16 video channels (25 frames/s, a
// key frame a second), 4 audio channels and events asks of the machine it
// runs on.
//
//   bench_board [minutes] [seconds]
//
// 1. Ingest: two minutes of 16 channels at 4 Mbit/s fed as fast as they go:
//    how many times real time, and CPU seconds per hour of footage.
// 2. Memory: `minutes` (60) of footage in virtual time (small frames, the
//    clock of the test hooks), with two players and an event pager stepping
//    every footage minute: resident memory beyond the process before the
//    library started, every ten minutes, and the peak.
// 3. The disk: `seconds` (10) of footage in real time at 2, 4 and 8 Mbit/s
//    per channel, with the default sync interval, without and with one
//    player, counted at the file seam: writes, syncs, and the places the
//    disk moves to (a write that does not continue the last operation on the
//    same file, a read elsewhere than where the last one ended, a sync: each
//    costs a seek), per second and as milliseconds of a 10 ms disk.
#include "bench_util.h"

#include "core/file_io.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <ctime>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int kChannels = 16;
constexpr int kFps = 25;
constexpr int kStart = 1710028800 + 8 * 3600; // 2024-03-10 08:00 UTC

std::atomic<int> g_now{kStart};
int virtual_now() {
    return g_now.load();
}

long rss_kib() {
    std::ifstream in("/proc/self/status");
    std::string line;
    while (std::getline(in, line))
        if (line.rfind("VmRSS:", 0) == 0) return std::atol(line.c_str() + 6);
    return 0;
}

// A frame of channel `ch` (1..16), key or not, `payload` bytes.
std::vector<unsigned char> frame(int ch, int sec, bool key, size_t payload) {
    std::vector<unsigned char> f(VRIX_FRAME_HEADER_SIZE + payload, 0x5a);
    // Scale 2, as the encoders hand it: the index committed every 11 key frames.
    const uint32_t words[4] = {static_cast<uint32_t>(payload), static_cast<uint32_t>(sec), 0, 2};
    std::memcpy(f.data(), words, sizeof words);
    f[VRIX_FRAME_HEADER_SIZE + VRIX_FRAME_KEY_BYTE] = key ? 0x00 : 0x40;
    f[VRIX_FRAME_HEADER_SIZE + VRIX_FRAME_CHANNEL_BYTE] = static_cast<unsigned char>(ch - 1);
    return f;
}

struct Recorder {
    RecContext *video = nullptr;
    AudioRecContext *audio = nullptr;
    EventRecContext *events = nullptr;
    std::vector<unsigned char> key[kChannels + 1], other[kChannels + 1];

    Recorder(const std::string &root, size_t bytes_per_frame) {
        video = vrix_db_open_rec_video(root.c_str(), kChannels + 1);
        audio = vrix_db_open_rec_audio(root.c_str(), VRIX_AUDIO_CHANNELS);
        events = vrix_db_open_rec_event(root.c_str());
        const size_t payload = std::max<size_t>(bytes_per_frame, 64);
        for (int ch = 1; ch <= kChannels; ++ch) {
            key[ch] = frame(ch, 0, true, payload * 3);
            other[ch] = frame(ch, 0, false, payload * (kFps - 3) / (kFps - 1));
        }
    }
    ~Recorder() {
        for (int ch = 1; ch <= kChannels; ++ch)
            vrix_db_rec_video_flush(video, ch);
        vrix_db_close_rec_video(video);
        vrix_db_rec_audio_flush(audio);
        vrix_db_close_rec_audio(audio);
        vrix_db_close_rec_event(events);
    }
    // One second of footage of every channel, an audio block, an event
    // every ten seconds.
    void second(int sec) {
        g_now = sec;
        for (int i = 0; i < kFps; ++i)
            for (int ch = 1; ch <= kChannels; ++ch) {
                auto &f = i == 0 ? key[ch] : other[ch];
                const uint32_t s = static_cast<uint32_t>(sec);
                std::memcpy(f.data() + 4, &s, 4);
                vrix_db_rec_video(video, f.data(), static_cast<int>(f.size()));
            }
        VrixAudioBlock b{};
        b.iSec = static_cast<uint32_t>(sec);
        vrix_db_rec_audio(audio, &b);
        if (sec % 10 == 0) {
            std::tm tm{};
            const time_t t = sec;
            gmtime_r(&t, &tm);
            db_insert_event(events, 0, 0, &tm, t, 0, 1 + sec % kChannels, 2);
        }
    }
};

std::tm tm_of(int sec) {
    std::tm tm{};
    const time_t t = sec;
    gmtime_r(&t, &tm);
    return tm;
}

// Counts what reaches the disk: writes, syncs and seeks.
struct DiskCount : vrix::io::Observer {
    std::mutex m;
    std::string last_path;
    long long last_end = -1;
    long writes = 0, reads = 0, syncs = 0, seeks = 0;
    void before(const vrix::io::Access &) override {}
    void after(const vrix::io::Access &a) override {
        using vrix::io::Op;
        const std::lock_guard hold(m);
        switch (a.op) {
        case Op::Write:
        case Op::Read: {
            (a.op == Op::Write ? writes : reads)++;
            if (!a.path || last_path != a.path || last_end != a.offset) ++seeks;
            last_path = a.path ? a.path : "";
            last_end = a.offset + static_cast<long long>(a.length);
            break;
        }
        case Op::Sync:
        case Op::SyncDir:
        case Op::SyncAll:
            ++syncs;
            ++seeks;
            last_path.clear();
            break;
        default:
            break;
        }
    }
};

void ingest() {
    const std::string root = bench::scratch("board_ingest");
    const int seconds = 120;
    const size_t frame_bytes = 4000000 / 8 / kFps;
    const bench::Usage u0 = bench::usage_now();
    {
        Recorder rec(root, frame_bytes);
        for (int s = 0; s < seconds; ++s)
            rec.second(kStart + s);
    }
    const bench::Usage u = bench::usage_now() - u0;
    std::printf("ingest, 16 ch x 4 Mbit/s, %d s of footage: %.1f s, %.0fx real time, "
                "%.1f CPU s per hour of footage\n",
                seconds, u.wall, seconds / u.wall, u.cpu * 3600 / seconds);
}

void memory(int minutes) {
    const std::string root = bench::scratch("board_memory");
    VrixTestHooks hooks{1, virtual_now};
    vrix_db_set_test_hooks(&hooks);
    const long base = rss_kib();
    long peak = 0;
    {
        Recorder rec(root, 64);
        rec.second(kStart);
        std::tm from = tm_of(kStart);
        PlayContext *p1 = vrix_db_open_get_video(&from, nullptr, 1, 512 * 1024, root.c_str());
        PlayContext *p2 = vrix_db_open_get_video(&from, nullptr, 2, 512 * 1024, root.c_str());
        EventQueryContext *pager =
            vrix_db_open_get_event(&from, 0xffffffffu, 0, 1, 0x7f, root.c_str(), 100, 64 * 1024, 0);
        std::printf("memory, %d min of footage, 2 players, an event pager (KiB beyond %ld):",
                    minutes, base);
        for (int s = 1; s <= minutes * 60; ++s) {
            rec.second(kStart + s);
            if (s % 60 == 0) {
                for (int i = 0; i < kFps; ++i) {
                    vrix_db_next_video(p1);
                    vrix_db_next_video(p2);
                }
                vrix_db_next_event(pager);
            }
            if (s % 60 == 0) peak = std::max(peak, rss_kib() - base);
            if (s % 600 == 0) std::printf(" %dmin %ld", s / 60, rss_kib() - base);
        }
        vrix_db_close_get_video(p1);
        vrix_db_close_get_video(p2);
        vrix_db_close_get_event(pager);
    }
    std::printf("; peak %ld KiB (%.1f MiB)\n", peak, peak / 1024.0);
    vrix_db_set_test_hooks(nullptr);
}

void disk(int seconds) {
    std::printf("disk, %d s of footage in real time, sync interval %d ms:\n", seconds,
                VRIX_DEFAULT_SYNC_INTERVAL_MS);
    std::printf("  Mbit/s/ch  player  writes/s  reads/s  syncs/s  seeks/s  ms/s on a 10 ms disk\n");
    for (int mbit : {2, 4, 8})
        for (bool player : {false, true}) {
            const std::string root = bench::scratch("board_disk");
            DiskCount count;
            const int start = static_cast<int>(std::time(nullptr));
            // Installed first: only databases opened while it is are seen.
            vrix::io::set_observer(&count);
            {
                Recorder rec(root, static_cast<size_t>(mbit) * 1000000 / 8 / kFps);
                rec.second(start);
                PlayContext *p = nullptr;
                if (player) {
                    std::tm from = tm_of(start);
                    p = vrix_db_open_get_video(&from, nullptr, 1, 1024 * 1024, root.c_str());
                }
                {
                    const std::lock_guard hold(count.m);
                    count.writes = count.reads = count.syncs = count.seeks = 0;
                }
                for (int s = 1; s <= seconds; ++s) {
                    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(1);
                    rec.second(start + s);
                    for (int i = 0; p && i < kFps && vrix_db_next_video(p) == 1; ++i) {
                    }
                    std::this_thread::sleep_until(until);
                }
                vrix_db_close_get_video(p);
            }
            vrix::io::set_observer(nullptr);
            const double n = seconds;
            std::printf("  %9d  %6s  %8.1f  %7.1f  %7.1f  %7.1f  %5.0f\n", mbit,
                        player ? "one" : "none", count.writes / n, count.reads / n, count.syncs / n,
                        count.seeks / n, count.seeks / n * 10);
        }
}

} // namespace

int main(int argc, char **argv) {
    const int minutes = argc > 1 ? std::atoi(argv[1]) : 60;
    const int seconds = argc > 2 ? std::atoi(argv[2]) : 10;
    const long before = rss_kib();
    if (!bench::start_library()) return 1;
    std::printf("resident: %ld KiB before the library started, %ld KiB after\n", before, rss_kib());
    memory(minutes);
    ingest();
    disk(seconds);
    return 0;
}
