// Playback: forward throughput of one channel-hour against plain fread of the
// same file, time from open to the first frame at random times, and backward
// key-frame steps per second, over a synthetic store of days x 16 channels x
// 24 hours.
//
//   bench_play_video [days=7] [opens=2000]
#include "bench_util.h"
#include "store/records.h"

#include <algorithm>
#include <filesystem>
#include <random>
#include <vector>

namespace {

constexpr int kChannels = 16;
constexpr int kDay0 = 1710028800; // 2024-03-10 00:00:00 UTC
constexpr int kFullCh = 1, kFullDay = 0, kFullHour = 12;

std::vector<unsigned char> frame(int ch, int sec, bool key, size_t payload) {
    std::vector<unsigned char> f(16 + payload, static_cast<unsigned char>(sec));
    vrix::pack_frame_header(f.data(), static_cast<uint32_t>(payload), sec, 0, 0);
    f[16 + 2] = key ? 0x05 : 0x41;
    f[16 + 36] = static_cast<unsigned char>(ch - 1);
    return f;
}

void rec(RecContext *ctx, const std::vector<unsigned char> &f) {
    vrix_db_rec_video(ctx, f.data(), static_cast<int>(f.size()));
}

// Every channel-hour holds one small key frame per second; one channel-hour
// is recorded at 25 frames/s with encoder-sized frames.
void generate(const std::string &root, int days) {
    g_iCommit[0] = 40; // batch the index rows: generation speed only
    RecContext *ctx = vrix_db_open_rec_video(root.c_str(), kChannels + 1);
    for (int ch = 1; ch <= kChannels; ++ch) {
        for (int d = 0; d < days; ++d) {
            for (int h = 0; h < 24; ++h) {
                const int base = kDay0 + d * 86400 + h * 3600;
                const bool full = ch == kFullCh && d == kFullDay && h == kFullHour;
                for (int s = 0; s < 3600; ++s) {
                    rec(ctx, frame(ch, base + s, true, full ? 30000 : 48));
                    for (int i = 1; full && i < 25; ++i)
                        rec(ctx, frame(ch, base + s, false, 6000));
                }
            }
        }
        vrix_db_rec_video_flush(ctx, ch);
    }
    vrix_db_close_rec_video(ctx);
    g_iCommit[0] = 0;
}

PlayContext *open_at(const std::string &root, int ch, int sec) {
    const time_t t = sec;
    std::tm tm{};
    localtime_r(&t, &tm);
    return vrix_db_open_get_video(&tm, nullptr, ch, 1 << 20, root.c_str());
}

double percentile(std::vector<double> v, double p) {
    std::sort(v.begin(), v.end());
    return v[static_cast<size_t>(p * static_cast<double>(v.size() - 1))];
}

} // namespace

int main(int argc, char **argv) {
    const int days = argc > 1 ? std::atoi(argv[1]) : 7;
    const int opens = argc > 2 ? std::atoi(argv[2]) : 2000;
    setenv("TZ", "UTC", 1);
    if (!bench::start_library()) return 1;
    const std::string root = bench::scratch("play_video");
    const bench::Usage g0 = bench::usage_now();
    generate(root, days);
    std::printf("store               : %d days x %d channels x 24 hours, generated in %.1f s\n",
                days, kChannels, (bench::usage_now() - g0).wall);

    // (a) forward play of the full channel-hour against fread of its file.
    const int hour0 = kDay0 + kFullDay * 86400 + kFullHour * 3600;
    const std::string file = root + "/20240310/video/1/12.stream";
    std::vector<unsigned char> buf(1 << 20);
    double base_best = 1e9, lib_best = 1e9, frames = 0, bytes = 0;
    for (int round = 0; round < 3; ++round) {
        FILE *fp = std::fopen(file.c_str(), "rb");
        const bench::Usage b0 = bench::usage_now();
        frames = bytes = 0;
        unsigned char head[16];
        while (std::fread(head, 1, 16, fp) == 16) {
            const uint32_t len = vrix::load_le32(head);
            if (std::fread(buf.data(), 1, len, fp) != len) break;
            frames += 1;
            bytes += 16 + len;
        }
        base_best = std::min(base_best, (bench::usage_now() - b0).wall);
        std::fclose(fp);

        PlayContext *p = open_at(root, kFullCh, hour0);
        vrix_db_video_set_end_time_forever(p);
        const bench::Usage l0 = bench::usage_now();
        double got = 0;
        while (got < frames && vrix_db_next_video(p) == 1)
            got += 1;
        lib_best = std::min(lib_best, (bench::usage_now() - l0).wall);
        vrix_db_close_get_video(p);
        if (got != frames) std::printf("forward play delivered %.0f of %.0f frames\n", got, frames);
    }
    std::printf("forward, one hour   : library %.0f MB/s (%.0f frames/s), fread %.0f MB/s, "
                "ratio %.2f\n",
                bytes / lib_best / 1e6, frames / lib_best, bytes / base_best / 1e6,
                base_best / lib_best);

    // (b) open to first frame at random times (warm page cache).
    std::mt19937 rng(42);
    std::vector<double> ms;
    for (int i = 0; i < opens; ++i) {
        const int ch = 1 + static_cast<int>(rng() % kChannels);
        const int sec = kDay0 + static_cast<int>(rng() % (static_cast<unsigned>(days) * 86400u));
        const bench::Usage t0 = bench::usage_now();
        PlayContext *p = open_at(root, ch, sec);
        const int ok = vrix_db_next_video(p);
        ms.push_back((bench::usage_now() - t0).wall * 1e3);
        vrix_db_close_get_video(p);
        if (!ok && sec < kDay0 + days * 86400 - 1) std::printf("no frame at %d ch%d\n", sec, ch);
    }
    std::printf("open to first frame: p50 %.3f ms, p99 %.3f ms (%d random opens)\n",
                percentile(ms, 0.5), percentile(ms, 0.99), opens);

    // (c) backward key-frame steps through a whole day of one channel.
    PlayContext *p = open_at(root, 2, kDay0 + 86400 - 1);
    const bench::Usage k0 = bench::usage_now();
    int steps = 0;
    while (steps < 86400 && vrix_db_pre_video(p) == 1)
        ++steps;
    const double kwall = (bench::usage_now() - k0).wall;
    vrix_db_close_get_video(p);
    std::printf("backward key frames: %.0f steps/s (%d steps)\n", steps / kwall, steps);
    std::printf("peak RSS            : %ld KiB\n", bench::peak_rss_kib());
    std::filesystem::remove_all(root);
    return 0;
}
