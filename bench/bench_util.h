// Shared pieces of the benchmarks: timing, resource use and scratch space.
#pragma once

#include "vrixdb.h"

#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace bench {

struct Usage {
    double wall, cpu;
};

inline Usage usage_now() {
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    const double cpu = ru.ru_utime.tv_sec + ru.ru_utime.tv_usec / 1e6 + ru.ru_stime.tv_sec +
                       ru.ru_stime.tv_usec / 1e6;
    const double wall =
        std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
    return {wall, cpu};
}

inline Usage operator-(Usage a, Usage b) {
    return {a.wall - b.wall, a.cpu - b.cpu};
}

inline long peak_rss_kib() {
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    return ru.ru_maxrss;
}

// Starts the library over fresh queues; the benchmarks own the machine.
inline bool start_library() {
    for (int key : {VRIX_SUBMIT_MQ_KEY, VRIX_RM_MQ_KEY, VRIX_RM_ACK_MQ_KEY}) {
        const int id = msgget(key, 0);
        if (id >= 0) msgctl(id, IPC_RMID, nullptr);
    }
    static int app = msgget(IPC_PRIVATE, IPC_CREAT | 0600);
    std::atexit([] { msgctl(app, IPC_RMID, nullptr); });
    return vrix_db_init(app) == 1;
}

inline std::string scratch(const char *name) {
    const char *base = std::getenv("VRIX_BENCH_DIR");
    auto dir = std::filesystem::path(base ? base : "bench-scratch") / name;
    std::filesystem::remove_all(dir);
    std::filesystem::create_directories(dir);
    return std::filesystem::absolute(dir).string();
}

// A directory kept between runs (stores that take long to make).
inline std::string cache(const char *name) {
    const char *base = std::getenv("VRIX_BENCH_DIR");
    auto dir = std::filesystem::path(base ? base : "bench-scratch") / name;
    std::filesystem::create_directories(dir);
    return std::filesystem::absolute(dir).string();
}

} // namespace bench
