// What the subcommands share on the command line: the validators of times,
// days and lists, and the registration of each subcommand.
#pragma once

#include <CLI/CLI.hpp>

#include <functional>
#include <string>

namespace vrixtool {

// Each subcommand registers itself; the callback sets the exit status.
using Status = int;
void add_demo(CLI::App &app, Status &status);
void add_record_h264(CLI::App &app, Status &status);
void add_export_h264(CLI::App &app, Status &status);
void add_ls(CLI::App &app, Status &status);
void add_play(CLI::App &app, Status &status);
void add_events(CLI::App &app, Status &status);
void add_timeline(CLI::App &app, Status &status);
void add_size(CLI::App &app, Status &status);
void add_range(CLI::App &app, Status &status);
void add_reduce(CLI::App &app, Status &status);
void add_backup(CLI::App &app, Status &status);
void add_repair(CLI::App &app, Status &status);

// Validators for option values.
extern const CLI::Validator TimeArg;    // local YYYY-MM-DDTHH:MM:SS or epoch seconds
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

} // namespace vrixtool
