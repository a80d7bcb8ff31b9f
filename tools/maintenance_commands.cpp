// vrixdb reduce, backup and repair: the maintenance a recorder runs.
#include "cli.h"
#include "library.h"
#include "progress.h"
#include "store_index.h"
#include "times.h"
#include "units.h"
#include "vrixdb.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>

namespace vrixtool {
namespace {

namespace fs = std::filesystem;

struct ReduceOptions {
    std::string root;
    bool fast = false;
};

struct BackupOptions {
    std::string root;
    std::string day;
};

struct RepairOptions {
    std::string root;
};

struct RemoveLog {
    std::atomic<int> removed{0};
    std::atomic<int> absent{0}; // nothing there to remove: not a failure
    std::atomic<int> other{0};
};

void log_removal(int command, const char *path, int outcome, void *user) {
    auto *log = static_cast<RemoveLog *>(user);
    std::error_code ec;
    const bool absent = outcome == VRIX_RM_FAILED && !fs::exists(fs::symlink_status(path, ec));
    (outcome == VRIX_RM_REMOVED ? log->removed : absent ? log->absent : log->other).fetch_add(1);
    std::fprintf(out(), "  %s %s%s\n", command == VRIX_RM_DIR ? "remove day" : "remove", path,
                 outcome == VRIX_RM_REMOVED   ? ""
                 : outcome == VRIX_RM_REFUSED ? " (refused: outside the root)"
                 : absent                     ? " (not there)"
                                              : " (failed)");
}

int run_reduce(const ReduceOptions &o) {
    const std::string root = library_root(o.root, "reduce");
    if (root.empty() || !require_store(root, "reduce")) return 1;
    StoreIndex store(root);
    const bool empty = store.days().empty();
    if (const int bad = report_unreadable(store, "reduce")) return bad;
    if (empty) {
        std::fprintf(out(), "%s holds no recorded day: nothing to reduce\n", root.c_str());
        return 0;
    }
    if (!start_library()) return 1;
    if (o.fast) {
        VrixTestHooks hooks{1000000, nullptr};
        vrix_db_set_test_hooks(&hooks);
    }
    RemoveLog log;
    VrixRmServer *server = vrix_rm_server_start(root.c_str(), log_removal, &log);
    if (!server) {
        std::fprintf(stderr, "vrixdb reduce: cannot serve the remove queues\n");
        return 1;
    }
    std::fprintf(out(), "reducing the oldest hour of %s%s\n", root.c_str(),
                 o.fast ? "" : " (paced for a recording disk: this takes minutes)");
    std::fflush(out());
    const auto began = std::chrono::steady_clock::now();
    const int fd = open(root.c_str(), O_RDONLY | O_DIRECTORY);
    int stop = 0, freeMB = -1;
    const int limit = vrix_db_reduce_media(root.c_str(), &stop, &freeMB, fd);
    if (limit) vrix_db_reduce_event(root.c_str(), limit);
    if (fd >= 0) close(fd);
    vrix_rm_server_stop(server);
    const double secs =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
    if (limit)
        std::fprintf(out(),
                     "reduced up to %s: %d files removed, index rows and events up to "
                     "then deleted",
                     format_time(limit).c_str(), log.removed.load());
    else
        std::fprintf(out(), "the oldest day had no audio index: removed as a whole (%d removals)",
                     log.removed.load());
    if (log.absent.load()) std::fprintf(out(), " (%d not there)", log.absent.load());
    std::fprintf(out(), "; %.1f s", secs);
    if (freeMB >= 0) std::fprintf(out(), ", %d MiB free above the 9 GiB reserve", freeMB);
    std::fprintf(out(), "\n");
    return log.other.load() ? 1 : 0;
}

int run_backup(const BackupOptions &o) {
    const std::string root = library_root(o.root, "backup");
    if (root.empty() || !require_store(root, "backup")) return 1;
    const std::string day = day_name(*parse_day(o.day));
    std::error_code ec;
    if (!fs::is_directory(root + "/" + day, ec)) {
        std::fprintf(stderr, "vrixdb backup: no day %s in %s\n", day.c_str(), root.c_str());
        return 1;
    }
    if (!start_library()) return 1;
    vrix_db_backup(root.c_str(), day.c_str());
    int copies = 0;
    for (const std::string &db : {root + "/date.db", root + "/" + day + "/event.db"}) {
        const auto size = fs::file_size(db + ".sql", ec);
        if (ec) continue;
        ++copies;
        std::fprintf(out(), "  %s.sql  %s\n", db.c_str(),
                     format_bytes(static_cast<int64_t>(size)).c_str());
    }
    std::fprintf(out(), "backup of %s: %d cop%s\n", day.c_str(), copies, copies == 1 ? "y" : "ies");
    return copies ? 0 : 1;
}

int run_repair(const RepairOptions &o) {
    const std::string root = library_root(o.root, "repair");
    if (root.empty() || !require_store(root, "repair", true)) return 1;
    // The check runs before anything is opened and needs no start-up.
    separate_library_output();
    const auto began = std::chrono::steady_clock::now();
    {
        Progress bar(out(), "checking", 16);
        vrix_hdd_set_correct_step_callback(
            [](int step, void *user) { static_cast<Progress *>(user)->update((step - 120) / 5); },
            &bar);
        vrix_db_correct_all(root.c_str());
        vrix_hdd_set_correct_step_callback(nullptr, nullptr);
    }
    const double secs =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
    const int last = vrix_hdd_last_correct_step();
    std::fprintf(out(), "integrity check of %s %s in %.1f s\n", root.c_str(),
                 last == 200 ? "done" : "stopped early (see the lines above)", secs);
    return last == 200 ? 0 : 1;
}

} // namespace

void add_reduce(CLI::App &app, Status &status) {
    auto o = std::make_shared<ReduceOptions>();
    auto *sub = app.add_subcommand(
        "reduce", "Reclaim the oldest recorded hour (its media, index rows and events), "
                  "serving the\nremove queues with the library's remove server");
    add_root(sub, o->root);
    sub->add_flag("--fast", o->fast, "cut the library's pacing waits to microseconds");
    sub->callback([o, &status] { status = run_reduce(*o); });
}

void add_backup(CLI::App &app, Status &status) {
    auto o = std::make_shared<BackupOptions>();
    auto *sub = app.add_subcommand("backup",
                                   "Copy date.db and the day's event.db to .sql files beside them");
    add_root(sub, o->root);
    sub->add_option("--day", o->day, "the day, YYYYMMDD or YYYY-MM-DD")->required()->check(DayArg);
    sub->callback([o, &status] { status = run_backup(*o); });
}

void add_repair(CLI::App &app, Status &status) {
    auto o = std::make_shared<RepairOptions>();
    auto *sub = app.add_subcommand(
        "repair", "Integrity check after an unclean stop: restore damaged databases from their "
                  "copies,\nrebuild damaged indexes from the stream files (needs the sqlite3 "
                  "shell)");
    add_root(sub, o->root);
    sub->callback([o, &status] { status = run_repair(*o); });
}

} // namespace vrixtool
