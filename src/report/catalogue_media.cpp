// The catalogue of video and audio: the hours of a channel's days with their
// rows and bytes, the recorded spans, and the oldest and newest second.
//
// Rows of an hour are not assumed to be in time order by id (the clock may
// have stepped back, and the repeated hour of a change back holds two
// passes): spans come from the set of recorded seconds, sorted.
#include "catalogue.h"
#include "catalogue_seconds.h"

#include "core/calendar.h"
#include "store/log.h"
#include "store/paths.h"

#include <algorithm>
#include <utility>

namespace vrix::cat {
namespace {

// What a media function was asked for, checked.
struct Media {
    int kind;
    int ch;
};

bool media_ok(const char *who, const char *root, int kind, int ch, bool any_channel = false) {
    if (!root_ok(root, who)) return false;
    const bool ok =
        (kind == VRIX_CAT_VIDEO &&
         ((any_channel && ch == 0) || (ch >= 1 && ch <= VRIX_VIDEO_CHANNELS))) ||
        (kind == VRIX_CAT_AUDIO && (any_channel || (ch >= 1 && ch <= VRIX_AUDIO_CHANNELS)));
    if (!ok) log_line("%s : kind %d channel %d refused\n", who, kind, ch);
    return ok;
}

// The days a channel recorded in [from, to): date.db's ch<N> for video, its
// H (every recorded day) for audio.
bool media_days(Call &call, const Media &m, long long from, long long to, std::vector<int> &days) {
    Path p;
    reader_date_db(p, call.root());
    ReadDb date(call, date_mutex(), p.text);
    char table[8] = "H";
    if (m.kind == VRIX_CAT_VIDEO) format_into(table, sizeof table, "ch%d", m.ch);
    return days_in(date, table, from, to, days);
}

// The hours a day's index lists, each with whether it has a table of rows.
struct ListedHour {
    int hour;
    bool table;
};

bool listed(ReadDb &db, std::vector<ListedHour> &out) {
    out.clear();
    bool has_h = false;
    std::vector<int> tables, hours;
    if (!db.usable() || !db.hour_tables(has_h, tables) || !has_h || !db.listed_hours(hours))
        return false;
    for (int h : hours)
        out.push_back({h, std::find(tables.begin(), tables.end(), h) != tables.end()});
    return true;
}

bool stream_path(Path &p, const char *root, const Media &m, int day, int hour) {
    const std::tm d = day_fields(day);
    return m.kind == VRIX_CAT_VIDEO ? reader_video_stream(p, root, d, m.ch, hour)
                                    : reader_audio_stream(p, root, d, m.ch, hour);
}

// Builds spans from recorded seconds in ascending order, handing each
// finished one to the caller.
class SpanBuilder {
  public:
    SpanBuilder(int gap, VrixCatSpanFn fn, void *user) : gap_(gap), fn_(fn), user_(user) {}
    // False once the caller asked to stop.
    bool add(long long sec, long long rows) {
        if (open_ && sec <= span_.iEnd - 1) { // a second seen already (a later day's pass)
            span_.iRows += static_cast<int32_t>(rows);
            return true;
        }
        if (open_ && sec - (span_.iEnd - 1) > gap_ && !flush()) return false;
        if (!open_) {
            span_ = {static_cast<int32_t>(sec), static_cast<int32_t>(sec), 0, 0};
            open_ = true;
        }
        span_.iEnd = static_cast<int32_t>(sec + 1);
        ++span_.iSeconds;
        span_.iRows += static_cast<int32_t>(rows);
        return true;
    }
    // The seconds of `g` within [from, to).  A progression whose step is
    // within the gap extends the span in one go.
    bool add(const Progression &g, long long from, long long to) {
        const long long step = g.step;
        const long long i0 = std::max(0LL, (from - g.start + step - 1) / step);
        const long long i1 = std::min<long long>(g.count - 1, floor_div(to - 1 - g.start, step));
        if (i0 > i1) return true;
        const long long first = g.start + i0 * step, n = i1 - i0 + 1;
        if (step > gap_ || (open_ && first <= span_.iEnd - 1)) {
            for (long long k = 0; k < n; ++k)
                if (!add(first + k * step, g.rows)) return false;
            return true;
        }
        if (!add(first, g.rows)) return false;
        span_.iEnd = static_cast<int32_t>(first + (n - 1) * step + 1);
        span_.iSeconds += static_cast<int32_t>(n - 1);
        span_.iRows += static_cast<int32_t>((n - 1) * g.rows);
        return true;
    }
    bool flush() {
        if (!open_) return true;
        open_ = false;
        return fn_(&span_, user_) == 0;
    }

  private:
    static long long floor_div(long long a, long long b) {
        return a >= 0 ? a / b : -((-a + b - 1) / b);
    }

    long long gap_;
    VrixCatSpanFn fn_;
    void *user_;
    VrixCatSpan span_{};
    bool open_ = false;
};

// The earliest (latest) indexed second of one channel's days, 0 when none.
bool channel_bound(Call &call, const Media &m, bool newest, int &out) {
    out = 0;
    std::vector<int> days;
    if (!media_days(call, m, 0, 0x7FFFFFFFLL + 1, days)) return false;
    if (newest) std::reverse(days.begin(), days.end());
    for (int day : days) {
        Path p;
        if (!index_db_path(p, call.root(), m.kind, day, m.ch)) continue;
        ReadDb db(call, index_mutex(m.kind, m.ch), p.text);
        std::vector<ListedHour> hours;
        if (!listed(db, hours)) continue;
        if (newest) std::reverse(hours.begin(), hours.end());
        for (const ListedHour &h : hours) {
            if (!h.table) continue;
            Sql q;
            format_into(q.text, sizeof q.text, "select %s(sec) from h%d;", newest ? "max" : "min",
                        h.hour);
            std::vector<long long> v;
            if (!db.query(q.text, 1, v, 0)) break;
            if (!v.empty() && v[0] > 0) {
                out = static_cast<int>(v[0]);
                return true;
            }
        }
    }
    return true;
}

} // namespace
} // namespace vrix::cat

using namespace vrix;

extern "C" int vrix_cat_hours(const char *root, int kind, int ch, int from, int to,
                              VrixCatHourFn fn, void *user, VrixCatProblemFn problem) {
    if (!cat::media_ok("vrix_cat_hours", root, kind, ch)) return -1;
    if (!fn) {
        log_line("vrix_cat_hours : no callback\n");
        return -1;
    }
    refresh_timezone();
    cat::Call call(root, problem, user);
    const cat::Media m{kind, ch};
    std::vector<int> days;
    if (!cat::media_days(call, m, from, to, days)) return call.result();
    for (int day : days) {
        Path p;
        if (!cat::index_db_path(p, root, kind, day, ch)) continue;
        cat::ReadDb db(call, cat::index_mutex(kind, ch), p.text);
        std::vector<cat::ListedHour> hours;
        if (!cat::listed(db, hours)) continue;
        for (const cat::ListedHour &h : hours) {
            VrixCatHour r{};
            r.iDay = day;
            r.iHour = h.hour;
            r.iStart = static_cast<int32_t>(hour_start_of(day, h.hour));
            r.iEnd = static_cast<int32_t>(hour_span(r.iStart).end);
            if (h.table) {
                Sql q;
                format_into(q.text, sizeof q.text,
                            "select count(*), min(sec), max(sec) from h%d not indexed;", h.hour);
                std::vector<long long> v;
                // A table that cannot be read is reported and counts no rows.
                if (db.query(q.text, 3, v) && v.size() == 3) {
                    r.iRows = static_cast<int32_t>(v[0]);
                    r.iFirst = static_cast<int32_t>(v[1]);
                    r.iLast = static_cast<int32_t>(v[2]);
                }
            }
            r.lBytes = cat::stream_path(p, root, m, day, h.hour) ? cat::size_of(p.text) : -1;
            if (fn(&r, user)) return call.result();
        }
    }
    return call.result();
}

extern "C" int vrix_cat_spans(const char *root, int kind, int ch, int from, int to, int gap,
                              VrixCatSpanFn fn, void *user, VrixCatProblemFn problem) {
    if (!cat::media_ok("vrix_cat_spans", root, kind, ch)) return -1;
    if (!fn || gap < 0 || gap > 86400) {
        log_line("vrix_cat_spans : %s\n", fn ? "gap out of range" : "no callback");
        return -1;
    }
    refresh_timezone();
    cat::Call call(root, problem, user);
    if (from >= to) return 0;
    const cat::Media m{kind, ch};
    std::vector<int> days;
    if (!cat::media_days(call, m, cat::day_key(from), to, days)) return call.result();
    cat::SpanBuilder spans(gap, fn, user);
    std::vector<cat::Progression> seconds;
    for (int day : days) {
        Path p;
        if (!cat::index_db_path(p, root, kind, day, ch)) continue;
        cat::day_seconds(call, cat::index_mutex(kind, ch), p.text, seconds);
        for (const cat::Progression &g : seconds)
            if (!spans.add(g, from, to)) return call.result();
    }
    spans.flush();
    return call.result();
}

extern "C" int vrix_cat_bounds(const char *root, int kind, int ch, int *first, int *last,
                               VrixCatProblemFn problem, void *user) {
    if (first) *first = 0;
    if (last) *last = 0;
    if (kind != VRIX_CAT_EVENTS && !cat::media_ok("vrix_cat_bounds", root, kind, ch, true))
        return -1;
    if (kind == VRIX_CAT_EVENTS && !cat::root_ok(root, "vrix_cat_bounds")) return -1;
    refresh_timezone();
    cat::Call call(root, problem, user);
    if (kind == VRIX_CAT_EVENTS) {
        Path p;
        reader_date_db(p, root);
        std::vector<int> days;
        {
            cat::ReadDb date(call, date_mutex(), p.text);
            if (!cat::days_in(date, "H", 0, 0x7FFFFFFFLL + 1, days)) return call.result();
        }
        for (int newest = 0; newest < 2; ++newest) {
            int *out = newest ? last : first;
            if (newest) std::reverse(days.begin(), days.end());
            for (int day : days) {
                if (!reader_event_db(p, root, cat::day_fields(day))) continue;
                cat::ReadDb db(call, event_mutex(), p.text);
                std::vector<long long> v;
                if (!db.usable() ||
                    !db.query("select count(*) from sqlite_master where type = 'table' and "
                              "name = 'h_all';",
                              1, v) ||
                    v.empty() || v[0] == 0)
                    continue;
                v.clear();
                if (!db.query(newest ? "select max(sec) from h_all;"
                                     : "select min(sec) from h_all;",
                              1, v) ||
                    v.empty() || v[0] <= 0)
                    continue;
                if (out) *out = static_cast<int>(v[0]);
                break;
            }
        }
        return call.result();
    }
    const int lo = kind == VRIX_CAT_VIDEO && ch == 0 ? 1 : ch;
    const int hi = kind == VRIX_CAT_VIDEO && ch == 0 ? VRIX_VIDEO_CHANNELS : ch;
    for (int c = lo; c <= hi; ++c) {
        const cat::Media m{kind, kind == VRIX_CAT_AUDIO ? 1 : c};
        int a = 0, b = 0;
        if (first && cat::channel_bound(call, m, false, a) && a && (!*first || a < *first))
            *first = a;
        if (last && cat::channel_bound(call, m, true, b) && b > *last) *last = b;
    }
    return call.result();
}
