// The first and last recorded times around a time, for export: a playback
// context opened for a single step.
#include "core/calendar.h"
#include "vrixdb.h"

#include <ctime>

namespace {

// The calendar record handed to the open: the local fields of `sec` with the
// flag naming its pass, so that the open's conversion gives back exactly
// `sec` in every zone, also in the repeated hour of a change.
std::tm local_fields(int sec) {
    vrix::refresh_timezone();
    return vrix::fields_with_pass(sec);
}

template <class Open, class Step, class Time, class Close>
int one_step(int sec, Open open, Step step, Time time, Close close) {
    std::tm tm = local_fields(sec);
    auto *ctx = open(&tm);
    if (!ctx) return 0;
    const int result = step(ctx) == 1 ? time(ctx) : 0;
    close(ctx);
    return result;
}

int video(int ch, int sec, const char *root, int bufSize, int (*step)(PlayContext *)) {
    return one_step(
        sec, [&](std::tm *tm) { return vrix_db_open_get_video(tm, nullptr, ch, bufSize, root); },
        step,
        [](PlayContext *c) {
            int s = 0, sub = 0;
            vrix_db_video_get_current_time(c, &s, &sub);
            return s;
        },
        vrix_db_close_get_video);
}

int audio(int ch, int sec, const char *root, int bufSize, int (*step)(AudioPlayContext *)) {
    return one_step(
        sec, [&](std::tm *tm) { return vrix_db_open_get_audio(tm, nullptr, ch, bufSize, root); },
        step, vrix_get_audio_sec, vrix_db_close_get_audio);
}

} // namespace

extern "C" int vrix_dvd_video_get_start_time(int ch, int sec, const char *root, int bufSize) {
    return video(ch, sec, root, bufSize, vrix_db_next_video);
}
extern "C" int vrix_dvd_video_get_end_time(int ch, int sec, const char *root, int bufSize) {
    return video(ch, sec, root, bufSize, vrix_db_pre_video);
}
extern "C" int vrix_dvd_audio_get_start_time(int ch, int sec, const char *root, int bufSize) {
    return audio(ch, sec, root, bufSize, vrix_db_next_audio);
}
extern "C" int vrix_dvd_audio_get_end_time(int ch, int sec, const char *root, int bufSize) {
    return audio(ch, sec, root, bufSize, vrix_db_pre_audio);
}
