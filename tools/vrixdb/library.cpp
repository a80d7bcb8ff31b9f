#include "library.h"

#include "catalogue.h"
#include "vrixdb.h"

#include <sys/ipc.h>
#include <sys/msg.h>
#include <unistd.h>

#include <sys/syscall.h>
#include <sys/time.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <mutex>
#include <string>

namespace vrixtool {

namespace fs = std::filesystem;

namespace {
int g_appQueue = -1;
bool g_stdoutClaimed = false;
LibraryVoice g_voice = LibraryVoice::normal;

void to_file(const char *line, void *user) {
    std::fprintf(static_cast<FILE *>(user), "%s\n", line);
}

// Without -v: only the library's lines an operator acts on, which it writes
// as "area : what" (a failure, something set aside or kept, how the store is
// synced); its traces (entering and leaving calls, SQL texts, offsets) are
// dropped.
void operator_lines(const char *line, void *user) {
    if (is_operator_line(line)) to_file(line, user);
}

// -v: the local time to the millisecond and the reporting thread.
void to_stderr_stamped(const char *line, void *) {
    timeval tv{};
    gettimeofday(&tv, nullptr);
    std::tm tm{};
    const time_t secs = tv.tv_sec;
    localtime_r(&secs, &tm);
    std::fprintf(stderr, "%02d:%02d:%02d.%03ld vrix[%ld] %s\n", tm.tm_hour, tm.tm_min, tm.tm_sec,
                 static_cast<long>(tv.tv_usec / 1000), static_cast<long>(syscall(SYS_gettid)),
                 line);
}

void ignore(const char *, void *) {}

// Lines kept aside; the submit thread may report while start-up does, and
// a line may still arrive after the sink changed, so the text outlives it.
struct Collected {
    std::mutex lock;
    std::string text;
};

void collect(const char *line, void *user) {
    auto *c = static_cast<Collected *>(user);
    const std::lock_guard<std::mutex> hold(c->lock);
    c->text += std::string(line) + "\n";
}

// The companion library prints on its own (the submit thread's priority at
// start-up): standard output goes to `to` until restore().
struct StdoutAside {
    int saved = -1;
    explicit StdoutAside(FILE *to) {
        std::fflush(stdout);
        if (to && (saved = dup(STDOUT_FILENO)) >= 0) dup2(fileno(to), STDOUT_FILENO);
    }
    ~StdoutAside() { restore(); }
    void restore() {
        std::fflush(stdout);
        if (saved < 0) return;
        dup2(saved, STDOUT_FILENO);
        close(saved);
        saved = -1;
    }
};

} // namespace

bool is_operator_line(const char *line) {
    const char *sep = std::strstr(line, " : ");
    // "area : what": the area is a word or a few (no SQL or path before it).
    return sep && sep != line && sep - line <= 40 &&
           !std::memchr(line, '/', static_cast<size_t>(sep - line));
}

void set_library_voice(LibraryVoice voice) {
    g_voice = voice;
}

void separate_library_output() {
    switch (g_voice) {
    case LibraryVoice::quiet:
        vrix_db_set_log(ignore, nullptr);
        break;
    case LibraryVoice::normal:
        vrix_db_set_log(operator_lines, stderr);
        break;
    case LibraryVoice::verbose:
        vrix_db_set_log(to_stderr_stamped, nullptr);
        break;
    }
}

LibraryLog::LibraryLog(FILE *file) : file_(file) {
    if (file_) vrix_db_set_log(to_file, file_);
}

LibraryLog::~LibraryLog() {
    separate_library_output();
    if (file_) std::fflush(file_);
}

FILE *out() {
    return g_stdoutClaimed ? stderr : stdout;
}

FILE *claim_stdout() {
    g_stdoutClaimed = true;
    return stdout;
}

bool start_library() {
    static const bool started = [] {
        g_appQueue = msgget(IPC_PRIVATE, IPC_CREAT | 0600);
        if (g_appQueue < 0) {
            std::fprintf(stderr, "vrixdb: cannot make the application queue\n");
            return false;
        }
        std::atexit([] { msgctl(g_appQueue, IPC_RMID, nullptr); });
        // What start-up says is kept aside and shown only when it fails.
        static Collected said;
        vrix_db_set_log(collect, &said);
        const UniqueFile companion(std::tmpfile());
        StdoutAside aside(companion.get());
        const int ok = vrix_db_init(g_appQueue);
        aside.restore();
        separate_library_output();
        if (ok != 1) {
            if (companion) {
                std::rewind(companion.get());
                for (int c; (c = std::fgetc(companion.get())) != EOF;)
                    std::fputc(c, stderr);
            }
            const std::lock_guard<std::mutex> hold(said.lock);
            std::fprintf(stderr, "%svrixdb: the library did not start\n", said.text.c_str());
        }
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
    const Catalogue store(root);
    std::error_code ec;
    if (fs::is_regular_file(store.path(VRIX_PATH_DATE_DB), ec)) return true;
    if (copyWillDo && fs::is_regular_file(store.path(VRIX_PATH_DATE_COPY), ec)) return true;
    std::fprintf(stderr, "vrixdb %s: no store at %s (no date.db%s)\n", command, root.c_str(),
                 copyWillDo ? " and no copy date.db.sql" : "");
    return false;
}

} // namespace vrixtool
