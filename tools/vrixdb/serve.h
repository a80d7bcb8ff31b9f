// vrixdb serve: the routes of the browser viewer, split by kind.  Every route
// is a fixed name: no part of a request becomes a path, so nothing outside
// the store (nor any file of it but through the index and the library) is
// ever served.
#pragma once

#include <httplib.h>

#include <atomic>
#include <functional>
#include <initializer_list>
#include <optional>
#include <string>

namespace vrixtool {

struct ServeConfig {
    std::string root; // as the library gets it
    int maxStreams = 4;
    std::atomic<int> streams{0}; // being served now
};

// A parameter the request got wrong: answered 400 with the message.
struct BadRequest {
    std::string message;
};

// The query parameters of a route: only the names listed are accepted, each
// at most once.
class Params {
  public:
    Params(const httplib::Request &req, std::initializer_list<const char *> allowed);
    std::optional<std::string> text(const char *name) const;
    // A local time (YYYY-MM-DDTHH:MM:SS or epoch seconds).
    std::optional<long> time(const char *name) const;
    std::optional<long> day(const char *name) const; // YYYYMMDD or YYYY-MM-DD
    int integer(const char *name, int min, int max, int fallback) const;
    int required_integer(const char *name, int min, int max) const;

  private:
    const httplib::Request &req_;
};

// Runs a route: BadRequest becomes 400, anything else thrown 500, both with
// a one-line JSON body.
using Route = std::function<void(const httplib::Request &, httplib::Response &)>;
httplib::Server::Handler guarded(Route route);
void reply_json(httplib::Response &res, const std::string &body, int status = 200);

// Whether ch holds H.264 a browser can play from a key frame in [from, to].
bool h264_at(const std::string &root, int ch, long from, long to);

void add_page_routes(httplib::Server &server);
void add_api_routes(httplib::Server &server, ServeConfig &config);
void add_stream_route(httplib::Server &server, ServeConfig &config);

} // namespace vrixtool
