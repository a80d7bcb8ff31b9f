// Media reduction: the oldest recorded hour (or day) is taken out of every
// index and its stream files are handed to the remove queue's server.
#include "core/calendar.h"
#include "core/flags.h"
#include "core/pacing.h"
#include "maintenance.h"
#include "store/format.h"
#include "store/log.h"
#include "store/paths.h"
#include "store/schema.h"

#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>

#include <climits>
#include <cstdio>

namespace vrix {

// 64-bit throughout: a disk of several TiB would wrap a 32-bit count of KiB
// to nothing, and a caller that reduces while the figure is low would delete
// recordings on an empty disk.
int free_space_figure(uint64_t bavail, uint64_t bsize) {
    constexpr uint64_t kReserveKiB = 9437184; // 9 GiB
    uint64_t bytes;
    if (__builtin_mul_overflow(bavail, bsize, &bytes)) return INT_MAX;
    const uint64_t kib = bytes / 1024 + (bytes % 1024 >= 512 ? 1 : 0); // to the nearest KiB
    const uint64_t mib = kib > kReserveKiB ? (kib - kReserveKiB) / 1024 : 0;
    return mib < INT_MAX ? static_cast<int>(mib) : INT_MAX;
}

namespace {

// The oldest registered day: its key, calendar fields and day text.
struct Day {
    int key = 0;
    std::tm tm{};
    char name[12] = {};
};

bool oldest_day(const Db &date, ResultTable &holder, Day &day) {
    if (!date.value(holder, sql::kOldestDay, day.key)) return false;
    sec_to_tm(&day.tm, day.key);
    day_name(day.name, day.tm);
    return true;
}

// The last second of local hour h of the day (by the zone's rules: 3599 s
// after its start in an ordinary hour; the last of its second span where
// the clock went back into it from a later hour, so that every pass of the
// hour's table goes).
int last_second(const Day &day, int h) {
    if (h >= 24) return static_cast<int>(hour_start_of(day.key, h + 1) - 1);
    return static_cast<int>(hour_span(hour_start_of(day.key, h)).last());
}

// The first hour of the day whose audio table holds a row; -1 when none
// does, kUnreadable when audio.db could not be read to the end.  Waits
// `wait_us` after every hour without rows.
constexpr int kUnreadable = -2;
int first_audio_hour(const Db &audio, ResultTable &holder, unsigned long wait_us) {
    for (int h = 0; h < 24; ++h) {
        Sql q;
        int n = 0;
        format_into(q.text, sizeof q.text, sql::kTableExists, h);
        if (!audio.value(holder, q.text, n)) return kUnreadable;
        if (n > 0) {
            format_into(q.text, sizeof q.text, sql::kCountHour, h);
            if (!audio.value(holder, q.text, n)) return kUnreadable;
            if (n > 0) return h;
        }
        pace_sleep_us(wait_us);
    }
    return -1;
}

// The oldest day's audio.db opened; false when there is none (the day has
// no audio).  A file that is there but cannot be opened is unreadable.
enum class AudioIndex { Open, None, Unreadable };
AudioIndex open_audio(const char *root, const Day &day, Db &audio) {
    Path p;
    if (!day_audio_db(p, root, day.name)) return AudioIndex::None;
    if (access(p.text, F_OK) != 0)
        return errno == ENOENT ? AudioIndex::None : AudioIndex::Unreadable;
    return audio.open(p.text) ? AudioIndex::Open : AudioIndex::Unreadable;
}

// What could not be read is never taken for a day without audio: nothing goes.
int unreadable(const Day &day) {
    log_line("media : audio.db of %s cannot be read , nothing reduced\n", day.name);
    return 0;
}

int predict(const char *root, const Db &date, Db &audio, ResultTable &holder) {
    pace_sleep_s(1);
    Day day;
    if (!oldest_day(date, holder, day)) return 0;
    pace_sleep_s(1);
    Path p;
    if (!day_audio_db(p, root, day.name) || !audio.open(p.text)) return last_second(day, 0);
    const int h = first_audio_hour(audio, holder, 500000);
    if (h == kUnreadable) return last_second(day, 0);
    if (h < 0) {
        log_text("vrix_db_get_reduce_sec : no audio in this date !");
        return last_second(day, 24);
    }
    return last_second(day, h);
}

// The whole day goes: its directory through the remove queue, its rows in
// date.db by statement.
void remove_day(const char *root, const Db &date, const Day &day) {
    Path p;
    if (writer_day_dir(p, root, day.name)) request_remove(kRemoveTree, p.text, true);
    log_line("delete date on %d%02d%02d\n", day.tm.tm_year + 1900, day.tm.tm_mon + 1,
             day.tm.tm_mday);
    unregister_day(date, day.key);
}

void store_free_space(int fd, int *freeMB) {
    struct statfs64 st {};
    if (fstatfs64(fd, &st) != 0) return; // the caller's figure stays as it was
    flag_set(*freeMB, free_space_figure(static_cast<uint64_t>(st.f_bavail),
                                        static_cast<uint64_t>(st.f_bsize)));
}

// An index's rows up to `limit` in `hour` and its hours up to `hour`, in one
// transaction.
void drop_hours(const Db &index, int hour, int limit) {
    Sql rows, hours;
    format_into(rows.text, sizeof rows.text, sql::kDeleteIndexUpTo, hour, limit);
    format_into(hours.text, sizeof hours.text, sql::kDeleteHoursUpTo, hour);
    index.transaction({rows.text, hours.text});
}

// One channel's share of the hour: its index rows, then its stream file.
// False when the caller's stop flag ends the reduction after it.
bool reduce_channel(const char *root, const Day &day, int ch, int hour, int limit, int *stop,
                    int *freeMB, int fd) {
    Path p;
    Db video(video_mutex(ch));
    if (!writer_video_db(p, root, day.name, ch) || !video.open(p.text)) return true;
    pace_sleep_s(1);
    drop_hours(video, hour, limit);
    pace_sleep_s(1);
    if (writer_video_stream(p, root, day.name, ch, hour)) request_remove(kRemoveFile, p.text);
    pace_sleep_s(1);
    video.close();
    pace_sleep_s(10);
    if (stop && flag_get(*stop)) return false;
    if (ch % 2 == 0 && freeMB) store_free_space(fd, freeMB);
    return true;
}

// Steps after the oldest day is known; returns the limit applied, 0 after a
// day removal.
int reduce(const char *root, const Db &date, Db &audio, ResultTable &holder, const Day &day,
           int *stop, int *freeMB, int fd) {
    pace_sleep_s(1);
    const AudioIndex found = open_audio(root, day, audio);
    if (found == AudioIndex::Unreadable) return unreadable(day);
    if (found == AudioIndex::None) {
        if (!kept_for_recording("media", root, day.key, day.name, kWholeDay))
            remove_day(root, date, day);
        return 0;
    }
    const int hour = first_audio_hour(audio, holder, 1000000);
    if (hour == kUnreadable) return unreadable(day);
    if (hour < 0) {
        audio.close(); // not held open while its directory is removed
        if (kept_for_recording("media", root, day.key, day.name, kWholeDay)) return 0;
        remove_day(root, date, day);
        log_text("rm : no video data");
        return 0;
    }
    if (kept_for_recording("media", root, day.key, day.name, hour)) return 0;
    const int limit = last_second(day, hour);
    log_line("we got hour %d\n", hour);
    for (int ch = 1; ch <= VRIX_VIDEO_CHANNELS; ++ch) {
        if (!reduce_channel(root, day, ch, hour, limit, stop, freeMB, fd)) return limit;
        pace_sleep_s(1);
    }
    drop_hours(audio, hour, limit);
    pace_sleep_s(1);
    pace_sleep_s(1);
    return limit;
}

} // namespace
} // namespace vrix

extern "C" int vrix_db_get_reduce_sec(const char *root) {
    using namespace vrix;
    MaintenanceStart m;
    if (!m.start(root, "vrix_db_get_reduce_sec")) return 0;
    const PaceForRecorder pace(root, nullptr);
    Db audio(audio_mutex());
    const int limit = predict(root, m.date, audio, m.holder.t);
    m.date.close();
    pace_sleep_us(500000);
    audio.close();
    return limit;
}

extern "C" int vrix_db_reduce_media(const char *root, int *stop, int *freeMB, int fd) {
    using namespace vrix;
    const MaintenanceHold hold(root, "media");
    if (!hold) return 0;
    const PaceForRecorder pace(root, "media");
    MaintenanceStart m;
    if (!m.start(root, "media", "media : no date db")) return 0;
    Db audio(audio_mutex());
    Day day;
    if (!oldest_day(m.date, m.holder.t, day)) {
        log_text("media : no data in date");
        return 0;
    }
    const int limit = reduce(root, m.date, audio, m.holder.t, day, stop, freeMB, fd);
    m.date.close();
    pace_sleep_s(1);
    if (audio.is_open()) {
        audio.close();
        pace_sleep_s(1);
    }
    return limit;
}
