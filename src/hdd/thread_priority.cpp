// Reports a thread's scheduling policy and priority.
#include "vrixhdd.h"

#include <sched.h>

#include <cstdio>

namespace {
const char *policy_name(int policy) {
    switch (policy) {
    case SCHED_OTHER:
        return "SCHED_OTHER";
    case SCHED_FIFO:
        return "SCHED_FIFO";
    case SCHED_RR:
        return "SCHED_RR";
#ifdef SCHED_BATCH
    case SCHED_BATCH:
        return "SCHED_BATCH";
#endif
#ifdef SCHED_IDLE
    case SCHED_IDLE:
        return "SCHED_IDLE";
#endif
    default:
        return "unknown";
    }
}
} // namespace

extern "C" int vrix_thread_print_priority(pthread_t thread) {
    int policy = 0;
    sched_param param{};
    if (pthread_getschedparam(thread, &policy, &param) != 0) {
        std::puts("vrix thread : get priority fail");
        return -1;
    }
    std::printf("vrix thread : policy %s , priority %d\n", policy_name(policy),
                param.sched_priority);
    return param.sched_priority;
}
