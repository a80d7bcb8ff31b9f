// The scale benchmarks' stores: 1 to 30 days x 16 channels x 24 hours with a
// key frame per second and an event every 10 s, made with the writer on the
// first run (minutes) and kept in the scratch directory between runs.  Shared
// by bench_play_video and bench_catalogue.
#pragma once

#include "bench_util.h"
#include "core/store_access.h"
#include "store/records.h"
#include "store/schema.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace scale {

constexpr int kChannels = 16;
constexpr int kDay0 = 1710028800; // 2024-03-10 00:00:00 UTC
constexpr int kFullCh = 1, kFullDay = 0, kFullHour = 12;
constexpr int kEventEvery = 10; // seconds between two events of a day

inline std::vector<unsigned char> frame(int ch, int sec, bool key, size_t payload) {
    std::vector<unsigned char> f(16 + payload, static_cast<unsigned char>(sec));
    vrix::pack_frame_header(f.data(), static_cast<uint32_t>(payload), sec, 0, 0);
    f[16 + 2] = key ? 0x05 : 0x41;
    f[16 + 36] = static_cast<unsigned char>(ch - 1);
    return f;
}

inline void rec(RecContext *ctx, const std::vector<unsigned char> &f) {
    vrix_db_rec_video(ctx, f.data(), static_cast<int>(f.size()));
}

inline int g_now;
inline int bench_now() {
    return g_now;
}

// Every channel-hour holds one small key frame per second; one channel-hour
// is recorded at 25 frames/s with encoder-sized frames.  Every day holds an
// event every kEventEvery seconds: the first through the recorder, the rest
// with its insert statement in one transaction.
inline void generate(const std::string &root, int days) {
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

    VrixTestHooks hooks{1, &bench_now};
    vrix_db_set_test_hooks(&hooks);
    EventRecContext *ev = vrix_db_open_rec_event(root.c_str());
    for (int d = 0; d < days; ++d) {
        const int day = kDay0 + d * 86400;
        g_now = day;
        vrix_db_rec_event(ev, 1, 1, 0, 0);
        std::string batch;
        char row[96];
        for (int s = kEventEvery; s < 86400; s += kEventEvery) {
            std::snprintf(row, sizeof row, vrix::sql::kInsertEvent, day + s, 1 + s % 16,
                          1 << (s % 7));
            batch += row;
        }
        char path[160];
        std::tm tm{};
        sec_to_tm(&tm, day);
        std::snprintf(path, sizeof path, "%s/%04d%02d%02d/event.db", root.c_str(),
                      tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday);
        SqlHandle db = nullptr;
        vrix::open_db(vrix::event_mutex(), path, db);
        vrix::commit_rows(vrix::event_mutex(), db, batch.c_str());
        vrix::close_db(vrix::event_mutex(), db);
    }
    vrix_db_close_rec_event(ev);
    vrix_db_set_test_hooks(nullptr);
}

// The store of `days`, made on the first run and kept (a marker file tells a
// finished one).
inline std::string store(int days) {
    const std::string root = bench::cache(("play_video_" + std::to_string(days) + "d").c_str());
    const std::string done = root + "/.complete";
    if (std::filesystem::exists(done)) return root;
    std::filesystem::remove_all(root);
    std::filesystem::create_directories(root);
    const bench::Usage g0 = bench::usage_now();
    generate(root, days);
    std::ofstream(done) << "complete\n";
    std::printf("store of %2d days    : generated in %.0f s\n", days,
                (bench::usage_now() - g0).wall);
    return root;
}

} // namespace scale
