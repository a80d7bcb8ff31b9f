// vrixdb export-h264: a span of one channel played back into an H.264 stream.
#include "cli.h"
#include "h264.h"
#include "library.h"
#include "output_file.h"
#include "times.h"
#include "units.h"
#include "vrixdb.h"

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

int run_export(const ExportOptions &o) {
    const std::string root = library_root(o.root, "export-h264");
    if (root.empty() || !require_store(root, "export-h264")) return 1;
    const long from = *parse_time(o.from);
    const long to = *parse_time(o.to);
    if (to < from) {
        std::fprintf(stderr, "vrixdb export-h264: --to %s lies before --from %s\n", o.to.c_str(),
                     o.from.c_str());
        return 1;
    }
    OutputFile file;
    if (!file.open(o.out, "export-h264")) return 1;
    if (!start_library()) return 1;
    std::tm start = mktime_fields(from);
    std::tm end = mktime_fields(span_end(to));
    PlayContext *ctx = vrix_db_open_get_video(&start, &end, o.ch, kExportBuffer, root.c_str());
    long units = 0, idr = 0, foreign = 0, first = 0, last = 0;
    long long bytes = 0;
    bool written = ctx != nullptr;
    while (ctx && vrix_db_next_video(ctx) == 1) {
        int sec = 0, sub = 0;
        vrix_db_video_get_current_time(ctx, &sec, &sub);
        if (sec > to) break; // the library may hand over a key frame past the span
        void *buf = nullptr;
        const int len = vrix_db_get_video(ctx, &buf);
        const auto au = unwrap_payload(static_cast<const uint8_t *>(buf), static_cast<size_t>(len));
        if (!au) {
            ++foreign;
            continue;
        }
        if (std::fwrite(au->au, 1, au->size, file.stream()) != au->size) {
            written = false;
            break;
        }
        if (!units) first = sec;
        last = sec;
        ++units;
        idr += au->idr;
        bytes += static_cast<long long>(au->size);
    }
    if (ctx) vrix_db_close_get_video(ctx);
    if (!written || units == 0) {
        if (!ctx)
            std::fprintf(stderr, "vrixdb export-h264: the library could not open channel %d\n",
                         o.ch);
        else if (!written)
            std::fprintf(stderr, "vrixdb export-h264: writing %s failed\n", o.out.c_str());
        else
            std::fprintf(stderr, "vrixdb export-h264: no H.264 video on ch %d from %s to %s%s\n",
                         o.ch, o.from.c_str(), o.to.c_str(),
                         foreign ? " (only frames of another kind)" : "");
        return 1;
    }
    if (!file.commit()) return 1;
    std::fprintf(out(), "exported %ld access units (%ld IDR, %s) of ch %d, %s .. %s, to %s\n",
                 units, idr, format_bytes(bytes).c_str(), o.ch, format_time(first).c_str(),
                 format_time(last).c_str(), o.out == "-" ? "standard output" : o.out.c_str());
    if (foreign) std::fprintf(out(), "skipped %ld frames that carry no H.264 prefix\n", foreign);
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
    add_channel(sub, o.ch);
    add_span(sub, o.from, o.to);
    sub->add_option("OUT", o.out, std::string("the .h264 file to write (") + kOutputRule + ")")
        ->required();
}

} // namespace vrixtool
