// Power-cut harness: a recorder process (16 video channels, 4 audio channels)
// runs over the power-cut file layer and has its power cut after a random
// number of rounds: every write not synced by then is dropped, names never
// made durable vanish, and on odd cuts the last unsynced write is torn.  The
// next recorder resumes the store; after each cut the store is read back
// through the library.  Nothing may come back that was not written; the
// frames and audio records kept are reported per channel.
//
// Today the library makes nothing durable: the day directories' names are
// never synced, so a cut leaves no stream file and no video index, and the
// figures read 0 frames kept.  Once the writers sync, this harness states
// their promise as a bound on what a cut may lose.
//
// The recorder is this binary run again with VRIX_POWER_CUT_RECORDER set.
// VRIX_CUTS=n (VRIX_LONG=1: 20) sets the number of cuts, VRIX_SEED repeats a run.
#include "support/power_cut.h"
#include "support/queues.h"
#include "verify.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <random>

extern char **environ;

namespace vrix::rel {
namespace {

// ---- the recorder process ----

// Records rounds [start, start + rounds), then cuts the power.
[[noreturn]] void recorder_main(const char *recipe) {
    char root[256];
    unsigned start = 0, rounds = 0, seed = 0;
    int tear = 0, queue = -1;
    if (std::sscanf(recipe, "%255[^|]|%u|%u|%u|%d|%d", root, &start, &rounds, &seed, &tear,
                    &queue) != 6)
        _exit(2);
    auto *layer = new test::PowerCut; // in place until the cut ends the process
    if (vrix_db_init(queue) != 1) _exit(3);
    RecContext *rec = vrix_db_open_rec_video(root, kChannels + 1);
    AudioRecContext *audio = vrix_db_open_rec_audio(root, kAudioChannels);
    if (!rec || !audio) _exit(4);
    for (uint32_t r = start; r < start + rounds; ++r) {
        for (int ch = 1; ch <= kChannels; ++ch) {
            const auto f = frame(ch, r);
            vrix_db_rec_video(rec, f.data(), static_cast<int>(f.size()));
        }
        const VrixAudioBlock block = audio_block(r);
        vrix_db_rec_audio(audio, &block);
    }
    std::fflush(stdout);
    layer->cut(0, tear != 0, seed);
}

[[maybe_unused]] const bool g_is_recorder = [] {
    if (const char *recipe = std::getenv("VRIX_POWER_CUT_RECORDER")) recorder_main(recipe);
    return false;
}();

// ---- the harness ----

int run_recorder(const std::string &recipe, const std::string &log) {
    const std::string var = std::string("VRIX_POWER_CUT_RECORDER=").append(recipe);
    std::vector<char *> env;
    for (char **e = environ; *e; ++e)
        if (std::strncmp(*e, "VRIX_POWER_CUT_RECORDER=", 24) != 0) env.push_back(*e);
    env.push_back(const_cast<char *>(var.c_str()));
    env.push_back(nullptr);
    char self[] = "/proc/self/exe";
    char *argv[] = {self, nullptr};
    std::fflush(stdout);
    const pid_t pid = fork();
    if (pid == 0) {
        if (std::freopen(log.c_str(), "a", stdout)) execve(self, argv, env.data());
        _exit(127);
    }
    int status = -1;
    waitpid(pid, &status, 0);
    return status;
}

long env_number(const char *name, long fallback) {
    const char *v = std::getenv(name);
    return v && *v ? std::strtol(v, nullptr, 10) : fallback;
}

TEST(PowerCut, WhatRecordingKeepsThroughCuts) {
    test::start_library();
    test::ScratchDir dir;
    const std::string root = dir / "store";
    ASSERT_EQ(mkdir(root.c_str(), 0700), 0);
    const int cuts = static_cast<int>(env_number("VRIX_CUTS", env_number("VRIX_LONG", 0) ? 20 : 3));
    const auto seed = static_cast<unsigned>(env_number("VRIX_SEED", std::random_device{}()));
    std::printf("power-cut harness: %d cuts, VRIX_SEED=%u, store %s\n", cuts, seed, root.c_str());
    std::mt19937 rng(seed);

    uint32_t next = 0;
    uint64_t wrong = 0, kept_total = 0, handed_total = 0;
    for (int k = 0; k < cuts; ++k) {
        const uint32_t start = next, rounds = 50 + rng() % 400;
        const std::string recipe = root + "|" + std::to_string(start) + "|" +
                                   std::to_string(rounds) + "|" + std::to_string(rng()) + "|" +
                                   std::to_string(k % 2) + "|" + std::to_string(test::app_queue());
        const int status = run_recorder(recipe, dir / "recorder.log");
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "recorder: " << status;
        next = start + rounds;

        const FrameWritten written = [next](int, uint32_t r) { return r < next; };
        std::string per_channel;
        uint64_t kept = 0;
        for (int ch = 1; ch <= kChannels; ++ch) {
            const Walk w = play(root, ch, round_sec(start), Mode::Forward, written);
            if (w.wrong) std::printf("ch%d: %s\n", ch, w.first_fault.c_str());
            wrong += w.wrong;
            uint64_t mine = 0;
            for (uint32_t r : w.rounds)
                mine += r >= start;
            kept += mine;
            per_channel.append(" ").append(std::to_string(mine));
        }
        uint64_t audio_kept = 0;
        for (int ch = 1; ch <= kAudioChannels; ++ch) {
            const Walk a =
                play_audio(root, ch, round_sec(start), [next](uint32_t r) { return r < next; });
            if (a.wrong) std::printf("audio ch%d: %s\n", ch, a.first_fault.c_str());
            wrong += a.wrong;
            for (uint32_t r : a.rounds)
                audio_kept += r >= start;
        }
        std::printf("cut %d%s after rounds %u..%u: frames kept per channel%s (of %u each); "
                    "audio records kept %llu of %u\n",
                    k + 1, k % 2 ? " (torn)" : "", start, next - 1, per_channel.c_str(), rounds,
                    static_cast<unsigned long long>(audio_kept), rounds * kAudioChannels);
        kept_total += kept;
        handed_total += static_cast<uint64_t>(rounds) * kChannels;
    }
    std::printf("power-cut harness figures: cuts %d, frames handed over %llu, kept %llu, wrong "
                "%llu, seed %u\n",
                cuts, static_cast<unsigned long long>(handed_total),
                static_cast<unsigned long long>(kept_total), static_cast<unsigned long long>(wrong),
                seed);
    RecordProperty("frames_kept", static_cast<int>(kept_total));
    EXPECT_EQ(wrong, 0u);
}

} // namespace
} // namespace vrix::rel
