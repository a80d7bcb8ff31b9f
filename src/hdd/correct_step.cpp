// Progress of the integrity check, handed on to the application.
#include "vrixhdd.h"

#include <atomic>
#include <cstdio>
#include <mutex>

namespace {
std::mutex g_step_lock;
VrixCorrectStepFn g_step_fn = nullptr;
void *g_step_user = nullptr;
std::atomic<int> g_last_step{-1};
} // namespace

extern "C" int vrix_hdd_correct_step(int step) {
    g_last_step.store(step);
    VrixCorrectStepFn fn;
    void *user;
    {
        std::lock_guard<std::mutex> hold(g_step_lock);
        fn = g_step_fn;
        user = g_step_user;
    }
    if (fn)
        fn(step, user);
    else
        std::printf("correct step : %d\n", step);
    return 0;
}

extern "C" void vrix_hdd_set_correct_step_callback(VrixCorrectStepFn fn, void *user) {
    std::lock_guard<std::mutex> hold(g_step_lock);
    g_step_fn = fn;
    g_step_user = user;
}

extern "C" int vrix_hdd_last_correct_step(void) {
    return g_last_step.load();
}
