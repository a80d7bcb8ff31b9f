// Atomic access to the exported flag words, and the 1-microsecond poll.
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

// Waits until `word` is non-zero.
inline void wait_flag(int &word) {
    while (flag_get(word) == 0)
        poll_pause();
}

} // namespace vrix
