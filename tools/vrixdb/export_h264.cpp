// vrixdb export-h264: a span of one channel played back into an H.264 stream.
#include "export_span.h"
#include "library.h"
#include "units.h"

#include <cstdio>

namespace vrixtool {
namespace {

int run_export(const ExportOptions &o) {
    SpanExport run(o, "export-h264");
    if (const int bad = run.open()) return bad;
    FILE *f = run.stream();
    bool written = true;
    if (!run.play([&](const PlayedUnit &u) {
            return written = std::fwrite(u.unit.au, 1, u.unit.size, f) == u.unit.size;
        }))
        return 1;
    if (!written) {
        std::fprintf(stderr, "vrixdb export-h264: writing %s failed\n", o.out.c_str());
        return 1;
    }
    if (!run.commit()) return 1;
    std::fprintf(out(), "exported %ld access units (%ld IDR, %s)%s\n", run.units, run.idr,
                 format_bytes(run.bytes).c_str(), run.where().c_str());
    run.report_skipped();
    return 0;
}

} // namespace

void add_export_h264(CLI::App &app, Status &status) {
    auto [sub, o] = add_subcommand<ExportOptions>(
        app, status, "export-h264",
        "Play a span of one channel back into an H.264 elementary stream that a "
        "standard decoder plays\n(from the first key frame at or after --from to "
        "the last frame of the second --to)",
        run_export);
    add_export_options(sub, o, std::string("the .h264 file to write (") + kOutputRule + ")");
}

} // namespace vrixtool
