// vrixdb ls: what a store holds, day by day, from the library's catalogue.
#include "catalogue.h"
#include "cli.h"
#include "json_out.h"
#include "library.h"
#include "lists.h"
#include "times.h"
#include "units.h"

#include <algorithm>
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

using Hours = std::vector<VrixCatHour>;

Hours video(Catalogue &store, long day, int ch) {
    return store.hours(VRIX_CAT_VIDEO, ch, day);
}
// Every audio channel has the same hours; channel 1's files stand for all.
Hours audio(Catalogue &store, long day) {
    return store.hours(VRIX_CAT_AUDIO, 1, day);
}
// The audio channels of a day (the highest with a directory).
int audio_channels(Catalogue &store, long day) {
    const auto days = store.days(day, day + 1);
    return days.empty() ? 0 : days[0].iAudioChannels;
}

VideoTotals video_totals(Catalogue &store, long day) {
    VideoTotals t;
    for (int ch = 1; ch <= 16; ++ch) {
        const Hours hours = video(store, day, ch);
        if (hours.empty()) continue;
        ++t.channels;
        for (const VrixCatHour &h : hours) {
            ++t.hourFiles;
            t.keys += h.iRows;
            if (h.lBytes > 0) t.bytes += h.lBytes;
        }
    }
    return t;
}

std::string hour_list(const Hours &hours) {
    std::string s;
    for (const VrixCatHour &h : hours)
        s += (s.empty() ? "" : " ") + std::to_string(h.iHour);
    return s.empty() ? "-" : s;
}

// The hours of a day of one channel (or of the audio, a key a second): key
// frames, stream bytes, first and last key frame.
struct ChannelSummary {
    int64_t keys = 0, bytes = 0;
    int first = 0, last = 0;
};

ChannelSummary summarize(const Hours &hours) {
    ChannelSummary c;
    for (const VrixCatHour &h : hours) {
        c.keys += h.iRows;
        if (h.lBytes > 0) c.bytes += h.lBytes;
        if (h.iRows) {
            if (!c.first || h.iFirst < c.first) c.first = h.iFirst;
            c.last = std::max(c.last, static_cast<int>(h.iLast));
        }
    }
    return c;
}

// The events of a day: how many, how many of each type, and the types in
// the order their first events were stored.
struct EventCounts {
    int64_t count = 0;
    std::map<int, int64_t> byType;
    std::vector<int> typesAsStored;
};

EventCounts event_counts(Catalogue &store, long day) {
    EventCounts e;
    for (const VrixCatEvents &r : store.events(day)) {
        e.count += r.iCount;
        if (!e.byType.count(r.iType)) e.typesAsStored.push_back(r.iType);
        e.byType[r.iType] += r.iCount;
    }
    return e;
}

std::string event_summary(const EventCounts &events) {
    const auto &byType = events.byType;
    std::string s = std::to_string(events.count);
    if (events.count) {
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

void list_days(Catalogue &store) {
    std::vector<long> days;
    for (const VrixCatDay &d : store.days())
        days.push_back(d.iDay);
    std::fprintf(out(), "store %s: %zu day%s (times at UTC%s)\n", store.root().c_str(), days.size(),
                 days.size() == 1 ? "" : "s", format_offset().c_str());
    if (days.empty()) return;
    std::fprintf(out(), "%-10s  %-38s  %-18s  %s\n", "day", "video", "audio", "events");
    for (long day : days) {
        const size_t before = store.unreadable().size();
        const VideoTotals v = video_totals(store, day);
        const Hours sound = audio(store, day);
        const int64_t seconds = summarize(sound).keys; // a key per second of sound
        char pictures[64], soundText[48];
        std::snprintf(pictures, sizeof pictures, "%2d ch %3d h %6lld keys %10s", v.channels,
                      v.hourFiles, static_cast<long long>(v.keys), format_bytes(v.bytes).c_str());
        if (sound.empty())
            std::snprintf(soundText, sizeof soundText, "-");
        else
            std::snprintf(soundText, sizeof soundText, "%zu h %lld s", sound.size(),
                          static_cast<long long>(seconds));
        const int64_t events = event_counts(store, day).count;
        std::fprintf(out(), "%-10s  %-38s  %-18s  %lld%s\n", day_name(day).c_str(), pictures,
                     soundText, static_cast<long long>(events),
                     store.unreadable().size() > before ? "  (incomplete)" : "");
    }
}

// The database the last read found unreadable, if it did: what a listing
// shows in its place.
const char *unreadable_since(const Catalogue &store, size_t before) {
    return store.unreadable().size() > before ? store.unreadable().back().c_str() : nullptr;
}

void list_day(Catalogue &store, long day) {
    std::fprintf(out(), "day %s in %s (times at UTC%s)\n", day_name(day).c_str(),
                 store.root().c_str(), format_offset(day).c_str());
    std::fprintf(out(), "video\n  %-3s %-24s %10s %12s  %s\n", "ch", "hours", "key frames", "bytes",
                 "first .. last key frame");
    bool any = false;
    for (int ch = 1; ch <= 16; ++ch) {
        const size_t before = store.unreadable().size();
        const Hours hours = video(store, day, ch);
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
    const Hours sound = audio(store, day);
    const ChannelSummary a = summarize(sound); // a key per second of sound
    const int64_t seconds = a.keys, bytes = a.bytes;
    if (const char *bad = unreadable_since(store, before))
        std::fprintf(out(), "audio  cannot read %s\n", bad);
    else if (sound.empty())
        std::fprintf(out(), "audio  (none)\n");
    else
        std::fprintf(out(), "audio  hours %s, %lld s indexed, %d ch, %s per channel\n",
                     hour_list(sound).c_str(), static_cast<long long>(seconds),
                     audio_channels(store, day), format_bytes(bytes).c_str());
    before = store.unreadable().size();
    const EventCounts events = event_counts(store, day);
    if (const char *bad = unreadable_since(store, before))
        std::fprintf(out(), "events cannot read %s\n", bad);
    else
        std::fprintf(out(), "events %s\n", event_summary(events).c_str());
}

Json hours_json(const Hours &hours) {
    Json list = Json::array();
    for (const VrixCatHour &h : hours)
        list.push_back(h.iHour);
    return list;
}

void json_days(Catalogue &store) {
    Json days = Json::array();
    for (const VrixCatDay &d : store.days()) {
        const long day = d.iDay;
        const size_t before = store.unreadable().size();
        const VideoTotals v = video_totals(store, day);
        const Hours sound = audio(store, day);
        const int64_t seconds = summarize(sound).keys; // a key per second of sound
        const int64_t events = event_counts(store, day).count;
        days.push_back({{"day", day_name(day)},
                        {"start", moment(day)},
                        {"video",
                         {{"channels", v.channels},
                          {"hour_files", v.hourFiles},
                          {"key_frames", v.keys},
                          {"bytes", v.bytes}}},
                        {"audio", {{"hours", sound.size()}, {"seconds", seconds}}},
                        {"events", events},
                        {"complete", store.unreadable().size() == before}});
    }
    print_json(out(), {{"root", store.root()}, {"utc_offset", format_offset()}, {"days", days}});
}

// What a listing of one part of the day holds, or {"unreadable": path}.
void json_day(Catalogue &store, long day) {
    Json pictures = Json::array();
    for (int ch = 1; ch <= 16; ++ch) {
        const size_t before = store.unreadable().size();
        const Hours hours = video(store, day, ch);
        if (const char *bad = unreadable_since(store, before)) {
            pictures.push_back({{"ch", ch}, {"unreadable", bad}});
            continue;
        }
        if (hours.empty()) continue;
        const ChannelSummary c = summarize(hours);
        pictures.push_back({{"ch", ch},
                            {"hours", hours_json(hours)},
                            {"key_frames", c.keys},
                            {"bytes", c.bytes},
                            {"first_key_frame", moment(c.first)},
                            {"last_key_frame", moment(c.last)}});
    }
    size_t before = store.unreadable().size();
    const Hours hours = audio(store, day);
    Json sound;
    if (const char *bad = unreadable_since(store, before)) {
        sound = {{"unreadable", bad}};
    } else {
        const ChannelSummary a = summarize(hours); // a key per second of sound
        sound = {{"hours", hours_json(hours)},
                 {"seconds", a.keys},
                 {"channels", audio_channels(store, day)},
                 {"bytes_per_channel", a.bytes}};
    }
    before = store.unreadable().size();
    const EventCounts events = event_counts(store, day);
    Json ev;
    if (const char *bad = unreadable_since(store, before)) {
        ev = {{"unreadable", bad}};
    } else {
        Json byType = Json::object();
        for (int type : events.typesAsStored)
            byType[type_name(type)] =
                byType.value(type_name(type), int64_t{0}) + events.byType.at(type);
        ev = {{"count", events.count}, {"by_type", byType}};
    }
    print_json(out(), {{"root", store.root()},
                       {"day", day_name(day)},
                       {"utc_offset", format_offset()},
                       {"video", pictures},
                       {"audio", sound},
                       {"events", ev}});
}

int run_ls(const LsOptions &o) {
    const std::string root = library_root(o.root, "ls");
    if (root.empty() || !require_store(root, "ls")) return 1;
    Catalogue store(root);
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
