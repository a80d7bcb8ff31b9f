// A file the program writes its product to (an exported stream, a picture).
//
// What the name leads to decides how it is written:
//   - a regular file, or a name not there yet: written to "<name>.part"
//     beside it and renamed over the name at the end, so a reader never sees
//     half a file and a failed run leaves the old one;
//   - anything else (a symbolic link, a FIFO, a terminal or other device) is
//     opened and written in place: a link is written through to its target,
//     never replaced;
//   - "-", or a name of standard output itself (/dev/stdout), is standard
//     output; the program's own results then go to standard error (out()).
#pragma once

#include <cstdio>
#include <string>

namespace vrixtool {

// The rule above, for the help of an output option.
inline constexpr char kOutputRule[] = "a regular file is replaced at the end; a FIFO, device "
                                      "or link is written in place; - is standard output";

class OutputFile {
  public:
    OutputFile() = default;
    ~OutputFile();
    OutputFile(const OutputFile &) = delete;
    OutputFile &operator=(const OutputFile &) = delete;

    // Opens what `path` names; false, with a line naming `command`, when it
    // cannot be written (a directory, a missing directory, no permission).
    bool open(const std::string &path, const char *command);
    // Where the bytes go.  A regular file reached through a link is emptied
    // on the first call only, so a run that writes nothing leaves it as it was.
    FILE *stream();
    // Writes out and closes; an atomic output is renamed over its name.
    // False, with a line, when anything failed (a .part is then removed).
    bool commit();

  private:
    void discard();

    std::string path_;
    std::string part_; // "<path>.part" when replaced atomically, else empty
    const char *command_ = "";
    FILE *file_ = nullptr;
    bool standardOutput_ = false;
    bool emptyOnFirstWrite_ = false;
    bool failed_ = false;
};

} // namespace vrixtool
