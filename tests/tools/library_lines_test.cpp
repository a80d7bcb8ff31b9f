// Routing the library's lines: they reach the descriptor given while the
// route stands, and standard output and error are as before once it goes.
#include "library_lines.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>

namespace vrixtool {
namespace {

struct TempFile {
    FILE *f = std::tmpfile();
    ~TempFile() { std::fclose(f); }
    std::string text() const {
        std::fflush(f);
        std::rewind(f);
        std::string s;
        for (int c; (c = std::fgetc(f)) != EOF;)
            s += static_cast<char>(c);
        return s;
    }
};

ino_t inode_of(int fd) {
    struct stat st {};
    fstat(fd, &st);
    return st.st_ino;
}

TEST(LibraryLines, GoWhereSentUntilTheRouteEnds) {
    const ino_t out = inode_of(STDOUT_FILENO), err = inode_of(STDERR_FILENO);
    TempFile log;
    {
        LibraryLines route(fileno(log.f), true);
        std::printf("library line\n");
        std::fflush(stdout); // a pipe buffers it; the order is checked below
        std::fprintf(stderr, "shell line\n");
    }
    EXPECT_EQ(log.text(), "library line\nshell line\n");
    EXPECT_EQ(inode_of(STDOUT_FILENO), out);
    EXPECT_EQ(inode_of(STDERR_FILENO), err);

    TempFile aside;
    LibraryLines route(fileno(aside.f));
    route.restore();
    std::fflush(stdout);
    EXPECT_EQ(inode_of(STDOUT_FILENO), out);
    EXPECT_EQ(aside.text(), "");
}

// Kept for good, the route hands over the old standard output for the
// program's results, apart from the library's lines.
TEST(LibraryLines, KeptRouteHandsOverTheOldOutput) {
    TempFile results, library;
    LibraryLines program(fileno(results.f)); // stands for the terminal
    {
        LibraryLines route(fileno(library.f));
        FILE *before = route.keep();
        ASSERT_NE(before, nullptr);
        std::printf("library line\n");
        std::fprintf(before, "result\n");
        std::fclose(before);
    }
    std::printf("still the library's\n");
    std::fflush(stdout);
    EXPECT_EQ(library.text(), "library line\nstill the library's\n");
    program.restore();
    EXPECT_EQ(results.text(), "result\n");
}

} // namespace
} // namespace vrixtool
