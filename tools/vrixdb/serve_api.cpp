// The JSON routes of vrixdb serve: recorded days and each channel's spans
// from the library's catalogue, and events through the library's query.
#include "catalogue.h"
#include "lists.h"
#include "serve.h"
#include "serve_json.h"
#include "times.h"
#include "vrixdb.h"

#include <algorithm>
#include <ctime>
#include <memory>

namespace vrixtool {
namespace {

constexpr int kEventPage = 100;

void add_unreadable(JsonWriter &j, const Catalogue &store) {
    j.key("unreadable").open('[');
    for (const std::string &path : store.unreadable())
        j.value(path);
    j.close(']');
}

// The offsets from UTC in force over [from, to): [[since, seconds east], ...],
// the first at `from`, then one at each change (found to the second).
void add_offsets(JsonWriter &j, long from, long to) {
    j.key("offsets").open('[');
    long at = from;
    long off = zone_offset(at);
    j.open('[').value(static_cast<int64_t>(at)).value(static_cast<int64_t>(off)).close(']');
    while (at < to) {
        long step = std::min(to, at + 3600);
        if (zone_offset(step) == off) {
            at = step;
            continue;
        }
        long lo = at; // off at lo, another at step
        while (step - lo > 1) {
            const long mid = lo + (step - lo) / 2;
            (zone_offset(mid) == off ? lo : step) = mid;
        }
        at = step;
        off = zone_offset(at);
        if (at < to)
            j.open('[').value(static_cast<int64_t>(at)).value(static_cast<int64_t>(off)).close(']');
    }
    j.close(']');
}

void days(ServeConfig &config, const httplib::Request &req, httplib::Response &res) {
    Params p(req, {});
    Catalogue store(config.root);
    JsonWriter j;
    const long now = std::time(nullptr);
    j.open('{').key("now").value(static_cast<int64_t>(now));
    j.key("offset").value(static_cast<int64_t>(zone_offset(now)));
    j.key("days").open('[');
    for (const VrixCatDay &d : store.days())
        j.open('{')
            .key("day")
            .value(format_time(d.iDay).substr(0, 10))
            .key("start")
            .value(static_cast<int64_t>(d.iDay))
            .key("offset")
            .value(static_cast<int64_t>(zone_offset(d.iDay)))
            .close('}');
    j.close(']');
    add_unreadable(j, store);
    reply_json(res, j.close('}').text());
}

void spans(ServeConfig &config, const httplib::Request &req, httplib::Response &res) {
    Params p(req, {"day", "gap"});
    const auto day = p.day("day");
    if (!day) throw BadRequest{"day is missing"};
    const int gap = p.integer("gap", 1, 3600, 10);
    Catalogue store(config.root);
    const long end = next_day(*day);
    JsonWriter j;
    j.open('{').key("day").value(format_time(*day).substr(0, 10));
    j.key("start").value(static_cast<int64_t>(*day));
    j.key("end").value(static_cast<int64_t>(end));
    add_offsets(j, *day, end);
    j.key("channels").open('[');
    for (int ch = 1; ch <= VRIX_VIDEO_CHANNELS; ++ch) {
        j.open('{').key("ch").value(int64_t{ch}).key("spans").open('[');
        // [start, end, key frames, offset at the start]
        const auto spans = store.spans(VRIX_CAT_VIDEO, ch, *day, end, gap);
        for (const VrixCatSpan &s : spans)
            j.open('[')
                .value(static_cast<int64_t>(s.iStart))
                .value(static_cast<int64_t>(s.iEnd))
                .value(static_cast<int64_t>(s.iRows))
                .value(static_cast<int64_t>(zone_offset(s.iStart)))
                .close(']');
        j.close(']');
        if (!spans.empty())
            j.key("playable")
                .value(h264_at(config.root, ch, spans.front().iStart, spans.front().iEnd));
        j.close('}');
    }
    j.close(']');
    add_unreadable(j, store);
    reply_json(res, j.close('}').text());
}

// Up to `limit` events from `from` (forward up to `to`, or backward down to
// it).  A page cut inside a second leaves that second out, so the next page
// starts cleanly at the second after (before) the last one listed.
void events(ServeConfig &config, const httplib::Request &req, httplib::Response &res) {
    Params p(req, {"from", "to", "ch", "type", "dir", "limit"});
    const auto from = p.time("from");
    if (!from) throw BadRequest{"from is missing"};
    const auto to = p.time("to");
    const std::string dir = p.text("dir").value_or("forward");
    if (dir != "forward" && dir != "back") throw BadRequest{"dir: forward or back"};
    const bool back = dir == "back";
    const auto channels = parse_channels(p.text("ch").value_or("all"), 0, 64);
    if (!channels) throw BadRequest{"ch: channels 0..64 as in 1,3,5-8, or all"};
    const auto types = parse_types(p.text("type").value_or("all"));
    if (!types) throw BadRequest{"type: event types as in motion,alarm or codes, or all"};
    const int limit = p.integer("limit", 1, 5000, 200);
    const ChannelMasks m = channel_masks(*channels);
    std::tm start = local_fields(*from);
    const std::unique_ptr<EventQueryContext, void (*)(EventQueryContext *)> q(
        vrix_db_open_get_event(&start, m.lo, m.hi, m.withCh0, *types, config.root.c_str(),
                               kEventPage, 0, 0),
        vrix_db_close_get_event);
    std::vector<EventRecord> got;
    bool more = false, done = !q;
    while (!done) {
        const int n = back ? vrix_db_pre_event(q.get()) : vrix_db_next_event(q.get());
        if (n <= 0) break;
        const EventRecord *rec = vrix_db_get_event(q.get());
        for (int i = 0; i < n && !done; ++i) {
            const long sec = rec[i].iSec;
            if (to && (back ? sec < *to : sec > *to))
                done = true;
            else if (static_cast<int>(got.size()) == limit)
                more = done = true;
            else
                got.push_back(rec[i]);
        }
    }
    if (more) {
        const int32_t cut = got.back().iSec;
        auto keep = got;
        while (!keep.empty() && keep.back().iSec == cut)
            keep.pop_back();
        if (!keep.empty()) got = keep;
    }
    JsonWriter j;
    j.open('{').key("events").open('[');
    for (const EventRecord &e : got)
        j.open('{')
            .key("sec")
            .value(int64_t{e.iSec})
            .key("time")
            .value(format_time(e.iSec))
            .key("ch")
            .value(int64_t{e.iCh})
            .key("type")
            .value(type_name(e.iType))
            .key("offset")
            .value(static_cast<int64_t>(zone_offset(e.iSec)))
            .close('}');
    j.close(']').key("more").value(more);
    reply_json(res, j.close('}').text());
}

} // namespace

void add_api_routes(httplib::Server &server, ServeConfig &config) {
    server.Get("/api/days",
               guarded([&config](const auto &req, auto &res) { days(config, req, res); }));
    server.Get("/api/spans",
               guarded([&config](const auto &req, auto &res) { spans(config, req, res); }));
    server.Get("/api/events",
               guarded([&config](const auto &req, auto &res) { events(config, req, res); }));
}

} // namespace vrixtool
