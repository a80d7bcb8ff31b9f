// Demo: backup, the integrity check after damage, and reclaiming the oldest
// hour through the remove queues.
#include "vrixdb/maintenance.h"
#include "demo.h"
#include "vrixdb.h"
#include "vrixdb/catalogue.h"
#include "vrixdb/progress.h"
#include "vrixdb/times.h"
#include "vrixdb/units.h"

#include <filesystem>
#include <fstream>
#include <iterator>

namespace vrixtool {
namespace {

namespace fs = std::filesystem;

std::string file_bytes(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// What a power cut in the middle of a write may leave: a page of garbage.
void damage(const std::string &path) {
    std::fstream f(path, std::ios::binary | std::ios::in | std::ios::out);
    const std::string junk(4096, '\x5a');
    f.write(junk.data(), static_cast<std::streamsize>(junk.size()));
}

// A channel's day as the catalogue lists it: every key-frame second (once
// per row) and the hours.
struct Listing {
    std::vector<long> keys;
    std::vector<int> hours;
    bool operator==(const Listing &) const = default;
};

Listing listing(Catalogue &store, long day, int ch) {
    Listing l;
    for (const VrixCatSpan &s : store.spans(VRIX_CAT_VIDEO, ch, day, next_day(day), 0))
        l.keys.insert(l.keys.end(), static_cast<size_t>(s.iRows), s.iStart);
    for (const VrixCatHour &h : store.hours(VRIX_CAT_VIDEO, ch, day))
        l.hours.push_back(h.iHour);
    return l;
}

int64_t event_count(Catalogue &store, long day) {
    int64_t n = 0;
    for (const VrixCatEvents &e : store.events(day))
        n += e.iCount;
    return n;
}

} // namespace

void step_backup_repair(Demo &d) {
    const std::string day = day_name(d.t0);
    Catalogue store(d.root);
    const long dayKey = day_start(d.t0);
    const std::string dateDb = store.path(VRIX_PATH_DATE_DB);
    const std::string eventDb = store.path(VRIX_PATH_EVENT_DB, dayKey);
    vrix_db_backup(d.root.c_str(), day.c_str());
    std::string why;
    if (file_bytes(store.path(VRIX_PATH_DATE_COPY)) != file_bytes(dateDb) ||
        file_bytes(dateDb).empty())
        why = "date.db.sql is not a copy of date.db";
    else if (file_bytes(store.path(VRIX_PATH_EVENT_COPY, dayKey)) != file_bytes(eventDb) ||
             file_bytes(eventDb).empty())
        why = "event.db.sql is not a copy of the day's event.db";
    const int64_t copied =
        static_cast<int64_t>(file_bytes(dateDb).size() + file_bytes(eventDb).size());

    // An unclean stop: one channel's index and the day's events damaged.
    const int ch = 3;
    const Listing keys = listing(store, dayKey, ch);
    const int64_t events = event_count(store, dayKey);
    const std::string videoDb = store.path(VRIX_PATH_VIDEO_DB, dayKey, ch);
    const Stopwatch began;
    if (why.empty()) {
        damage(videoDb);
        damage(eventDb);
        run_integrity_check(d.root, d.out);
    }
    const double ms = began.ms();
    const Listing after = why.empty() ? listing(store, dayKey, ch) : keys;
    if (why.empty() && after != keys)
        why = strf("ch %d's index holds %zu key frames after the check, %zu before the damage", ch,
                   after.keys.size(), keys.keys.size());
    else if (why.empty() && event_count(store, dayKey) != events)
        why = strf("the day holds %lld events after the check, %lld were backed up",
                   static_cast<long long>(event_count(store, dayKey)),
                   static_cast<long long>(events));
    d.result("repair", why.empty(),
             why.empty() ? strf("backup copied date.db and event.db (%s); after damaging ch %d's "
                                "video.db and event.db the check rebuilt %zu key-frame rows from "
                                "the stream and restored %zu events from the copy, %.0f ms",
                                format_bytes(copied).c_str(), ch, keys.keys.size(),
                                static_cast<size_t>(events), ms)
                         : why);
}

void step_reduce(Demo &d) {
    const std::tm first = local_fields(d.t0);
    const long hourStart = d.t0 - first.tm_min * 60 - first.tm_sec;
    const long expected = hourStart + 3599;
    const Stopwatch began;
    const long predicted = vrix_db_get_reduce_sec(d.root.c_str());
    RemoveLog removals;
    int freeMB = -1;
    const long limit = reclaim_oldest_hour(d.root, removals, freeMB);
    const double secs = began.seconds();
    if (limit < 0) {
        d.result("reduce", false, "the remove server did not start");
        return;
    }

    std::string why;
    Catalogue store(d.root);
    const long day = day_start(d.t0);
    long eventsLeft = 0;
    for (const DemoEvent &e : d.events)
        eventsLeft += e.sec > limit;
    if (predicted != expected || limit != expected)
        why = strf("the oldest hour ends at %s; predicted %s, reduced up to %s",
                   format_time(expected).c_str(), format_time(predicted).c_str(),
                   format_time(limit).c_str());
    for (int ch = 1; ch <= kDemoChannels && why.empty(); ++ch) {
        const std::string stream = store.path(VRIX_PATH_VIDEO_STREAM, day, ch, first.tm_hour);
        for (const VrixCatHour &h : store.hours(VRIX_CAT_VIDEO, ch, day))
            if (h.iHour <= first.tm_hour) why = strf("ch %d still lists hour %d", ch, h.iHour);
        if (why.empty() && fs::exists(stream)) why = stream + " is still there";
    }
    for (const VrixCatHour &h : store.hours(VRIX_CAT_AUDIO, 1, day))
        if (why.empty() && h.iHour <= first.tm_hour)
            why = strf("audio still lists hour %d", h.iHour);
    if (why.empty() && event_count(store, day) != eventsLeft)
        why = strf("%lld events left, %ld were recorded after %s",
                   static_cast<long long>(event_count(store, day)), eventsLeft,
                   format_clock(limit).c_str());
    // Playback from the old start now begins with the next hour.
    long firstLeft = 0;
    if (why.empty()) {
        std::tm tm = mktime_fields(d.t0);
        PlayContext *p = vrix_db_open_get_video(&tm, nullptr, d.playCh, 1 << 20, d.root.c_str());
        int sub = 0, sec = 0;
        if (p && vrix_db_next_video(p) == 1) vrix_db_video_get_current_time(p, &sec, &sub);
        vrix_db_close_get_video(p);
        firstLeft = sec;
        if (sec != expected + 1)
            why = strf("playback from %s starts at %s, not at %s", format_clock(d.t0).c_str(),
                       format_clock(sec).c_str(), format_clock(expected + 1).c_str());
    }
    d.result("reduce", why.empty(),
             why.empty() ? strf("oldest hour up to %s: %d stream files removed through the "
                                "remove server, index rows and %zu events deleted, ch %d now "
                                "starts at %s; %.2f s with the waits cut to microseconds, "
                                "%d MiB free above the reserve",
                                format_clock(limit).c_str(), removals.removed.load(),
                                d.events.size() - static_cast<size_t>(eventsLeft), d.playCh,
                                format_clock(firstLeft).c_str(), secs, freeMB)
                         : why);
}

} // namespace vrixtool
