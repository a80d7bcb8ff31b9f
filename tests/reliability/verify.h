// Reading a store back through the library and judging every frame and event
// against the workload generator.
#pragma once

#include "workload.h"

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

namespace vrix::rel {

// Whether the frame of (channel, round) / the event of a round was handed to
// the library at all.
using FrameWritten = std::function<bool(int ch, uint32_t round)>;
using EventWritten = std::function<bool(uint32_t round)>;

struct Walk {
    std::vector<uint32_t> rounds; // delivered, in delivery order
    uint64_t wrong = 0;           // not the generator's frame, never written, or out of order
    bool opened = false;
    std::string first_fault;

    void fault(const std::string &what) {
        if (wrong++ == 0) first_fault = what;
    }
};

enum class Mode { Forward, KeyFrames, Backward };

// Plays channel `ch` from `from_sec` to the end of the recording (forward
// modes) or back to its start (backward), at most `max_steps` frames.
// Forward play must deliver rounds in strictly increasing order, backward in
// strictly decreasing order; a frame delivered twice or out of place is
// wrong.  Key-frame and backward play must deliver key frames only.
inline Walk play(const std::string &root, int ch, int from_sec, Mode mode,
                 const FrameWritten &written, uint64_t max_steps = UINT64_MAX) {
    Walk w;
    std::tm start = test::local_tm(from_sec);
    PlayContext *p = vrix_db_open_get_video(&start, nullptr, ch, kPlayBuf, root.c_str());
    if (!p) return w;
    w.opened = true;
    if (mode == Mode::KeyFrames) vrix_db_video_set_i_mode(p, 1, 1);
    long long last = mode == Mode::Backward ? (1ll << 40) : -1;
    for (uint64_t n = 0; n < max_steps && w.wrong < 100; ++n) {
        const int got = mode == Mode::Backward ? vrix_db_pre_video(p) : vrix_db_next_video(p);
        if (got != 1) break;
        void *buf = nullptr;
        const int len = vrix_db_get_video(p, &buf);
        int sec = 0, sec2 = 0;
        vrix_db_video_get_current_time(p, &sec, &sec2);
        const int scale = vrix_db_video_get_current_scale(p);
        const auto r = identify(ch, sec, sec2, scale, buf, len);
        char what[160];
        std::snprintf(what, sizeof what, "ch%d: frame of time %d, word %d, length %d", ch, sec,
                      sec2, len);
        if (!r) {
            w.fault(std::string(what) + " is not a frame that was written");
            continue;
        }
        if (!written(ch, *r)) {
            w.fault(std::string(what) + " was never handed to the writer");
            continue;
        }
        const bool in_order = mode == Mode::Backward ? *r < last : *r > last;
        if (!in_order) {
            w.fault(std::string(what) + " comes out of order after round " + std::to_string(last));
            continue;
        }
        if (mode != Mode::Forward && !is_key(ch, *r)) {
            w.fault(std::string(what) + " is not a key frame");
            continue;
        }
        last = *r;
        w.rounds.push_back(*r);
    }
    vrix_db_close_get_video(p);
    return w;
}

// Plays audio channel `ch` forward from `from_sec` to the end: every record
// must be the generator's, written, and later than the one before.
inline Walk play_audio(const std::string &root, int ch, int from_sec,
                       const std::function<bool(uint32_t round)> &written) {
    Walk w;
    std::tm start = test::local_tm(from_sec);
    AudioPlayContext *p = vrix_db_open_get_audio(&start, nullptr, ch, 64, root.c_str());
    if (!p) return w;
    w.opened = true;
    long long last = -1;
    while (w.wrong < 100 && vrix_db_next_audio(p) == 1) {
        void *buf = nullptr;
        const int len = vrix_db_get_audio(p, &buf);
        const auto r = identify_audio(ch, static_cast<const unsigned char *>(buf), len);
        const std::string what = "audio ch" + std::to_string(ch) + ": record of time " +
                                 std::to_string(vrix_get_audio_sec(p));
        if (!r || !written(*r))
            w.fault(what + (r ? " was never written" : " is not a record that was written"));
        else if (*r <= last)
            w.fault(what + " comes out of order after round " + std::to_string(last));
        else
            w.rounds.push_back(static_cast<uint32_t>(last = *r));
    }
    vrix_db_close_get_audio(p);
    return w;
}

struct EventWalk {
    std::vector<uint32_t> rounds; // forward pages, in order
    uint64_t pages = 0;
    uint64_t wrong = 0;
    std::string first_fault;
};

// Pages through every event from `from_sec` forwards to the end, then back a
// few pages.  Each record must be an event that was written; forward pages
// must run in strictly increasing time.
inline EventWalk page_events(const std::string &root, int from_sec, const EventWritten &written,
                             int page_size = 37) {
    EventWalk w;
    auto fault = [&w](const EventRecord &e, const char *why) {
        if (w.wrong++ == 0)
            w.first_fault = "event of time " + std::to_string(e.iSec) + ", channel " +
                            std::to_string(e.iCh) + ", type " + std::to_string(e.iType) + " " + why;
    };
    std::tm start = test::local_tm(from_sec);
    EventQueryContext *q =
        vrix_db_open_get_event(&start, 0xFFFFu, 0, 0, 0x7F, root.c_str(), page_size, 64, 0);
    if (!q) return w;
    long long last = -1;
    for (int n; (n = vrix_db_next_event(q)) > 0;) {
        ++w.pages;
        const EventRecord *page = vrix_db_get_event(q);
        for (int i = 0; i < n; ++i) {
            const auto r = identify_event(page[i]);
            if (!r || !written(*r)) {
                fault(page[i], r ? "was never written" : "is not one the recorder makes");
            } else if (*r <= last) {
                fault(page[i], "comes out of order");
            } else {
                last = *r;
                w.rounds.push_back(*r);
            }
        }
    }
    for (int back = 0; back < 4; ++back) {
        const int n = vrix_db_pre_event(q);
        if (n <= 0) break;
        const EventRecord *page = vrix_db_get_event(q);
        for (int i = 0; i < n; ++i)
            if (const auto r = identify_event(page[i]); !r || !written(*r))
                fault(page[i], "paged backwards was never written");
    }
    vrix_db_close_get_event(q);
    return w;
}

} // namespace vrix::rel
