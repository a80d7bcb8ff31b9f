// The start-up repair (vrix_db_correct_all) on the store bench_play_video
// makes (days x 16 channels x 24 hours, a key frame per second; run that
// first, it keeps the store in the scratch directory), in the cases a
// recorder meets when it starts:
//   - after a clean stop: the empty journal the last repair left;
//   - after a power cut: the journal lists the hour every writer was in;
//   - an older store: no journal, so every day directory is looked through.
// Each case runs twice (the page cache warm on the second), and prints wall
// and CPU time with what went through the file seam: files opened, 4 KiB
// pages read, and runs of consecutive pages (a seek each on a disk).
//
//   bench_repair [days=30]
#include "bench_util.h"
#include "core/calendar.h"
#include "core/file_io.h"
#include "core/hour_journal.h"
#include "store/paths.h"

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <mutex>
#include <string>

namespace {

struct Seam : vrix::io::Observer {
    Seam() { vrix::io::set_observer(this); }
    ~Seam() override { vrix::io::set_observer(nullptr); }
    void before(const vrix::io::Access &a) override {
        const std::lock_guard hold(m);
        if (a.op == vrix::io::Op::Open) ++opens;
        if (a.op != vrix::io::Op::Read || !a.path) return;
        const long long first = a.offset / 4096, last = (a.offset + (long long)a.length - 1) / 4096;
        long long &next = next_page[a.path];
        if (first != next && first != next - 1) ++runs;
        pages += last - first + 1;
        next = last + 1;
    }
    std::mutex m;
    std::map<std::string, long long> next_page;
    long long opens = 0, pages = 0, runs = 0;
};

// `prepare` sets the journal up before each pass.
template <class Prepare> void run(const char *what, const std::string &root, Prepare prepare) {
    for (int pass = 1; pass <= 2; ++pass) {
        prepare();
        const bench::Usage u0 = bench::usage_now();
        Seam seam;
        vrix_db_correct_all(root.c_str());
        const bench::Usage used = bench::usage_now() - u0;
        std::printf("%-28s pass %d: %6.2f s wall, %6.2f s CPU; %6lld files opened, %8lld pages "
                    "read in %7lld runs\n",
                    what, pass, used.wall, used.cpu, seam.opens, seam.pages, seam.runs);
    }
}

} // namespace

int main(int argc, char **argv) {
    const int days = argc > 1 ? std::atoi(argv[1]) : 30;
    setenv("TZ", "UTC", 1);
    const std::string root = bench::cache(("play_video_" + std::to_string(days) + "d").c_str());
    if (!std::filesystem::exists(root + "/.complete")) {
        std::printf("no store of %d days: run bench_play_video 1 %d first\n", days, days);
        return 1;
    }
    vrix::refresh_timezone();
    std::tm tm{};
    sec_to_tm(&tm, 1710028800 + (days - 1) * 86400);
    char last[12];
    vrix::day_name(last, tm);
    std::printf("start-up repair of a store of %d days x 16 channels\n", days);
    vrix_db_set_log([](const char *, void *) {}, nullptr);
    vrix_hdd_set_correct_step_callback([](int, void *) {}, nullptr);

    const std::string journal = root + "/.vrixdb.hours";
    run("clean stop (empty journal)", root, [&] { vrix::replace_hour_journal(root.c_str(), {}); });
    std::vector<vrix::JournalHour> cut;
    for (int ch = 0; ch <= 16; ++ch) {
        vrix::JournalHour h{ch ? vrix::kJournalVideo : vrix::kJournalAudio, {}, ch, 23};
        std::memcpy(h.day, last, 8);
        cut.push_back(h);
    }
    run("power cut (17 hours listed)", root,
        [&] { vrix::replace_hour_journal(root.c_str(), cut); });
    run("older store (no journal)", root, [&] { std::filesystem::remove(journal); });
    vrix::replace_hour_journal(root.c_str(), {});
    return 0;
}
