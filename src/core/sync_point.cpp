#include "sync_point.h"

#if VRIX_SYNC_POINTS

#include "lock_check.h"

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

namespace vrix {
namespace {

using Callback = std::shared_ptr<const std::function<void()>>;

std::mutex g_points_mutex;
std::map<std::string, Callback, std::less<>> g_points;
std::atomic<bool> g_any{false}; // the common case: nothing installed

} // namespace

void sync_point(const char *name) {
    require_no_db_lock("sync point");
    if (!g_any.load()) return;
    Callback cb;
    {
        std::lock_guard<std::mutex> hold(g_points_mutex);
        auto it = g_points.find(std::string_view(name));
        if (it == g_points.end()) return;
        cb = it->second;
    }
    (*cb)(); // outside the registry's mutex: callbacks may wait for each other
}

void set_sync_point(const char *name, std::function<void()> callback) {
    std::lock_guard<std::mutex> hold(g_points_mutex);
    if (callback)
        g_points[name] = std::make_shared<const std::function<void()>>(std::move(callback));
    else
        g_points.erase(std::string(name));
    g_any.store(!g_points.empty());
}

void clear_sync_points() {
    std::lock_guard<std::mutex> hold(g_points_mutex);
    g_points.clear();
    g_any.store(false);
}

} // namespace vrix

#endif
