// Starting the library, as the recorder application does, and the checks
// every subcommand makes on its root before it lets the library touch it.
#pragma once

#include "vrixdb.h"

#include <cstdio>
#include <string>

namespace vrixtool {

// Longest root the library accepts (its paths are formed in 128 bytes).
constexpr size_t kMaxRoot = VRIX_MAX_ROOT_LENGTH;

// Starts the library once for this process with a private application queue
// (removed at exit).  False, with a message on stderr, when it cannot start.
// From then on the library's own lines (it reports on standard output) go to
// standard error, and the program writes its results to out().
bool start_library();

// Where the program's results go: standard output, or standard error once
// standard output carries a product (claim_stdout).
FILE *out();
// Standard output for a product written to "-", kept apart from the
// library's lines; out() is standard error from then on.  Null when the two
// cannot be separated.
FILE *claim_stdout();
// Sends the library's lines to standard error from now on (start_library
// does this; commands that use the library without starting it call it).
void separate_library_output();

// True when the application queue holds a disk-write-error notice (the
// library sends one when a stream write falls short); the queue is drained.
bool disk_error_reported();

// The root as the library will get it: absolute, without a trailing "/".
// Empty, with a message on stderr, when it is too long for the library.
std::string library_root(const std::string &root, const char *command);

// A root the command only reads: it must exist and hold date.db (or, when
// `copyWillDo`, at least the copy date.db.sql that repair restores it from).
bool require_store(const std::string &root, const char *command, bool copyWillDo = false);

} // namespace vrixtool
