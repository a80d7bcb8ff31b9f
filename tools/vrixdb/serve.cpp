// vrixdb serve: the store in a browser.  One page (the day's timeline per
// channel, events, playback) and a small JSON API on a loopback address
// unless told otherwise.  It only reads: the index databases through
// StoreIndex, video and events through the library's playback and query,
// whose parked submit thread takes nothing off the queues of a recorder
// running beside it.
#include "serve.h"
#include "cli.h"
#include "library.h"
#include "serve_gate.h"
#include "serve_json.h"

#include <arpa/inet.h>
#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <thread>

namespace vrixtool {
namespace {

struct ServeOptions {
    std::string root;
    std::string listen = "127.0.0.1:8080";
    int maxStreams = 4;
    std::vector<std::string> allowHosts;
};

struct Address {
    std::string host;
    int port = 0;
    bool loopback = false;
};

// "HOST:PORT", "[V6]:PORT" or "PORT" (on 127.0.0.1); the host is an address,
// not a name.
std::optional<Address> parse_listen(const std::string &text) {
    Address a;
    std::string port = text;
    if (const auto colon = text.rfind(':'); colon != std::string::npos) {
        a.host = text.substr(0, colon);
        port = text.substr(colon + 1);
        if (a.host.size() > 2 && a.host.front() == '[' && a.host.back() == ']')
            a.host = a.host.substr(1, a.host.size() - 2);
    } else {
        a.host = "127.0.0.1";
    }
    char *end = nullptr;
    const long p = std::strtol(port.c_str(), &end, 10);
    if (port.empty() || *end || p < 0 || p > 65535) return std::nullopt;
    a.port = static_cast<int>(p);
    in_addr v4{};
    in6_addr v6{};
    if (inet_pton(AF_INET, a.host.c_str(), &v4) == 1)
        a.loopback = (ntohl(v4.s_addr) >> 24) == 127;
    else if (inet_pton(AF_INET6, a.host.c_str(), &v6) == 1)
        a.loopback = IN6_IS_ADDR_LOOPBACK(&v6);
    else
        return std::nullopt;
    return a;
}

// The names a request may give in Host (and its Origin): the listen address
// and, on loopback, localhost, each with the port; names the operator allows.
std::vector<std::string> own_hosts(const Address &a, int port, const ServeOptions &o) {
    const std::string p = ":" + std::to_string(port);
    std::vector<std::string> names;
    names.push_back((a.host.find(':') != std::string::npos ? "[" + a.host + "]" : a.host) + p);
    if (a.loopback) {
        names.push_back("localhost" + p);
        names.push_back("127.0.0.1" + p);
        names.push_back("[::1]" + p);
    }
    for (const std::string &n : o.allowHosts) {
        names.push_back(n.find(':') != std::string::npos ? n : n + p);
        if (port == 80 && n.find(':') == std::string::npos) names.push_back(n);
    }
    for (std::string &n : names)
        for (char &c : n)
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return names;
}

// A page of another site may not use the API: neither through a name that
// resolves to this address (Host) nor from its own scripts or elements
// (Origin, Sec-Fetch-Site).  The page itself may be opened from anywhere.
std::optional<std::string> refused_by_origin(const httplib::Request &req,
                                             const std::vector<std::string> &hosts) {
    const auto known = [&hosts](std::string v) {
        for (char &c : v)
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        return std::find(hosts.begin(), hosts.end(), v) != hosts.end();
    };
    if (!req.has_header("Host")) return "the request names no Host";
    if (!known(req.get_header_value("Host")))
        return "Host " + req.get_header_value("Host").substr(0, 80) +
               " is not this server's (see --allow-host)";
    if (req.path.rfind("/api/", 0) != 0) return std::nullopt;
    if (req.has_header("Origin")) {
        const std::string origin = req.get_header_value("Origin");
        if (origin.rfind("http://", 0) != 0 || !known(origin.substr(7)))
            return "Origin " + origin.substr(0, 80) + " may not use this server";
    }
    const std::string site = req.get_header_value("Sec-Fetch-Site");
    if (!site.empty() && site != "same-origin" && site != "none")
        return "a page of another site may not use this server";
    return std::nullopt;
}

int run_serve(const ServeOptions &o) {
    const std::string root = library_root(o.root, "serve");
    if (root.empty() || !require_store(root, "serve")) return 1;
    const auto address = parse_listen(o.listen);
    if (!address) {
        std::fprintf(stderr, "vrixdb serve: --listen %s is not ADDRESS:PORT\n", o.listen.c_str());
        return 1;
    }
    // SIGINT and SIGTERM stop the server from a thread of their own; SIGPIPE
    // of a reader that left is an error of one write.
    sigset_t stops;
    sigemptyset(&stops);
    sigaddset(&stops, SIGINT);
    sigaddset(&stops, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stops, nullptr);
    signal(SIGPIPE, SIG_IGN);
    if (!start_library()) return 1;

    ServeConfig config;
    config.root = root;
    config.maxStreams = o.maxStreams;
    // A worker for each stream and a few for the page and the API; the gate
    // keeps the connections that have not sent a whole request off them.
    GateLimits limits;
    limits.workers = o.maxStreams + 4;
    GatedServer server(limits);
    server.set_payload_max_length(1 << 16);
    server.set_read_timeout(5, 0);
    server.set_write_timeout(5, 0);
    server.set_error_handler([](const httplib::Request &, httplib::Response &res) {
        if (res.body.empty())
            reply_json(res, json_error(res.status == 404 ? "no such page" : "bad request"),
                       res.status);
    });
    add_page_routes(server);
    add_api_routes(server, config);
    add_stream_route(server, config);

    const int port = server.bind(address->host, address->port);
    if (port <= 0) {
        std::fprintf(stderr, "vrixdb serve: cannot listen on %s\n", o.listen.c_str());
        return 1;
    }
    const std::vector<std::string> hosts = own_hosts(*address, port, o);
    server.set_pre_routing_handler([&hosts](const httplib::Request &req, httplib::Response &res) {
        const auto why = refused_by_origin(req, hosts);
        if (!why) return httplib::Server::HandlerResponse::Unhandled;
        reply_json(res, json_error(*why), 403);
        return httplib::Server::HandlerResponse::Handled;
    });
    const std::string host =
        address->host.find(':') != std::string::npos ? "[" + address->host + "]" : address->host;
    std::fprintf(out(), "vrixdb serve: http://%s:%d/ shows %s (read-only; Ctrl-C stops)\n",
                 host.c_str(), port, root.c_str());
    if (!address->loopback)
        std::fprintf(out(),
                     "vrixdb serve: %s is not a loopback address: anyone who reaches "
                     "it can watch the recordings (put an authenticating proxy in front)\n",
                     address->host.c_str());
    std::fflush(out());
    std::thread stopper([&server, stops] {
        int sig = 0;
        sigwait(&stops, &sig);
        server.shutdown();
    });
    const bool ok = server.run();
    // A stop that did not come from a signal: wake the waiting thread.
    pthread_kill(stopper.native_handle(), SIGTERM);
    stopper.join();
    std::fprintf(out(), "vrixdb serve: stopped\n");
    return ok ? 0 : 1;
}

} // namespace

void add_serve(CLI::App &app, Status &status) {
    auto [sub, o] = add_subcommand<ServeOptions>(
        app, status, "serve",
        "Serve the store to a browser: the day's timeline per channel, events and playback\n"
        "(read-only; beside a recording process too)",
        run_serve);
    sub->add_option("--listen", o.listen,
                    "ADDRESS:PORT to listen on (port 0: any free one); a loopback address "
                    "unless you mean otherwise")
        ->capture_default_str();
    sub->add_option("--max-streams", o.maxStreams,
                    "video streams served at once; more are answered 503")
        ->check(CLI::Range(1, 64))
        ->capture_default_str();
    sub->add_option("--allow-host", o.allowHosts,
                    "NAME[:PORT] a browser may reach the server by besides its address "
                    "(requests naming any other Host are refused); repeatable");
}

} // namespace vrixtool
