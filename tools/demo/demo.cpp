// vrixdb demo: the library's main job, end to end, on a store of its own.
#include "demo.h"

#include "vrixdb.h"
#include "vrixdb/catalogue.h"
#include "vrixdb/cli.h"
#include "vrixdb/library.h"
#include "vrixdb/progress.h"
#include "vrixdb/timeline_svg.h"
#include "vrixdb/times.h"

#include <cstdarg>
#include <filesystem>
#include <fstream>
#include <optional>

namespace vrixtool {

namespace fs = std::filesystem;

std::string strf(const char *fmt, ...) {
    char buf[1024];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    return buf;
}

void Demo::result(const char *step, bool ok, const std::string &figures) {
    ++checks;
    if (!ok) ++failed;
    std::fprintf(out, "  %-4s  %-11s %s\n", ok ? "ok" : "FAIL", step, figures.c_str());
    std::fflush(out);
}

namespace {

struct DemoOptions {
    std::string root = "demo-root";
    int minutes = 4;
    unsigned scale = 0;
};

constexpr const char *kMarker = ".vrixdb-demo";

// The demo records into a root of its own: a new or empty directory, or one
// an earlier demo left (which it empties).  Anything else is refused.
bool prepare_root(const std::string &root) {
    std::error_code ec;
    if (fs::exists(root, ec)) {
        if (!fs::is_directory(root, ec)) {
            std::fprintf(stderr, "vrixdb demo: %s is not a directory\n", root.c_str());
            return false;
        }
        if (!fs::is_empty(root, ec) && !fs::exists(root + "/" + kMarker, ec)) {
            std::fprintf(stderr,
                         "vrixdb demo: %s holds files of something else; give an empty or new "
                         "directory\n",
                         root.c_str());
            return false;
        }
        for (const auto &entry : fs::directory_iterator(root, ec))
            fs::remove_all(entry.path(), ec);
    }
    fs::create_directories(root, ec);
    std::ofstream(root + "/" + kMarker)
        << "a store made by vrixdb demo; the next demo empties it\n";
    if (ec || !fs::exists(root + "/" + kMarker)) {
        std::fprintf(stderr, "vrixdb demo: cannot prepare %s\n", root.c_str());
        return false;
    }
    return true;
}

std::vector<std::string> lines_of(const std::string &path) {
    std::vector<std::string> out;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);)
        out.push_back(line);
    return out;
}

int virtual_clock() {
    return virtual_now();
}

// The day as recorded, before maintenance takes its oldest hour away.
void draw_picture(Demo &d) {
    Catalogue store(d.root);
    long spans = 0;
    size_t events = 0;
    const std::string path = d.root + "/timeline-" + day_name(d.t0) + ".svg";
    std::ofstream(path) << draw_day(store, day_start(d.t0), 10, false, spans, events);
    std::fprintf(d.out, "  %-4s  %-11s %s: %ld recorded spans, %zu events\n", "", "picture",
                 path.c_str(), spans, events);
}

int run_demo(const DemoOptions &o) {
    const Stopwatch began;
    Demo d;
    d.root = library_root(o.root, "demo");
    if (d.root.empty() || !prepare_root(d.root)) return 1;

    // A day in early summer, recording across 11:00 local time.
    std::tm tm{};
    tm.tm_year = 2024 - 1900;
    tm.tm_mon = 5;
    tm.tm_mday = 14;
    tm.tm_hour = 11;
    const long boundary = from_local(tm);
    d.t0 = boundary - o.minutes * 30L;
    d.t1 = d.t0 + o.minutes * 60L;
    d.scale = o.scale;

    if (!start_library()) return 1;
    // Events are stamped with the virtual clock; the library's fixed waits
    // (maintenance pacing) are cut to microseconds.
    VrixTestHooks hooks{1000000, virtual_clock};
    vrix_db_set_test_hooks(&hooks);
    // The library's own lines, and those of the sqlite3 shell the integrity
    // check runs, go to a log in the root while the demo runs; the report
    // alone goes to the terminal.
    const std::string logPath = d.root + "/demo.log";
    const UniqueFile logFile(std::fopen(logPath.c_str(), "w"));
    std::optional<LibraryLog> log;
    if (logFile) log.emplace(logFile.get());
    d.out = out();
    std::fprintf(d.out, "vrixdb demo: store %s, local time UTC%s\n", d.root.c_str(),
                 format_offset(d.t0).c_str());
    std::fprintf(d.out,
                 "recording %s .. %s in virtual time: %d channels of video at %d frames/s, "
                 "a key frame each second\n(ch 1-%d all the time, ch %d-%d on motion), scale %u; "
                 "motion/alarm/manual events\n\n",
                 format_time(d.t0).c_str(), format_clock(d.t1).c_str(), kDemoChannels, kDemoFps,
                 kFirstMotionChannel - 1, kFirstMotionChannel, kDemoChannels, d.scale);

    step_record(d);
    step_index(d);
    step_play_forward(d);
    step_play_backward(d);
    step_key_frames(d);
    step_audio(d);
    step_events(d);
    step_sizes(d);
    step_ranges(d);
    draw_picture(d);
    step_backup_repair(d);
    step_reduce(d);

    const double secs = began.seconds();
    log.reset();
    const auto said = lines_of(logPath);
    FILE *out = d.out;
    std::fprintf(out, "\n");
    if (d.failed)
        std::fprintf(out, "%d of %d checks FAILED (%.1f s)\n", d.failed, d.checks, secs);
    else
        std::fprintf(out, "all %d checks passed in %.1f s\n", d.checks, secs);
    if (said.empty())
        std::fprintf(out, "the library printed nothing\n");
    else
        std::fprintf(out, "the library's own %zu lines are in %s/demo.log\n", said.size(),
                     d.root.c_str());
    std::fprintf(out, "look around: vrixdb ls --root %s --day %s\n", d.root.c_str(),
                 day_name(d.t0).c_str());
#if VRIX_HAVE_SERVE
    // Channels 1-4 hold real H.264: a browser plays them.
    std::fprintf(out,
                 "watch it in a browser: vrixdb serve --root %s, then open "
                 "http://127.0.0.1:8080/\n",
                 d.root.c_str());
#endif
    return d.failed ? 1 : 0;
}

} // namespace

void add_demo(CLI::App &app, Status &status) {
    auto [sub, o] = add_subcommand<DemoOptions>(
        app, status, "demo",
        "Record a synthetic 16-channel recorder across an hour boundary in virtual time,\n"
        "play it back, query it and check everything against what was written",
        run_demo, false);
    sub->get_option("--root")->capture_default_str();
    sub->add_option("--minutes", o.minutes, "minutes of virtual recording")
        ->check(CLI::Range(1, 20))
        ->capture_default_str();
    sub->add_option("--scale", o.scale,
                    "scale word of the frames: the library commits a channel's index rows every "
                    "g_iCommit[scale] + 1 key frames")
        ->check(CLI::Range(0, VRIX_MAX_SCALE))
        ->capture_default_str();
}

} // namespace vrixtool
