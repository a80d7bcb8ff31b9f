// Maintenance test support: short waits, a remove server that records what it
// was asked, video through the real writer, audio written by hand in the
// store's layout.
#pragma once

#include "store/records.h"
#include "support/child.h"
#include "support/frames.h"
#include "support/queues.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>

namespace vrix::test {

using std::filesystem::exists;

constexpr int kDay = 1710028800; // 2024-03-10 00:00:00 UTC
constexpr char kDayName[] = "20240310";
using Rows = std::vector<std::string>;
using Bytes = std::vector<unsigned char>;

inline std::atomic<int> g_maint_now{0};

// The part of this binary run again with VRIX_HOLD_DB set: it holds that
// database with BEGIN EXCLUSIVE until it is killed.
inline const bool g_holds_db = [] {
    const char *path = std::getenv("VRIX_HOLD_DB");
    if (!path) return false;
    sqlite3 *h = nullptr;
    const bool held = sqlite3_open(path, &h) == SQLITE_OK &&
                      sqlite3_exec(h, "BEGIN EXCLUSIVE;", nullptr, nullptr, nullptr) == SQLITE_OK;
    std::puts(held ? "held" : "not held");
    std::fflush(stdout);
    if (held) pause();
    _exit(held ? 0 : 1);
}();

// Another process holding a database locked (BEGIN EXCLUSIVE) while this
// lives.
class HeldElsewhere {
  public:
    explicit HeldElsewhere(const std::string &db) {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0) return;
        pid_ = spawn_self("VRIX_HOLD_DB", db, fds[1]);
        close(fds[1]);
        char said[16] = {};
        held = read(fds[0], said, sizeof said - 1) > 0 && std::strncmp(said, "held", 4) == 0;
        close(fds[0]);
    }
    ~HeldElsewhere() {
        if (pid_ <= 0) return;
        kill(pid_, SIGKILL);
        wait_status(pid_);
    }
    HeldElsewhere(const HeldElsewhere &) = delete;
    HeldElsewhere &operator=(const HeldElsewhere &) = delete;
    bool held = false;

  private:
    pid_t pid_ = -1;
};

// A fixture's first member, so the library owns the queues before anything
// else of the test touches them.
struct Started {
    Started() { start_library(); }
};

// Seconds of pacing become microseconds; with `clock` events are stamped
// g_maint_now.
struct FastWaits {
    explicit FastWaits(bool clock = false) {
        const VrixTestHooks hooks{1000000, clock ? +[] { return g_maint_now.load(); } : nullptr};
        vrix_db_set_test_hooks(&hooks);
    }
    ~FastWaits() { vrix_db_set_test_hooks(nullptr); }
};

struct RemoveServer {
    struct Request {
        int command;
        std::string path;
        int outcome;
    };
    explicit RemoveServer(const std::string &root)
        : server(vrix_rm_server_start(root.c_str(), &RemoveServer::note, this)) {}
    ~RemoveServer() { vrix_rm_server_stop(server); }
    std::vector<Request> take() {
        std::lock_guard<std::mutex> hold(lock);
        return std::move(seen);
    }
    static void note(int command, const char *path, int outcome, void *self) {
        auto *s = static_cast<RemoveServer *>(self);
        std::lock_guard<std::mutex> hold(s->lock);
        s->seen.push_back({command, path, outcome});
    }
    std::mutex lock;
    std::vector<Request> seen;
    VrixRmServer *server;
};

inline void write_file(const std::string &path, const Bytes &bytes, bool append = false) {
    std::ofstream out(path, std::ios::binary | (append ? std::ios::app : std::ios::trunc));
    out.write(reinterpret_cast<const char *>(bytes.data()), std::streamsize(bytes.size()));
}

// A key frame and another frame at each second, per channel.
inline void record_video(const std::string &root, const std::map<int, std::vector<int>> &secs) {
    RecContext *ctx = vrix_db_open_rec_video(root.c_str(), 17);
    ASSERT_NE(ctx, nullptr);
    for (const auto &[ch, list] : secs) {
        for (int s : list) {
            record(ctx, make_frame(ch, s, true, 200));
            record(ctx, make_frame(ch, s, false, 90));
        }
        vrix_db_rec_video_flush(ctx, ch);
    }
    vrix_db_close_rec_video(ctx);
}

// A day's audio.db: H and h<hour> per hour given, one row per second listed.
inline void write_audio_db(const std::string &root, const std::map<int, std::vector<int>> &hours) {
    const std::string dir = root + "/" + kDayName + "/audio";
    std::filesystem::create_directories(dir);
    std::string sql = "create table H(hour int);";
    for (const auto &[h, secs] : hours) {
        std::string t = "h";
        t += std::to_string(h);
        sql += "create table " + t + "(id integer primary key , sec int,offset int);";
        if (!secs.empty()) sql += "insert into H values(" + std::to_string(h) + ");";
        for (size_t i = 0; i < secs.size(); ++i)
            sql += "insert into " + t + " values(NULL," + std::to_string(secs[i]) + "," +
                   std::to_string(i * VRIX_AUDIO_RECORD_SIZE) + ");";
    }
    exec(dir + "/audio.db", sql);
}

inline Bytes audio_records(const std::vector<int> &secs) {
    Bytes out(secs.size() * VRIX_AUDIO_RECORD_SIZE);
    const unsigned char piece[VRIX_AUDIO_PIECE_SIZE] = {};
    for (size_t i = 0; i < secs.size(); ++i)
        pack_audio_record(out.data() + i * VRIX_AUDIO_RECORD_SIZE, secs[i], 0, piece);
    return out;
}

} // namespace vrix::test
