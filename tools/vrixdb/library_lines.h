// Where the library's own lines go.
//
// The library reports on standard output (and the sqlite3 shell its integrity
// check runs, on standard error).  Every place the program moves those lines
// goes through this one class, so that the day the library takes a sink of
// its own, only this file changes.
#pragma once

#include <cstdio>
#include <memory>

namespace vrixtool {

// A file the lines are kept in, closed when it goes.
struct FileCloser {
    void operator()(std::FILE *f) const { std::fclose(f); }
};
using UniqueFile = std::unique_ptr<std::FILE, FileCloser>;

class LibraryLines {
  public:
    // From now until restore() (or the end of the object) the library's lines
    // go to descriptor `fd`; with `andStderr` standard error goes there too.
    // When the descriptors cannot be switched, nothing moves.
    explicit LibraryLines(int fd, bool andStderr = false);
    ~LibraryLines();
    LibraryLines(const LibraryLines &) = delete;
    LibraryLines &operator=(const LibraryLines &) = delete;

    // Sends the lines back where they went before.
    void restore();
    // Makes the switch for good and returns a stream for writing to where
    // the library's lines went before (the caller closes it); null, with
    // everything back as it was, when there is none.
    std::FILE *keep();

  private:
    int savedOut_ = -1;
    int savedErr_ = -1;
};

} // namespace vrixtool
