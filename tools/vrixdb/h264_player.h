// The stored H.264 access units of one channel as the library plays them
// back, with their recorded times: what export-mp4 and serve mux.
#pragma once

#include "h264.h"
#include "vrixdb.h"

#include <string>

namespace vrixtool {

struct PlayedUnit {
    long sec;
    int ms; // the second time word: milliseconds within the second
    Unwrapped unit;
};

class H264Player {
  public:
    // Opens channel `ch` at `from`; `end` is the library's end time (the
    // second after the span) or 0 to follow a recording in progress.
    H264Player(const std::string &root, int ch, long from, long end, int bufSize);
    ~H264Player();
    H264Player(const H264Player &) = delete;
    H264Player &operator=(const H264Player &) = delete;

    bool ok() const { return ctx_ != nullptr; }
    // Forward play of every `step`-th key frame only.
    void key_frames_only(int step);

    enum class Step { Unit, Foreign, NotYet, End };
    // The next access unit forward (or the previous key frame backward).
    // Foreign: a frame without the H.264 prefix (counted); NotYet: nothing
    // more for now (the end of a recording in progress, or a record still in
    // the writer's buffer); End: the span is over.
    Step next(PlayedUnit &out, bool backward = false);
    long foreign() const { return foreign_; }

  private:
    PlayContext *ctx_ = nullptr;
    long foreign_ = 0;
};

} // namespace vrixtool
