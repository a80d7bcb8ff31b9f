// The viewer's page and its script and style, compiled into the program so
// that it needs no file and no network beside the store.
#include "serve.h"
#include "serve_assets.h"

namespace vrixtool {
namespace {

template <size_t N>
void serve_asset(httplib::Server &server, const char *path, const unsigned char (&bytes)[N],
                 const char *type) {
    server.Get(path, [&bytes, type](const httplib::Request &, httplib::Response &res) {
        res.set_header("Cache-Control", "no-cache");
        res.set_header("X-Content-Type-Options", "nosniff");
        res.set_content(reinterpret_cast<const char *>(bytes), N, type);
    });
}

} // namespace

void add_page_routes(httplib::Server &server) {
    serve_asset(server, "/", kServeIndexHtml, "text/html; charset=utf-8");
    serve_asset(server, "/app.js", kServeAppJs, "application/javascript; charset=utf-8");
    serve_asset(server, "/style.css", kServeStyleCss, "text/css; charset=utf-8");
}

} // namespace vrixtool
