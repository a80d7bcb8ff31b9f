// Event reduction: a day's events up to a second are deleted; a day left
// without events goes as a whole, recordings included.
#include "core/calendar.h"
#include "core/pacing.h"
#include "maintenance.h"
#include "store/format.h"
#include "store/log.h"
#include "store/paths.h"
#include "store/schema.h"

#include <cstdio>

namespace vrix {
namespace {

void reduce_day(const char *root, int sec, const Db &date, Db &events, ResultTable &holder) {
    std::tm tm{};
    sec_to_tm(&tm, sec);
    char day[12];
    day_name(day, tm);
    const int key = day_start(sec, tm);

    Sql q;
    format_into(q.text, sizeof q.text, sql::kFindDay, key);
    int found;
    if (!date.value(holder, q.text, found)) {
        log_text("event : no data in date");
        return;
    }
    pace_sleep_s(1);
    Path p;
    if (!day_event_db(p, root, day) || !events.open(p.text)) return;
    format_into(q.text, sizeof q.text, sql::kDeleteEventsUpTo, sec);
    events.run(q.text);
    pace_sleep_s(1);
    int left;
    const bool counted = events.value(holder, sql::kCountEvents, left);
    pace_sleep_s(1);
    if (counted && left > 0) {
        log_line("we have event yet on %d%02d%02d\n", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday);
        return;
    }
    // No event left, or none could be counted (no h_all table): the day goes,
    // unless it is being recorded.
    events.close();
    if (kept_for_recording("event", root, key, day, kWholeDay)) return;
    pace_sleep_s(1);
    if (writer_day_dir(p, root, day)) request_remove(kRemoveTree, p.text);
    log_line("delete event on %d%02d%02d\n", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday);
    pace_sleep_s(10);
    unregister_day(date, key);
}

} // namespace
} // namespace vrix

extern "C" int vrix_db_reduce_event(const char *root, int sec) {
    using namespace vrix;
    const MaintenanceHold hold(root, "event");
    if (!hold) return 0;
    const PaceForRecorder pace(root, nullptr);
    MaintenanceStart m;
    if (!m.start(root, "event")) return 0;
    Db events(event_mutex());
    reduce_day(root, sec, m.date, events, m.holder.t);
    events.close();
    pace_sleep_s(1);
    m.date.close();
    return 0;
}
