#include "library_lines.h"

#include <unistd.h>

#include <cstdio>

namespace vrixtool {

LibraryLines::LibraryLines(int fd, bool andStderr) {
    std::fflush(stdout);
    std::fflush(stderr);
    savedOut_ = dup(STDOUT_FILENO);
    if (savedOut_ < 0) return;
    if (andStderr) {
        savedErr_ = dup(STDERR_FILENO);
        if (savedErr_ < 0) {
            close(savedOut_);
            savedOut_ = -1;
            return;
        }
        dup2(fd, STDERR_FILENO);
    }
    dup2(fd, STDOUT_FILENO);
}

LibraryLines::~LibraryLines() {
    restore();
}

void LibraryLines::restore() {
    std::fflush(stdout);
    std::fflush(stderr);
    if (savedOut_ >= 0) {
        dup2(savedOut_, STDOUT_FILENO);
        close(savedOut_);
        savedOut_ = -1;
    }
    if (savedErr_ >= 0) {
        dup2(savedErr_, STDERR_FILENO);
        close(savedErr_);
        savedErr_ = -1;
    }
}

std::FILE *LibraryLines::keep() {
    std::FILE *before = savedOut_ >= 0 ? fdopen(savedOut_, "w") : nullptr;
    if (!before) {
        restore();
        return nullptr;
    }
    savedOut_ = -1;
    if (savedErr_ >= 0) close(savedErr_);
    savedErr_ = -1;
    return before;
}

} // namespace vrixtool
