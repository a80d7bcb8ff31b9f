// vrixdb size and range: what an export asks before it copies a span.
#include "cli.h"
#include "library.h"
#include "times.h"
#include "units.h"
#include "vrixdb.h"

namespace vrixtool {
namespace {

constexpr int kRangeBuffer = 16 << 20; // the largest video frame payload accepted

struct SizeOptions {
    std::string root;
    int ch = 0;
    std::string from, to;
    bool audio = false;
};

struct RangeOptions {
    std::string root;
    int ch = 0;
    std::string at;
    bool audio = false;
};

bool channel_fits(int ch, bool audio, const char *command) {
    if (audio && ch > VRIX_AUDIO_CHANNELS) {
        std::fprintf(stderr, "vrixdb %s: audio channels are 1..%d\n", command, VRIX_AUDIO_CHANNELS);
        return false;
    }
    return true;
}

int run_size(const SizeOptions &o) {
    const std::string root = library_root(o.root, "size");
    if (root.empty() || !channel_fits(o.ch, o.audio, "size") || !require_store(root, "size"))
        return 1;
    const long from = *parse_time(o.from), to = *parse_time(o.to);
    if (to < from) {
        std::fprintf(stderr, "vrixdb size: --to %s lies before --from %s\n", o.to.c_str(),
                     o.from.c_str());
        return 1;
    }
    if (!start_library()) return 1;
    std::tm start = mktime_fields(from), end = mktime_fields(span_end(to));
    const unsigned bytes = o.audio ? vrix_db_get_audio_total_size(&start, &end, root.c_str(), o.ch)
                                   : vrix_db_get_video_total_size(&start, &end, root.c_str(), o.ch);
    std::fprintf(out(), "%s ch %d %s .. %s: %u bytes (%s)%s\n", o.audio ? "audio" : "video", o.ch,
                 format_time(from).c_str(), format_time(to).c_str(), bytes,
                 format_bytes(bytes).c_str(),
                 bytes == 0xFFFFFFFFu ? ", 4 GiB or more"
                 : o.audio            ? ", 800 B/s added"
                                      : "");
    return 0;
}

int run_range(const RangeOptions &o) {
    const std::string root = library_root(o.root, "range");
    if (root.empty() || !channel_fits(o.ch, o.audio, "range") || !require_store(root, "range"))
        return 1;
    const int at = static_cast<int>(*parse_time(o.at));
    if (!start_library()) return 1;
    const int before =
        o.audio ? vrix_dvd_audio_get_end_time(o.ch, at, root.c_str(), VRIX_AUDIO_RECORD_SIZE)
                : vrix_dvd_video_get_end_time(o.ch, at, root.c_str(), kRangeBuffer);
    const int after =
        o.audio ? vrix_dvd_audio_get_start_time(o.ch, at, root.c_str(), VRIX_AUDIO_RECORD_SIZE)
                : vrix_dvd_video_get_start_time(o.ch, at, root.c_str(), kRangeBuffer);
    std::fprintf(out(), "%s ch %d around %s\n", o.audio ? "audio" : "video", o.ch,
                 format_time(at).c_str());
    std::fprintf(out(), "  last recorded at or before: %s\n",
                 before ? format_time(before).c_str() : "none");
    std::fprintf(out(), "  first recorded at or after: %s\n",
                 after ? format_time(after).c_str() : "none");
    return 0;
}

} // namespace

void add_size(CLI::App &app, Status &status) {
    auto o = std::make_shared<SizeOptions>();
    auto *sub = app.add_subcommand(
        "size", "Bytes a span of one channel occupies, from the index and the stream files");
    add_root(sub, o->root);
    sub->add_option("--ch", o->ch, "channel: video 1..16, audio 1..4")
        ->required()
        ->check(ChannelArg);
    sub->add_option("--from", o->from, "start of the span")->required()->check(TimeArg);
    sub->add_option("--to", o->to, "the last second of the span")->required()->check(TimeArg);
    sub->add_flag("--audio", o->audio, "an audio channel instead of video");
    sub->footer(kSpanRule);
    sub->callback([o, &status] { status = run_size(*o); });
}

void add_range(CLI::App &app, Status &status) {
    auto o = std::make_shared<RangeOptions>();
    auto *sub = app.add_subcommand(
        "range", "The recorded times around a moment: the last at or before it, the first at "
                 "or after it");
    add_root(sub, o->root);
    sub->add_option("--ch", o->ch, "channel: video 1..16, audio 1..4")
        ->required()
        ->check(ChannelArg);
    sub->add_option("--at", o->at, "the moment")->required()->check(TimeArg);
    sub->add_flag("--audio", o->audio, "an audio channel instead of video");
    sub->callback([o, &status] { status = run_range(*o); });
}

} // namespace vrixtool
