// vrixdb export-mp4: a span of one channel played back into an MP4 file with
// the frames' recorded times.
#include "cli.h"
#include "h264_player.h"
#include "library.h"
#include "mp4.h"
#include "output_file.h"
#include "times.h"
#include "units.h"

#include <sys/stat.h>

#include <cstdio>

namespace vrixtool {
namespace {

struct ExportOptions {
    std::string root;
    int ch = 0;
    std::string from, to;
    std::string out;
};

constexpr int kExportBuffer = 16 << 20; // the largest access unit exported

// A regular file gets a plain MP4 (its index written at the end); a pipe or
// device a fragmented one, which needs no going back.
bool seekable(FILE *f) {
    struct stat st {};
    return fstat(fileno(f), &st) == 0 && S_ISREG(st.st_mode) && fseeko(f, 0, SEEK_CUR) == 0;
}

int run_export(const ExportOptions &o) {
    const std::string root = library_root(o.root, "export-mp4");
    if (root.empty() || !require_store(root, "export-mp4")) return 1;
    const long from = *parse_time(o.from);
    const long to = *parse_time(o.to);
    if (to < from) {
        std::fprintf(stderr, "vrixdb export-mp4: --to %s lies before --from %s\n", o.to.c_str(),
                     o.from.c_str());
        return 1;
    }
    OutputFile file;
    if (!file.open(o.out, "export-mp4")) return 1;
    if (!start_library()) return 1;
    H264Player player(root, o.ch, from, span_end(to), kExportBuffer);
    if (!player.ok()) {
        std::fprintf(stderr, "vrixdb export-mp4: the library could not open channel %d\n", o.ch);
        return 1;
    }
    FILE *f = file.stream();
    Mp4Muxer::Seek seek;
    if (seekable(f)) seek = [f](int64_t at) { return fseeko(f, at, SEEK_SET) == 0; };
    Mp4Muxer mp4([f](const uint8_t *d, size_t n) { return std::fwrite(d, 1, n, f) == n; }, seek);
    long first = -1, last = 0, idr = 0;
    int firstMs = 0;
    long long bytes = 0;
    PlayedUnit u{};
    for (H264Player::Step step;
         (step = player.next(u)) == H264Player::Step::Unit || step == H264Player::Step::Foreign;) {
        if (step == H264Player::Step::Foreign) continue;
        if (u.sec > to) break; // the library may hand over a key frame past the span
        if (first < 0) {
            if (!u.unit.idr) continue; // the library starts at a key frame; a foreign one may not
            first = u.sec;
            firstMs = u.ms;
        }
        const int64_t ms = (u.sec - first) * 1000LL + u.ms - firstMs;
        if (!mp4.add(u.unit.au, u.unit.size, u.unit.idr, ms)) break;
        last = u.sec;
        idr += u.unit.idr;
        bytes += static_cast<long long>(u.unit.size);
    }
    if (first < 0) {
        std::fprintf(stderr, "vrixdb export-mp4: no H.264 video on ch %d from %s to %s%s\n", o.ch,
                     o.from.c_str(), o.to.c_str(),
                     player.foreign() ? " (only frames of another kind)" : "");
        return 1;
    }
    if (!mp4.finish()) {
        std::fprintf(stderr, "vrixdb export-mp4: writing %s failed: %s\n", o.out.c_str(),
                     mp4.error().c_str());
        return 1;
    }
    if (!file.commit()) return 1;
    std::fprintf(out(), "exported %ld frames (%ld key, %s, %.3f s) of ch %d, %s .. %s, to %s\n",
                 mp4.units(), idr, format_bytes(bytes).c_str(),
                 static_cast<double>(mp4.duration_ms()) / 1000.0, o.ch, format_time(first).c_str(),
                 format_time(last).c_str(), o.out == "-" ? "standard output" : o.out.c_str());
    if (player.foreign())
        std::fprintf(out(), "skipped %ld frames that carry no H.264 prefix\n", player.foreign());
    return 0;
}

} // namespace

void add_export_mp4(CLI::App &app, Status &status) {
    auto [sub, o] = add_subcommand<ExportOptions>(
        app, status, "export-mp4",
        "Play a span of one channel back into an MP4 file with the frames' recorded times\n"
        "(from the first key frame at or after --from to the last frame of the second --to)",
        run_export);
    add_channel(sub, o.ch);
    add_span(sub, o.from, o.to);
    sub->add_option("OUT", o.out,
                    std::string("the .mp4 file to write (") + kOutputRule +
                        "; a pipe or device gets a fragmented MP4)")
        ->required();
}

} // namespace vrixtool
