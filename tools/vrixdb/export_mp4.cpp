// vrixdb export-mp4: a span of one channel played back into an MP4 file with
// the frames' recorded times.
#include "export_span.h"
#include "library.h"
#include "mp4.h"
#include "units.h"

#include <sys/stat.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>

namespace vrixtool {
namespace {

namespace fs = std::filesystem;

// A regular file gets a plain MP4 (its index written at the end); a pipe or
// device a fragmented one, which needs no going back.
bool seekable(FILE *f) {
    struct stat st {};
    return fstat(fileno(f), &st) == 0 && S_ISREG(st.st_mode) && fseeko(f, 0, SEEK_CUR) == 0;
}

// Only MP4 is written: a name that asks for another container by its
// extension is refused rather than given MP4 under it.  A name without one,
// and "-", are fine.
bool mp4_name(const std::string &out) {
    const std::string name = fs::path(out).filename().string();
    const size_t dot = name.rfind('.');
    if (out == "-" || dot == std::string::npos || dot == 0) return true;
    std::string ext = name.substr(dot + 1);
    for (char &c : ext)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return ext == "mp4" || ext == "m4v";
}

int run_export(const ExportOptions &o) {
    if (!mp4_name(o.out)) {
        std::fprintf(stderr, "vrixdb export-mp4: %s: only MP4 is written; name it .mp4\n",
                     o.out.c_str());
        return kWrongArguments;
    }
    SpanExport run(o, "export-mp4");
    if (const int bad = run.open()) return bad;
    FILE *f = run.stream();
    Mp4Muxer::Seek seek;
    if (seekable(f)) seek = [f](int64_t at) { return fseeko(f, at, SEEK_SET) == 0; };
    // The cause of a write that failed: the muxer knows only that it did.
    int writeErrno = 0;
    Mp4Muxer mp4(
        [f, &writeErrno](const uint8_t *d, size_t n) {
            errno = 0;
            if (std::fwrite(d, 1, n, f) == n && std::fflush(f) == 0) return true;
            writeErrno = errno ? errno : EIO;
            return false;
        },
        seek);
    if (!run.play([&](const PlayedUnit &u) {
            const int64_t ms = (u.sec - run.first) * 1000LL + u.ms - run.firstMs;
            return mp4.add(u.unit.au, u.unit.size, u.unit.idr, ms);
        }))
        return 1;
    if (!mp4.finish()) {
        std::fprintf(stderr, "vrixdb export-mp4: writing %s failed: %s\n", o.out.c_str(),
                     writeErrno == EPIPE ? "the reader left"
                     : writeErrno        ? std::strerror(writeErrno)
                                         : mp4.error().c_str());
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
