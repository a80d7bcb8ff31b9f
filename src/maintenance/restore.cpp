// date.db and a day's event.db (and any database given to vrix_db_correct):
// a damaged one is set aside, and a checked copy from the backup put in its
// place.  The copy is copied to a temporary name first and checked there, so
// that a copy that is itself damaged is never put in place.
#include "core/file_io.h"
#include "durable_copy.h"
#include "repair.h"
#include "store/log.h"
#include "store/paths.h"

#include <cerrno>
#include <cstring>

namespace vrix {
namespace {

enum class Prepared { Good, NoCopy, Bad };

// The ".sql" copy of `db` copied to `tmp` and checked there (put_in_place
// makes it durable).
Prepared prepare_copy(const char *db, const char *table, const SidePath &tmp) {
    SidePath copy;
    if (!path_with_suffix(copy, db, ".sql")) return Prepared::NoCopy;
    File in(io::open_file(copy.text, "rb"));
    if (!in) {
        if (errno == ENOENT) return Prepared::NoCopy;
        log_line("vrix_db_correct : copy %s cannot be read (%s) , not used\n", copy.text,
                 std::strerror(errno));
        return Prepared::Bad;
    }
    FILE *fp = in.get();
    const ReadAt read = [fp](long long at, unsigned char *buf, size_t n) -> long long {
        if (fseeko(fp, at, SEEK_SET) != 0) return -1;
        const size_t got = std::fread(buf, 1, n, fp);
        return std::ferror(fp) ? -1 : static_cast<long long>(got);
    };
    unsigned char buf[16384];
    if (!write_temp(tmp.text, io::file_size(fp), read, buf, sizeof buf)) {
        log_line("vrix_db_correct : copy %s not copied to %s (%s) , not used\n", copy.text,
                 tmp.text, std::strerror(errno));
        return Prepared::Bad;
    }
    const CheckResult r = check_database(tmp.text, table);
    if (r.verdict == Verdict::Sound) return Prepared::Good;
    log_line("vrix_db_correct : copy %s not sound (%s) , not used\n", copy.text, r.why);
    io::remove_file(tmp.text);
    return Prepared::Bad;
}

} // namespace

Outcome correct_with_copy(const char *db, const char *table, const Voice &voice, AsidePath &aside) {
    aside.text[0] = '\0';
    SidePath tmp;
    if (!path_with_suffix(tmp, db, ".restore")) {
        log_line("vrix_db_correct : path too long %s\n", db);
        return Outcome::LeftAlone;
    }
    const CheckResult r = checked(db, table, voice);
    switch (r.verdict) {
    case Verdict::Sound:
        return Outcome::Sound;
    case Verdict::Busy:
    case Verdict::Unchecked:
        return Outcome::LeftAlone;
    default:
        break;
    }
    const Prepared copy = prepare_copy(db, table, tmp);
    if (r.verdict == Verdict::Damaged) {
        if (!set_aside(db, aside)) {
            if (copy == Prepared::Good) io::remove_file(tmp.text);
            return Outcome::LeftAlone;
        }
        log_line("vrix_db_correct : %s damaged (%s) , set aside as %s\n", db, r.why, aside.text);
    }
    if (copy != Prepared::Good)
        return r.verdict == Verdict::Damaged ? Outcome::SetAside : Outcome::Missing;
    if (!put_in_place(tmp.text, db)) {
        log_line("vrix_db_correct : %s not restored (%s)\n", db, std::strerror(errno));
        return r.verdict == Verdict::Damaged ? Outcome::SetAside : Outcome::Missing;
    }
    log_line("vrix_db_correct : %s restored from its copy\n", db);
    return Outcome::Restored;
}

} // namespace vrix
