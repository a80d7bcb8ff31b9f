// CPU that a process spends doing nothing after vrix_db_init: a player, a
// viewer or the command-line program that starts the library and waits.
// Measures the process's CPU seconds (all threads) over a stretch of idle
// wall time, after the same stretch of a process that never started the
// library, and scales both to a minute.
//
//   bench_idle [seconds]   default 10
#include "bench_util.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace {

double cpu_per_minute(unsigned seconds) {
    const bench::Usage before = bench::usage_now();
    sleep(seconds);
    const bench::Usage d = bench::usage_now() - before;
    return d.cpu * 60.0 / d.wall;
}

} // namespace

int main(int argc, char **argv) {
    const unsigned seconds = argc > 1 ? static_cast<unsigned>(std::atoi(argv[1])) : 10;
    if (seconds == 0) {
        std::fprintf(stderr, "usage: bench_idle [seconds]\n");
        return 2;
    }
    const double baseline = cpu_per_minute(seconds);
    if (!bench::start_library()) {
        std::fprintf(stderr, "bench_idle : vrix_db_init failed\n");
        return 1;
    }
    const double idle = cpu_per_minute(seconds);
    std::printf("idle after vrix_db_init: %.4f CPU s per minute (measured over %u s); "
                "without the library %.4f\n",
                idle, seconds, baseline);
    return 0;
}
