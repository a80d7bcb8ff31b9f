// vrixdb ls: what a store holds, day by day, from its index databases.
#include "cli.h"
#include "json_out.h"
#include "library.h"
#include "lists.h"
#include "store_index.h"
#include "times.h"
#include "units.h"

#include <map>

namespace vrixtool {
namespace {

struct LsOptions {
    std::string root;
    std::string day;
    bool json = false;
};

struct VideoTotals {
    int channels = 0;
    int hourFiles = 0;
    int64_t keys = 0;
    int64_t bytes = 0;
};

VideoTotals video_totals(StoreIndex &store, long day) {
    VideoTotals t;
    for (int ch = 1; ch <= 16; ++ch) {
        auto hours = store.video(day, ch);
        if (hours.empty()) continue;
        ++t.channels;
        for (const HourIndex &h : hours) {
            ++t.hourFiles;
            t.keys += static_cast<int64_t>(h.keys.size());
            if (h.streamBytes > 0) t.bytes += h.streamBytes;
        }
    }
    return t;
}

std::string hour_list(const std::vector<HourIndex> &hours) {
    std::string s;
    for (const HourIndex &h : hours)
        s += (s.empty() ? "" : " ") + std::to_string(h.hour);
    return s.empty() ? "-" : s;
}

// The hours of a day of one channel (or of the audio, a key a second): key
// frames, stream bytes, first and last key frame.
struct ChannelSummary {
    int64_t keys = 0, bytes = 0;
    int first = 0, last = 0;
};

ChannelSummary summarize(const std::vector<HourIndex> &hours) {
    ChannelSummary c;
    for (const HourIndex &h : hours) {
        c.keys += static_cast<int64_t>(h.keys.size());
        if (h.streamBytes > 0) c.bytes += h.streamBytes;
        if (!h.keys.empty()) {
            if (!c.first) c.first = h.keys.front().sec;
            c.last = h.keys.back().sec;
        }
    }
    return c;
}

std::string event_summary(const std::vector<EventRow> &events) {
    std::map<int, int> byType;
    for (const EventRow &e : events)
        ++byType[e.type];
    std::string s = std::to_string(events.size());
    if (!events.empty()) {
        s += " (";
        bool first = true;
        for (auto [type, n] : byType) {
            s += (first ? "" : ", ") + type_name(type) + " " + std::to_string(n);
            first = false;
        }
        s += ")";
    }
    return s;
}

void list_days(StoreIndex &store) {
    const auto days = store.days();
    std::fprintf(out(), "store %s: %zu day%s (times at UTC%s)\n", store.root().c_str(), days.size(),
                 days.size() == 1 ? "" : "s", format_offset().c_str());
    if (days.empty()) return;
    std::fprintf(out(), "%-10s  %-38s  %-18s  %s\n", "day", "video", "audio", "events");
    for (long day : days) {
        const size_t before = store.unreadable().size();
        const VideoTotals v = video_totals(store, day);
        const auto audio = store.audio(day);
        const int64_t seconds = summarize(audio).keys; // a key per second of sound
        char video[64], sound[48];
        std::snprintf(video, sizeof video, "%2d ch %3d h %6lld keys %10s", v.channels, v.hourFiles,
                      static_cast<long long>(v.keys), format_bytes(v.bytes).c_str());
        if (audio.empty())
            std::snprintf(sound, sizeof sound, "-");
        else
            std::snprintf(sound, sizeof sound, "%zu h %lld s", audio.size(),
                          static_cast<long long>(seconds));
        const size_t events = store.events(day).size();
        std::fprintf(out(), "%-10s  %-38s  %-18s  %zu%s\n", day_name(day).c_str(), video, sound,
                     events, store.unreadable().size() > before ? "  (incomplete)" : "");
    }
}

// The database the last read found unreadable, if it did: what a listing
// shows in its place.
const char *unreadable_since(const StoreIndex &store, size_t before) {
    return store.unreadable().size() > before ? store.unreadable().back().c_str() : nullptr;
}

void list_day(StoreIndex &store, long day) {
    std::fprintf(out(), "day %s in %s (times at UTC%s)\n", day_name(day).c_str(),
                 store.root().c_str(), format_offset(day).c_str());
    std::fprintf(out(), "video\n  %-3s %-24s %10s %12s  %s\n", "ch", "hours", "key frames", "bytes",
                 "first .. last key frame");
    bool any = false;
    for (int ch = 1; ch <= 16; ++ch) {
        const size_t before = store.unreadable().size();
        auto hours = store.video(day, ch);
        if (const char *bad = unreadable_since(store, before)) {
            std::fprintf(out(), "  %-3d cannot read %s\n", ch, bad);
            any = true;
            continue;
        }
        if (hours.empty()) continue;
        any = true;
        const ChannelSummary c = summarize(hours);
        std::fprintf(out(), "  %-3d %-24s %10lld %12s  %s\n", ch, hour_list(hours).c_str(),
                     static_cast<long long>(c.keys), format_bytes(c.bytes).c_str(),
                     c.first ? (format_clock(c.first) + " .. " + format_clock(c.last)).c_str()
                             : "-");
    }
    if (!any) std::fprintf(out(), "  (none)\n");

    size_t before = store.unreadable().size();
    const auto audio = store.audio(day);
    const ChannelSummary a = summarize(audio); // a key per second of sound
    const int64_t seconds = a.keys, bytes = a.bytes;
    const int channels = store.audio_channels(day);
    if (const char *bad = unreadable_since(store, before))
        std::fprintf(out(), "audio  cannot read %s\n", bad);
    else if (audio.empty())
        std::fprintf(out(), "audio  (none)\n");
    else
        std::fprintf(out(), "audio  hours %s, %lld s indexed, %d ch, %s per channel\n",
                     hour_list(audio).c_str(), static_cast<long long>(seconds), channels,
                     format_bytes(bytes).c_str());
    before = store.unreadable().size();
    const auto events = store.events(day);
    if (const char *bad = unreadable_since(store, before))
        std::fprintf(out(), "events cannot read %s\n", bad);
    else
        std::fprintf(out(), "events %s\n", event_summary(events).c_str());
}

Json hours_json(const std::vector<HourIndex> &hours) {
    Json list = Json::array();
    for (const HourIndex &h : hours)
        list.push_back(h.hour);
    return list;
}

void json_days(StoreIndex &store) {
    Json days = Json::array();
    for (long day : store.days()) {
        const size_t before = store.unreadable().size();
        const VideoTotals v = video_totals(store, day);
        const auto audio = store.audio(day);
        const int64_t seconds = summarize(audio).keys; // a key per second of sound
        const size_t events = store.events(day).size();
        days.push_back({{"day", day_name(day)},
                        {"start", moment(day)},
                        {"video",
                         {{"channels", v.channels},
                          {"hour_files", v.hourFiles},
                          {"key_frames", v.keys},
                          {"bytes", v.bytes}}},
                        {"audio", {{"hours", audio.size()}, {"seconds", seconds}}},
                        {"events", events},
                        {"complete", store.unreadable().size() == before}});
    }
    print_json(out(), {{"root", store.root()}, {"utc_offset", format_offset()}, {"days", days}});
}

// What a listing of one part of the day holds, or {"unreadable": path}.
void json_day(StoreIndex &store, long day) {
    Json video = Json::array();
    for (int ch = 1; ch <= 16; ++ch) {
        const size_t before = store.unreadable().size();
        auto hours = store.video(day, ch);
        if (const char *bad = unreadable_since(store, before)) {
            video.push_back({{"ch", ch}, {"unreadable", bad}});
            continue;
        }
        if (hours.empty()) continue;
        const ChannelSummary c = summarize(hours);
        video.push_back({{"ch", ch},
                         {"hours", hours_json(hours)},
                         {"key_frames", c.keys},
                         {"bytes", c.bytes},
                         {"first_key_frame", moment(c.first)},
                         {"last_key_frame", moment(c.last)}});
    }
    size_t before = store.unreadable().size();
    const auto audio = store.audio(day);
    Json sound;
    if (const char *bad = unreadable_since(store, before)) {
        sound = {{"unreadable", bad}};
    } else {
        const ChannelSummary a = summarize(audio); // a key per second of sound
        sound = {{"hours", hours_json(audio)},
                 {"seconds", a.keys},
                 {"channels", store.audio_channels(day)},
                 {"bytes_per_channel", a.bytes}};
    }
    before = store.unreadable().size();
    const auto events = store.events(day);
    Json ev;
    if (const char *bad = unreadable_since(store, before)) {
        ev = {{"unreadable", bad}};
    } else {
        Json byType = Json::object();
        for (const EventRow &e : events)
            byType[type_name(e.type)] = byType.value(type_name(e.type), 0) + 1;
        ev = {{"count", events.size()}, {"by_type", byType}};
    }
    print_json(out(), {{"root", store.root()},
                       {"day", day_name(day)},
                       {"utc_offset", format_offset()},
                       {"video", video},
                       {"audio", sound},
                       {"events", ev}});
}

int run_ls(const LsOptions &o) {
    const std::string root = library_root(o.root, "ls");
    if (root.empty() || !require_store(root, "ls")) return 1;
    StoreIndex store(root);
    if (o.day.empty())
        o.json ? json_days(store) : list_days(store);
    else
        o.json ? json_day(store, *parse_day(o.day)) : list_day(store, *parse_day(o.day));
    std::fflush(out());
    return report_unreadable(store, "ls");
}

} // namespace

void add_ls(CLI::App &app, Status &status) {
    auto [sub, o] = add_subcommand<LsOptions>(
        app, status, "ls",
        "List the recorded days; with --day, per channel the hours, key frames and bytes,\n"
        "the audio hours and the events of that day",
        run_ls);
    sub->add_option("--day", o.day, "one day, YYYYMMDD or YYYY-MM-DD")->check(DayArg);
    add_json_flag(sub, o.json);
}

} // namespace vrixtool
