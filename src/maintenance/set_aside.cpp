#include "set_aside.h"

#include "core/file_io.h"
#include "core/pacing.h"
#include "durable_copy.h"
#include "store/log.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <ctime>

namespace vrix {
namespace {

bool taken(const char *path) {
    struct stat st {};
    return lstat(path, &st) == 0 || errno != ENOENT;
}

// A free "<path>.damaged-<stamp>[-n]" whose "-journal" is free too.
bool free_name(const char *path, AsidePath &aside, AsidePath &aside_journal) {
    const time_t now = clock_now().sec;
    std::tm utc{};
    gmtime_r(&now, &utc);
    char stamp[24];
    if (std::strftime(stamp, sizeof stamp, "%Y%m%dT%H%M%SZ", &utc) == 0) return false;
    for (int n = 1; n < 100; ++n) {
        const bool made =
            n == 1 ? format_into(aside.text, sizeof aside.text, "%s.damaged-%s", path, stamp)
                   : format_into(aside.text, sizeof aside.text, "%s.damaged-%s-%d", path, stamp, n);
        if (!made ||
            !format_into(aside_journal.text, sizeof aside_journal.text, "%s-journal", aside.text))
            return false;
        if (!taken(aside.text) && !taken(aside_journal.text)) return true;
    }
    return false;
}

} // namespace

bool set_aside(const char *path, AsidePath &aside) {
    AsidePath aside_journal, journal;
    if (!format_into(journal.text, sizeof journal.text, "%s-journal", path) ||
        !free_name(path, aside, aside_journal)) {
        log_line("vrix_db_correct : no name to set %s aside , left where it is\n", path);
        return false;
    }
    if (!io::rename_file(path, aside.text)) {
        log_line("vrix_db_correct : %s cannot be set aside (%s) , left where it is\n", path,
                 std::strerror(errno));
        return false;
    }
    if (taken(journal.text) && !io::rename_file(journal.text, aside_journal.text)) {
        // A journal left behind would be taken for the journal of the next
        // database made here.
        log_line(
            "vrix_db_correct : the journal of %s cannot be set aside (%s) , left where it is\n",
            path, std::strerror(errno));
        io::rename_file(aside.text, path);
        sync_parent(path);
        return false;
    }
    sync_parent(path);
    return true;
}

} // namespace vrix
