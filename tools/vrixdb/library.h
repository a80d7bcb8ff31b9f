// Starting the library, as the recorder application does, and the checks
// every subcommand makes on its root before it lets the library touch it.
#pragma once

#include "vrixdb.h"

#include <cstdio>
#include <memory>
#include <string>

namespace vrixtool {

// A file the program opened, closed when it goes.
struct FileCloser {
    void operator()(std::FILE *f) const { std::fclose(f); }
};
using UniqueFile = std::unique_ptr<std::FILE, FileCloser>;

// Longest root the library accepts (its paths are formed in 128 bytes).
constexpr size_t kMaxRoot = VRIX_MAX_ROOT_LENGTH;

// Starts the library once for this process with a private application queue
// (removed at exit).  False, with a message on stderr, when it cannot start.
// From then on the library's own lines go to its log sink (see
// separate_library_output), and the program writes its results to out().
bool start_library();

// How the library's lines are shown: -q drops them; by default only those an
// operator acts on (is_operator_line) are shown; -v shows all, each stamped
// with the time and the thread.
enum class LibraryVoice { quiet, normal, verbose };
void set_library_voice(LibraryVoice voice);
// Whether a line of the library is one of its "area : what" lines (failures,
// files set aside, how a store is synced) rather than a trace.
bool is_operator_line(const char *line);

// Where the program's results go: standard output, or standard error once
// standard output carries a product (claim_stdout).
FILE *out();
// Standard output for a product written to "-"; out() is standard error from
// then on.
FILE *claim_stdout();
// Installs the program's sink for the library's lines: standard error (or
// nothing with -q), so standard output carries only results.  start_library
// does this; commands that use the library without starting it call it.
void separate_library_output();

// The library's lines (and those of the sqlite3 shell it runs) go to `file`
// while the object lives (flushed when it goes), then back to the program's
// sink.
class LibraryLog {
  public:
    explicit LibraryLog(FILE *file);
    ~LibraryLog();
    LibraryLog(const LibraryLog &) = delete;
    LibraryLog &operator=(const LibraryLog &) = delete;

  private:
    FILE *file_;
};

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
