// The library's lines: every line it prints goes through log_line, which
// hands it to the sink the application installed (vrix_db_set_log) or, by
// default, writes it to standard output.  It lives beside the bounded
// formatting so that every folder of the library can report.
#pragma once

namespace vrix {

// Longest text of one call; a longer one is cut there.
constexpr unsigned long kLogLineSize = 512;

// printf-like; the text ends in "\n" as printf's would.  The default sink
// writes it as it is; an installed sink gets each line of it without its
// newline.
void log_line(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

// True while no sink is installed (the library's lines go to standard
// output).
bool log_is_default();

// Hands one line (without its newline) to the installed sink, or writes it
// with a newline to standard output.
void log_text(const char *line);

} // namespace vrix
