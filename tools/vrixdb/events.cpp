// vrixdb events: the library's event query, page by page.
#include "catalogue.h"
#include "cli.h"
#include "json_out.h"
#include "library.h"
#include "lists.h"
#include "times.h"
#include "vrixdb.h"

#include <cstdio>

namespace vrixtool {
namespace {

struct EventsOptions {
    std::string root;
    std::string from;
    std::string channels = "all";
    std::string types = "all";
    int page = 20;
    int pages = 0;
    bool reverse = false;
    bool exact = false;
    bool json = false;
};

int run_events(const EventsOptions &o) {
    const std::string root = library_root(o.root, "events");
    if (root.empty() || !require_store(root, "events")) return 1;
    const long from = *parse_time(o.from);
    const auto channels = *parse_channels(o.channels, 0, 64);
    const uint32_t types = *parse_types(o.types);
    const ChannelMasks m = channel_masks(channels);
    if (!start_library()) return 1;

    // The query reads its start in the library's own calendar.
    std::tm start = mktime_fields(from);
    EventQueryContext *q = vrix_db_open_get_event(&start, m.lo, m.hi, m.withCh0, types,
                                                  root.c_str(), o.page, 0, o.exact ? 1 : 0);
    if (!q) {
        if (const int bad = check_played_span(root, 0, from, 0, o.reverse, "events")) return bad;
        std::fprintf(stderr, "vrixdb events: the library could not open the query on %s\n",
                     root.c_str());
        return 1;
    }
    if (!o.json)
        std::fprintf(out(), "# events from %s %s, channels %s, types %s, pages of %d\n",
                     format_time(from).c_str(), o.reverse ? "backward" : "forward",
                     o.channels.c_str(), o.types.c_str(), o.page);
    Json list = Json::array();
    long total = 0;
    int pageNo = 0;
    while (!o.pages || pageNo < o.pages) {
        const int n = o.reverse ? vrix_db_pre_event(q) : vrix_db_next_event(q);
        if (n <= 0) break;
        ++pageNo;
        if (!o.json) std::fprintf(out(), "# page %d: %d event%s\n", pageNo, n, n == 1 ? "" : "s");
        const EventRecord *rec = vrix_db_get_event(q);
        for (int i = 0; i < n; ++i) {
            if (o.json)
                list.push_back({{"time", moment(rec[i].iSec)},
                                {"ch", rec[i].iCh},
                                {"type", type_name(rec[i].iType)},
                                {"page", pageNo}});
            else
                std::fprintf(out(), "  %-19s  ch %2d  %s\n", format_time(rec[i].iSec).c_str(),
                             rec[i].iCh, type_name(rec[i].iType).c_str());
        }
        total += n;
    }
    vrix_db_close_get_event(q);
    if (o.json)
        print_json(out(), {{"from", moment(from)},
                           {"direction", o.reverse ? "backward" : "forward"},
                           {"events", list},
                           {"count", total},
                           {"pages", pageNo}});
    else
        std::fprintf(out(), "# %ld event%s in %d page%s\n", total, total == 1 ? "" : "s", pageNo,
                     pageNo == 1 ? "" : "s");
    std::fflush(out());
    // The listing ends early, or finds nothing, where a database cannot be read.
    if (o.pages && pageNo == o.pages) return 0;
    return check_played_span(root, 0, from, 0, o.reverse, "events");
}

} // namespace

void add_events(CLI::App &app, Status &status) {
    auto [sub, o] = add_subcommand<EventsOptions>(app, status, "events",
                                                  "List events page by page from a time, filtered "
                                                  "by channel and type",
                                                  run_events);
    sub->add_option("--from", o.from, "where the listing starts")->required()->check(TimeArg);
    sub->add_option("--ch", o.channels, "channels, e.g. 1,3,5-8 (0 = no channel), or all")
        ->check(CLI::Validator(
            [](std::string &s) {
                return parse_channels(s, 0, 64) ? std::string()
                                                : "expected channels 0..64 like 1,3,5-8 or all";
            },
            "LIST", "channels"))
        ->capture_default_str();
    sub->add_option("--type", o.types, "types: manual,motion,alarm, codes 1..64, or all")
        ->check(CLI::Validator(
            [](std::string &s) {
                return parse_types(s) ? std::string()
                                      : "expected types like motion,alarm or 8,16 or all";
            },
            "LIST", "types"))
        ->capture_default_str();
    sub->add_option("--page", o.page, "events per page")
        ->check(CLI::Range(1, 10000))
        ->capture_default_str();
    sub->add_option("--pages", o.pages, "stop after this many pages")
        ->check(CLI::Range(1, 1 << 30));
    sub->add_flag("--reverse", o.reverse, "newest first, backward from --from");
    sub->add_flag("--exact", o.exact,
                  "exact walk: reversing re-reads the filtered rows, and events recorded into "
                  "the day meanwhile are not picked up");
    add_json_flag(sub, o.json);
}

} // namespace vrixtool
