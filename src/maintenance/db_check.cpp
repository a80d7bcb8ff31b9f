#include "db_check.h"

#include "core/pacing.h"
#include "store/format.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace vrix {
namespace {

// How long a lock held by another connection is waited for.
constexpr unsigned long kBusyWaitUs = 5000000;

struct Connection {
    sqlite3 *db = nullptr;
    ~Connection() { sqlite3_close_v2(db); }
};

struct Statement {
    sqlite3_stmt *stmt = nullptr;
    ~Statement() { sqlite3_finalize(stmt); }
};

Verdict verdict_of(int rc) {
    switch (rc & 0xff) {
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
        return Verdict::Damaged;
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
        return Verdict::Busy;
    default:
        return Verdict::Unchecked;
    }
}

CheckResult result(Verdict v, int code, const char *why) {
    CheckResult r{v, code, {}};
    std::snprintf(r.why, sizeof r.why, "%s", why); // a long message is cut
    return r;
}

// Runs one statement to its end; the first column of its first row goes to
// `first`.  SQLite's result: SQLITE_OK when it ran through.
int run(sqlite3 *db, const char *sql, std::string &first) {
    Statement s;
    int rc = sqlite3_prepare_v2(db, sql, -1, &s.stmt, nullptr);
    if (rc != SQLITE_OK) return rc;
    bool row = false;
    while ((rc = sqlite3_step(s.stmt)) == SQLITE_ROW) {
        if (row) continue;
        row = true;
        const unsigned char *text = sqlite3_column_text(s.stmt, 0);
        first = text ? reinterpret_cast<const char *>(text) : "";
    }
    return rc == SQLITE_DONE ? SQLITE_OK : rc;
}

CheckResult failed(sqlite3 *db, int rc) {
    return result(verdict_of(rc), rc, db ? sqlite3_errmsg(db) : sqlite3_errstr(rc));
}

} // namespace

CheckResult check_database(const char *path, const char *table) {
    struct stat st {};
    if (stat(path, &st) != 0)
        return result(errno == ENOENT ? Verdict::Missing : Verdict::Unchecked, errno,
                      std::strerror(errno));
    if (!S_ISREG(st.st_mode)) return result(Verdict::Unchecked, EINVAL, "not a regular file");
    Connection c;
    int rc = sqlite3_open_v2(path, &c.db, SQLITE_OPEN_READWRITE, nullptr);
    if (rc != SQLITE_OK) return failed(c.db, rc);
    sqlite3_extended_result_codes(c.db, 1);
    sqlite3_busy_timeout(c.db, static_cast<int>(paced_us(kBusyWaitUs) / 1000));

    std::string first;
    if ((rc = run(c.db, "PRAGMA integrity_check(1);", first)) != SQLITE_OK) return failed(c.db, rc);
    if (first != "ok") {
        // A page the check could not read for a reason other than damage
        // ("unable to get the page. error code=266", an I/O error) was not
        // checked: that is no verdict of damage.
        const size_t at = first.find("error code=");
        const int code =
            at == std::string::npos ? SQLITE_CORRUPT : std::atoi(first.c_str() + at + 11);
        const bool damage = (code & 0xff) == SQLITE_CORRUPT || (code & 0xff) == SQLITE_NOTADB;
        return result(damage ? Verdict::Damaged : Verdict::Unchecked, code, first.c_str());
    }
    Sql q;
    if ((rc = run(c.db, "select count(*) from sqlite_master where type='table';", first)) !=
        SQLITE_OK)
        return failed(c.db, rc);
    if (first == "0") return result(Verdict::Empty, SQLITE_OK, "no table");
    if (!format_into(q.text, sizeof q.text, "select count() from \"%s\";", table))
        return result(Verdict::Unchecked, SQLITE_MISUSE, "table name too long");
    if ((rc = run(c.db, q.text, first)) != SQLITE_OK) {
        // A database with tables but not this one is not the file it should be.
        if ((rc & 0xff) == SQLITE_ERROR) return result(Verdict::Damaged, rc, sqlite3_errmsg(c.db));
        return failed(c.db, rc);
    }
    return result(Verdict::Sound, SQLITE_OK, "ok");
}

} // namespace vrix
