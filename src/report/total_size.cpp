// The bytes a span of one channel occupies, from the index databases and the
// sizes of the stream files, without reading any media.
#include "core/calendar.h"
#include "core/store_access.h"
#include "store/format.h"
#include "store/log.h"
#include "store/paths.h"
#include "store/schema.h"

#include <sys/stat.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>

namespace vrix {
namespace {

constexpr unsigned long long kSaturated = 4294967295ULL;

// What differs between the video and the audio totals.
struct Medium {
    const char *name;       // for "enter %s" / "leave %s"
    const char *date_error; // date.db could not be opened
    bool (*day_db)(Path &, const char *root, const std::tm &, int ch);
    bool (*stream)(Path &, const char *root, const std::tm &, int ch, int hour);
    pthread_mutex_t *(*mutex)(int ch);
    long long per_second; // allowance added per second of span
    bool print_queries;   // "1 %s" / "2 %s"
};

bool video_db(Path &p, const char *root, const std::tm &d, int ch) {
    return reader_video_db(p, root, d, ch);
}
bool audio_db(Path &p, const char *root, const std::tm &d, int) {
    return reader_audio_db(p, root, d);
}
pthread_mutex_t *audio_mutex_of(int) {
    return audio_mutex();
}

const Medium kVideo{"vrix_db_get_video_total_size",
                    "hdd_get_video_total_size : get date db error !!!",
                    video_db,
                    reader_video_stream,
                    video_mutex,
                    0,
                    true};
const Medium kAudio{"vrix_db_get_audio_total_size",
                    "hdd_get_audio_total_size : get date db error !!!",
                    audio_db,
                    reader_audio_stream,
                    audio_mutex_of,
                    800,
                    false};

// The whole date, so that days a month or a year apart are never confused.
int date_of(const std::tm &tm) {
    return (tm.tm_year * 100 + tm.tm_mon) * 100 + tm.tm_mday;
}

long long file_size(const char *path) {
    struct stat st {};
    return stat(path, &st) == 0 ? static_cast<long long>(st.st_size) : -1;
}

// The scan's open handles and holder, released on every way out.
struct Scan {
    const Medium &m;
    const char *root;
    int ch;
    Holder holder{1, kOffsetCell};
    Holder sum{1, kOffsetCell};
    Db date{date_mutex()};
    Db day{m.mutex(ch)};
    int day_date = -1; // date_of the day whose database is open
    bool open_day(const std::tm &d) {
        day.close();
        Path p;
        if (!m.day_db(p, root, d, ch) || !day.open(p.text)) return false;
        day_date = date_of(d);
        return true;
    }
    // The rows of the hour of `from` whose time lies in [from, to) and the
    // bytes they index in its stream file of `z` bytes: each row's record
    // and what follows it up to the next row in file order.  Rows beyond the
    // end of the file (frames still buffered by the writer, or lost in a
    // crash) name nothing.  A clock set back makes passes of an hour: each
    // row counts, whatever its place.  False when the hour has no table.
    bool rows_in(long long from, long long to, long long z, long long &rows, long long &bytes,
                 const char *tag) {
        const std::tm t = fields_of(from);
        Sql q;
        format_into(q.text, sizeof q.text, sql::kRowBytes, z, z, t.tm_hour, static_cast<int>(from),
                    static_cast<int>(std::min<long long>(to, INT_MAX)));
        int r;
        {
            SqlLock hold(day.mutex());
            r = sql_submit(day.get(), q.text, "%u %u", &holder.t, &sum.t);
        }
        if (tag) log_line("%s %s\n", tag, q.text);
        return r > 0 && holder_offset(holder.t, rows) && holder_offset(sum.t, bytes);
    }
    long long stream_size(long long sec) {
        const std::tm t = fields_of(sec);
        Path p;
        return m.stream(p, root, t, ch, t.tm_hour) ? file_size(p.text) : -1;
    }
};

unsigned total_size(const Medium &m, struct tm *start, struct tm *end, const char *root, int ch) {
    refresh_timezone();
    if (!start || !end || !root || ch < 1 || ch > VRIX_VIDEO_CHANNELS) {
        log_line("%s : bad arguments\n", m.name);
        return 0;
    }
    Scan s{m, root, ch};
    if (!s.holder.t || !s.sum.t) return 0;
    const long long t1 = local_seconds(*start), t2 = local_seconds(*end);
    if (m.per_second) log_line("enter %s\n", m.name);
    if (t1 > t2) return 0;
    if (!m.per_second) log_line("enter %s\n", m.name);

    // H: the first second of the local hour being counted (of the zone's
    // rules: the repeated hour of a change back has two hours of seconds).
    long long H = hour_span(t1).start;
    long long L = t1;
    // E: the last hour that begins at or before t2.  Where the clock went back
    // into an earlier hour (Pacific/Chatham), t2's own hour began before hours
    // that follow it.
    long long E = hour_span(t2).start;
    for (long long n; (n = hour_span(E).next) <= t2 && n > E;)
        E = n;
    unsigned long long T = 0, R = 0;
    auto leave = [&] {
        log_line("leave %s\n", m.name);
        return static_cast<unsigned>(R);
    };
    Path p;
    if (!reader_date_db(p, root) || !s.date.open(p.text)) {
        log_text(m.date_error);
        return leave();
    }
    auto advance = [&] { L = H = hour_span(H).next; };
    for (;;) {
        const std::tm h = fields_of(H);
        if (day_start(static_cast<int>(H), h) == H) {
            Sql q;
            format_into(q.text, sizeof q.text, sql::kChannelDayFrom, ch, static_cast<int>(H));
            long long day;
            if (!query_offset(date_mutex(), s.date.get(), q.text, s.holder.t, day)) return leave();
            if (day != H) L = H = day;
        }
        if (H > t2) return leave();
        if (H == E) break;
        const std::tm l = fields_of(L);
        if (date_of(l) != s.day_date && !s.open_day(l)) {
            advance();
            continue;
        }
        const long long at = L, seconds = hour_span(H).seconds();
        advance();
        const long long z = s.stream_size(at);
        long long rows, bytes;
        if (z < 0 || !s.rows_in(at, t2, z, rows, bytes, nullptr) || rows == 0) continue;
        T += static_cast<unsigned long long>(bytes) +
             static_cast<unsigned long long>(m.per_second * seconds);
        if (T >= kSaturated) {
            R = kSaturated;
            return leave();
        }
        R = T;
    }
    // The last hour: the rows from L up to the end.
    if (!s.open_day(fields_of(L))) return leave();
    const long long z = s.stream_size(L);
    if (z < 0) return leave(); // no file, no bytes
    long long rows, bytes, after, rest;
    if (!s.rows_in(L, t2, z, rows, bytes, m.print_queries ? "1" : nullptr)) return leave();
    const bool ends =
        s.rows_in(t2, INT_MAX, z, after, rest, m.print_queries ? "2" : nullptr) && after > 0;
    if (rows == 0 && !ends) return leave();
    const HourSpan last = hour_span(H);
    const long long seconds = ends ? t2 - L : last.end - L + last.end2 - last.start2;
    R = T + static_cast<unsigned long long>(bytes) +
        static_cast<unsigned long long>(seconds * m.per_second);
    if (R >= kSaturated) R = kSaturated;
    return leave();
}

} // namespace
} // namespace vrix

extern "C" unsigned vrix_db_get_video_total_size(struct tm *start, struct tm *end, const char *root,
                                                 int ch) {
    return vrix::total_size(vrix::kVideo, start, end, root, ch);
}

extern "C" unsigned vrix_db_get_audio_total_size(struct tm *start, struct tm *end, const char *root,
                                                 int ch) {
    return vrix::total_size(vrix::kAudio, start, end, root, ch);
}
