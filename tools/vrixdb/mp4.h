// MP4 files and fragmented MP4 streams of stored H.264 access units, muxed by
// libavformat.
//
// Access units come in decode order with their recorded times (seconds and
// the millisecond word); the first becomes time 0 and each keeps its distance
// from it (time base 1/1000).  The first must be an IDR access unit that
// carries its SPS and PPS: they become the track's decoder configuration.
// Times are taken as presentation times, which holds for streams without
// B-frames (what recorders' encoders send); a stream with B-frames still
// decodes whole, with its pictures stamped in decode order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace vrixtool {

class Mp4Muxer {
  public:
    // Where the muxed bytes go: returns false to stop (the reader left).
    using Sink = std::function<bool(const uint8_t *data, size_t size)>;
    // `seek` repositions a seekable output (a regular file) so that a plain
    // MP4 with its index at the end can be written; without it the output is
    // fragmented (an empty index first, then a fragment per key frame), which
    // a browser plays as it arrives.
    using Seek = std::function<bool(int64_t offset)>;

    Mp4Muxer(Sink sink, Seek seek = nullptr);
    ~Mp4Muxer();
    Mp4Muxer(const Mp4Muxer &) = delete;
    Mp4Muxer &operator=(const Mp4Muxer &) = delete;

    // Adds an access unit (Annex B) at `ms` milliseconds on the file's
    // clock; times that do not increase are moved just past the previous
    // one.  The first call writes the header.  False, with error() set, when
    // the unit cannot be muxed or the sink refused it.
    bool add(const uint8_t *au, size_t size, bool idr, int64_t ms);
    // Writes the last unit (lasting as long as the one before it) and the
    // index; false when nothing was added or writing failed.
    bool finish();

    const std::string &error() const { return error_; }
    long units() const { return units_; }
    int64_t duration_ms() const { return lastMs_ + lastDuration_; }

  private:
    struct Impl;
    bool start(const uint8_t *au, size_t size);
    bool write_pending(int64_t duration);

    std::unique_ptr<Impl> impl_;
    std::string error_;
    long units_ = 0;
    int64_t lastMs_ = -1;
    int64_t lastDuration_ = 40;
};

} // namespace vrixtool
