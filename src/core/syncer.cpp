#include "syncer.h"

#include "file_io.h"
#include "pacing.h"
#include "store/log.h"
#include "sync_point.h"
#include "vrixdb.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

namespace vrix {
namespace {

std::atomic<int> g_interval_ms{VRIX_DEFAULT_SYNC_INTERVAL_MS};

struct Syncer {
    std::mutex mutex; // the sources; held across a pass
    std::condition_variable wake;
    std::vector<SyncSource> sources;
    std::thread thread;
    unsigned run = 0;           // a thread runs while this is its number
    long long last_pass_ms = 0; // clock time the last pass began; 0 = none yet
};

Syncer &syncer() {
    static Syncer s;
    return s;
}

long long clock_ms() {
    const Now n = clock_now();
    return static_cast<long long>(n.sec) * 1000 + n.usec / 1000;
}

// Writes out every context's buffers, then one syncfs per distinct root.
void pass(Syncer &s) {
    for (const SyncSource &src : s.sources)
        if (src.write_out) src.write_out(src.owner);
    VRIX_SYNC_POINT("syncer:written_out");
    for (size_t i = 0; i < s.sources.size(); ++i) {
        const char *root = s.sources[i].root;
        const bool seen =
            std::any_of(s.sources.begin(), s.sources.begin() + i,
                        [root](const SyncSource &o) { return std::strcmp(o.root, root) == 0; });
        if (!seen && !io::sync_all(root)) log_line("vrix db : cannot sync %s\n", root);
    }
}

// Looks at the clock every eighth of the interval (divided by the test
// hook's wait divisor) and passes once half an interval has gone by since
// the last pass began: a byte handed over at t is durable by about
// t + 5/8 T plus the time of one pass.
void run(Syncer &s, unsigned mine) {
    std::unique_lock hold(s.mutex);
    while (s.run == mine) {
        const int t = g_interval_ms.load();
        if (t <= 0) {
            s.wake.wait(hold);
            continue;
        }
        // Never below 200 us, so that a large divisor does not spin.
        const unsigned long poll = std::max(200UL, paced_us(t * 1000UL / 8));
        s.wake.wait_for(hold, std::chrono::microseconds(poll));
        if (s.run != mine || g_interval_ms.load() <= 0) continue;
        const long long now = clock_ms();
        if (!s.last_pass_ms || now < s.last_pass_ms || now - s.last_pass_ms >= t / 2) {
            s.last_pass_ms = now;
            pass(s);
        }
        VRIX_SYNC_POINT("syncer:looked");
    }
}

} // namespace

void syncer_add(const SyncSource &src) {
    Syncer &s = syncer();
    const std::lock_guard hold(s.mutex);
    s.sources.push_back(src);
    if (s.sources.size() == 1) {
        s.last_pass_ms = 0;
        s.thread = std::thread([&s, mine = s.run] { run(s, mine); });
    }
}

void syncer_remove(void *owner) {
    Syncer &s = syncer();
    std::thread done;
    {
        const std::lock_guard hold(s.mutex);
        const auto it = std::find_if(s.sources.begin(), s.sources.end(),
                                     [owner](const SyncSource &o) { return o.owner == owner; });
        if (it == s.sources.end()) return;
        s.sources.erase(it);
        if (s.sources.empty()) {
            ++s.run; // a thread started after this one runs under the next number
            done = std::move(s.thread);
        }
    }
    s.wake.notify_all();
    if (done.joinable()) done.join();
}

void sync_closed(const char *root) {
    if (g_interval_ms.load() > 0 && root && !io::sync_all(root))
        log_line("vrix db : cannot sync %s\n", root);
}

int sync_interval_ms() {
    return g_interval_ms.load();
}

} // namespace vrix

extern "C" int vrix_db_set_sync_interval(int milliseconds) {
    using namespace vrix;
    if (milliseconds < 0) {
        log_line("vrix_db_set_sync_interval : %d ms out of range , kept %d\n", milliseconds,
                 g_interval_ms.load());
        return g_interval_ms.load();
    }
    Syncer &s = syncer();
    int before;
    {
        const std::lock_guard hold(s.mutex); // a parked thread cannot miss the change
        before = g_interval_ms.exchange(milliseconds);
    }
    s.wake.notify_all();
    return before;
}
