// vrixdb: the command-line program of the recording database.  It uses the
// library the way the recorder application does, through its public header.
#include "cli.h"
#include "library.h"
#include "vrixdb.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

namespace {

using namespace vrixtool;

std::string subcommand_list(CLI::App &app) {
    std::string list;
    for (const CLI::App *sub : app.get_subcommands({}))
        list += (list.empty() ? "" : " ") + sub->get_name();
    return list;
}

CLI::App *find_subcommand(CLI::App &app, const std::string &name) {
    for (CLI::App *sub : app.get_subcommands({}))
        if (sub->get_name() == name) return sub;
    return nullptr;
}

// Options of the program as a whole (-q, -v, --version, --help) may come
// before the subcommand, as may --root, which every subcommand takes: it is
// moved behind the subcommand's name, where CLI11 looks for it.  The first
// word that is not an option names the subcommand; its index, or 0 when
// there is none.
int reorder_global_options(std::vector<char *> &args) {
    std::vector<char *> root;
    size_t i = 1;
    while (i < args.size() && args[i][0] == '-') {
        if (std::strcmp(args[i], "--root") == 0 && i + 1 < args.size()) {
            root.insert(root.end(), {args[i], args[i + 1]});
            args.erase(args.begin() + static_cast<long>(i),
                       args.begin() + static_cast<long>(i) + 2);
        } else if (std::strncmp(args[i], "--root=", 7) == 0) {
            root.push_back(args[i]);
            args.erase(args.begin() + static_cast<long>(i));
        } else {
            ++i;
        }
    }
    if (i >= args.size()) {
        if (!root.empty()) args.insert(args.end(), root.begin(), root.end());
        return 0;
    }
    args.insert(args.begin() + static_cast<long>(i) + 1, root.begin(), root.end());
    return static_cast<int>(i);
}

// The program's own help (CLI11's help() shows that of the subcommand chosen,
// which for `vrixdb help` is help itself).
std::string program_help(const CLI::App &app) {
    return app.get_formatter()->make_help(&app, "vrixdb", CLI::AppFormatMode::Normal);
}

// vrixdb help [SUB]
void add_help(CLI::App &app, Status &status) {
    auto name = std::make_shared<std::string>();
    auto *sub = app.add_subcommand("help", "Show the help of the program or of a subcommand");
    sub->add_option("subcommand", *name, "the subcommand");
    sub->callback([&app, &status, name] {
        CLI::App *of = name->empty() ? nullptr : find_subcommand(app, *name);
        if (!name->empty() && !of) {
            std::fprintf(stderr, "vrixdb help: unknown subcommand %s\nsubcommands: %s\n",
                         name->c_str(), subcommand_list(app).c_str());
            status = static_cast<int>(CLI::ExitCodes::ExtrasError);
            return;
        }
        std::fputs(of ? of->help().c_str() : program_help(app).c_str(), stdout);
    });
}

} // namespace

int main(int argc, char **argv) {
    CLI::App app{"vrixdb - record, play back and inspect a recorder's store\n"
                 "Times are local (the zone of TZ): now, today, yesterday, -1h, -30min, -2d, "
                 "HH:MM[:SS] (today),\nYYYY-MM-DD, YYYY-MM-DDTHH:MM[:SS] with Z or +HH:MM "
                 "optional, or @seconds / seconds since 1970."};
    app.require_subcommand(1);
    app.fallthrough();
    app.set_version_flag("--version", std::string("vrixdb ") + vrix_db_version(),
                         "show the library's version and exit");
    bool quiet = false, verbose = false;
    auto *q = app.add_flag("-q,--quiet", quiet, "do not show the library's own lines");
    app.add_flag("-v,--verbose", verbose,
                 "show the library's own lines with the time and the thread")
        ->excludes(q);
    app.footer("Exit status: 0 done; 1 failed; 2 a database of the store could not be read, so "
               "the output is\nincomplete (try vrixdb repair); 100 and above: wrong arguments.\n"
               "The library's own lines go to standard error; results to standard output.");
    Status status = 0;
    add_help(app, status);
    add_demo(app, status);
    add_record_h264(app, status);
    add_export_h264(app, status);
#if VRIX_HAVE_MP4
    add_export_mp4(app, status);
#endif
#if VRIX_HAVE_SERVE
    add_serve(app, status);
#endif
    add_ls(app, status);
    add_play(app, status);
    add_events(app, status);
    add_timeline(app, status);
    add_size(app, status);
    add_range(app, status);
    add_reduce(app, status);
    add_backup(app, status);
    add_repair(app, status);
    std::vector<char *> args(argv, argv + argc);
    const int at = reorder_global_options(args);
    const bool optionOnly = std::any_of(args.begin() + 1, args.end(), [](const char *a) {
        return !std::strcmp(a, "--help") || !std::strcmp(a, "-h") || !std::strcmp(a, "--version");
    });
    if (!at && !optionOnly) {
        // Nothing to do: the list of subcommands, as `vrixdb help` gives it.
        std::fputs(program_help(app).c_str(), stderr);
        return static_cast<int>(CLI::ExitCodes::RequiredError);
    }
    if (at && !find_subcommand(app, args[static_cast<size_t>(at)])) {
        std::fprintf(stderr, "vrixdb: unknown subcommand %s\nsubcommands: %s\n",
                     args[static_cast<size_t>(at)], subcommand_list(app).c_str());
        return static_cast<int>(CLI::ExitCodes::ExtrasError);
    }
    app.parse_complete_callback([&] {
        set_library_voice(quiet     ? LibraryVoice::quiet
                          : verbose ? LibraryVoice::verbose
                                    : LibraryVoice::normal);
    });
    try {
        app.parse(static_cast<int>(args.size()), args.data());
    } catch (const CLI::ParseError &e) {
        return app.exit(e);
    } catch (const std::exception &e) {
        std::fflush(stdout);
        std::fprintf(stderr, "vrixdb: %s\n", e.what());
        return 1;
    }
    return status;
}
