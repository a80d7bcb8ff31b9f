// vrixdb serve's front door: one thread accepts every connection and holds
// it, without a worker, until its request head has arrived whole; only then
// does a worker answer it (one request per connection).  A client that
// connects and says nothing, sends its head a line at a time or opens
// hundreds of connections therefore takes no worker from anyone:
//   - a head must arrive whole within headMs of the connection, or the
//     connection is closed;
//   - one address keeps at most perAddress connections waiting for their
//     heads, all addresses together at most waiting: a new connection beyond
//     either bound closes the oldest one waiting (a flood only ever displaces
//     itself: a client that sends its request at once is looked at long
//     before a flood at thousands of connections a second displaces it);
//   - only GET and HEAD without a body are taken (405, 413 otherwise);
//   - at most queued whole requests wait for a worker (503 beyond).
#pragma once

#include <httplib.h>

#include <atomic>
#include <string>

namespace vrixtool {

struct GateLimits {
    int workers = 8;
    int headMs = 5000;
    int perAddress = 256;
    int waiting = 1024;
    int queued = 64;
};

// The routes of httplib::Server behind the gate above.
class GatedServer : public httplib::Server {
  public:
    explicit GatedServer(GateLimits limits) : limits_(limits) {}
    ~GatedServer() override;
    GatedServer(const GatedServer &) = delete;
    GatedServer &operator=(const GatedServer &) = delete;
    // Binds and listens; the port (the one chosen when `port` is 0), or -1.
    int bind(const std::string &host, int port);
    // Serves until shutdown(); false when the accept loop failed.
    bool run();
    // From any thread (a signal's); streams being served end too.
    void shutdown();

  private:
    GateLimits limits_;
    int listenFd_ = -1;
    int wake_[2] = {-1, -1};
    std::atomic<bool> stopping_{false};
};

} // namespace vrixtool
