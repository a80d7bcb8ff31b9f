#include "support/child.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

extern char **environ;

namespace vrix::test {

pid_t spawn_self(const std::string &name, const std::string &value, int out) {
    const std::string var = name + "=" + value;
    std::vector<char *> env;
    for (char **e = environ; *e; ++e)
        if (std::strncmp(*e, var.c_str(), name.size() + 1) != 0) env.push_back(*e);
    env.push_back(const_cast<char *>(var.c_str()));
    env.push_back(nullptr);
    char self[] = "/proc/self/exe";
    char *argv[] = {self, nullptr};
    std::fflush(stdout);
    const pid_t pid = fork();
    if (pid == 0) {
        if (out < 0 || dup2(out, 1) == 1) execve(self, argv, env.data());
        _exit(127);
    }
    return pid;
}

int wait_status(pid_t pid) {
    int status = -1;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

} // namespace vrix::test
