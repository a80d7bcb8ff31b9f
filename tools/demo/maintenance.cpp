// Demo: backup, the integrity check after damage, and reclaiming the oldest
// hour through the remove queues.
#include "vrixdb/maintenance.h"
#include "demo.h"
#include "vrixdb.h"
#include "vrixdb/progress.h"
#include "vrixdb/store_index.h"
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

bool same_keys(const std::vector<HourIndex> &a, const std::vector<HourIndex> &b) {
    if (a.size() != b.size()) return false;
    for (size_t h = 0; h < a.size(); ++h) {
        if (a[h].hour != b[h].hour || a[h].keys.size() != b[h].keys.size()) return false;
        for (size_t k = 0; k < a[h].keys.size(); ++k)
            if (a[h].keys[k].sec != b[h].keys[k].sec || a[h].keys[k].offset != b[h].keys[k].offset)
                return false;
    }
    return true;
}

size_t key_count(const std::vector<HourIndex> &hours) {
    size_t n = 0;
    for (const HourIndex &h : hours)
        n += h.keys.size();
    return n;
}

} // namespace

void step_backup_repair(Demo &d) {
    const std::string day = day_name(d.t0);
    StoreIndex store(d.root);
    const std::string dateDb = store.date_db();
    const std::string eventDb = store.event_db(day_start(d.t0));
    vrix_db_backup(d.root.c_str(), day.c_str());
    std::string why;
    if (file_bytes(dateDb + ".sql") != file_bytes(dateDb) || file_bytes(dateDb).empty())
        why = "date.db.sql is not a copy of date.db";
    else if (file_bytes(eventDb + ".sql") != file_bytes(eventDb) || file_bytes(eventDb).empty())
        why = "event.db.sql is not a copy of the day's event.db";
    const int64_t copied =
        static_cast<int64_t>(file_bytes(dateDb).size() + file_bytes(eventDb).size());

    // An unclean stop: one channel's index and the day's events damaged.
    const int ch = 3;
    const auto keys = store.video(day_start(d.t0), ch);
    const auto events = store.events(day_start(d.t0));
    const std::string videoDb = store.video_db(day_start(d.t0), ch);
    const Stopwatch began;
    if (why.empty()) {
        damage(videoDb);
        damage(eventDb);
        run_integrity_check(d.root, d.out);
    }
    const double ms = began.ms();
    if (why.empty() && !same_keys(store.video(day_start(d.t0), ch), keys))
        why = strf("ch %d's index holds %zu key frames after the check, %zu before the damage", ch,
                   key_count(store.video(day_start(d.t0), ch)), key_count(keys));
    else if (why.empty() && store.events(day_start(d.t0)).size() != events.size())
        why = strf("the day holds %zu events after the check, %zu were backed up",
                   store.events(day_start(d.t0)).size(), events.size());
    d.result("repair", why.empty(),
             why.empty()
                 ? strf("backup copied date.db and event.db (%s); after damaging ch %d's "
                        "video.db and event.db the check rebuilt %zu key-frame rows from "
                        "the stream and restored %zu events from the copy, %.0f ms",
                        format_bytes(copied).c_str(), ch, key_count(keys), events.size(), ms)
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
    StoreIndex store(d.root);
    const long day = day_start(d.t0);
    long eventsLeft = 0;
    for (const DemoEvent &e : d.events)
        eventsLeft += e.sec > limit;
    if (predicted != expected || limit != expected)
        why = strf("the oldest hour ends at %s; predicted %s, reduced up to %s",
                   format_time(expected).c_str(), format_time(predicted).c_str(),
                   format_time(limit).c_str());
    for (int ch = 1; ch <= kDemoChannels && why.empty(); ++ch) {
        const std::string stream = store.stream_file(day, ch, first.tm_hour);
        for (const HourIndex &h : store.video(day, ch))
            if (h.hour <= first.tm_hour) why = strf("ch %d still lists hour %d", ch, h.hour);
        if (why.empty() && fs::exists(stream)) why = stream + " is still there";
    }
    for (const HourIndex &h : store.audio(day))
        if (why.empty() && h.hour <= first.tm_hour) why = strf("audio still lists hour %d", h.hour);
    if (why.empty() && static_cast<long>(store.events(day).size()) != eventsLeft)
        why = strf("%zu events left, %ld were recorded after %s", store.events(day).size(),
                   eventsLeft, format_clock(limit).c_str());
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
