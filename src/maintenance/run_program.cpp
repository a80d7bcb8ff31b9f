// Running the sqlite3 shell and cp straight from an argument vector: no
// command interpreter, so no character of a path is ever interpreted.
#include "maintenance.h"
#include "store/log.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

extern char **environ;

namespace vrix {
namespace {

// Both ends of a pipe, closed when they go.
struct Pipe {
    int fd[2] = {-1, -1};
    Pipe() {
        if (pipe2(fd, O_CLOEXEC) != 0) fd[0] = fd[1] = -1;
    }
    ~Pipe() {
        close_end(0);
        close_end(1);
    }
    Pipe(const Pipe &) = delete;
    Pipe &operator=(const Pipe &) = delete;
    void close_end(int i) {
        if (fd[i] >= 0) close(fd[i]);
        fd[i] = -1;
    }
};

// The program's output, line by line, to the library's sink (a line longer
// than the sink takes is passed on in pieces).
void relay_lines(int fd) {
    char line[kLogLineSize - 1];
    size_t used = 0;
    char chunk[512];
    for (;;) {
        const ssize_t n = read(fd, chunk, sizeof chunk);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        for (ssize_t i = 0; i < n; ++i) {
            if (chunk[i] != '\n' && used < sizeof line - 1) {
                line[used++] = chunk[i];
                continue;
            }
            line[used] = '\0';
            log_text(line);
            used = 0;
            if (chunk[i] != '\n') line[used++] = chunk[i];
        }
    }
    if (used) {
        line[used] = '\0';
        log_text(line);
    }
}

} // namespace

int run_program(const char *const argv[], bool quiet) {
    std::fflush(stdout); // our lines before the program's own
    posix_spawn_file_actions_t actions;
    if (posix_spawn_file_actions_init(&actions) != 0) return -1;
    // With the default sink the program writes to standard output and error
    // as they are; an installed sink gets its lines through a pipe.
    Pipe out;
    const bool relay = !quiet && !log_is_default() && out.fd[1] >= 0;
    if (quiet) {
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    } else if (relay) {
        posix_spawn_file_actions_adddup2(&actions, out.fd[1], STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&actions, out.fd[1], STDERR_FILENO);
    }
    pid_t pid;
    const int rc =
        posix_spawnp(&pid, argv[0], &actions, nullptr, const_cast<char *const *>(argv), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) return -1;
    if (relay) {
        out.close_end(1);
        relay_lines(out.fd[0]);
    }
    int status;
    while (waitpid(pid, &status, 0) < 0)
        if (errno != EINTR) return -1;
    return status;
}

bool shell_runs() {
    const char *const argv[] = {"sqlite3", "-version", nullptr};
    return run_program(argv, true) == 0;
}

} // namespace vrix
