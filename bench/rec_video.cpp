// Recording throughput: a synthetic 16-channel recorder against a baseline
// that writes the same bytes into the same hourly files with plain buffered
// fwrite and no index.
//
//   bench_rec_video [seconds of footage=120] [key KiB=60] [other KiB=8]
#include "bench_util.h"
#include "store/records.h"

#include <unistd.h>

#include <cstring>
#include <filesystem>
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

} // namespace

int main(int argc, char **argv) {
    const int seconds = argc > 1 ? std::atoi(argv[1]) : 120;
    const size_t key = (argc > 2 ? std::atoi(argv[2]) : 60) * 1024;
    const size_t other = (argc > 3 ? std::atoi(argv[3]) : 8) * 1024;
    if (!bench::start_library()) return 1;
    Frames frames = make_frames(key, other);
    const double bytes = static_cast<double>(seconds) * kChannels * (key + (kFps - 1) * other);
    const double count = static_cast<double>(seconds) * kChannels * kFps;

    // Three rounds of each, alternating, each after a sync so that one
    // phase's write-back does not land on the other; the best round counts.
    bench::Usage base{1e9, 1e9}, lib{1e9, 1e9};
    for (int round = 0; round < 3; ++round) {
        const std::string base_dir = bench::scratch("rec_video_baseline");
        FILE *files[kChannels + 1] = {};
        for (int ch = 1; ch <= kChannels; ++ch)
            files[ch] = std::fopen((base_dir + "/" + std::to_string(ch) + ".stream").c_str(), "wb");
        sync();
        const bench::Usage b0 = bench::usage_now();
        footage(frames, seconds, [&](int ch, const std::vector<unsigned char> &buf) {
            std::fwrite(buf.data(), 1, buf.size(), files[ch]);
        });
        for (int ch = 1; ch <= kChannels; ++ch)
            std::fclose(files[ch]);
        const bench::Usage b = bench::usage_now() - b0;
        if (b.wall < base.wall) base = b;
        std::filesystem::remove_all(base_dir);

        const std::string root = bench::scratch("rec_video_library");
        sync();
        const bench::Usage l0 = bench::usage_now();
        RecContext *ctx = vrix_db_open_rec_video(root.c_str(), kChannels + 1);
        footage(frames, seconds, [&](int, const std::vector<unsigned char> &buf) {
            vrix_db_rec_video(ctx, buf.data(), static_cast<int>(buf.size()));
        });
        for (int ch = 1; ch <= kChannels; ++ch)
            vrix_db_rec_video_flush(ctx, ch);
        vrix_db_close_rec_video(ctx);
        const bench::Usage l = bench::usage_now() - l0;
        if (l.wall < lib.wall) lib = l;
        std::filesystem::remove_all(root);
    }

    const double mb = bytes / 1e6;
    std::printf("footage            : %d s x %d channels, %zu/%zu KiB frames, %.0f MB\n", seconds,
                kChannels, key / 1024, other / 1024, mb);
    std::printf("baseline fwrite    : %8.1f MB/s %10.0f frames/s  cpu %.2f s\n", mb / base.wall,
                count / base.wall, base.cpu);
    std::printf("libvrixdb          : %8.1f MB/s %10.0f frames/s  cpu %.2f s\n", mb / lib.wall,
                count / lib.wall, lib.cpu);
    std::printf("ratio lib/baseline : %.2f (throughput)\n", base.wall / lib.wall);
    std::printf("cpu per hour of 16-channel footage: %.1f s (baseline %.1f s)\n",
                lib.cpu * 3600.0 / seconds, base.cpu * 3600.0 / seconds);
    std::printf("peak RSS           : %ld KiB\n", bench::peak_rss_kib());
    return 0;
}
