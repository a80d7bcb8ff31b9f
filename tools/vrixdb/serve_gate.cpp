#include "serve_gate.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

namespace vrixtool {

// cpp-httplib (0.11) answers a connection only from its own accept loop; its
// per-connection entry point is private.  An explicit instantiation may name
// a private member, which hands the gate that entry point: the server then
// reads the head the gate saw arrive, answers it and closes the socket.
using ProcessSocket = bool (httplib::Server::*)(socket_t);
ProcessSocket process_socket_member();
template <ProcessSocket Member> struct Unlock {
    friend ProcessSocket process_socket_member() { return Member; }
};
template struct Unlock<&httplib::Server::process_and_close_socket>;

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kHeadMax = 8192; // a longer head is refused (431)
constexpr int kLookAgainMs = 25;  // a part of a head is looked at again after this
constexpr int kSocketTimeoutS = 5;

struct Waiting {
    int fd;
    std::string address;
    Clock::time_point since;
    Clock::time_point look; // when the head is looked at next
};

std::string peer_address(const sockaddr_storage &a) {
    char text[INET6_ADDRSTRLEN] = "?";
    if (a.ss_family == AF_INET)
        inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in &>(a).sin_addr, text, sizeof text);
    else if (a.ss_family == AF_INET6)
        inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6 &>(a).sin6_addr, text,
                  sizeof text);
    return text;
}

bool starts_with_ci(const std::string &s, size_t at, const char *word) {
    const size_t n = std::strlen(word);
    return s.size() >= at + n && strncasecmp(s.c_str() + at, word, n) == 0;
}

// What the gate says of a whole head: 0 to hand it to a worker, or the
// status it is refused with.
int judge_head(const std::string &head) {
    if (head.rfind("GET ", 0) != 0 && head.rfind("HEAD ", 0) != 0) return 405;
    for (size_t at = head.find("\r\n"); at != std::string::npos; at = head.find("\r\n", at + 2)) {
        if (starts_with_ci(head, at + 2, "transfer-encoding:")) return 413;
        if (starts_with_ci(head, at + 2, "content-length:")) {
            size_t v = at + 2 + std::strlen("content-length:");
            while (v < head.size() && (head[v] == ' ' || head[v] == '\t'))
                ++v;
            while (v < head.size() && head[v] == '0')
                ++v;
            if (v < head.size() && head[v] != '\r') return 413;
        }
    }
    return 0;
}

// The connection of `address` that goes for a newcomer: the oldest that has
// sent nothing (a request that came in since the last look stays to be
// answered), else the oldest.
size_t make_room(const std::vector<Waiting> &waiting, const std::string &address) {
    size_t oldest = waiting.size();
    for (size_t i = 0; i < waiting.size(); ++i) {
        if (waiting[i].address != address) continue;
        if (oldest == waiting.size()) oldest = i;
        char c;
        if (recv(waiting[i].fd, &c, 1, MSG_PEEK | MSG_DONTWAIT) < 0 && errno == EAGAIN) return i;
    }
    return oldest;
}

// A refusal the gate writes itself, as the routes' errors look.
void refuse(int fd, int status) {
    const char *reason = status == 405   ? "Method Not Allowed"
                         : status == 413 ? "Payload Too Large"
                         : status == 431 ? "Request Header Fields Too Large"
                                         : "Service Unavailable";
    const char *why = status == 405   ? "only GET and HEAD are served"
                      : status == 413 ? "requests carry no body here"
                      : status == 431 ? "the request head is too long"
                                      : "the server is busy; try again later";
    char body[128], text[512];
    const int b = std::snprintf(body, sizeof body, "{\"error\":\"%s\"}\n", why);
    const int n = std::snprintf(text, sizeof text,
                                "HTTP/1.1 %d %s\r\nContent-Type: application/json\r\n"
                                "Content-Length: %d\r\nConnection: close\r\n%s\r\n%s",
                                status, reason, b,
                                status == 405   ? "Allow: GET, HEAD\r\n"
                                : status == 503 ? "Retry-After: 5\r\n"
                                                : "",
                                body);
    // Best effort on a socket that does not block: the head was read first
    // so that closing does not reset the connection under the answer.
    if (n > 0) (void)!send(fd, text, static_cast<size_t>(n), MSG_NOSIGNAL);
    ::shutdown(fd, SHUT_WR);
}

// The workers and the whole requests waiting for them.
class Workers {
  public:
    Workers(httplib::Server &server, int count, size_t queued) : server_(server), max_(queued) {
        for (int i = 0; i < count; ++i)
            threads_.emplace_back([this] { work(); });
    }
    ~Workers() {
        {
            std::lock_guard lock(mutex_);
            done_ = true;
        }
        ready_.notify_all();
        for (auto &t : threads_)
            t.join();
        for (const int fd : fds_)
            close(fd);
    }
    bool take(int fd) {
        {
            std::lock_guard lock(mutex_);
            if (fds_.size() >= max_) return false;
            fds_.push_back(fd);
        }
        ready_.notify_one();
        return true;
    }

  private:
    void work() {
        for (;;) {
            int fd;
            {
                std::unique_lock lock(mutex_);
                ready_.wait(lock, [this] { return done_ || !fds_.empty(); });
                if (done_) return;
                fd = fds_.front();
                fds_.pop_front();
            }
            (server_.*process_socket_member())(fd);
        }
    }

    httplib::Server &server_;
    const size_t max_;
    std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<int> fds_;
    bool done_ = false;
    std::vector<std::thread> threads_;
};

void set_blocking_with_timeouts(int fd) {
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    timeval tv{kSocketTimeoutS, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
}

} // namespace

int GatedServer::bind(const std::string &host, int port) {
    addrinfo hints{}, *found = nullptr;
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICHOST | AI_PASSIVE;
    if (getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found) != 0) return -1;
    const int fd = socket(found->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const int yes = 1;
    if (fd >= 0) setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    const bool ok = fd >= 0 && ::bind(fd, found->ai_addr, found->ai_addrlen) == 0 &&
                    ::listen(fd, SOMAXCONN) == 0;
    freeaddrinfo(found);
    sockaddr_storage a{};
    socklen_t len = sizeof a;
    if (!ok || getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len) != 0 ||
        pipe2(wake_, O_CLOEXEC | O_NONBLOCK) != 0) {
        if (fd >= 0) close(fd);
        return -1;
    }
    listenFd_ = fd;
    // The routes' keep-alive loop runs while this is a socket; shutdown()
    // clears it, which also ends the streams.
    svr_sock_ = fd;
    set_keep_alive_max_count(1);
    return ntohs(a.ss_family == AF_INET ? reinterpret_cast<sockaddr_in &>(a).sin_port
                                        : reinterpret_cast<sockaddr_in6 &>(a).sin6_port);
}

GatedServer::~GatedServer() {
    for (const int fd : wake_)
        if (fd >= 0) close(fd);
}

void GatedServer::shutdown() {
    stopping_ = true;
    svr_sock_ = INVALID_SOCKET;
    (void)!write(wake_[1], "x", 1);
}

bool GatedServer::run() {
    // Room for the connections waiting and the streams beside them.
    rlimit files{};
    if (getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur < files.rlim_max) {
        files.rlim_cur = std::min<rlim_t>(files.rlim_max, 8192);
        setrlimit(RLIMIT_NOFILE, &files);
    }
    Workers workers(*this, limits_.workers, static_cast<size_t>(limits_.queued));
    std::vector<Waiting> waiting;
    std::vector<pollfd> fds;
    std::string head(kHeadMax, '\0');
    const auto drop = [&waiting](size_t i) {
        close(waiting[i].fd);
        waiting.erase(waiting.begin() + static_cast<long>(i));
    };
    bool ok = true;
    while (!stopping_) {
        const auto now = Clock::now();
        // The ones out of time go; the others are looked at when due.
        for (size_t i = waiting.size(); i-- > 0;)
            if (now - waiting[i].since > std::chrono::milliseconds(limits_.headMs)) drop(i);
        fds.assign({{listenFd_, POLLIN, 0}, {wake_[0], POLLIN, 0}});
        std::vector<size_t> polled;
        auto next = now + std::chrono::seconds(1);
        for (size_t i = 0; i < waiting.size(); ++i) {
            next = std::min(next, waiting[i].since + std::chrono::milliseconds(limits_.headMs));
            if (waiting[i].look <= now) {
                fds.push_back({waiting[i].fd, POLLIN, 0});
                polled.push_back(i);
            } else {
                next = std::min(next, waiting[i].look);
            }
        }
        const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(next - now).count();
        if (poll(fds.data(), fds.size(), static_cast<int>(std::max<long>(ms, 0) + 1)) < 0) {
            if (errno == EINTR) continue;
            ok = false;
            break;
        }
        if (fds[1].revents) break;
        const auto at = Clock::now();
        // Heads first (indices still hold), the newcomers after.
        std::vector<size_t> gone;
        for (size_t k = 0; k < polled.size(); ++k) {
            if (!fds[k + 2].revents) continue;
            Waiting &w = waiting[polled[k]];
            const ssize_t n = recv(w.fd, head.data(), head.size(), MSG_PEEK);
            if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue;
            const auto end =
                n > 0 ? std::string_view(head.data(), static_cast<size_t>(n)).find("\r\n\r\n")
                      : std::string_view::npos;
            if (n > 0 && end == std::string_view::npos && static_cast<size_t>(n) < head.size()) {
                w.look = at + std::chrono::milliseconds(kLookAgainMs);
                continue;
            }
            gone.push_back(polled[k]);
            if (n <= 0) continue;
            const int status =
                end == std::string_view::npos ? 431 : judge_head(head.substr(0, end + 2));
            if (status == 0) {
                set_blocking_with_timeouts(w.fd);
                if (workers.take(w.fd)) {
                    w.fd = -1; // a worker's now
                    continue;
                }
            }
            (void)!recv(w.fd, head.data(), static_cast<size_t>(n), 0);
            refuse(w.fd, status ? status : 503);
        }
        std::sort(gone.rbegin(), gone.rend());
        for (const size_t i : gone) {
            if (waiting[i].fd >= 0) close(waiting[i].fd);
            waiting.erase(waiting.begin() + static_cast<long>(i));
        }
        if (!fds[0].revents) continue;
        for (;;) {
            sockaddr_storage a{};
            socklen_t len = sizeof a;
            const int fd = accept4(listenFd_, reinterpret_cast<sockaddr *>(&a), &len,
                                   SOCK_NONBLOCK | SOCK_CLOEXEC);
            if (fd < 0) {
                // Out of descriptors: the oldest waiting connection makes room.
                if ((errno == EMFILE || errno == ENFILE) && !waiting.empty()) {
                    drop(0);
                    continue;
                }
                break;
            }
            Waiting w{fd, peer_address(a), at, at};
            const std::string *of = nullptr; // the address one must make room for
            int same = 0;
            for (const Waiting &o : waiting)
                same += o.address == w.address;
            if (same >= limits_.perAddress)
                of = &w.address;
            else if (static_cast<int>(waiting.size()) >= limits_.waiting)
                of = &waiting.front().address;
            if (of) drop(make_room(waiting, *of));
            waiting.push_back(std::move(w));
        }
    }
    for (const Waiting &w : waiting)
        close(w.fd);
    close(listenFd_);
    listenFd_ = -1;
    svr_sock_ = INVALID_SOCKET;
    return ok;
}

} // namespace vrixtool
