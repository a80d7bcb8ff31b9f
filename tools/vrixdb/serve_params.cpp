#include "serve.h"
#include "serve_json.h"
#include "times.h"

#include <cerrno>
#include <cstdlib>
#include <exception>

namespace vrixtool {

Params::Params(const httplib::Request &req, std::initializer_list<const char *> allowed)
    : req_(req) {
    for (const auto &[name, value] : req.params) {
        bool known = false;
        for (const char *a : allowed)
            known = known || name == a;
        if (!known) throw BadRequest{"unknown parameter " + name.substr(0, 40)};
        if (req.get_param_value_count(name.c_str()) > 1)
            throw BadRequest{"parameter " + name + " given more than once"};
        for (const unsigned char c : value)
            if (c < 0x20 || c == 0x7f)
                throw BadRequest{"parameter " + name + " holds a control character"};
    }
}

std::optional<std::string> Params::text(const char *name) const {
    if (!req_.has_param(name)) return std::nullopt;
    return req_.get_param_value(name);
}

std::optional<long> Params::time(const char *name) const {
    const auto t = text(name);
    if (!t) return std::nullopt;
    const auto v = parse_time(*t);
    if (!v) throw BadRequest{std::string(name) + ": not a time (YYYY-MM-DDTHH:MM:SS or seconds)"};
    return v;
}

std::optional<long> Params::day(const char *name) const {
    const auto t = text(name);
    if (!t) return std::nullopt;
    const auto v = parse_day(*t);
    if (!v) throw BadRequest{std::string(name) + ": not a day (YYYYMMDD or YYYY-MM-DD)"};
    return v;
}

int Params::integer(const char *name, int min, int max, int fallback) const {
    const auto t = text(name);
    if (!t) return fallback;
    char *end = nullptr;
    errno = 0;
    const long v = std::strtol(t->c_str(), &end, 10);
    if (t->empty() || *end || errno || v < min || v > max)
        throw BadRequest{std::string(name) + ": a whole number from " + std::to_string(min) +
                         " to " + std::to_string(max)};
    return static_cast<int>(v);
}

int Params::required_integer(const char *name, int min, int max) const {
    if (!req_.has_param(name)) throw BadRequest{std::string(name) + " is missing"};
    return integer(name, min, max, 0);
}

void reply_json(httplib::Response &res, const std::string &body, int status) {
    res.status = status;
    res.set_header("Cache-Control", "no-store");
    res.set_content(body, "application/json");
}

httplib::Server::Handler guarded(Route route) {
    return [route](const httplib::Request &req, httplib::Response &res) {
        try {
            route(req, res);
        } catch (const BadRequest &e) {
            reply_json(res, json_error(e.message), 400);
        } catch (const std::exception &e) {
            reply_json(res, json_error(std::string("internal error: ") + e.what()), 500);
        }
    };
}

} // namespace vrixtool
