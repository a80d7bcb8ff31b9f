// vrixdb timeline: a day of the store drawn to an SVG file.
#include "timeline_svg.h"

#include "cli.h"
#include "library.h"
#include "output_file.h"
#include "times.h"

#include <cstdio>

namespace vrixtool {

namespace {

struct TimelineOptions {
    std::string root;
    std::string day;
    std::string out;
    long gap = 10;
    bool fullDay = false;
};

int run_timeline(const TimelineOptions &o) {
    const std::string root = library_root(o.root, "timeline");
    if (root.empty() || !require_store(root, "timeline")) return 1;
    // The event marks come from the library's event query.
    if (!start_library()) return 1;
    Catalogue store(root);
    const long day = *parse_day(o.day);
    long spans = 0;
    size_t events = 0;
    const std::string svg = draw_day(store, day, o.gap, o.fullDay, spans, events);
    // An incomplete picture would pass for the day: none is written.
    if (const int bad = report_unreadable(store, "timeline")) return bad;
    OutputFile file;
    if (!file.open(o.out, "timeline")) return 1;
    std::fwrite(svg.data(), 1, svg.size(), file.stream());
    if (!file.commit()) return 1;
    std::fprintf(out(), "timeline of %s: %ld recorded span%s, %zu events, written to %s\n",
                 day_name(day).c_str(), spans, spans == 1 ? "" : "s", events,
                 o.out == "-" ? "standard output" : o.out.c_str());
    return 0;
}

} // namespace

void add_timeline(CLI::App &app, Status &status) {
    auto [sub, o] = add_subcommand<TimelineOptions>(
        app, status, "timeline",
        "Draw a recorded day as SVG: a row per channel, recorded spans from the "
        "index shaded by\nkey-frame density, event marks by type, an hour axis",
        run_timeline);
    sub->add_option("--day", o.day, "the day, YYYYMMDD or YYYY-MM-DD")->required()->check(DayArg);
    sub->add_option("--out", o.out, std::string("the SVG file to write (") + kOutputRule + ")")
        ->required();
    sub->add_option("--gap", o.gap, "seconds between key frames that split a span")
        ->check(CLI::Range(1L, 86400L))
        ->capture_default_str();
    sub->add_flag("--full-day", o.fullDay, "draw 00:00 to 24:00 instead of the recorded part");
}

} // namespace vrixtool
