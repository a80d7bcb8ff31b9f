#include "paths.h"
#include "log.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace vrix {

bool root_fits(const char *root, const char *who) {
    if (!root) {
        log_line("%s : no root path\n", who);
        return false;
    }
    if (std::strlen(root) > kMaxRootLength) {
        log_line("%s : root path too long\n", who);
        return false;
    }
    return true;
}

char *copy_root(const char *root, const char *tail) {
    const size_t size = std::strlen(root) + std::strlen(tail) + 10;
    char *s = static_cast<char *>(std::calloc(1, size));
    if (s) std::snprintf(s, size, "%s%s", root, tail);
    return s;
}

void day_name(char (&out)[12], const std::tm &tm) {
    std::memset(out, 0, sizeof out);
    // Years above 9999 do not occur in 32-bit seconds; the bound keeps the
    // field terminated whatever the input.
    std::snprintf(out, sizeof out, "%u%02u%02u", static_cast<unsigned>(tm.tm_year + 1900) % 100000u,
                  static_cast<unsigned>(tm.tm_mon + 1) % 100u,
                  static_cast<unsigned>(tm.tm_mday) % 100u);
}

bool writer_date_db(Path &p, const char *strRoot) {
    return format_into(p.text, sizeof p.text, "%sdate.db", strRoot);
}
bool writer_day_dir(Path &p, const char *strRoot, const char *day) {
    return format_into(p.text, sizeof p.text, "%s/%s", strRoot, day);
}
bool writer_video_dir(Path &p, const char *strRoot, const char *day) {
    return format_into(p.text, sizeof p.text, "%s/%s/video", strRoot, day);
}
bool writer_channel_dir(Path &p, const char *strRoot, const char *day, int ch) {
    return format_into(p.text, sizeof p.text, "%s/%s/video/%d", strRoot, day, ch);
}
bool writer_video_db(Path &p, const char *strRoot, const char *day, int ch) {
    return format_into(p.text, sizeof p.text, "%s/%s/video/%d/video.db", strRoot, day, ch);
}
bool writer_video_stream(Path &p, const char *strRoot, const char *day, int ch, int hour) {
    return format_into(p.text, sizeof p.text, "%s/%s/video/%d/%d.stream", strRoot, day, ch, hour);
}

bool reader_date_db(Path &p, const char *root) {
    return format_into(p.text, sizeof p.text, "%s/date.db", root);
}
bool reader_video_db(Path &p, const char *root, const std::tm &d, int ch) {
    return format_into(p.text, sizeof p.text, "%s/%04d%02d%02d/video/%d/video.db", root,
                       d.tm_year + 1900, d.tm_mon + 1, d.tm_mday, ch);
}
bool reader_video_stream(Path &p, const char *root, const std::tm &d, int ch, int hour) {
    return format_into(p.text, sizeof p.text, "%s/%04d%02d%02d/video/%d/%d.stream", root,
                       d.tm_year + 1900, d.tm_mon + 1, d.tm_mday, ch, hour);
}
bool reader_audio_db(Path &p, const char *root, const std::tm &d) {
    return format_into(p.text, sizeof p.text, "%s/%04d%02d%02d/audio/audio.db", root,
                       d.tm_year + 1900, d.tm_mon + 1, d.tm_mday);
}
bool reader_audio_stream(Path &p, const char *root, const std::tm &d, int ch, int hour) {
    return format_into(p.text, sizeof p.text, "%s/%04d%02d%02d/audio/%d/%d.stream", root,
                       d.tm_year + 1900, d.tm_mon + 1, d.tm_mday, ch, hour);
}
bool reader_event_db(Path &p, const char *root, const std::tm &d) {
    return format_into(p.text, sizeof p.text, "%s/%04d%02d%02d/event.db", root, d.tm_year + 1900,
                       d.tm_mon + 1, d.tm_mday);
}

bool reader_day_dir(Path &p, const char *root, const std::tm &d) {
    return format_into(p.text, sizeof p.text, "%s/%04d%02d%02d", root, d.tm_year + 1900,
                       d.tm_mon + 1, d.tm_mday);
}
bool reader_audio_channel_dir(Path &p, const char *root, const std::tm &d, int ch) {
    return format_into(p.text, sizeof p.text, "%s/%04d%02d%02d/audio/%d", root, d.tm_year + 1900,
                       d.tm_mon + 1, d.tm_mday, ch);
}

bool dir_event_db(Path &p, const char *dir) {
    return format_into(p.text, sizeof p.text, "%s/event.db", dir);
}

bool dir_channel(Path &p, const char *dir, int ch) {
    return format_into(p.text, sizeof p.text, "%s/%d", dir, ch);
}
bool dir_stream(Path &p, const char *dir, int hour) {
    return format_into(p.text, sizeof p.text, "%s/%d.stream", dir, hour);
}
bool dir_first_audio_stream(Path &p, const char *dir, int hour) {
    return format_into(p.text, sizeof p.text, "%s/1/%d.stream", dir, hour);
}
bool writer_audio_dir(Path &p, const char *strRoot, const char *day) {
    return format_into(p.text, sizeof p.text, "%s/%s/audio", strRoot, day);
}

bool day_audio_db(Path &p, const char *root, const char *day) {
    return format_into(p.text, sizeof p.text, "%s/%s/audio/audio.db", root, day);
}
bool day_event_db(Path &p, const char *root, const char *day) {
    return format_into(p.text, sizeof p.text, "%s/%s/event.db", root, day);
}
bool repair_channel_dir(Path &p, const char *root, const std::tm &d, int ch) {
    return format_into(p.text, sizeof p.text, "%s/%d%02d%02d/video/%d/", root, d.tm_year + 1900,
                       d.tm_mon + 1, d.tm_mday, ch);
}
bool repair_audio_dir(Path &p, const char *root, const std::tm &d) {
    return format_into(p.text, sizeof p.text, "%s/%d%02d%02d/audio/", root, d.tm_year + 1900,
                       d.tm_mon + 1, d.tm_mday);
}
bool root_lock_file(Path &p, const char *root) {
    return format_into(p.text, sizeof p.text, "%s/.vrixdb.lock", root);
}
bool hour_journal_file(Path &p, const char *root) {
    return format_into(p.text, sizeof p.text, "%s/.vrixdb.hours", root);
}
bool path_with_suffix(SidePath &p, const char *path, const char *suffix) {
    return format_into(p.text, sizeof p.text, "%s%s", path, suffix);
}

} // namespace vrix
