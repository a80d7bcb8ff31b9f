#include "pacing.h"

#include "lock_check.h"
#include "root_lock.h"
#include "store/log.h"
#include "vrixdb.h"

#include <sys/time.h>

#include <ctime>
#include <unistd.h>

#include <atomic>

namespace vrix {
namespace {
std::atomic<unsigned> g_wait_divisor{1};
std::atomic<int (*)(void)> g_clock{nullptr};
std::atomic<unsigned long long> g_total_us{0};
thread_local bool t_unpaced = false;
} // namespace

unsigned long long paced_total_us() {
    return g_total_us.load();
}

PaceForRecorder::PaceForRecorder(const char *root, const char *who) : saved_(t_unpaced) {
    if (t_unpaced || !root || root_recorded(root)) return;
    t_unpaced = true;
    if (who) log_line("%s : no process records %s , not paced\n", who, root);
}

PaceForRecorder::~PaceForRecorder() {
    t_unpaced = saved_;
}

unsigned long paced_us(unsigned long us) {
    const unsigned d = g_wait_divisor.load();
    return us / (d ? d : 1);
}

void pace_sleep_us(unsigned long us) {
    require_no_db_lock("paced sleep");
    if (t_unpaced) return;
    g_total_us.fetch_add(us);
    usleep(static_cast<useconds_t>(paced_us(us)));
}

Now clock_now() {
    if (auto *fn = g_clock.load()) return {fn(), 0};
    timeval tv{};
    gettimeofday(&tv, nullptr);
    return {tv.tv_sec, tv.tv_usec};
}

long long interval_clock_ms() {
    if (auto *fn = g_clock.load()) return static_cast<long long>(fn()) * 1000;
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

} // namespace vrix

extern "C" void vrix_db_set_test_hooks(const VrixTestHooks *hooks) {
    vrix::g_wait_divisor.store(hooks && hooks->waitDivisor ? hooks->waitDivisor : 1);
    vrix::g_clock.store(hooks ? hooks->now : nullptr);
}
