// vrixdb range: the recorded times around a moment.
#include "cli.h"
#include "json_out.h"
#include "library.h"
#include "times.h"
#include "vrixdb.h"

namespace vrixtool {
namespace {

constexpr int kRangeBuffer = 16 << 20; // the largest video frame payload accepted

struct RangeOptions {
    std::string root;
    int ch = 0;
    std::string at;
    bool audio = false;
    bool json = false;
};

int run_range(const RangeOptions &o) {
    if (!channel_fits(o.ch, o.audio, "range")) return kWrongArguments;
    const std::string root = library_root(o.root, "range");
    if (root.empty() || !require_store(root, "range")) return 1;
    const int at = static_cast<int>(*parse_time(o.at));
    if (!start_library()) return 1;
    const int before =
        o.audio ? vrix_dvd_audio_get_end_time(o.ch, at, root.c_str(), VRIX_AUDIO_RECORD_SIZE)
                : vrix_dvd_video_get_end_time(o.ch, at, root.c_str(), kRangeBuffer);
    const int after =
        o.audio ? vrix_dvd_audio_get_start_time(o.ch, at, root.c_str(), VRIX_AUDIO_RECORD_SIZE)
                : vrix_dvd_video_get_start_time(o.ch, at, root.c_str(), kRangeBuffer);
    if (o.json) {
        print_json(out(), {{"kind", o.audio ? "audio" : "video"},
                           {"ch", o.ch},
                           {"at", moment(at)},
                           {"last_at_or_before", moment(before)},
                           {"first_at_or_after", moment(after)}});
        return 0;
    }
    std::fprintf(out(), "%s ch %d around %s\n", o.audio ? "audio" : "video", o.ch,
                 format_time(at).c_str());
    std::fprintf(out(), "  last recorded at or before: %s\n",
                 before ? format_time(before).c_str() : "none");
    std::fprintf(out(), "  first recorded at or after: %s\n",
                 after ? format_time(after).c_str() : "none");
    return 0;
}

} // namespace

void add_range(CLI::App &app, Status &status) {
    auto [sub, o] = add_subcommand<RangeOptions>(
        app, status, "range",
        "The recorded times around a moment: the last at or before it, the first at "
        "or after it",
        run_range);
    add_channel(sub, o.ch, &o.audio);
    sub->add_option("--at", o.at, "the moment")->required()->check(TimeArg);
    add_json_flag(sub, o.json);
}

} // namespace vrixtool
