// What export-h264 and export-mp4 share: their options, and a span of one
// channel's H.264 access units played from its first key frame into OUT.
#pragma once

#include "cli.h"
#include "h264_player.h"
#include "output_file.h"

#include <cstdio>
#include <functional>
#include <memory>
#include <string>

namespace vrixtool {

struct ExportOptions {
    std::string root;
    int ch = 0;
    std::string from, to;
    std::string out;
};

// The channel, the span and OUT (`outHelp` describes the file).
void add_export_options(CLI::App *sub, ExportOptions &o, const std::string &outHelp);

class SpanExport {
  public:
    SpanExport(const ExportOptions &o, const char *command) : o_(o), command_(command) {}

    // Checks the span, opens OUT, starts the library and opens the channel;
    // the exit status, after a line, when any of that fails (0 when not).
    int open();
    FILE *stream() { return file_.stream(); }
    // Hands every access unit of the span, from the first key frame on, to
    // `write` until it returns false (the output failed).  False, with a
    // line, when the span holds no H.264 video.
    bool play(const std::function<bool(const PlayedUnit &)> &write);
    // Writes OUT out; false, with a line, when that fails.
    bool commit() { return file_.commit(); }
    // The result line's end (" of ch 3, 10:00:00 .. 10:59:59, to OUT") and
    // the line on frames skipped for lacking the H.264 prefix.
    std::string where() const;
    void report_skipped() const;

    long first = -1, last = 0; // seconds of the first and last unit played
    int firstMs = 0;
    long units = 0, idr = 0;
    long long bytes = 0;

  private:
    const ExportOptions &o_;
    const char *command_;
    long from_ = 0, to_ = 0;
    OutputFile file_;
    std::unique_ptr<H264Player> player_;
};

} // namespace vrixtool
