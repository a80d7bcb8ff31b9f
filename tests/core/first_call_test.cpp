// Every public function that converts times uses the recorder's zone when it
// is the first call of a process (after vrix_db_init): run under
// Europe/Berlin, each one is called first in a fresh child process on a copy
// of a store recorded here, and must answer as it does in this process.
#include "support/child.h"
#include "support/frames.h"
#include "support/queues.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <string>

namespace {

using namespace vrix::test;
namespace fs = std::filesystem;

constexpr int kFrom = 1718326200; // 2024-06-14 02:50 in Berlin (00:50 UTC)
constexpr int kTo = kFrom + 1200; // 03:10
const char *const kDay = "20240614";

std::tm at(int sec) {
    return local_tm(sec);
}

// Rows of hour 3 of an index database.
std::string hour3_rows(const std::string &db) {
    const auto r = rows(db, "select count(*) from h3");
    return r.empty() ? "none" : r[0];
}

std::string events_left(const std::string &root) {
    const auto r = rows(root + "/" + kDay + "/event.db", "select count(*) from h_all");
    return r.empty() ? "none" : r[0];
}

// Each call, on a root of its own; its answer as text.
const std::map<std::string, std::function<std::string(const std::string &root)>> &calls() {
    static const std::map<std::string, std::function<std::string(const std::string &)>> c = {
        {"video size",
         [](const std::string &root) {
             std::tm a = at(kFrom + 100), b = at(kTo - 100);
             return std::to_string(vrix_db_get_video_total_size(&a, &b, root.c_str(), 1));
         }},
        {"audio size",
         [](const std::string &root) {
             std::tm a = at(kFrom + 100), b = at(kTo - 100);
             return std::to_string(vrix_db_get_audio_total_size(&a, &b, root.c_str(), 1));
         }},
        {"video start",
         [](const std::string &root) {
             return std::to_string(
                 vrix_dvd_video_get_start_time(1, kFrom + 601, root.c_str(), 4096));
         }},
        {"audio end",
         [](const std::string &root) {
             return std::to_string(vrix_dvd_audio_get_end_time(1, kFrom + 601, root.c_str(), 64));
         }},
        {"correct video",
         [](const std::string &root) {
             const std::string dir = root + "/" + kDay + "/video/1/";
             fs::remove(dir + "video.db");
             vrix_db_correct_video(dir.c_str());
             return hour3_rows(dir + "video.db");
         }},
        {"correct audio",
         [](const std::string &root) {
             const std::string dir = root + "/" + kDay + "/audio/";
             fs::remove(dir + "audio.db");
             vrix_db_correct_audio(dir.c_str());
             return hour3_rows(dir + "audio.db");
         }},
        {"repair video",
         [](const std::string &root) {
             const std::string dir = root + "/" + kDay + "/video/1/";
             SqlHandle db = nullptr;
             FILE *fp = std::fopen((dir + "3.stream").c_str(), "rb");
             if (!fp || sql_open((dir + "new.db").c_str(), &db) != 0) return std::string("no");
             vrix_db_repair_video(fp, db, 3);
             std::fclose(fp);
             sql_close(db);
             return hour3_rows(dir + "new.db");
         }},
        {"reduce sec",
         [](const std::string &root) {
             return std::to_string(vrix_db_get_reduce_sec(root.c_str()));
         }},
        {"reduce events",
         [](const std::string &root) {
             const VrixTestHooks hooks{1000000, nullptr};
             vrix_db_set_test_hooks(&hooks);
             vrix_db_reduce_event(root.c_str(), kFrom + 600);
             return events_left(root);
         }},
    };
    return c;
}

[[noreturn]] void child_main(const char *recipe) {
    const std::string r = recipe;
    const size_t bar = r.find('|');
    unshare(CLONE_NEWIPC);
    remove_stale_queues();
    if (vrix_db_init(app_queue()) != 1) _exit(3);
    const std::string answer = calls().at(r.substr(0, bar))(r.substr(bar + 1));
    std::printf("ANSWER %s\n", answer.c_str());
    std::fflush(stdout);
    _exit(0);
}

TEST(FirstCall, EveryTimeConvertingFunctionUsesTheZone) {
    if (const char *recipe = std::getenv("VRIX_FIRST_CALL")) child_main(recipe);
    ASSERT_STREQ(std::getenv("TZ"), "Europe/Berlin");
    start_library();
    ScratchDir dir;
    const std::string base = dir / "base";
    fs::create_directories(base);
    RecContext *v = vrix_db_open_rec_video(base.c_str(), 2);
    AudioRecContext *a = vrix_db_open_rec_audio(base.c_str(), 1);
    EventRecContext *e = vrix_db_open_rec_event(base.c_str());
    ASSERT_TRUE(v && a && e);
    static int now = 0;
    const VrixTestHooks hooks{1, [] { return now; }};
    vrix_db_set_test_hooks(&hooks);
    for (int s = kFrom; s < kTo; ++s) {
        record(v, make_frame(1, s, s % 5 == 0, 300));
        const VrixAudioBlock b = audio_block(s, 0, [](int, unsigned char *p) { p[0] = 1; });
        vrix_db_rec_audio(a, &b);
        now = s;
        if (s % 60 == 0) vrix_db_rec_event(e, 1, 2, 0, 0);
    }
    vrix_db_rec_video_flush(v, 1);
    vrix_db_close_rec_video(v);
    vrix_db_close_rec_audio(a);
    vrix_db_close_rec_event(e);
    vrix_db_set_test_hooks(nullptr);

    for (const auto &[name, call] : calls()) {
        SCOPED_TRACE(name);
        const std::string mine = dir / "mine", theirs = dir / "theirs";
        fs::remove_all(mine);
        fs::remove_all(theirs);
        fs::copy(base, mine, fs::copy_options::recursive);
        fs::copy(base, theirs, fs::copy_options::recursive);
        const std::string want = call(mine);
        const std::string out = dir / "answer";
        const int fd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        const pid_t pid = spawn_self("VRIX_FIRST_CALL", name + "|" + theirs, fd);
        close(fd);
        ASSERT_EQ(wait_status(pid), 0);
        std::ifstream in(out);
        std::string line, got;
        while (std::getline(in, line))
            if (line.rfind("ANSWER ", 0) == 0) got = line.substr(7);
        EXPECT_EQ(got, want);
        EXPECT_NE(want, "0");
        EXPECT_NE(want, "none");
    }
}

} // namespace
