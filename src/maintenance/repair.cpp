// Integrity check after an unclean stop: each database is tested with the
// sqlite3 shell; a damaged date.db or event.db is restored from its backup
// copy, a damaged video or audio index is rebuilt from the stream files.
// Repair takes no database mutex: it runs before any context is opened.
#include "core/calendar.h"
#include "core/file_io.h"
#include "maintenance.h"
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
};

const IndexKind kVideoIndex{"vrix_db_correct_video",
                            dir_video_db<kSidePathSize>,
                            dir_stream,
                            vrix_db_repair_video,
                            {true, true, "video ret = %d\n"},
                            false,
                            true,
                            true};
const IndexKind kAudioIndex{"vrix_db_correct_audio",
                            dir_audio_db<kSidePathSize>,
                            dir_first_audio_stream,
                            vrix_db_repair_audio,
                            {true, false, "audio iRet = %d\n"},
                            true,
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
        Sql q;
        format_into(q.text, sizeof q.text, sql::kNewestChannelDay, ch);
        ResultTable days = nullptr;
        const int n = sql_submit(date.get(), q.text, "%d", &days);
        log_line("iRet = %d\n", n);
        for (int r = 0; r < n && days && days[r]; ++r) {
            int key;
            holder_int(days + r, key);
            std::tm tm{};
            sec_to_tm(&tm, key);
            log_line("check ch%d %d%02d%02d\n", ch, tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday);
            if (repair_channel_dir(p, root, tm, ch)) correct_index(kVideoIndex, p.text);
            if (!first_day) continue;
            first_day = false;
            if (repair_audio_dir(p, root, tm)) correct_index(kAudioIndex, p.text);
            if (reader_event_db(p, root, tm)) correct_db(p.text, "h_all");
        }
        db_free_sqlite(days, n);
    }
}

} // namespace
} // namespace vrix

extern "C" int vrix_db_correct_all(const char *root) {
    using namespace vrix;
    if (!root_fits(root, "vrix_db_correct_all") || !shell_ready("vrix_db_correct_all")) return 0;
    refresh_timezone();
    correct_all(root);
    return 0;
}

extern "C" int vrix_db_correct(const char *path, const char *table) {
    using namespace vrix;
    if (!path || !table) return -1;
    if (!shell_ready("vrix_db_correct")) return -1;
    return correct_db(path, table);
}

extern "C" void vrix_db_correct_video(const char *dir) {
    using namespace vrix;
    if (dir && shell_ready("vrix_db_correct_video")) correct_index(kVideoIndex, dir);
}

extern "C" int vrix_db_correct_audio(const char *dir) {
    using namespace vrix;
    if (dir && shell_ready("vrix_db_correct_audio")) correct_index(kAudioIndex, dir);
    return 0;
}
