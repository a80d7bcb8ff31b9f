// vrixdb export-mp4: a span of one channel played back into an MP4 file with
// the frames' recorded times.
#include "export_span.h"
#include "library.h"
#include "mp4.h"
#include "units.h"

#include <sys/stat.h>

#include <cstdio>

namespace vrixtool {
namespace {

// A regular file gets a plain MP4 (its index written at the end); a pipe or
// device a fragmented one, which needs no going back.
bool seekable(FILE *f) {
    struct stat st {};
    return fstat(fileno(f), &st) == 0 && S_ISREG(st.st_mode) && fseeko(f, 0, SEEK_CUR) == 0;
}

int run_export(const ExportOptions &o) {
    SpanExport run(o, "export-mp4");
    if (!run.open()) return 1;
    FILE *f = run.stream();
    Mp4Muxer::Seek seek;
    if (seekable(f)) seek = [f](int64_t at) { return fseeko(f, at, SEEK_SET) == 0; };
    Mp4Muxer mp4([f](const uint8_t *d, size_t n) { return std::fwrite(d, 1, n, f) == n; }, seek);
    if (!run.play([&](const PlayedUnit &u) {
            const int64_t ms = (u.sec - run.first) * 1000LL + u.ms - run.firstMs;
            return mp4.add(u.unit.au, u.unit.size, u.unit.idr, ms);
        }))
        return 1;
    if (!mp4.finish()) {
        std::fprintf(stderr, "vrixdb export-mp4: writing %s failed: %s\n", o.out.c_str(),
                     mp4.error().c_str());
        return 1;
    }
    if (!run.commit()) return 1;
    std::fprintf(out(), "exported %ld frames (%ld key, %s, %.3f s)%s\n", mp4.units(), run.idr,
                 format_bytes(run.bytes).c_str(), static_cast<double>(mp4.duration_ms()) / 1000.0,
                 run.where().c_str());
    run.report_skipped();
    return 0;
}

} // namespace

void add_export_mp4(CLI::App &app, Status &status) {
    auto [sub, o] = add_subcommand<ExportOptions>(
        app, status, "export-mp4",
        "Play a span of one channel back into an MP4 file with the frames' recorded times\n"
        "(from the first key frame at or after --from to the last frame of the second --to)",
        run_export);
    add_export_options(sub, o,
                       std::string("the .mp4 file to write (") + kOutputRule +
                           "; a pipe or device gets a fragmented MP4)");
}

} // namespace vrixtool
