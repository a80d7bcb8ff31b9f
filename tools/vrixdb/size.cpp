// vrixdb size: the bytes a span of one channel occupies.
#include "cli.h"
#include "json_out.h"
#include "library.h"
#include "times.h"
#include "units.h"
#include "vrixdb.h"

namespace vrixtool {
namespace {

struct SizeOptions {
    std::string root;
    int ch = 0;
    std::string from, to;
    bool audio = false;
    bool json = false;
};

bool channel_fits(int ch, bool audio, const char *command) {
    if (audio && ch > VRIX_AUDIO_CHANNELS) {
        std::fprintf(stderr, "vrixdb %s: audio channels are 1..%d\n", command, VRIX_AUDIO_CHANNELS);
        return false;
    }
    return true;
}

int run_size(const SizeOptions &o) {
    if (!channel_fits(o.ch, o.audio, "size")) return kWrongArguments;
    const long from = *parse_time(o.from), to = *parse_time(o.to);
    if (to < from) {
        std::fprintf(stderr, "vrixdb size: --to %s lies before --from %s\n", o.to.c_str(),
                     o.from.c_str());
        return kWrongArguments;
    }
    const std::string root = library_root(o.root, "size");
    if (root.empty() || !require_store(root, "size")) return 1;
    if (!start_library()) return 1;
    std::tm start = mktime_fields(from), end = mktime_fields(span_end(to));
    const unsigned bytes = o.audio ? vrix_db_get_audio_total_size(&start, &end, root.c_str(), o.ch)
                                   : vrix_db_get_video_total_size(&start, &end, root.c_str(), o.ch);
    if (o.json) {
        print_json(out(), {{"kind", o.audio ? "audio" : "video"},
                           {"ch", o.ch},
                           {"from", moment(from)},
                           {"to", moment(to)},
                           {"bytes", bytes},
                           {"saturated", bytes == 0xFFFFFFFFu}});
        return 0;
    }
    std::fprintf(out(), "%s ch %d %s .. %s: %u bytes (%s)%s\n", o.audio ? "audio" : "video", o.ch,
                 format_time(from).c_str(), format_time(to).c_str(), bytes,
                 format_bytes(bytes).c_str(),
                 bytes == 0xFFFFFFFFu ? ", 4 GiB or more"
                 : o.audio            ? ", 800 B/s added"
                                      : "");
    return 0;
}

} // namespace

void add_size(CLI::App &app, Status &status) {
    auto [sub, o] = add_subcommand<SizeOptions>(
        app, status, "size",
        "Bytes a span of one channel occupies, from the index and the stream files", run_size);
    add_channel(sub, o.ch, &o.audio);
    add_span(sub, o.from, o.to);
    add_json_flag(sub, o.json);
}

} // namespace vrixtool
