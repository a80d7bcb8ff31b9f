// The catalogue's check of the databases a playback went through, and the
// paths of the store's files for callers that name or copy them.
#include "catalogue.h"

#include "core/calendar.h"
#include "store/log.h"
#include "store/paths.h"

#include <algorithm>
#include <cstring>

using namespace vrix;

extern "C" int vrix_cat_check(const char *root, int kind, int ch, int from, int to,
                              VrixCatProblemFn problem, void *user) {
    if (!cat::root_ok(root, "vrix_cat_check")) return -1;
    if ((kind == VRIX_CAT_VIDEO && (ch < 1 || ch > VRIX_VIDEO_CHANNELS)) ||
        (kind != VRIX_CAT_VIDEO && kind != VRIX_CAT_AUDIO && kind != VRIX_CAT_EVENTS)) {
        log_line("vrix_cat_check : kind %d channel %d refused\n", kind, ch);
        return -1;
    }
    refresh_timezone();
    cat::Call call(root, problem, user);
    const int lo = cat::day_key(std::min(from, to)), hi = cat::day_key(std::max(from, to));
    Path p;
    reader_date_db(p, root);
    std::vector<int> days;
    {
        cat::ReadDb date(call, date_mutex(), p.text);
        char table[8] = "H";
        if (kind == VRIX_CAT_VIDEO) format_into(table, sizeof table, "ch%d", ch);
        if (!cat::days_in(date, table, lo, hi + 1LL, days)) return call.result();
    }
    for (int day : days) {
        if (!cat::index_db_path(p, root, kind, day, ch)) continue;
        cat::ReadDb db(call, cat::index_mutex(kind, ch), p.text);
        if (!db.usable()) continue;
        // Counting a table's rows without an index reads every page of it.
        std::vector<long long> v;
        Sql q;
        if (kind == VRIX_CAT_EVENTS) {
            if (db.query("select count(*) from sqlite_master where type = 'table' and name = "
                         "'h_all';",
                         1, v) &&
                !v.empty() && v[0])
                db.query("select count(*) from h_all not indexed;", 1, v);
            continue;
        }
        bool has_h = false;
        std::vector<int> tables, hours;
        if (!db.hour_tables(has_h, tables) || !has_h) continue;
        if (!db.query("select count(*) from H not indexed;", 1, v) || !db.listed_hours(hours))
            continue;
        for (int h : hours) {
            if (std::find(tables.begin(), tables.end(), h) == tables.end()) continue;
            format_into(q.text, sizeof q.text, "select count(*) from h%d not indexed;", h);
            if (!db.query(q.text, 1, v)) break;
        }
    }
    return call.result();
}

extern "C" int vrix_cat_path(const char *root, int kind, int day, int ch, int hour, char *buf,
                             int size) {
    if (!buf || size < 1) return -1;
    buf[0] = 0;
    if (!root || strlen(root) > VRIX_MAX_ROOT_LENGTH) return -1;
    refresh_timezone();
    const std::tm d = cat::day_fields(day);
    const bool video_ch = ch >= 1 && ch <= VRIX_VIDEO_CHANNELS;
    const bool audio_ch = ch >= 1 && ch <= VRIX_AUDIO_CHANNELS;
    const bool hour_ok = hour >= 0 && hour <= 23;
    Path p;
    SidePath side;
    const char *path = p.text;
    bool ok = false;
    switch (kind) {
    case VRIX_PATH_DATE_DB:
        ok = reader_date_db(p, root);
        break;
    case VRIX_PATH_DATE_COPY:
        ok = reader_date_db(p, root) && path_with_suffix(side, p.text, ".sql");
        path = side.text;
        break;
    case VRIX_PATH_DAY_DIR:
        ok = reader_day_dir(p, root, d);
        break;
    case VRIX_PATH_EVENT_DB:
        ok = reader_event_db(p, root, d);
        break;
    case VRIX_PATH_EVENT_COPY:
        ok = reader_event_db(p, root, d) && path_with_suffix(side, p.text, ".sql");
        path = side.text;
        break;
    case VRIX_PATH_VIDEO_DB:
        ok = video_ch && reader_video_db(p, root, d, ch);
        break;
    case VRIX_PATH_VIDEO_STREAM:
        ok = video_ch && hour_ok && reader_video_stream(p, root, d, ch, hour);
        break;
    case VRIX_PATH_AUDIO_DB:
        ok = reader_audio_db(p, root, d);
        break;
    case VRIX_PATH_AUDIO_STREAM:
        ok = audio_ch && hour_ok && reader_audio_stream(p, root, d, ch, hour);
        break;
    default:
        break;
    }
    const size_t n = ok ? strlen(path) : 0;
    if (!ok || n + 1 > static_cast<size_t>(size)) return -1;
    std::memcpy(buf, path, n + 1);
    return static_cast<int>(n);
}
