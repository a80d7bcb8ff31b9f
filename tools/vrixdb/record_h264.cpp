// vrixdb record-h264: an H.264 elementary stream recorded on one channel.
#include "cli.h"
#include "h264.h"
#include "library.h"
#include "progress.h"
#include "times.h"
#include "units.h"
#include "vrixdb.h"

#include <sys/stat.h>
#include <sys/time.h>

#include <algorithm>

#include <cstdio>
#include <filesystem>
#include <optional>

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

// Access units held back until the first IDR picture shows that the input is
// H.264 worth recording: at most this many bytes.
constexpr size_t kLeadLimit = 16 << 20;

// The input: the file, or standard input for "-".  Its size is known for a
// regular file only (progress is then shown; a pipe shows none).
struct Input {
    UniqueFile owned;
    std::FILE *f = nullptr;
    long long size = -1;
    explicit Input(const std::string &path) {
        if (path == "-") {
            f = stdin;
        } else {
            owned.reset(std::fopen(path.c_str(), "rb"));
            f = owned.get();
        }
        struct stat st {};
        if (f && fstat(fileno(f), &st) == 0 && S_ISREG(st.st_mode)) size = st.st_size;
    }
};

// A frame's time: seconds since 1970 and the millisecond within.
struct Stamp {
    long sec = 0;
    uint32_t ms = 0;
    bool operator<(const Stamp &b) const { return sec < b.sec || (sec == b.sec && ms < b.ms); }
};

Stamp wall_clock() {
    timeval tv{};
    gettimeofday(&tv, nullptr);
    return {static_cast<long>(tv.tv_sec), static_cast<uint32_t>(tv.tv_usec / 1000)};
}

struct Recording {
    const RecordOptions &o;
    const long start;
    // A live feed (a pipe with --start now): each unit is stamped when it has
    // arrived; otherwise from --start at --fps.
    const bool live;
    RecContext *rec = nullptr;
    uint32_t number = 0;
    uint32_t idr = 0;
    Stamp first{}, last{};

    Stamp stamp() const {
        if (!live) {
            const auto fps = static_cast<uint32_t>(o.fps);
            return {start + static_cast<long>(number / fps), number % fps * 1000 / fps};
        }
        // The clock may step back: times never do.
        return std::max(wall_clock(), last);
    }

    // False when the frame's time would pass 2038.
    bool write(const std::vector<uint8_t> &au, bool key) {
        last = stamp();
        if (!number) first = last;
        if (last.sec > 0x7FFFFFFFL) return false;
        const FrameMeta meta{o.ch, number, static_cast<uint16_t>(o.fps),
                             static_cast<uint32_t>(last.sec), last.ms};
        const auto record = wrap_access_unit(au.data(), au.size(), key, meta);
        vrix_db_rec_video(rec, record.data(), static_cast<int>(record.size()));
        ++number;
        idr += key;
        return true;
    }
};

int run_record(const RecordOptions &o) {
    const std::string root = library_root(o.root, "record-h264");
    if (root.empty()) return 1;
    const char *name = o.file == "-" ? "standard input" : o.file.c_str();
    Input in(o.file);
    if (!in.f) {
        std::fprintf(stderr, "vrixdb record-h264: cannot read %s\n", name);
        return 1;
    }
    // The units before the first IDR picture are held, and recorded with it.
    AccessUnitReader reader(in.f);
    std::vector<std::vector<uint8_t>> lead;
    std::vector<bool> leadKey;
    size_t leadBytes = 0;
    std::vector<uint8_t> au;
    bool key = false, found = false;
    while (!found && leadBytes <= kLeadLimit && reader.next(au, key)) {
        leadBytes += au.size();
        lead.push_back(au);
        leadKey.push_back(key);
        found = key;
    }
    if (reader.failed()) {
        std::fprintf(stderr, "vrixdb record-h264: cannot read %s\n", name);
        return 1;
    }
    if (!found) {
        std::fprintf(
            stderr, "vrixdb record-h264: %s is not an H.264 Annex-B stream with an IDR picture%s\n",
            name, leadBytes > kLeadLimit ? " in its first 16 MiB" : "");
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
    Recording r{o, *parse_time(o.start), in.size < 0 && o.start == "now"};
    r.rec = vrix_db_open_rec_video(root.c_str(), VRIX_VIDEO_CHANNELS + 1);
    if (!r.rec) {
        std::fprintf(stderr, "vrixdb record-h264: the library could not open %s for recording\n",
                     root.c_str());
        return 1;
    }
    bool fits = true;
    {
        std::optional<Progress> progress;
        if (in.size > 0) progress.emplace(out(), "recording", static_cast<long>(in.size));
        for (size_t i = 0; i < lead.size() && fits; ++i)
            fits = r.write(lead[i], leadKey[i]);
        lead.clear();
        while (fits && reader.next(au, key)) {
            fits = r.write(au, key);
            if (progress) progress->update(static_cast<long>(reader.bytes_read()));
        }
    }
    vrix_db_rec_video_flush(r.rec, o.ch);
    vrix_db_close_rec_video(r.rec);
    if (!fits) {
        std::fprintf(stderr,
                     "vrixdb record-h264: the recording would go on after 2038; stopped "
                     "at access unit %u\n",
                     r.number);
        return 1;
    }
    if (reader.failed()) {
        std::fprintf(stderr, "vrixdb record-h264: reading %s failed after %u access units\n", name,
                     r.number);
        return 1;
    }
    if (disk_error_reported()) {
        std::fprintf(stderr, "vrixdb record-h264: the library reported a failed disk write\n");
        return 1;
    }
    std::fprintf(out(), "recorded %u access units (%u IDR, %s) of %s to ch %d, %s .. %s %s\n",
                 r.number, r.idr, format_bytes(static_cast<int64_t>(reader.bytes_read())).c_str(),
                 name, o.ch, format_time(r.first.sec).c_str(), format_time(r.last.sec).c_str(),
                 r.live ? "as they arrived" : ("at " + std::to_string(o.fps) + " fps").c_str());
    return 0;
}

} // namespace

void add_record_h264(CLI::App &app, Status &status) {
    auto [sub, o] = add_subcommand<RecordOptions>(
        app, status, "record-h264",
        "Record an H.264 Annex-B elementary stream on one channel, one frame "
        "record per access unit\n(IDR = key frame), frame times from --start at "
        "--fps; from a pipe with --start now, each\naccess unit is stored as it "
        "arrives, stamped with its time of arrival",
        run_record);
    add_channel(sub, o.ch);
    sub->add_option("--start", o.start, "time of the first frame")->required()->check(TimeArg);
    sub->add_option("--fps", o.fps, "frames per second")
        ->check(CLI::Range(1, 1000))
        ->capture_default_str();
    sub->add_option("FILE", o.file, "the .h264 stream, - for standard input")
        ->required()
        ->check(CLI::Validator(
            [](std::string &s) { return s == "-" ? std::string() : CLI::ExistingFile(s); }, "FILE",
            "file"));
}

} // namespace vrixtool
