// What the subcommands share on the command line: the validators of times,
// days and lists, and the registration of each subcommand.
#pragma once

#include <CLI/CLI.hpp>

#include <memory>
#include <string>

namespace vrixtool {

// Each subcommand registers itself (in the file named after it); its
// callback sets the exit status.
using Status = int;
using AddSubcommand = void(CLI::App &app, Status &status);
AddSubcommand add_demo, add_record_h264, add_export_h264, add_ls, add_play, add_events,
    add_timeline, add_size, add_range, add_reduce, add_backup, add_repair, add_export_mp4,
    add_serve;

// The exit status of arguments that are wrong (CLI11's own are 100 and above
// too): a value that does not parse, or values that do not go together, such
// as --to before --from.  Such checks come before any look at the store.
constexpr Status kWrongArguments = static_cast<int>(CLI::ExitCodes::ValidationError);

// Validators for option values.
extern const CLI::Validator TimeArg;    // every form parse_time reads
extern const CLI::Validator DayArg;     // YYYYMMDD or YYYY-MM-DD
extern const CLI::Validator ChannelArg; // 1..16

// What --from A --to B means wherever a span is asked for (play, export-h264,
// size), in the same words.
extern const char *const kSpanRule;

// An audio channel (with --audio) must be one of the four; false, with a
// line naming `command`, when it is not.
bool channel_fits(int ch, bool audio, const char *command);

// The --root option every subcommand has.
CLI::Option *add_root(CLI::App *sub, std::string &root, bool required = true);

// --ch, a video channel; with `audio`, also --audio, which makes it an audio
// channel.
void add_channel(CLI::App *sub, int &ch, bool *audio = nullptr);

// --from and --to of a span, both required, and the span rule below the help.
void add_span(CLI::App *sub, std::string &from, std::string &to);

// A subcommand with its options (a struct with at least `root`) and --root;
// when it is chosen, `run` gets the options and its result is the status.
template <class Options> struct Subcommand {
    CLI::App *sub;
    Options &o;
};
template <class Options>
Subcommand<Options> add_subcommand(CLI::App &app, Status &status, const char *name,
                                   const std::string &help, int (*run)(const Options &),
                                   bool rootRequired = true) {
    auto o = std::make_shared<Options>();
    auto *sub = app.add_subcommand(name, help);
    add_root(sub, o->root, rootRequired);
    sub->callback([o, run, &status] { status = run(*o); });
    return {sub, *o};
}

} // namespace vrixtool
