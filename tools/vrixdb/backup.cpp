// vrixdb backup: copies of date.db and a day's event.db.
#include "catalogue.h"
#include "cli.h"
#include "library.h"
#include "times.h"
#include "units.h"
#include "vrixdb.h"

#include <filesystem>

namespace vrixtool {
namespace {

namespace fs = std::filesystem;

struct BackupOptions {
    std::string root;
    std::string day;
};

int run_backup(const BackupOptions &o) {
    const std::string root = library_root(o.root, "backup");
    if (root.empty() || !require_store(root, "backup")) return 1;
    const long dayKey = *parse_day(o.day);
    const std::string day = day_name(dayKey);
    const Catalogue store(root);
    std::error_code ec;
    if (!fs::is_directory(store.path(VRIX_PATH_DAY_DIR, dayKey), ec)) {
        std::fprintf(stderr, "vrixdb backup: no day %s in %s\n", day.c_str(), root.c_str());
        return 1;
    }
    if (!start_library()) return 1;
    const int result = vrix_db_backup_day(root.c_str(), day.c_str());
    int copies = 0;
    for (const std::string &copy :
         {store.path(VRIX_PATH_DATE_COPY), store.path(VRIX_PATH_EVENT_COPY, dayKey)}) {
        const auto size = fs::file_size(copy, ec);
        if (ec) continue;
        ++copies;
        std::fprintf(out(), "  %s  %s\n", copy.c_str(),
                     format_bytes(static_cast<int64_t>(size)).c_str());
    }
    std::fprintf(out(), "backup of %s: %d cop%s%s\n", day.c_str(), copies,
                 copies == 1 ? "y" : "ies",
                 result < 0 ? " (a copy failed: the old one was kept)" : "");
    return copies && result == 0 ? 0 : 1;
}

} // namespace

void add_backup(CLI::App &app, Status &status) {
    auto [sub, o] = add_subcommand<BackupOptions>(
        app, status, "backup", "Copy date.db and the day's event.db to .sql files beside them",
        run_backup);
    sub->add_option("--day", o.day, "the day, YYYYMMDD or YYYY-MM-DD")->required()->check(DayArg);
}

} // namespace vrixtool
