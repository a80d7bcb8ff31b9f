// Byte copies of date.db and a day's event.db beside them ("<db>.sql"), and
// the stop / acknowledge protocol around them.  A copy is read while this
// process holds the database's mutex and a SQLite read transaction on the
// source, so that no writer, of this process or another, commits in the
// middle of it; it is read only once the source passes a quick check.  It is
// written to "<db>.sql.tmp", every write checked, then, without the mutex,
// made durable and renamed over the old copy: on any failure the old copy
// stays as it was.
#include "core/file_io.h"
#include "core/flags.h"
#include "core/pacing.h"
#include "durable_copy.h"
#include "maintenance.h"
#include "store/format.h"
#include "store/log.h"
#include "store/paths.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <mutex>

namespace vrix {
namespace {

// g_VrixBackup is one buffer: backups from several threads take turns.
std::mutex g_backup_turn;

// A writer of another process holding the source is waited for about 5 s:
// 50 attempts, each waiting up to 50 ms inside SQLite under the database's
// mutex (as every statement of the library may), with a pause of 50 ms
// without it between two, so that this process's own writers are held up
// no longer than by one of their own statements.
constexpr int kBusyAttempts = 50;
constexpr unsigned long kBusyWaitUs = 50000;

enum class Copied { Done, NoSource, Failed };

struct Source {
    sqlite3 *db = nullptr;
    bool reading = false;
    ~Source() {
        if (reading) sqlite3_exec(db, "COMMIT;", nullptr, nullptr, nullptr);
        sqlite3_close_v2(db);
    }
    // The read transaction, held from the check to the end of the copy.
    int begin(const char *path) {
        int rc = sqlite3_open_v2(path, &db, SQLITE_OPEN_READWRITE, nullptr);
        if (rc != SQLITE_OK) return rc;
        sqlite3_busy_timeout(db, static_cast<int>(paced_us(kBusyWaitUs) / 1000));
        if ((rc = sqlite3_exec(db, "BEGIN;", nullptr, nullptr, nullptr)) != SQLITE_OK) return rc;
        reading = true;
        sqlite3_stmt *s = nullptr;
        rc = sqlite3_prepare_v2(db, "PRAGMA quick_check(1);", -1, &s, nullptr);
        if (rc == SQLITE_OK && (rc = sqlite3_step(s)) == SQLITE_ROW) {
            const unsigned char *said = sqlite3_column_text(s, 0);
            rc = said && std::strcmp(reinterpret_cast<const char *>(said), "ok") == 0
                     ? SQLITE_OK
                     : SQLITE_CORRUPT;
        }
        sqlite3_finalize(s);
        return rc;
    }
    // The bytes of the file as this transaction sees them, through SQLite's
    // own handle of it, into `tmp`.
    bool copy_to(const char *tmp) {
        sqlite3_file *f = nullptr;
        sqlite3_int64 size = -1;
        if (sqlite3_file_control(db, "main", SQLITE_FCNTL_FILE_POINTER, &f) != SQLITE_OK || !f ||
            !f->pMethods || f->pMethods->xFileSize(f, &size) != SQLITE_OK) {
            errno = EIO;
            return false;
        }
        const ReadAt read = [f](long long at, unsigned char *buf, size_t n) -> long long {
            if (f->pMethods->xRead(f, buf, static_cast<int>(n), at) != SQLITE_OK) return -1;
            return static_cast<long long>(n);
        };
        return write_temp(tmp, size, read, g_VrixBackup, sizeof g_VrixBackup);
    }
};

bool busy(int rc) {
    return (rc & 0xff) == SQLITE_BUSY || (rc & 0xff) == SQLITE_LOCKED;
}

Copied copy_aside(pthread_mutex_t *m, const Path &source) {
    SidePath copy, tmp;
    if (!source.text[0]) return Copied::Failed;
    if (!path_with_suffix(copy, source.text, ".sql") ||
        !path_with_suffix(tmp, source.text, ".sql.tmp")) {
        log_line("backup : path too long %s\n", source.text);
        return Copied::Failed;
    }
    struct stat st {};
    if (stat(source.text, &st) != 0 && errno == ENOENT) return Copied::NoSource;
    int rc = SQLITE_BUSY;
    bool written = false;
    for (int attempt = 0; attempt < kBusyAttempts && busy(rc); ++attempt) {
        if (attempt) pace_sleep_us(kBusyWaitUs);
        SqlLock hold(m);
        Source src;
        if ((rc = src.begin(source.text)) == SQLITE_OK) written = src.copy_to(tmp.text);
    }
    if (rc != SQLITE_OK) {
        log_line("backup : %s %s , the old copy kept\n", source.text,
                 rc == SQLITE_CORRUPT ? "fails its check" : sqlite3_errstr(rc));
        return Copied::Failed;
    }
    // The copy is made durable and put in place without the mutex.
    if (!written || !put_in_place(tmp.text, copy.text)) {
        log_line("backup : %s not written (%s) , the old copy kept\n", copy.text,
                 std::strerror(errno));
        return Copied::Failed;
    }
    return Copied::Done;
}

// 0 done, 1 held off before the end, -1 a copy failed.
int backup(const char *root, const char *day) {
    if (flag_get(g_iStopBackup)) return 1;
    Path p;
    int result = 0;
    if (!reader_date_db(p, root) || copy_aside(date_mutex(), p) == Copied::Failed) result = -1;
    if (flag_get(g_iStopBackup)) return result ? result : 1;
    if (!day_event_db(p, root, day) || copy_aside(event_mutex(), p) == Copied::Failed) result = -1;
    return result;
}

} // namespace
} // namespace vrix

extern "C" void vrix_db_start_backup(void) {
    using namespace vrix;
    log_text("enter start backup");
    flag_set(g_iStopBackup, 0);
    log_text("leave start backup");
}

extern "C" void vrix_db_stop_backup(void) {
    using namespace vrix;
    log_text("enter stop backup");
    if (flag_get(g_iStopBackup) == 0) {
        flag_set(g_iStopBackupAck, 0);
        flag_set(g_iStopBackup, 1);
        if (flag_get(g_iBackuping))
            while (flag_get(g_iStopBackupAck) == 0 && flag_get(g_iBackuping) != 0)
                poll_pause();
    }
    log_text("leave stop backup");
}

extern "C" int vrix_db_backup_day(const char *root, const char *day) {
    using namespace vrix;
    std::lock_guard<std::mutex> turn(g_backup_turn);
    const char *dayText = day ? day : "";
    log_line("before backup %s\n", dayText);
    flag_set(g_iBackuping, 1);
    const bool named = root && day && root_fits(root, "backup");
    const int result = named ? backup(root, day) : -1;
    flag_set(g_iBackuping, 0);
    flag_set(g_iStopBackupAck, 1);
    log_line("after backup %s\n", dayText);
    return result;
}

extern "C" void vrix_db_backup(const char *root, const char *day) {
    vrix_db_backup_day(root, day);
}
