// vrixdb record-h264 and export-h264: real video through the store.
#include "cli.h"
#include "h264.h"
#include "library.h"
#include "output_file.h"
#include "times.h"
#include "units.h"
#include "vrixdb.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace vrixtool {
namespace {

namespace fs = std::filesystem;

struct RecordOptions {
    std::string root;
    int ch = 0;
    std::string start;
    int fps = 25;
    std::string file;
};

struct ExportOptions {
    std::string root;
    int ch = 0;
    std::string from, to;
    std::string out;
};

constexpr int kExportBuffer = 16 << 20; // the largest access unit exported

int run_record(const RecordOptions &o) {
    const std::string root = library_root(o.root, "record-h264");
    if (root.empty()) return 1;
    std::ifstream in(o.file, std::ios::binary);
    std::vector<uint8_t> stream{std::istreambuf_iterator<char>(in),
                                std::istreambuf_iterator<char>()};
    if (!in.good() && !in.eof()) {
        std::fprintf(stderr, "vrixdb record-h264: cannot read %s\n", o.file.c_str());
        return 1;
    }
    const auto units = split_access_units(stream);
    size_t idr = 0;
    for (const AccessUnit &u : units)
        idr += u.idr;
    if (units.empty() || idr == 0) {
        std::fprintf(stderr,
                     "vrixdb record-h264: %s is not an H.264 Annex-B stream with an IDR picture\n",
                     o.file.c_str());
        return 1;
    }
    const long start = *parse_time(o.start);
    const long last = start + static_cast<long>((units.size() - 1) / static_cast<size_t>(o.fps));
    if (last > 0x7FFFFFFFL) {
        std::fprintf(stderr, "vrixdb record-h264: the recording would end after 2038\n");
        return 1;
    }
    std::error_code ec;
    fs::create_directories(root, ec);
    if (ec) {
        std::fprintf(stderr, "vrixdb record-h264: cannot make %s: %s\n", root.c_str(),
                     ec.message().c_str());
        return 1;
    }
    if (!start_library()) return 1;
    RecContext *rec = vrix_db_open_rec_video(root.c_str(), VRIX_VIDEO_CHANNELS + 1);
    if (!rec) {
        std::fprintf(stderr, "vrixdb record-h264: the library could not open %s for recording\n",
                     root.c_str());
        return 1;
    }
    for (size_t i = 0; i < units.size(); ++i) {
        const AccessUnit &u = units[i];
        const auto n = static_cast<uint32_t>(i);
        const auto fps = static_cast<uint32_t>(o.fps);
        const FrameMeta meta{o.ch, n, static_cast<uint16_t>(o.fps),
                             static_cast<uint32_t>(start) + n / fps, n % fps * 1000 / fps};
        const auto record = wrap_access_unit(stream.data() + u.offset, u.size, u.idr, meta);
        vrix_db_rec_video(rec, record.data(), static_cast<int>(record.size()));
    }
    vrix_db_rec_video_flush(rec, o.ch);
    vrix_db_close_rec_video(rec);
    if (disk_error_reported()) {
        std::fprintf(stderr, "vrixdb record-h264: the library reported a failed disk write\n");
        return 1;
    }
    std::fprintf(
        out(), "recorded %zu access units (%zu IDR, %s) of %s to ch %d, %s .. %s at %d fps\n",
        units.size(), idr, format_bytes(static_cast<int64_t>(stream.size())).c_str(),
        o.file.c_str(), o.ch, format_time(start).c_str(), format_time(last).c_str(), o.fps);
    return 0;
}

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

void add_record_h264(CLI::App &app, Status &status) {
    auto o = std::make_shared<RecordOptions>();
    auto *sub = app.add_subcommand(
        "record-h264", "Record an H.264 Annex-B elementary stream on one channel, one frame "
                       "record per access unit\n(IDR = key frame), frame times from --start at "
                       "--fps");
    add_root(sub, o->root);
    sub->add_option("--ch", o->ch, "video channel 1..16")->required()->check(ChannelArg);
    sub->add_option("--start", o->start, "time of the first frame")->required()->check(TimeArg);
    sub->add_option("--fps", o->fps, "frames per second")
        ->check(CLI::Range(1, 1000))
        ->capture_default_str();
    sub->add_option("FILE", o->file, "the .h264 stream")->required()->check(CLI::ExistingFile);
    sub->callback([o, &status] { status = run_record(*o); });
}

void add_export_h264(CLI::App &app, Status &status) {
    auto o = std::make_shared<ExportOptions>();
    auto *sub = app.add_subcommand(
        "export-h264", "Play a span of one channel back into an H.264 elementary stream that a "
                       "standard decoder plays\n(from the first key frame at or after --from to "
                       "the last frame of the second --to)");
    sub->footer(kSpanRule);
    add_root(sub, o->root);
    sub->add_option("--ch", o->ch, "video channel 1..16")->required()->check(ChannelArg);
    sub->add_option("--from", o->from, "start of the span")->required()->check(TimeArg);
    sub->add_option("--to", o->to, "the last second of the span")->required()->check(TimeArg);
    sub->add_option("OUT", o->out, std::string("the .h264 file to write (") + kOutputRule + ")")
        ->required();
    sub->callback([o, &status] { status = run_export(*o); });
}

} // namespace vrixtool
