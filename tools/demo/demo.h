// The demo: a synthetic 16-channel recorder run against the library in
// virtual time, then played back, queried and checked.  Each step prints one
// line of figures with ok or FAIL.
#pragma once

#include "synth.h"

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace vrixtool {

struct Demo {
    std::string root;
    FILE *out = nullptr; // the report (the library's own lines go to a log)
    long t0 = 0;         // first recorded second
    long t1 = 0;         // one past the last
    int playCh = 7;      // the channel played back (one that records all the time)
    unsigned scale = 0;  // scale word of every frame

    // What was written.
    long frames = 0;
    long keys = 0;
    int64_t bytes = 0;
    int64_t channelBytes[kDemoChannels + 1] = {};
    long audioBlocks = 0;
    int audioCh = 2; // the audio channel played back
    std::vector<DemoEvent> events;

    int checks = 0;
    int failed = 0;

    long seconds() const { return t1 - t0; }
    // One step's line; counts the check.
    void result(const char *step, bool ok, const std::string &figures);
};

// The virtual clock the library stamps events with while the demo runs.
void set_virtual_now(long sec);
int virtual_now();

// The steps, in the order the demo runs them.
void step_record(Demo &d);
void step_index(Demo &d);
void step_play_forward(Demo &d);
void step_play_backward(Demo &d);
void step_key_frames(Demo &d);
void step_audio(Demo &d);
void step_events(Demo &d);
void step_sizes(Demo &d);
void step_ranges(Demo &d);
void step_backup_repair(Demo &d);
void step_reduce(Demo &d);

// printf into a std::string.
std::string strf(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

} // namespace vrixtool
