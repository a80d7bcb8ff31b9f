// vrixdb reduce: the oldest recorded hours reclaimed, as a recorder does:
// one hour, or as many as a retention rule (--keep-days, --keep-free) asks.
#include "catalogue.h"
#include "cli.h"
#include "json_out.h"
#include "library.h"
#include "maintenance.h"
#include "progress.h"
#include "times.h"
#include "units.h"
#include "vrixdb.h"

#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <iostream>

namespace vrixtool {
namespace {

struct ReduceOptions {
    std::string root;
    bool fast = false;
    int keepDays = 0;
    std::string keepFree;
    bool dryRun = false;
    bool yes = false;
    bool json = false;
};

// Bytes free for an unprivileged writer on the root's file system; -1 unknown.
int64_t free_bytes(const std::string &root) {
    struct statvfs st {};
    if (statvfs(root.c_str(), &st) != 0) return -1;
    return static_cast<int64_t>(st.f_bavail) * static_cast<int64_t>(st.f_frsize);
}

// Whether the hour ending at `limit` has to go under the options: with no
// rule, the oldest hour goes once; a rule is met when every one it names
// holds.
struct Rule {
    long cutoff = 0;       // --keep-days: hours ending before it go
    int64_t keepFree = -1; // --keep-free in bytes
    bool any() const { return cutoff || keepFree >= 0; }
    bool wants(long limit, const std::string &root) const {
        if (!any()) return true;
        if (cutoff && limit < cutoff) return true;
        return short_of_space(root);
    }
    // An unknown free space never makes anything go.
    bool short_of_space(const std::string &root) const {
        const int64_t free = keepFree >= 0 ? free_bytes(root) : -1;
        return free >= 0 && free < keepFree;
    }
    std::string text() const {
        std::string s;
        if (cutoff) s = "until nothing older than " + format_time(cutoff) + " is left";
        if (keepFree >= 0)
            s += (s.empty() ? "until " : " and ") + format_bytes(keepFree) + " are free";
        return s;
    }
};

// On a terminal, unless --yes, the user says yes first.
bool confirmed(const ReduceOptions &o, const std::string &root, long limit, const Rule &rule) {
    if (o.yes || o.json || !isatty(STDIN_FILENO)) return true;
    std::fprintf(stderr, "reduce %s: delete the recording up to %s%s%s? [y/N] ", root.c_str(),
                 format_time(limit).c_str(), rule.any() ? ", then older hours " : "",
                 rule.text().c_str());
    std::string answer;
    std::getline(std::cin, answer);
    return answer == "y" || answer == "Y" || answer == "yes";
}

int run_reduce(const ReduceOptions &o) {
    const std::string root = library_root(o.root, "reduce");
    if (root.empty() || !require_store(root, "reduce")) return 1;
    Rule rule;
    if (o.keepDays)
        rule.cutoff = std::max(1L, static_cast<long>(time(nullptr)) - o.keepDays * 86400L);
    if (!o.keepFree.empty()) rule.keepFree = *parse_size(o.keepFree);
    Catalogue store(root);
    const bool empty = store.days().empty();
    if (const int bad = report_unreadable(store, "reduce")) return bad;
    Json doc{{"root", root}, {"dry_run", o.dryRun}};
    Json reduced = Json::array();
    const auto finish = [&](int status, const char *left) {
        if (!o.json) return status;
        doc["reduced"] = reduced;
        doc["left"] = left;
        doc["free_bytes"] = free_bytes(root);
        print_json(out(), doc);
        return status;
    };
    if (empty) {
        if (!o.json)
            std::fprintf(out(), "%s holds no recorded day: nothing to reduce\n", root.c_str());
        return finish(0, "empty");
    }
    if (!start_library()) return 1;
    if (o.fast) {
        VrixTestHooks hooks{1000000, nullptr};
        vrix_db_set_test_hooks(&hooks);
    }
    // The library paces the reduction only while a recorder holds the root
    // (and says so when none does).
    if (!o.json && !o.dryRun)
        std::fprintf(out(), "reducing the oldest hour%s of %s%s\n", rule.any() ? "s" : "",
                     root.c_str(), rule.any() ? (" " + rule.text()).c_str() : "");
    std::fflush(out());
    for (long previous = 0;;) {
        // The library's own prediction of the next reduction's limit.
        const long limit = vrix_db_get_reduce_sec(root.c_str());
        if (!limit) {
            const bool shortOfSpace = rule.short_of_space(root);
            if (!o.json)
                std::fprintf(out(), "nothing left to reduce%s\n",
                             shortOfSpace ? " (still short of free space)" : "");
            return finish(shortOfSpace ? 1 : 0, "empty");
        }
        if (!rule.wants(limit, root)) {
            if (!o.json)
                std::fprintf(out(), "%s: the oldest hour left, up to %s, is kept\n",
                             previous ? "done" : "nothing to reduce", format_time(limit).c_str());
            return finish(0, "kept");
        }
        if (o.dryRun) {
            doc["would_reduce_up_to"] = moment(limit);
            if (!o.json)
                std::fprintf(out(), "would reduce up to %s (the library's prediction)%s\n",
                             format_time(limit).c_str(),
                             rule.any() ? ", then older hours in turn while the rule asks" : "");
            return finish(0, "dry run");
        }
        if (limit <= previous) {
            std::fprintf(stderr, "vrixdb reduce: the oldest hour up to %s did not go\n",
                         format_time(limit).c_str());
            return finish(1, "stuck");
        }
        if (!previous && !confirmed(o, root, limit, rule)) {
            std::fprintf(stderr, "vrixdb reduce: nothing done\n");
            return finish(1, "declined");
        }
        RemoveLog log;
        log.lines = o.json ? nullptr : out();
        const Stopwatch began;
        int freeMB = -1;
        const long done = reclaim_oldest_hour(root, log, freeMB);
        if (done < 0) {
            std::fprintf(stderr, "vrixdb reduce: cannot serve the remove queues\n");
            return finish(1, "failed");
        }
        const double secs = began.seconds();
        reduced.push_back({{"up_to", moment(done)},
                           {"whole_day", done == 0},
                           {"files_removed", log.removed.load()},
                           {"not_there", log.absent.load()},
                           {"failed", log.other.load()},
                           {"free_mib_above_reserve", freeMB},
                           {"seconds", secs}});
        if (!o.json) {
            if (done)
                std::fprintf(out(),
                             "reduced up to %s: %d files removed, index rows and events up to "
                             "then deleted",
                             format_time(done).c_str(), log.removed.load());
            else
                std::fprintf(out(),
                             "the oldest day had no audio index: removed as a whole (%d removals)",
                             log.removed.load());
            if (log.absent.load()) std::fprintf(out(), " (%d not there)", log.absent.load());
            std::fprintf(out(), "; %.1f s", secs);
            if (freeMB >= 0) std::fprintf(out(), ", %d MiB free above the 9 GiB reserve", freeMB);
            std::fprintf(out(), "\n");
            std::fflush(out());
        }
        if (log.other.load()) return finish(1, "failed");
        if (!rule.any()) return finish(0, "done");
        previous = limit;
    }
}

} // namespace

void add_reduce(CLI::App &app, Status &status) {
    auto [sub, o] = add_subcommand<ReduceOptions>(
        app, status, "reduce",
        "Reclaim the oldest recorded hour (its media, index rows and events), or the oldest\n"
        "hours until a retention rule holds, serving the remove queues with the library's\n"
        "remove server",
        run_reduce);
    sub->add_flag(
        "--fast", o.fast,
        "cut the library's pacing waits (kept while a recorder holds the root) to microseconds");
    sub->add_option("--keep-days", o.keepDays,
                    "reduce the oldest hours until none ends more than N days ago")
        ->check(CLI::Range(1, 36500));
    sub->add_option("--keep-free", o.keepFree,
                    "reduce the oldest hours until SIZE is free on the root's disk (e.g. 50G)")
        ->check(CLI::Validator(
            [](std::string &s) {
                return parse_size(s) ? std::string() : "expected a size like 500M or 20G";
            },
            "SIZE", "size"));
    sub->add_flag("--dry-run", o.dryRun,
                  "only say what would go next, from the library's prediction");
    sub->add_flag("-y,--yes", o.yes, "do not ask on a terminal");
    add_json_flag(sub, o.json);
}

} // namespace vrixtool
