// Running the sqlite3 shell and cp straight from an argument vector: no
// command interpreter, so no character of a path is ever interpreted.
#include "maintenance.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstdio>

extern char **environ;

namespace vrix {

int run_program(const char *const argv[], bool quiet) {
    std::fflush(stdout); // our lines before the program's own
    posix_spawn_file_actions_t actions;
    if (posix_spawn_file_actions_init(&actions) != 0) return -1;
    if (quiet) {
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    }
    pid_t pid;
    const int rc =
        posix_spawnp(&pid, argv[0], &actions, nullptr, const_cast<char *const *>(argv), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) return -1;
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
