// Video and audio indexes: checked, made again from the hour files when
// damaged or missing, and reconciled with the hour files hour by hour.  The
// stream files are the primary data and are only read.
#include "core/file_io.h"
#include "durable_copy.h"
#include "media/record_scan.h"
#include "repair.h"
#include "store/log.h"
#include "store/paths.h"
#include "store/schema.h"

#include <cstring>

namespace vrix {

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

CheckResult checked(const char *path, const char *table, const Voice &voice) {
    if (voice.show_integrity) log_line("integrity check %s\n", path);
    const CheckResult r = check_database(path, table);
    if (r.verdict == Verdict::Missing && voice.open_fail) log_text("open fail");
    if (voice.count_line) log_line(voice.count_line, r.code);
    if (r.verdict == Verdict::Busy)
        log_line("vrix_db_correct : %s busy (%s) , left alone\n", path, r.why);
    else if (r.verdict == Verdict::Unchecked)
        log_line("vrix_db_correct : %s could not be checked (%s) , left alone\n", path, r.why);
    return r;
}

namespace {

// Makes the index of `dir` anew in `tmp` from the hour files there; false
// when there is none, or it could not be made.  Its commits do not wait for
// the disk: put_in_place syncs the file once, whole.
bool build_index(const IndexKind &k, const char *dir, const char *tmp) {
    SidePath tmp_journal;
    path_with_suffix(tmp_journal, tmp, "-journal");
    io::remove_file(tmp); // left by a repair that was cut short
    io::remove_file(tmp_journal.text);
    Db index(nullptr);
    for (int h = 0; h < 24; ++h) {
        Path stream;
        if (!k.stream(stream, dir, h)) continue;
        if (k.per_stream) log_line("open %s\n", stream.text);
        File fp(io::open_file(stream.text, "rb"));
        if (!fp) continue;
        if (!index.is_open()) {
            if (!index.open(tmp)) return false;
            index.run("PRAGMA synchronous=OFF;");
            index.run(sql::kCreateHourH);
        }
        k.rebuild(fp.get(), index.get(), h);
    }
    return index.is_open();
}

} // namespace

Outcome correct_index(const IndexKind &k, const char *dir) {
    SidePath db, tmp;
    if (!k.db(db, dir) || !path_with_suffix(tmp, db.text, ".rebuild")) {
        log_line("%s : path too long %s\n", k.who, dir);
        return Outcome::LeftAlone;
    }
    if (k.announce_db) log_line("open %s\n", db.text);
    const CheckResult r = checked(db.text, "H", k.voice);
    switch (r.verdict) {
    case Verdict::Sound:
        return Outcome::Sound;
    case Verdict::Busy:
    case Verdict::Unchecked:
        return Outcome::LeftAlone;
    default:
        break;
    }
    const bool built = build_index(k, dir, tmp.text);
    if (r.verdict == Verdict::Damaged) {
        AsidePath aside;
        if (!set_aside(db.text, aside)) {
            if (built) io::remove_file(tmp.text);
            return Outcome::LeftAlone;
        }
        log_line("vrix_db_correct : %s damaged (%s) , set aside as %s\n", db.text, r.why,
                 aside.text);
    }
    if (!built) return r.verdict == Verdict::Damaged ? Outcome::SetAside : Outcome::Missing;
    if (!put_in_place(tmp.text, db.text)) {
        log_line("%s : %s not put in place (%s)\n", k.who, db.text, std::strerror(errno));
        return Outcome::LeftAlone;
    }
    log_line("vrix_db_correct : %s made again from the hour files\n", db.text);
    return Outcome::Rebuilt;
}

bool reconcile_index_hour(const IndexKind &k, const char *dir, int hour) {
    SidePath db;
    Path stream;
    if (!k.db(db, dir) || !k.stream(stream, dir, hour)) return false;
    File fp(io::open_file(stream.text, "rb"));
    if (!fp) return errno == ENOENT;
    if (io::file_size(fp.get()) == 0) return true;
    Db index(nullptr);
    if (!index.open(db.text)) return false;
    reconcile_hour(index.get(), fp.get(), hour, k.video, nullptr);
    return true;
}

void reconcile_listed_hours(const IndexKind &k, const char *dir) {
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

} // namespace vrix
