// The library's lines (vrix_db_set_log) while a Lines lives, from whichever
// thread reports them.
#pragma once

#include "vrixdb.h"

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

namespace vrix::test {

class Lines {
  public:
    Lines() { vrix_db_set_log(take, this); }
    ~Lines() { vrix_db_set_log(nullptr, nullptr); }
    Lines(const Lines &) = delete;
    Lines &operator=(const Lines &) = delete;

    // How many lines hold `part`.
    long count(const std::string &part) const {
        const std::lock_guard hold(mutex_);
        return std::count_if(all_.begin(), all_.end(), [&part](const std::string &l) {
            return l.find(part) != std::string::npos;
        });
    }
    bool has(const std::string &part) const { return count(part) > 0; }
    std::string text() const {
        const std::lock_guard hold(mutex_);
        std::string t;
        for (const auto &l : all_)
            t += l + "\n";
        return t;
    }

  private:
    static void take(const char *line, void *self) {
        auto *me = static_cast<Lines *>(self);
        const std::lock_guard hold(me->mutex_);
        me->all_.emplace_back(line);
    }
    mutable std::mutex mutex_;
    std::vector<std::string> all_;
};

} // namespace vrix::test
