#include "maintenance.h"

#include "progress.h"
#include "vrixdb.h"

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>

namespace vrixtool {
namespace {

namespace fs = std::filesystem;

void note_removal(int command, const char *path, int outcome, void *user) {
    auto *log = static_cast<RemoveLog *>(user);
    std::error_code ec;
    const bool absent = outcome == VRIX_RM_FAILED && !fs::exists(fs::symlink_status(path, ec));
    (outcome == VRIX_RM_REMOVED ? log->removed : absent ? log->absent : log->other).fetch_add(1);
    if (!log->lines) return;
    std::fprintf(log->lines, "  %s %s%s\n", command == VRIX_RM_DIR ? "remove day" : "remove", path,
                 outcome == VRIX_RM_REMOVED   ? ""
                 : outcome == VRIX_RM_REFUSED ? " (refused: outside the root)"
                 : absent                     ? " (not there)"
                                              : " (failed)");
}

} // namespace

long reclaim_oldest_hour(const std::string &root, RemoveLog &log, int &freeMB) {
    freeMB = -1;
    VrixRmServer *server = vrix_rm_server_start(root.c_str(), note_removal, &log);
    if (!server) return -1;
    const int fd = open(root.c_str(), O_RDONLY | O_DIRECTORY);
    int stop = 0;
    const int limit = vrix_db_reduce_media(root.c_str(), &stop, &freeMB, fd);
    if (limit) vrix_db_reduce_event(root.c_str(), limit);
    if (fd >= 0) close(fd);
    vrix_rm_server_stop(server);
    return limit;
}

bool run_integrity_check(const std::string &root, std::FILE *out) {
    {
        Progress bar(out, "checking", 16);
        vrix_hdd_set_correct_step_callback(
            [](int step, void *user) { static_cast<Progress *>(user)->update((step - 120) / 5); },
            &bar);
        vrix_db_correct_all(root.c_str());
        vrix_hdd_set_correct_step_callback(nullptr, nullptr);
    }
    return vrix_hdd_last_correct_step() == 200;
}

} // namespace vrixtool
