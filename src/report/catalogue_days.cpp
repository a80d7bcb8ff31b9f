// The catalogue's calendar: the recorded days from date.db, and the events
// of each day counted per channel and type.
#include "catalogue.h"

#include "core/calendar.h"
#include "store/log.h"
#include "store/paths.h"

#include <map>

namespace vrix::cat {
namespace {

// Bit ch - 1 of each day key in [from, to) for the channels date.db lists.
bool channel_masks(ReadDb &date, long long from, long long to, std::map<int, uint32_t> &masks) {
    std::vector<long long> tables;
    if (!date.usable() ||
        !date.query("select cast(substr(name, 3) as int) from sqlite_master where type = "
                    "'table' and name glob 'ch[0-9]*';",
                    1, tables))
        return !date.failed();
    std::vector<int> days;
    for (long long ch : tables) {
        if (ch < 1 || ch > VRIX_VIDEO_CHANNELS) continue;
        char table[8];
        format_into(table, sizeof table, "ch%d", static_cast<int>(ch));
        if (!days_in(date, table, from, to, days)) return false;
        for (int d : days)
            masks[d] |= 1u << (ch - 1);
    }
    return true;
}

int highest_audio_dir(const char *root, const std::tm &day) {
    int n = 0;
    Path p;
    for (int c = 1; c <= VRIX_AUDIO_CHANNELS; ++c)
        if (reader_audio_channel_dir(p, root, day, c) && exists(p.text)) n = c;
    return n;
}

} // namespace
} // namespace vrix::cat

using namespace vrix;

extern "C" int vrix_cat_days(const char *root, int from, int to, VrixCatDayFn fn, void *user,
                             VrixCatProblemFn problem) {
    if (!cat::root_ok(root, "vrix_cat_days")) return -1;
    if (!fn) {
        log_line("vrix_cat_days : no callback\n");
        return -1;
    }
    refresh_timezone();
    cat::Call call(root, problem, user);
    Path p;
    reader_date_db(p, root);
    cat::ReadDb date(call, date_mutex(), p.text);
    std::vector<int> days;
    std::map<int, uint32_t> masks;
    if (!cat::days_in(date, "H", from, to, days) || !cat::channel_masks(date, from, to, masks))
        return call.result();
    for (int day : days) {
        const std::tm d = cat::day_fields(day);
        VrixCatDay r{};
        r.iDay = day;
        r.iEnd = static_cast<int32_t>(next_day_start(day));
        r.uVideo = masks[day];
        r.iAudio = reader_audio_db(p, root, d) && cat::exists(p.text) ? 1 : 0;
        r.iAudioChannels = cat::highest_audio_dir(root, d);
        r.iEvents = reader_event_db(p, root, d) && cat::exists(p.text) ? 1 : 0;
        if (fn(&r, user)) break;
    }
    return call.result();
}

extern "C" int vrix_cat_events(const char *root, int from, int to, VrixCatEventsFn fn, void *user,
                               VrixCatProblemFn problem) {
    if (!cat::root_ok(root, "vrix_cat_events")) return -1;
    if (!fn) {
        log_line("vrix_cat_events : no callback\n");
        return -1;
    }
    refresh_timezone();
    cat::Call call(root, problem, user);
    Path p;
    reader_date_db(p, root);
    std::vector<int> days;
    {
        cat::ReadDb date(call, date_mutex(), p.text);
        if (!cat::days_in(date, "H", from, to, days)) return call.result();
    }
    for (int day : days) {
        if (!reader_event_db(p, root, cat::day_fields(day))) continue;
        cat::ReadDb db(call, event_mutex(), p.text);
        std::vector<long long> rows;
        if (!db.usable() ||
            !db.query("select count(*) from sqlite_master where type = 'table' and name = "
                      "'h_all';",
                      1, rows) ||
            rows.empty() || rows[0] == 0)
            continue;
        rows.clear();
        if (!db.query("select ch, type, count(*), min(sec), max(sec) from h_all group by ch, type "
                      "order by "
                      "min(id);",
                      5, rows))
            continue;
        for (size_t i = 0; i + 4 < rows.size(); i += 5) {
            const VrixCatEvents r{day,
                                  static_cast<int32_t>(rows[i]),
                                  static_cast<int32_t>(rows[i + 1]),
                                  static_cast<int32_t>(rows[i + 2]),
                                  static_cast<int32_t>(rows[i + 3]),
                                  static_cast<int32_t>(rows[i + 4])};
            if (fn(&r, user)) return call.result();
        }
    }
    return call.result();
}
