// The bytes a span of one channel occupies, from the index databases and the
// sizes of the stream files, without reading any media.
#include "core/calendar.h"
#include "core/store_access.h"
#include "store/format.h"
#include "store/log.h"
#include "store/paths.h"
#include "store/schema.h"

#include <sys/stat.h>

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

// The bytes from an indexed offset up to `end`, of which the file holds only
// `size`: rows beyond the end of the file (frames still buffered by the
// writer, or lost in a crash) name nothing.
unsigned long long bytes_between(long long from, long long end, long long size) {
    const long long to = end < size ? end : size;
    return to > from ? static_cast<unsigned long long>(to - from) : 0;
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
    // The first indexed offset at or after `sec` in its hour.
    bool first_offset(long long sec, long long &out, const char *tag) {
        const std::tm t = fields_of(sec);
        Sql q;
        format_into(q.text, sizeof q.text, sql::kFirstOffsetFrom, t.tm_hour, static_cast<int>(sec));
        const bool found = query_offset(day.mutex(), day.get(), q.text, holder.t, out);
        if (tag) log_line("%s %s\n", tag, q.text);
        return found;
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
    if (!s.holder.t) return 0;
    const long long t1 = local_seconds(*start), t2 = local_seconds(*end);
    if (m.per_second) log_line("enter %s\n", m.name);
    if (t1 > t2) return 0;
    if (!m.per_second) log_line("enter %s\n", m.name);

    // H: the first second of the local hour being counted (of the zone's
    // rules: the repeated hour of a change back has two hours of seconds).
    long long H = hour_span(t1).start;
    long long L = t1;
    const long long E = hour_span(t2).start;
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
    auto advance = [&] { L = H = hour_span(H).end; };
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
        long long s0;
        const long long at = L, seconds = hour_span(H).end - H;
        const bool indexed = s.first_offset(at, s0, nullptr);
        advance();
        if (!indexed) continue;
        const long long z = s.stream_size(at);
        if (z < 0) continue;
        T += bytes_between(s0, z, z) + static_cast<unsigned long long>(m.per_second * seconds);
        if (T >= kSaturated) {
            R = kSaturated;
            return leave();
        }
        R = T;
    }
    // The last hour: up to the first indexed position at or after the end.
    if (!s.open_day(fields_of(L))) return leave();
    long long s0, s1;
    if (!s.first_offset(L, s0, m.print_queries ? "1" : nullptr)) return leave();
    const bool ends = s.first_offset(t2, s1, m.print_queries ? "2" : nullptr);
    if (ends) log_line("u64StartOffset = %lld , u64EndOffset = %lld\n", s0, s1);
    const long long z = s.stream_size(L);
    if (z < 0) return leave(); // no file, no bytes
    if (ends)
        R = T + bytes_between(s0, s1, z) + static_cast<unsigned long long>((t2 - L) * m.per_second);
    else
        R = T + bytes_between(s0, z, z) +
            static_cast<unsigned long long>((hour_span(H).end - L) * m.per_second);
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
