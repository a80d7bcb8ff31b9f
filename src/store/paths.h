// Every path of the store.  Writers keep the root with "/" appended and name
// days "%d%02d%02d"; readers take the plain root and name days "%04d%02d%02d".
// Both give the same text for the years 1000..9999.
#pragma once

#include "format.h"

#include <ctime>

namespace vrix {

// A root that leaves room for the longest path; otherwise prints
// "<who> : root path too long" and returns false.
bool root_fits(const char *root, const char *who);

// A copy of the root with `tail` appended and room to spare (caller frees
// with free()); null when it cannot be had.
char *copy_root(const char *root, const char *tail = "");

// The writer's root text: "%s/" of the root.
inline char *make_writer_root(const char *root) {
    return copy_root(root, "/");
}

// Day name "%d%02d%02d" (year + 1900, month + 1, day) into a 12-byte field.
void day_name(char (&out)[12], const std::tm &tm);

// Writer forms, from the root with "/" appended.
bool writer_date_db(Path &p, const char *strRoot);                    // %sdate.db
bool writer_day_dir(Path &p, const char *strRoot, const char *day);   // %s/%s
bool writer_video_dir(Path &p, const char *strRoot, const char *day); // %s/%s/video
bool writer_channel_dir(Path &p, const char *strRoot, const char *day, int ch);
bool writer_video_db(Path &p, const char *strRoot, const char *day, int ch);
bool writer_video_stream(Path &p, const char *strRoot, const char *day, int ch, int hour);
bool writer_audio_dir(Path &p, const char *strRoot, const char *day); // %s/%s/audio

// Reader forms, from the plain root and a calendar date.
bool reader_date_db(Path &p, const char *root);
bool reader_video_db(Path &p, const char *root, const std::tm &day, int ch);
bool reader_video_stream(Path &p, const char *root, const std::tm &day, int ch, int hour);
bool reader_audio_db(Path &p, const char *root, const std::tm &day);
bool reader_audio_stream(Path &p, const char *root, const std::tm &day, int ch, int hour);
bool reader_event_db(Path &p, const char *root, const std::tm &day);
bool reader_day_dir(Path &p, const char *root, const std::tm &day); // %s/%04d%02d%02d
bool reader_audio_channel_dir(Path &p, const char *root, const std::tm &day,
                              int ch); // .../audio/%d

// The day's event database inside a day directory given as a path: "%s/event.db".
bool dir_event_db(Path &p, const char *dir);

// Inside a channel's or the audio directory given as a path (repair's forms
// keep their doubled "/"): the index, a channel's directory, an hour's
// stream, and the first audio channel's stream.
template <size_t N> bool dir_video_db(FixedText<N> &p, const char *dir) {
    return format_into(p.text, N, "%s/video.db", dir);
}
template <size_t N> bool dir_audio_db(FixedText<N> &p, const char *dir) {
    return format_into(p.text, N, "%s/audio.db", dir);
}
bool dir_channel(Path &p, const char *dir, int ch);              // %s/%d
bool dir_stream(Path &p, const char *dir, int hour);             // %s/%d.stream
bool dir_first_audio_stream(Path &p, const char *dir, int hour); // %s/1/%d.stream

// Maintenance forms from the plain root and a day text "%d%02d%02d" (the
// day directory, video.db and stream names are the writer forms above given
// the plain root).
bool day_audio_db(Path &p, const char *root, const char *day); // %s/%s/audio/audio.db
bool day_event_db(Path &p, const char *root, const char *day); // %s/%s/event.db
// The repair's directories of a calendar day: "%s/%d%02d%02d/video/%d/" and
// "%s/%d%02d%02d/audio/".
bool repair_channel_dir(Path &p, const char *root, const std::tm &day, int ch);
bool repair_audio_dir(Path &p, const char *root, const std::tm &day);
// The lock file of one recording process per store: "%s/.vrixdb.lock".
bool root_lock_file(Path &p, const char *root);
// The journal of the hour files the writers opened: "%s/.vrixdb.hours".
bool hour_journal_file(Path &p, const char *root);
// A file beside another: "%s%s" (".sql" backup copies, "-journal").
bool path_with_suffix(SidePath &p, const char *path, const char *suffix);

} // namespace vrix
