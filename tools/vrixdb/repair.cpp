// vrixdb repair: the integrity check after an unclean stop.
#include "cli.h"
#include "json_out.h"
#include "library.h"
#include "maintenance.h"
#include "progress.h"

namespace vrixtool {
namespace {

struct RepairOptions {
    std::string root;
    bool json = false;
};

int run_repair(const RepairOptions &o) {
    const std::string root = library_root(o.root, "repair");
    if (root.empty() || !require_store(root, "repair", true)) return 1;
    // The check runs before anything is opened and needs no start-up.
    separate_library_output();
    const Stopwatch began;
    // With --json the progress goes to standard error.
    const bool done = run_integrity_check(root, o.json ? stderr : out());
    const double secs = began.seconds();
    if (o.json) {
        print_json(out(), {{"root", root}, {"done", done}, {"seconds", secs}});
        return done ? 0 : 1;
    }
    std::fprintf(out(), "integrity check of %s %s in %.1f s\n", root.c_str(),
                 done ? "done" : "stopped early (see the lines above)", secs);
    return done ? 0 : 1;
}

} // namespace

void add_repair(CLI::App &app, Status &status) {
    auto [sub, o] = add_subcommand<RepairOptions>(
        app, status, "repair",
        "Integrity check after an unclean stop: restore damaged databases from their "
        "copies,\nrebuild damaged indexes from the stream files (needs the sqlite3 "
        "shell)",
        run_repair);
    add_json_flag(sub, o.json);
}

} // namespace vrixtool
