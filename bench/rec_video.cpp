// Recording throughput and durability: a synthetic 16-channel recorder
// through the library with the default sync interval and with syncing off,
// against raw writers of the same bytes into the same number of files: plain
// buffered fwrite, and fwrite made durable every half sync interval from a
// second thread the way the library does it (syncfs), or with an fdatasync of
// every file instead.
//
//   bench_rec_video [seconds of footage=240] [key KiB=60] [other KiB=8]
#include "bench_util.h"
#include "core/file_io.h"
#include "store/records.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace {

constexpr int kChannels = 16;
constexpr int kFps = 25;
constexpr int kStart = 1710064800; // an hour boundary

struct Frames {
    std::vector<unsigned char> key[kChannels + 1], other[kChannels + 1];
};

Frames make_frames(size_t key_bytes, size_t other_bytes) {
    Frames f;
    for (int ch = 1; ch <= kChannels; ++ch) {
        for (auto [buf, size, key] : {std::tuple{&f.key[ch], key_bytes, true},
                                      std::tuple{&f.other[ch], other_bytes, false}}) {
            buf->assign(size, static_cast<unsigned char>(ch * 13));
            vrix::pack_frame_header(buf->data(), static_cast<uint32_t>(size - 16), kStart, 0, 0);
            (*buf)[16 + 2] = key ? 0x05 : 0x41;
            (*buf)[16 + 36] = static_cast<unsigned char>(ch - 1);
        }
    }
    return f;
}

// Calls `emit(channel, frame)` for every frame of the footage, in the order
// a recorder delivers them, with the frame time set.
template <class Emit> void footage(Frames &f, int seconds, Emit emit) {
    for (int s = 0; s < seconds; ++s) {
        for (int i = 0; i < kFps; ++i) {
            for (int ch = 1; ch <= kChannels; ++ch) {
                auto &buf = i == 0 ? f.key[ch] : f.other[ch];
                vrix::store_le32(buf.data() + 4, static_cast<uint32_t>(kStart + s));
                emit(ch, buf);
            }
        }
    }
}

// Counts the library's syncs of the file system (its databases' own syncs of
// date.db at new hours are not counted).
struct SyncCount : vrix::io::Observer {
    std::atomic<long> n{0};
    void before(const vrix::io::Access &a) override { n += a.op == vrix::io::Op::SyncAll; }
};

enum class RawSync { None, Syncfs, Fdatasync };

// The raw writer: fwrite into one file per channel; unless None, a second
// thread writes out the stdio buffers and syncs every half interval, and the
// end is synced like a closing context.  Returns the syncs made.
long raw_writer(Frames &frames, int seconds, RawSync mode, const std::string &dir) {
    FILE *files[kChannels + 1] = {};
    for (int ch = 1; ch <= kChannels; ++ch)
        files[ch] = std::fopen((dir + "/" + std::to_string(ch) + ".stream").c_str(), "wb");
    const int dir_fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    std::atomic<long> syncs{0};
    const auto sync_all = [&] {
        for (int ch = 1; ch <= kChannels; ++ch)
            std::fflush(files[ch]);
        if (mode == RawSync::Syncfs) {
            syncfs(dir_fd);
            ++syncs;
        } else {
            for (int ch = 1; ch <= kChannels; ++ch, ++syncs)
                fdatasync(fileno(files[ch]));
        }
    };
    std::mutex m;
    std::condition_variable cv;
    bool done = false;
    std::thread syncer;
    if (mode != RawSync::None)
        syncer = std::thread([&] {
            std::unique_lock hold(m);
            const auto half = std::chrono::milliseconds(VRIX_DEFAULT_SYNC_INTERVAL_MS / 2);
            while (!cv.wait_for(hold, half, [&] { return done; }))
                sync_all();
        });
    footage(frames, seconds, [&](int ch, const std::vector<unsigned char> &buf) {
        std::fwrite(buf.data(), 1, buf.size(), files[ch]);
    });
    if (mode != RawSync::None) {
        {
            const std::lock_guard hold(m);
            done = true;
        }
        cv.notify_all();
        syncer.join();
        sync_all();
    }
    for (int ch = 1; ch <= kChannels; ++ch)
        std::fclose(files[ch]);
    close(dir_fd);
    return syncs;
}

long library_writer(Frames &frames, int seconds, int interval_ms, const std::string &root) {
    SyncCount count;
    if (interval_ms) vrix::io::set_observer(&count);
    vrix_db_set_sync_interval(interval_ms);
    RecContext *ctx = vrix_db_open_rec_video(root.c_str(), kChannels + 1);
    footage(frames, seconds, [&](int, const std::vector<unsigned char> &buf) {
        vrix_db_rec_video(ctx, buf.data(), static_cast<int>(buf.size()));
    });
    for (int ch = 1; ch <= kChannels; ++ch)
        vrix_db_rec_video_flush(ctx, ch);
    vrix_db_close_rec_video(ctx);
    vrix::io::set_observer(nullptr);
    vrix_db_set_sync_interval(VRIX_DEFAULT_SYNC_INTERVAL_MS);
    return count.n;
}

struct Phase {
    const char *name;
    std::function<long(const std::string &dir)> run; // returns its syncs
    bench::Usage best{1e9, 1e9};
    long syncs = 0;
};

} // namespace

int main(int argc, char **argv) {
    const int seconds = argc > 1 ? std::atoi(argv[1]) : 240;
    const size_t key = (argc > 2 ? std::atoi(argv[2]) : 60) * 1024;
    const size_t other = (argc > 3 ? std::atoi(argv[3]) : 8) * 1024;
    if (!bench::start_library()) return 1;
    Frames frames = make_frames(key, other);
    const double bytes = static_cast<double>(seconds) * kChannels * (key + (kFps - 1) * other);
    const double count = static_cast<double>(seconds) * kChannels * kFps;
    const int t = VRIX_DEFAULT_SYNC_INTERVAL_MS;

    // VRIX_BENCH_ONLY=n runs phase n alone (0-based).
    const int only =
        std::getenv("VRIX_BENCH_ONLY") ? std::atoi(std::getenv("VRIX_BENCH_ONLY")) : -1;
    Phase phases[] = {
        {"raw fwrite", [&](auto &d) { return raw_writer(frames, seconds, RawSync::None, d); }},
        {"lib, sync off", [&](auto &d) { return library_writer(frames, seconds, 0, d); }},
        {"raw + syncfs", [&](auto &d) { return raw_writer(frames, seconds, RawSync::Syncfs, d); }},
        {"lib, default T", [&](auto &d) { return library_writer(frames, seconds, t, d); }},
        {"raw + fdatasync",
         [&](auto &d) { return raw_writer(frames, seconds, RawSync::Fdatasync, d); }},
    };
    // Three rounds of each, interleaved (each library phase after the raw
    // writer it is compared with), each after a sync so that one phase's
    // write-back does not land on the next; the best round counts.
    for (int round = 0; round < 3; ++round) {
        for (Phase &p : phases) {
            if (only >= 0 && &p != &phases[only]) continue;
            const std::string dir = bench::scratch("rec_video");
            sync();
            const bench::Usage u0 = bench::usage_now();
            const long syncs = p.run(dir);
            const bench::Usage u = bench::usage_now() - u0;
            if (u.wall < p.best.wall) p.best = u, p.syncs = syncs;
            std::filesystem::remove_all(dir);
        }
    }

    const double mb = bytes / 1e6;
    std::printf("footage            : %d s x %d channels, %zu/%zu KiB frames, %.0f MB; T %d ms\n",
                seconds, kChannels, key / 1024, other / 1024, mb, t);
    for (const Phase &p : phases)
        std::printf("%-19s: %8.1f MB/s %9.0f frames/s  cpu %.2f s = %5.1f s per hour of footage, "
                    "%4.1f syncs/s\n",
                    p.name, mb / p.best.wall, count / p.best.wall, p.best.cpu,
                    p.best.cpu * 3600.0 / seconds, p.syncs / p.best.wall);
    const Phase &raw = phases[0], &off = phases[1], &raw_durable = phases[2], &lib = phases[3];
    std::printf("ratio lib default / raw + syncfs : %.2f throughput, %.2f cpu\n",
                raw_durable.best.wall / lib.best.wall, lib.best.cpu / raw_durable.best.cpu);
    std::printf("ratio lib sync off / raw fwrite  : %.2f throughput, %.2f cpu\n",
                raw.best.wall / off.best.wall, off.best.cpu / raw.best.cpu);
    std::printf("peak RSS           : %ld KiB\n", bench::peak_rss_kib());
    return 0;
}
