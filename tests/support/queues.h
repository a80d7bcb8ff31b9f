// Test support: the library's queues are global on the machine, so every test
// process that starts the library removes what an earlier run left first.
#pragma once

#include "vrixdb.h"

#include <sys/ipc.h>
#include <sys/msg.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

namespace vrix::test {

inline void remove_stale_queues() {
    for (int key : {VRIX_SUBMIT_MQ_KEY, VRIX_RM_MQ_KEY, VRIX_RM_ACK_MQ_KEY}) {
        const int id = msgget(key, 0);
        if (id >= 0) msgctl(id, IPC_RMID, nullptr);
    }
}

// The application's own queue for the tests: private, so nothing else reads it.
// Removed when the process ends, so test runs leave no queues behind.
inline int app_queue() {
    static const int id = [] {
        const int q = msgget(IPC_PRIVATE, IPC_CREAT | 0600);
        static int saved = q;
        std::atexit([] { msgctl(saved, IPC_RMID, nullptr); });
        return q;
    }();
    return id;
}

// Starts the library once per process, from clean queues.
inline void start_library() {
    static const int ok = [] {
        remove_stale_queues();
        return vrix_db_init(app_queue());
    }();
    ASSERT_EQ(ok, 1);
}

// A fresh directory under the build tree's scratch area, removed at the end.
class ScratchDir {
  public:
    ScratchDir() {
        std::string tmpl = (std::filesystem::temp_directory_path() / "vrixdb-test-XXXXXX").string();
        path_ = mkdtemp(tmpl.data()) ? tmpl : std::string();
    }
    ~ScratchDir() {
        std::error_code ec;
        if (!path_.empty() && !std::getenv("VRIX_KEEP_SCRATCH"))
            std::filesystem::remove_all(path_, ec);
    }
    const std::string &path() const { return path_; }
    std::string operator/(const std::string &rel) const { return path_ + "/" + rel; }

  private:
    std::string path_;
};

} // namespace vrix::test
