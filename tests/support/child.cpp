#include "support/child.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
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
    std::vector<char *> argv;
    // Under user-mode emulation (a cross build's tests) the host cannot run
    // the binary itself: the copy is started through the emulator the tests
    // run under ("qemu-arm -L /usr/arm-linux-gnueabihf"), with the binary's
    // own path.
#ifdef VRIX_TEST_EMULATOR
    std::string emulator = VRIX_TEST_EMULATOR;
    char path[4096] = {};
    if (readlink(self, path, sizeof path - 1) > 0) {
        for (char *word = std::strtok(emulator.data(), " "); word; word = std::strtok(nullptr, " "))
            argv.push_back(word);
        argv.push_back(path);
    }
#endif
    if (argv.empty()) argv.push_back(self);
    argv.push_back(nullptr);
    std::fflush(stdout);
    const pid_t pid = fork();
    if (pid == 0) {
        if (out < 0 || dup2(out, 1) == 1) execvpe(argv[0], argv.data(), env.data());
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

long long env_number(const char *name, long long fallback) {
    const char *v = std::getenv(name);
    return v && *v ? std::strtoll(v, nullptr, 10) : fallback;
}

} // namespace vrix::test
