#include "library.h"

#include "library_lines.h"
#include "store_index.h"
#include "vrixdb.h"

#include <sys/ipc.h>
#include <sys/msg.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>

namespace vrixtool {

namespace fs = std::filesystem;

namespace {
int g_appQueue = -1;

FILE *g_out = nullptr;
bool g_stdoutClaimed = false;

} // namespace

// Standard output stays the program's; the library's lines move to standard
// error, where a user sees them and a pipe does not get them.
void separate_library_output() {
    if (!g_out) g_out = LibraryLines(STDERR_FILENO).keep();
}

FILE *out() {
    if (g_stdoutClaimed) return stderr;
    return g_out ? g_out : stdout;
}

FILE *claim_stdout() {
    separate_library_output();
    if (!g_out) return nullptr;
    g_stdoutClaimed = true;
    return g_out;
}

bool start_library() {
    static const bool started = [] {
        g_appQueue = msgget(IPC_PRIVATE, IPC_CREAT | 0600);
        if (g_appQueue < 0) {
            std::fprintf(stderr, "vrixdb: cannot make the application queue\n");
            return false;
        }
        std::atexit([] { msgctl(g_appQueue, IPC_RMID, nullptr); });
        // Start-up reports on standard output (the submit thread's priority):
        // kept aside, and shown only when start-up fails.
        const UniqueFile said(std::tmpfile());
        std::optional<LibraryLines> aside;
        if (said) aside.emplace(fileno(said.get()));
        const int ok = vrix_db_init(g_appQueue);
        aside.reset();
        if (ok != 1) {
            if (said) {
                std::rewind(said.get());
                for (int c; (c = std::fgetc(said.get())) != EOF;)
                    std::fputc(c, stderr);
            }
            std::fprintf(stderr, "vrixdb: the library did not start\n");
        }
        if (ok == 1) separate_library_output();
        return ok == 1;
    }();
    return started;
}

bool disk_error_reported() {
    bool seen = false;
    NotifyMessage msg{};
    while (g_appQueue >= 0 && msgrcv(g_appQueue, &msg, VRIX_MSG_TEXT_SIZE, 0, IPC_NOWAIT) >= 0)
        if (msg.mtext[0] == VRIX_MSG_DISK_ERROR) seen = true;
    return seen;
}

std::string library_root(const std::string &root, const char *command) {
    std::error_code ec;
    std::string abs = fs::absolute(root, ec).lexically_normal().string();
    while (abs.size() > 1 && abs.back() == '/')
        abs.pop_back();
    if (ec || abs.empty()) {
        std::fprintf(stderr, "vrixdb %s: bad root %s\n", command, root.c_str());
        return {};
    }
    if (abs.size() > kMaxRoot) {
        std::fprintf(stderr, "vrixdb %s: root %s is %zu characters long; the store allows %zu\n",
                     command, abs.c_str(), abs.size(), kMaxRoot);
        return {};
    }
    return abs;
}

bool require_store(const std::string &root, const char *command, bool copyWillDo) {
    const std::string dateDb = StoreIndex(root).date_db();
    std::error_code ec;
    if (fs::is_regular_file(dateDb, ec)) return true;
    if (copyWillDo && fs::is_regular_file(dateDb + ".sql", ec)) return true;
    std::fprintf(stderr, "vrixdb %s: no store at %s (no date.db%s)\n", command, root.c_str(),
                 copyWillDo ? " and no copy date.db.sql" : "");
    return false;
}

} // namespace vrixtool
