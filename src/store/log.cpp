#include "log.h"

#include "vrixdb.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>

namespace vrix {
namespace {

struct Sink {
    VrixLogFn fn = nullptr;
    void *user = nullptr;
};

std::mutex g_sinkMutex;
Sink g_sink;

Sink current_sink() {
    const std::lock_guard<std::mutex> hold(g_sinkMutex);
    return g_sink;
}

// Each line of `text` to the sink, without its newline.
void deliver(const Sink &sink, char *text) {
    for (char *line = text; *line;) {
        char *end = std::strchr(line, '\n');
        if (end) *end = '\0';
        sink.fn(line, sink.user);
        if (!end) break;
        line = end + 1;
    }
}

} // namespace

void log_line(const char *fmt, ...) {
    char text[kLogLineSize];
    va_list ap;
    va_start(ap, fmt);
    const int n = std::vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    if (n < 0) return;
    if (static_cast<unsigned long>(n) >= sizeof text)
        text[sizeof text - 2] = '\n'; // cut, still a line
    const Sink sink = current_sink();
    if (!sink.fn) {
        std::fputs(text, stdout);
        return;
    }
    deliver(sink, text);
}

void log_text(const char *line) {
    log_line("%s\n", line);
}

bool log_is_default() {
    return current_sink().fn == nullptr;
}

} // namespace vrix

void vrix_db_set_log(VrixLogFn fn, void *user) {
    const std::lock_guard<std::mutex> hold(vrix::g_sinkMutex);
    vrix::g_sink = {fn, fn ? user : nullptr};
}
