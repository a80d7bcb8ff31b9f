// The picture of a recorded day: one row per channel, the recorded spans
// from the index shaded by key-frame density, event marks by type and an hour
// axis, as SVG.
#pragma once

#include "catalogue.h"

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

// An event mark: when, on which channel, of which type.
struct EventMark {
    int sec;
    int ch;
    int type;
};

struct TimelineData {
    long day = 0;                        // day key
    std::vector<std::vector<long>> keys; // per channel 1..16 (index 0 unused)
    std::vector<EventMark> events;
    long gap = 10;
    bool fullDay = false;
};

std::string render_timeline(const TimelineData &data);

// The events of [from, to) through the library's event query (the library
// started), in the order they were recorded.
std::vector<EventMark> events_between(const std::string &root, long from, long to);

// The day `day` of a store as SVG, from the catalogue's recorded seconds and
// the event query; `spans` receives the number of spans drawn.  A database
// that cannot be read is noted in `store`.
std::string draw_day(Catalogue &store, long day, long gap, bool fullDay, long &spans,
                     size_t &events);

} // namespace vrixtool
