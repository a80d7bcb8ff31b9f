// Byte copies of date.db and a day's event.db beside them, each taken under
// its database's mutex, and the stop / acknowledge protocol around them.
#include "core/file_io.h"
#include "core/flags.h"
#include "maintenance.h"
#include "store/format.h"
#include "store/log.h"
#include "store/paths.h"

#include <cstdio>
#include <mutex>

namespace vrix {
namespace {

// g_VrixBackup is one buffer: backups from several threads take turns.
std::mutex g_backup_turn;

// Copies `source` to `source`.sql under the mutex.  The copy is opened only
// once its source has opened, so a missing source never empties an earlier
// good copy.
void copy_aside(pthread_mutex_t *m, const Path &source) {
    SidePath copy;
    if (!source.text[0] || !path_with_suffix(copy, source.text, ".sql")) return;
    SqlLock hold(m);
    File in(io::open_file(source.text, "r"));
    if (!in) return;
    File out(io::open_file(copy.text, "w"));
    if (!out) return;
    size_t n;
    do {
        n = std::fread(g_VrixBackup, 1, sizeof g_VrixBackup, in.get());
        std::fwrite(g_VrixBackup, 1, n, out.get());
    } while (n == sizeof g_VrixBackup);
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

extern "C" void vrix_db_backup(const char *root, const char *day) {
    using namespace vrix;
    std::lock_guard<std::mutex> turn(g_backup_turn);
    const char *dayText = day ? day : "";
    log_line("before backup %s\n", dayText);
    flag_set(g_iBackuping, 1);
    const bool named = root && day && root_fits(root, "backup");
    if (named && !flag_get(g_iStopBackup)) {
        Path p;
        reader_date_db(p, root);
        copy_aside(date_mutex(), p);
        if (!flag_get(g_iStopBackup)) {
            day_event_db(p, root, day);
            copy_aside(event_mutex(), p);
        }
    }
    flag_set(g_iBackuping, 0);
    flag_set(g_iStopBackupAck, 1);
    log_line("after backup %s\n", dayText);
}
