// The command line the subcommands share: validators, the span rule, --root.
#include "cli.h"

#include "times.h"
#include "vrixdb.h"

#include <cstdio>

namespace vrixtool {

const CLI::Validator TimeArg(
    [](std::string &s) {
        return parse_time(s) ? std::string()
                             : "expected a time like now, -1h, 10:30, 2024-06-14, "
                               "2024-06-14T10:30:00[Z|+HH:MM] or seconds since 1970, got '" +
                                   s + "'";
    },
    "TIME", "time");

const CLI::Validator DayArg(
    [](std::string &s) {
        return parse_day(s) ? std::string()
                            : "expected a day YYYYMMDD or YYYY-MM-DD, got '" + s + "'";
    },
    "DAY", "day");

const CLI::Validator ChannelArg = CLI::Range(1, 16).description("1..16");

const char *const kSpanRule =
    "A span --from A --to B covers the seconds A to B, both included: every frame up to\n"
    "the end of second B.";

bool channel_fits(int ch, bool audio, const char *command) {
    if (audio && ch > VRIX_AUDIO_CHANNELS) {
        std::fprintf(stderr, "vrixdb %s: audio channels are 1..%d\n", command, VRIX_AUDIO_CHANNELS);
        return false;
    }
    return true;
}

CLI::Option *add_root(CLI::App *sub, std::string &root, bool required) {
    auto *opt = sub->add_option("--root", root, "the store's root directory");
    if (required) opt->required();
    return opt;
}

void add_channel(CLI::App *sub, int &ch, bool *audio) {
    sub->add_option("--ch", ch, audio ? "channel: video 1..16, audio 1..4" : "video channel 1..16")
        ->required()
        ->check(ChannelArg);
    if (audio) sub->add_flag("--audio", *audio, "an audio channel instead of video");
}

void add_span(CLI::App *sub, std::string &from, std::string &to) {
    sub->add_option("--from", from, "start of the span")->required()->check(TimeArg);
    sub->add_option("--to", to, "the last second of the span")->required()->check(TimeArg);
    sub->footer(kSpanRule);
}

} // namespace vrixtool
