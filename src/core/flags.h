// Atomic access to the exported flag words, the 1-microsecond poll, and the
// submit thread's hand-over, which waits on a condition instead.
#pragma once

#include <atomic>

namespace vrix {

inline int flag_get(int &word) {
    return std::atomic_ref<int>(word).load();
}
inline void flag_set(int &word, int value) {
    std::atomic_ref<int>(word).store(value);
}

// Sleeps one poll interval (1 microsecond) between reads of a flag or tries
// of a busy store.  No database mutex may be held.
void poll_pause();

// The hand-over words g_iDbSubmitThreadStop / g_iDbSubmitThreadStopAck keep
// their meaning for the applications that read them, but every change to them
// is made under one lock and announced, so that neither the parked thread nor
// a requester polls: a process that only started the library costs no CPU.
void handover_set(int &word, int value);
// Waits until `word` is non-zero (`raised`) or zero (not `raised`).
void handover_wait(int &word, bool raised);

} // namespace vrix
