// vrixdb record-h264: an H.264 elementary stream recorded on one channel.
#include "cli.h"
#include "h264.h"
#include "library.h"
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

} // namespace

void add_record_h264(CLI::App &app, Status &status) {
    auto [sub, o] = add_subcommand<RecordOptions>(
        app, status, "record-h264",
        "Record an H.264 Annex-B elementary stream on one channel, one frame "
        "record per access unit\n(IDR = key frame), frame times from --start at "
        "--fps",
        run_record);
    add_channel(sub, o.ch);
    sub->add_option("--start", o.start, "time of the first frame")->required()->check(TimeArg);
    sub->add_option("--fps", o.fps, "frames per second")
        ->check(CLI::Range(1, 1000))
        ->capture_default_str();
    sub->add_option("FILE", o.file, "the .h264 stream")->required()->check(CLI::ExistingFile);
}

} // namespace vrixtool
