// A server for the remove queues: takes requests off queue 1221, removes
// what they name when it lies inside its root, and answers every request on
// queue 1222, refused ones included, so the library never waits for nothing.
#include "core/messages.h"
#include "maintenance.h"
#include "store/log.h"

#include <limits.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <new>
#include <string>
#include <system_error>
#include <thread>

struct VrixRmServer {
    std::string root; // canonical, no trailing "/" (except for "/" itself)
    VrixRmLogFn log = nullptr;
    void *user = nullptr;
    std::atomic<bool> stop{false};
    std::thread thread;
};

namespace vrix {
namespace {

constexpr auto kPollInterval = std::chrono::milliseconds(1);

bool inside(const std::string &root, const std::string &dir) {
    if (root == "/") return true;
    return dir == root || (dir.size() > root.size() && dir.compare(0, root.size(), root) == 0 &&
                           dir[root.size()] == '/');
}

// Resolves the request's directory (symbolic links and all) and keeps the
// last name as it is, so a link is removed itself and never followed.
int resolve(const std::string &root, const char *path, std::string &target) {
    std::string p(path);
    while (p.size() > 1 && p.back() == '/')
        p.pop_back();
    const size_t slash = p.rfind('/');
    const std::string dir = slash == std::string::npos ? "."
                            : slash == 0               ? "/"
                                                       : p.substr(0, slash);
    const std::string leaf = slash == std::string::npos ? p : p.substr(slash + 1);
    if (leaf.empty() || leaf == "." || leaf == "..") return VRIX_RM_REFUSED;
    char real[PATH_MAX];
    if (!realpath(dir.c_str(), real)) return VRIX_RM_FAILED; // nothing there to remove
    if (!inside(root, real)) return VRIX_RM_REFUSED;
    target = std::string(real) + (std::strcmp(real, "/") == 0 ? "" : "/") + leaf;
    return VRIX_RM_REMOVED;
}

int serve(const VrixRmServer &s, unsigned char command, const char *path) {
    std::string target;
    int outcome = command > kRemoveTree ? VRIX_RM_REFUSED : resolve(s.root, path, target);
    if (outcome == VRIX_RM_REMOVED) {
        if (command == kRemoveTree) {
            std::error_code ec;
            if (std::filesystem::remove_all(target, ec) == 0 || ec) outcome = VRIX_RM_FAILED;
        } else if (unlink(target.c_str()) != 0) {
            outcome = VRIX_RM_FAILED;
        }
    }
    if (outcome == VRIX_RM_REFUSED)
        log_line("rm server : refused %s\n", path);
    else if (outcome == VRIX_RM_FAILED)
        log_line("rm server : cannot remove %s\n", path);
    if (s.log) s.log(command, path, outcome, s.user);
    return outcome;
}

void run(VrixRmServer *s) {
    int requests = msgget(VRIX_RM_MQ_KEY, IPC_CREAT | 0666);
    int replies = msgget(VRIX_RM_ACK_MQ_KEY, IPC_CREAT | 0666);
    while (!s->stop.load()) {
        NotifyMessage m{};
        const ssize_t n = msgrcv(requests, &m, VRIX_MSG_TEXT_SIZE, 0, IPC_NOWAIT | MSG_NOERROR);
        if (n < 0) {
            if (errno == EIDRM || errno == EINVAL) { // the queues were removed: take the new ones
                requests = msgget(VRIX_RM_MQ_KEY, IPC_CREAT | 0666);
                replies = msgget(VRIX_RM_ACK_MQ_KEY, IPC_CREAT | 0666);
            }
            std::this_thread::sleep_for(kPollInterval);
            continue;
        }
        m.mtext[VRIX_MSG_TEXT_SIZE - 1] = 0; // the path is at most 126 characters
        NotifyMessage reply;
        prepare_message(reply, static_cast<unsigned char>(
                                   serve(*s, m.mtext[0], reinterpret_cast<char *>(m.mtext + 1))));
        send_message(replies, reply);
    }
}

} // namespace
} // namespace vrix

extern "C" VrixRmServer *vrix_rm_server_start(const char *root, VrixRmLogFn log, void *user) {
    char real[PATH_MAX];
    if (!root || !realpath(root, real)) {
        vrix::log_line("rm server : no root %s\n", root ? root : "(null)");
        return nullptr;
    }
    if (msgget(VRIX_RM_MQ_KEY, IPC_CREAT | 0666) < 0 ||
        msgget(VRIX_RM_ACK_MQ_KEY, IPC_CREAT | 0666) < 0) {
        vrix::log_text("rm server : msgget failed");
        return nullptr;
    }
    auto *s = new (std::nothrow) VrixRmServer;
    if (!s) return nullptr;
    s->root = real;
    s->log = log;
    s->user = user;
    try {
        s->thread = std::thread(vrix::run, s);
    } catch (const std::system_error &) {
        vrix::log_text("rm server : cannot start its thread");
        delete s;
        return nullptr;
    }
    return s;
}

extern "C" void vrix_rm_server_stop(VrixRmServer *server) {
    if (!server) return;
    server->stop.store(true);
    server->thread.join();
    delete server;
}
