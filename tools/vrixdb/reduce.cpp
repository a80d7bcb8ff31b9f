// vrixdb reduce: the oldest recorded hour reclaimed, as a recorder does.
#include "cli.h"
#include "library.h"
#include "maintenance.h"
#include "progress.h"
#include "store_index.h"
#include "times.h"
#include "vrixdb.h"

namespace vrixtool {
namespace {

struct ReduceOptions {
    std::string root;
    bool fast = false;
};

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
    std::fprintf(out(), "reducing the oldest hour of %s%s\n", root.c_str(),
                 o.fast ? "" : " (paced for a recording disk: this takes minutes)");
    std::fflush(out());
    RemoveLog log;
    log.lines = out();
    const Stopwatch began;
    int freeMB = -1;
    const long limit = reclaim_oldest_hour(root, log, freeMB);
    if (limit < 0) {
        std::fprintf(stderr, "vrixdb reduce: cannot serve the remove queues\n");
        return 1;
    }
    const double secs = began.seconds();
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

} // namespace

void add_reduce(CLI::App &app, Status &status) {
    auto [sub, o] = add_subcommand<ReduceOptions>(
        app, status, "reduce",
        "Reclaim the oldest recorded hour (its media, index rows and events), "
        "serving the\nremove queues with the library's remove server",
        run_reduce);
    sub->add_flag("--fast", o.fast, "cut the library's pacing waits to microseconds");
}

} // namespace vrixtool
