// vrixdb play: one line per frame delivered by the library's playback.
#include "catalogue.h"
#include "cli.h"
#include "json_out.h"
#include "key_frame.h"
#include "library.h"
#include "times.h"
#include "vrixdb.h"

#include <cstdio>

namespace vrixtool {
namespace {

struct PlayOptions {
    std::string root;
    int ch = 0;
    std::string from, to;
    bool reverse = false;
    int iframes = 0;
    long count = 0;
    bool json = false;
};

constexpr int kPlayBuffer = 8 << 20; // the largest frame payload accepted

int run_play(const PlayOptions &o) {
    const long from = *parse_time(o.from);
    const long to = o.to.empty() ? 0 : *parse_time(o.to);
    if (to && !o.reverse && to < from) {
        std::fprintf(stderr, "vrixdb play: --to %s lies before --from %s\n", o.to.c_str(),
                     o.from.c_str());
        return kWrongArguments;
    }
    if (to && o.reverse && to > from) {
        std::fprintf(stderr, "vrixdb play: with --reverse, --to (%s) is the earlier end\n",
                     o.to.c_str());
        return kWrongArguments;
    }
    const std::string root = library_root(o.root, "play");
    if (root.empty() || !require_store(root, "play")) return 1;
    if (!start_library()) return 1;

    std::tm start = mktime_fields(from);
    std::tm end = mktime_fields(span_end(to));
    PlayContext *ctx = vrix_db_open_get_video(&start, to && !o.reverse ? &end : nullptr, o.ch,
                                              kPlayBuffer, root.c_str());
    if (!ctx) {
        if (const int bad = check_played_span(root, o.ch, from, to, o.reverse, "play")) return bad;
        std::fprintf(stderr, "vrixdb play: the library could not open channel %d of %s\n", o.ch,
                     root.c_str());
        return 1;
    }
    // Backward steps always move STEP key frames; the mode is for forward play.
    if (o.iframes > 0) vrix_db_video_set_i_mode(ctx, o.reverse ? 0 : 1, o.iframes);

    if (o.json) {
        // One document whose frame list is written as play goes.
        const std::string head = Json{
            {"ch", o.ch},
            {"from", moment(from)},
            {"to", moment(to)},
            {"direction", o.reverse ? "backward" : "forward"},
            {"key_frame_step",
             o.iframes}}.dump();
        std::fprintf(out(), "%s,\"frames\":[", head.substr(0, head.size() - 1).c_str());
    } else {
        std::fprintf(out(), "# ch %d from %s %s%s\n", o.ch, format_time(from).c_str(),
                     o.reverse ? "backward" : "forward",
                     o.iframes > 0
                         ? (", key frames only, " + std::to_string(o.iframes) + " a step").c_str()
                         : "");
        std::fprintf(out(), "# %-19s %5s %9s  %s\n", "time", "sub", "bytes", "kind");
    }
    long frames = 0;
    long long bytes = 0;
    while (!o.count || frames < o.count) {
        const int got = o.reverse ? vrix_db_pre_video(ctx) : vrix_db_next_video(ctx);
        if (got != 1) break;
        void *buf = nullptr;
        const int len = vrix_db_get_video(ctx, &buf);
        int sec = 0, sub = 0;
        vrix_db_video_get_current_time(ctx, &sec, &sub);
        if (to && (o.reverse ? sec < to : sec > to)) break;
        const bool key =
            is_key_frame(static_cast<const uint8_t *>(buf), len > 0 ? static_cast<size_t>(len) : 0);
        if (o.json)
            std::fprintf(out(), "%s\n%s", frames ? "," : "",
                         Json{{"time", moment(sec)}, {"sub", sub}, {"bytes", len}, {"key", key}}
                             .dump()
                             .c_str());
        else
            std::fprintf(out(), "  %-19s %5d %9d  %s\n", format_time(sec).c_str(), sub, len,
                         key ? "key" : "-");
        ++frames;
        bytes += len;
    }
    vrix_db_close_get_video(ctx);
    if (o.json)
        std::fprintf(out(), "],\"count\":%ld,\"bytes\":%lld}\n", frames, bytes);
    else
        std::fprintf(out(), "# %ld frame%s, %lld bytes\n", frames, frames == 1 ? "" : "s", bytes);
    std::fflush(out());
    // Play ends early, or finds nothing, where an index cannot be read.
    if (o.count && frames == o.count) return 0;
    return check_played_span(root, o.ch, from, to, o.reverse, "play");
}

} // namespace

void add_play(CLI::App &app, Status &status) {
    auto [sub, o] = add_subcommand<PlayOptions>(
        app, status, "play",
        "Play one channel back: one line per frame (time, second time word, size, kind)", run_play);
    add_channel(sub, o.ch);
    sub->add_option("--from", o.from, "where playback starts")->required()->check(TimeArg);
    sub->add_option("--to", o.to, "the last second played (with --reverse: the earliest)")
        ->check(TimeArg);
    sub->add_flag("--reverse", o.reverse, "key frames backward from --from");
    sub->add_option("--iframes", o.iframes, "key frames only, STEP key frames at a time")
        ->check(CLI::Range(1, 1000));
    sub->add_option("--count", o.count, "at most K frames")->check(CLI::Range(1L, 1L << 30));
    add_json_flag(sub, o.json);
    sub->footer(kSpanRule);
}

} // namespace vrixtool
