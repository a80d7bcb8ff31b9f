#include "live_hours.h"

#include <sys/stat.h>

#include <mutex>
#include <vector>

namespace vrix {
namespace {

struct LiveHour {
    const void *writer;
    int slot;
    dev_t dev;
    ino_t ino;
    int day;
    int hour;
};

std::mutex g_lock;
std::vector<LiveHour> g_live; // a video context's 16 channels and an audio context

bool identify(const char *root, dev_t &dev, ino_t &ino) {
    struct stat st {};
    if (!root || stat(root, &st) != 0) return false;
    dev = st.st_dev;
    ino = st.st_ino;
    return true;
}

} // namespace

void note_live_hour(const void *writer, int slot, const char *root, int day, int hour) {
    LiveHour h{writer, slot, 0, 0, day, hour};
    if (!identify(root, h.dev, h.ino)) return; // no store there to protect
    std::lock_guard<std::mutex> hold(g_lock);
    for (LiveHour &e : g_live)
        if (e.writer == writer && e.slot == slot) {
            e = h;
            return;
        }
    g_live.push_back(h);
}

void forget_live_hours(const void *writer) {
    std::lock_guard<std::mutex> hold(g_lock);
    std::erase_if(g_live, [&](const LiveHour &e) { return e.writer == writer; });
}

int live_hour_up_to(const char *root, int day, int last_hour) {
    dev_t dev;
    ino_t ino;
    if (!identify(root, dev, ino)) return -1;
    std::lock_guard<std::mutex> hold(g_lock);
    int found = -1;
    for (const LiveHour &e : g_live)
        if (e.dev == dev && e.ino == ino && e.day == day && e.hour <= last_hour &&
            (found < 0 || e.hour < found))
            found = e.hour;
    return found;
}

} // namespace vrix
