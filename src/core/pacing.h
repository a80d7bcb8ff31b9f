// The library's fixed waits and its clock, both shortened or replaced only
// through vrix_db_set_test_hooks (tests and demos).
#pragma once

namespace vrix {

// A fixed wait of the library divided by the hooks' wait divisor.
unsigned long paced_us(unsigned long us);
// Sleeps a fixed wait of the library, divided by the hooks' wait divisor.
void pace_sleep_us(unsigned long us);
inline void pace_sleep_s(unsigned s) {
    pace_sleep_us(s * 1000000UL);
}

// Every fixed wait asked for on any thread since the start, in microseconds
// before the divisor (what the waits would have taken without the hooks);
// waits skipped by a PaceForRecorder are not counted.  For tests.
unsigned long long paced_total_us();

// The reduction's waits leave the disk to a recorder of the store.  While
// this lives, the fixed waits of the calling thread are skipped when no
// process records `root` (neither this one nor another holds its recording
// lock), and `who` (when not null) says so in one line; with a recorder they
// stay.
class PaceForRecorder {
  public:
    PaceForRecorder(const char *root, const char *who);
    ~PaceForRecorder();
    PaceForRecorder(const PaceForRecorder &) = delete;
    PaceForRecorder &operator=(const PaceForRecorder &) = delete;

  private:
    bool saved_;
};

// Seconds and microseconds of the current time: the real clock unless a test
// clock is installed.
struct Now {
    long sec;
    long usec;
};
Now clock_now();

// Milliseconds for measuring intervals: the test hooks' clock when one is
// set, else the monotonic clock, which a step of the wall clock leaves alone.
long long interval_clock_ms();

} // namespace vrix
