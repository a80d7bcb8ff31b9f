// The picture of a recorded day: one row per channel, the recorded spans
// from the index shaded by key-frame density, event marks by type and an hour
// axis, as SVG.
#pragma once

#include "store_index.h"

#include <string>
#include <vector>

namespace vrixtool {

struct Span {
    int ch;
    long start; // first key frame
    long end;   // one second past the last key frame of the span
    long keys;
};

// Spans of one channel: key frames (ascending) closer than `gap` seconds
// belong to one span.
std::vector<Span> spans_of(int ch, const std::vector<long> &keySecs, long gap);

struct TimelineData {
    long day = 0;                        // day key
    std::vector<std::vector<long>> keys; // per channel 1..16 (index 0 unused)
    std::vector<EventRow> events;
    long gap = 10;
    bool fullDay = false;
};

std::string render_timeline(const TimelineData &data);

// The day `day` of a store as SVG; `spans` receives the number of spans drawn.
std::string draw_day(StoreIndex &store, long day, long gap, bool fullDay, long &spans,
                     size_t &events);

} // namespace vrixtool
