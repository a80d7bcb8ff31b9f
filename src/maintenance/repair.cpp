// Integrity check after an unclean stop: each database is tested with the
// sqlite3 shell; a damaged date.db or event.db is restored from its backup
// copy, a damaged video or audio index is rebuilt from the stream files.
// Repair takes no database mutex: it runs before any context is opened.
#include "core/calendar.h"
#include "core/file_io.h"
#include "core/pacing.h"
#include "maintenance.h"
#include "media/record_scan.h"
#include "store/format.h"
#include "store/log.h"
#include "store/paths.h"
#include "store/schema.h"

#include <cstdio>

namespace vrix {
namespace {

// What a checker prints around the health test.
struct Voice {
    bool open_fail = false;           // "open fail" when the file cannot be opened
    bool show_integrity = false;      // the integrity command line before it runs
    const char *count_line = nullptr; // printed with the count command's status
};

// A path handed to a program as an argument: one starting with "-" would be
// taken for an option.
struct Arg {
    SidePath p;
    explicit Arg(const char *path) {
        if (!format_into(p.text, sizeof p.text, path[0] == '-' ? "./%s" : "%s", path))
            p.text[0] = '\0';
    }
};

int run_shell(const char *db, const char *sql) {
    const Arg a(db);
    const char *const argv[] = {"sqlite3", a.p.text, sql, nullptr};
    return run_program(argv);
}

// The health test: the file opens for update (unless `open_first` is false),
// passes the integrity check and the table can be counted.
bool sound(const char *db, const char *table, const Voice &voice, bool open_first = true) {
    if (open_first) {
        File fp(std::fopen(db, "rb+"));
        if (!fp) {
            if (voice.open_fail) log_text("open fail");
            return false;
        }
    }
    if (voice.show_integrity) log_line("sqlite3 %s \"%s\"\n", db, sql::kIntegrityCheck);
    if (run_shell(db, sql::kIntegrityCheck) != 0) return false;
    Sql count;
    if (!format_into(count.text, sizeof count.text, sql::kCountTable, table)) return false;
    const int status = run_shell(db, count.text);
    if (voice.count_line) log_line(voice.count_line, status);
    return status == 0;
}

// The names beside a database that repair touches; false (with a line) when
// one does not fit, so nothing is done to the database.
bool side_paths(const char *db, SidePath &journal, SidePath &copy) {
    if (path_with_suffix(journal, db, "-journal") && path_with_suffix(copy, db, ".sql") &&
        Arg(copy.text).p.text[0] && Arg(db).p.text[0])
        return true;
    log_line("vrix_db_correct : path too long %s\n", db);
    return false;
}

int correct_db(const char *db, const char *table) {
    SidePath journal, copy;
    if (!side_paths(db, journal, copy)) return -1;
    if (sound(db, table, Voice{})) return 0;
    std::remove(journal.text);
    std::remove(db);
    const Arg from(copy.text), to(db);
    const char *const argv[] = {"cp", from.p.text, to.p.text, nullptr};
    run_program(argv, true);
    if (sound(db, table, Voice{}, false)) return 0;
    return std::remove(db);
}

// What differs between rebuilding a video and an audio index, the lines
// each prints included.
struct IndexKind {
    const char *who; // "<who> : path too long"
    bool (*db)(SidePath &, const char *dir);
    bool (*stream)(Path &, const char *dir, int hour);
    void (*rebuild)(FILE *, SqlHandle, int hour);
    Voice voice;
    bool announce_db;      // "open <db>" before the test
    bool announce_removal; // "remove <db>" after it
    bool per_stream;       // "open <stream>" for each hour; the index is made
                           // only once a stream is there
    bool video;
};

const IndexKind kVideoIndex{"vrix_db_correct_video",
                            dir_video_db<kSidePathSize>,
                            dir_stream,
                            vrix_db_repair_video,
                            {true, true, "video ret = %d\n"},
                            false,
                            true,
                            true,
                            true};
const IndexKind kAudioIndex{"vrix_db_correct_audio",
                            dir_audio_db<kSidePathSize>,
                            dir_first_audio_stream,
                            vrix_db_repair_audio,
                            {true, false, "audio iRet = %d\n"},
                            true,
                            false,
                            false,
                            false};

// Tests the index in `dir` (which ends in "/": the paths formed from it hold
// a doubled "/") and rebuilds it from the hour files when it is not sound.
void correct_index(const IndexKind &k, const char *dir) {
    SidePath db, journal;
    if (!k.db(db, dir) || !path_with_suffix(journal, db.text, "-journal")) {
        log_line("%s : path too long %s\n", k.who, dir);
        return;
    }
    if (k.announce_db) log_line("open %s\n", db.text);
    if (sound(db.text, "H", k.voice)) return;
    std::remove(journal.text);
    std::remove(db.text);
    if (k.announce_removal) log_line("remove %s\n", db.text);

    Db index(nullptr);
    auto open_index = [&] {
        if (index.is_open()) return true;
        if (!index.open(db.text)) return false;
        index.run(sql::kCreateHourH);
        return true;
    };
    if (!k.per_stream && !open_index()) return;
    for (int h = 0; h < 24; ++h) {
        Path stream;
        if (!k.stream(stream, dir, h)) continue;
        if (k.per_stream) log_line("open %s\n", stream.text);
        File fp(io::open_file(stream.text, "rb+"));
        if (!fp) continue;
        if (!open_index()) return;
        k.rebuild(fp.get(), index.get(), h);
    }
}

// Reconciles every hour that the index in `dir` lists with its stream file
// (audio: the first channel's, as the writer indexes it).  An hour the index
// does not list is left alone: reduction unlists the hours it reclaims.
void reconcile_index(const IndexKind &k, const char *dir) {
    SidePath db;
    if (!k.db(db, dir) || !File(io::open_file(db.text, "rb"))) return;
    Db index(nullptr);
    Holder holder(1, kIntCell);
    if (!holder.t || !index.open(db.text)) return;
    for (int h = 0; h < 24; ++h) {
        Path stream;
        Sql q;
        format_into(q.text, sizeof q.text, sql::kFindHour, h);
        int listed;
        if (!k.stream(stream, dir, h) || !index.value(holder.t, q.text, listed)) continue;
        File fp(io::open_file(stream.text, "rb"));
        if (fp) reconcile_hour(index.get(), fp.get(), h, k.video, nullptr);
    }
}

// Checks the index in `dir`, then reconciles it with the stream files.
void check_index(const IndexKind &k, const char *dir) {
    correct_index(k, dir);
    reconcile_index(k, dir);
}

// The days of a channel that start-up repair checks: its newest recorded day
// and, while that day is young (begun less than an hour ago, so the recorder
// may have written the day before's last hour until a moment ago), the
// recorded day before it.  Returns how many of `days` it filled.
constexpr int kYoungDay = 3600;
int days_to_check(SqlHandle date, int ch, int days[2]) {
    Sql q;
    format_into(q.text, sizeof q.text, sql::kNewestChannelDay, ch);
    Holder h(1, kIntCell);
    const int n = query_locked(nullptr, date, q.text, "%d", h.t);
    log_line("iRet = %d\n", n);
    if (n <= 0 || !holder_int(h.t, days[0])) return 0;
    if (clock_now().sec - days[0] >= kYoungDay) return 1;
    format_into(q.text, sizeof q.text, sql::kChannelDayUpTo, ch, days[0] - 1);
    return query_int(nullptr, date, q.text, h.t, days[1]) ? 2 : 1;
}

// A check that cannot run must never be taken for damage: without the shell
// every database is left as it is.
bool shell_ready(const char *who) {
    if (shell_runs()) return true;
    log_line("%s : sqlite3 shell cannot run, nothing checked\n", who);
    return false;
}

void correct_all(const char *root) {
    Path p;
    reader_date_db(p, root);
    correct_db(p.text, "H");
    Db date(nullptr);
    if (!date.open(p.text)) {
        log_text("vrix_db_correct : fail");
        return;
    }
    bool first_day = true;
    for (int ch = 1; ch <= VRIX_VIDEO_CHANNELS; ++ch) {
        vrix_hdd_correct_step(120 + 5 * ch);
        int days[2];
        const int n = days_to_check(date.get(), ch, days);
        // The first channel with a day checks the audio and events of its days.
        const bool media_too = first_day;
        if (n > 0) first_day = false;
        for (int r = 0; r < n; ++r) {
            const std::tm tm = fields_of(days[r]);
            log_line("check ch%d %d%02d%02d\n", ch, tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday);
            if (repair_channel_dir(p, root, tm, ch)) check_index(kVideoIndex, p.text);
            if (!media_too) continue;
            if (repair_audio_dir(p, root, tm)) check_index(kAudioIndex, p.text);
            if (reader_event_db(p, root, tm)) correct_db(p.text, "h_all");
        }
    }
}

} // namespace
} // namespace vrix

extern "C" int vrix_db_correct_all(const char *root) {
    using namespace vrix;
    const MaintenanceHold hold(root, "vrix_db_correct_all");
    if (!hold) return 0;
    if (!root_fits(root, "vrix_db_correct_all") || !shell_ready("vrix_db_correct_all")) return 0;
    refresh_timezone();
    correct_all(root);
    return 0;
}

extern "C" int vrix_db_correct(const char *path, const char *table) {
    using namespace vrix;
    const MaintenanceHold hold(path, "vrix_db_correct", true);
    if (!hold) return -1;
    if (!path || !table) return -1;
    if (!shell_ready("vrix_db_correct")) return -1;
    return correct_db(path, table);
}

extern "C" void vrix_db_correct_video(const char *dir) {
    using namespace vrix;
    const MaintenanceHold hold(dir, "vrix_db_correct_video", true);
    if (!hold) return;
    refresh_timezone();
    if (dir && shell_ready("vrix_db_correct_video")) correct_index(kVideoIndex, dir);
}

extern "C" int vrix_db_correct_audio(const char *dir) {
    using namespace vrix;
    const MaintenanceHold hold(dir, "vrix_db_correct_audio", true);
    if (!hold) return 0;
    refresh_timezone();
    if (dir && shell_ready("vrix_db_correct_audio")) correct_index(kAudioIndex, dir);
    return 0;
}
