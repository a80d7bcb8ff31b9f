// Media and event reduction against stores made by the real writers, with a
// remove server serving the library's requests.
#include "core/pacing.h"
#include "maint_store.h"
#include "maintenance/maintenance.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <filesystem>
#include <fstream>

namespace {

using namespace vrix::test;

constexpr int kHour4 = kDay + 4 * 3600, kHour5 = kDay + 5 * 3600, kHour6 = kDay + 6 * 3600;
constexpr int kNextDay = kDay + 86400, kLimit5 = kDay + 21599;

class Reduce : public ::testing::Test {
  protected:
    std::string root() const { return dir.path(); }
    std::string day() const { return dir / kDayName; }
    std::string video_db(int ch) const {
        return day() + "/video/" + std::to_string(ch) + "/video.db";
    }
    std::string stream(int ch) const {
        return day() + "/video/" + std::to_string(ch) + "/5.stream";
    }
    std::string audio_db() const { return day() + "/audio/audio.db"; }
    // Channels 1 and 2 in hours 4 and 5; audio rows first in hour 5.
    void hour_five_store() {
        record_video(root(), {{1, {kHour4 + 10, kHour5 + 10, kHour5 + 20}}, {2, {kHour5 + 30}}});
        write_audio_db(root(), {{4, {}}, {5, {kHour5, kHour5 + 1}}, {6, {kHour6}}});
    }
    int reduce(int stop = 0) {
        const int fd = open(root().c_str(), O_RDONLY);
        const int limit = vrix_db_reduce_media(root().c_str(), &stop, &free_mb, fd);
        close(fd);
        return limit;
    }
    static std::string count(const std::string &db, const char *table) {
        return rows(db, std::string("select count(*) from ") + table).at(0);
    }

    Started started;
    ScratchDir dir;
    FastWaits fast;
    RemoveServer server{dir.path()};
    int free_mb = -7;
};

TEST_F(Reduce, FirstAudioHourGoesFromEveryIndexAndItsStreamsAreRemoved) {
    hour_five_store();
    EXPECT_EQ(vrix_db_get_reduce_sec(root().c_str()), kLimit5);
    EXPECT_EQ(reduce(), kLimit5);
    for (int ch : {1, 2}) {
        EXPECT_EQ(count(video_db(ch), "h5"), "0") << ch;
        EXPECT_TRUE(rows(video_db(ch), "select hour from H").empty()) << ch;
        EXPECT_FALSE(exists(stream(ch))) << ch;
    }
    EXPECT_EQ(count(video_db(1), "h4"), "1");
    EXPECT_EQ(count(audio_db(), "h5"), "0");
    EXPECT_EQ(count(audio_db(), "h6"), "1");
    EXPECT_EQ(rows(audio_db(), "select hour from H"), Rows{"6"});
    // Only channels whose video.db opens are asked for.
    const auto asked = server.take();
    ASSERT_EQ(asked.size(), 2u);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(asked[i].command, VRIX_RM_FILE);
        EXPECT_EQ(asked[i].path, stream(i + 1));
        EXPECT_EQ(asked[i].outcome, VRIX_RM_REMOVED);
    }
    EXPECT_GE(free_mb, 0); // written after channel 2
}

TEST_F(Reduce, StopFlagEndsAfterFirstChannelAndTheNextCallRepeatsTheHour) {
    hour_five_store();
    EXPECT_EQ(reduce(1), kLimit5);
    EXPECT_EQ(count(video_db(1), "h5"), "0");
    EXPECT_EQ(count(video_db(2), "h5"), "1");
    EXPECT_EQ(count(audio_db(), "h5"), "2");
    EXPECT_EQ(free_mb, -7);
    EXPECT_EQ(server.take().size(), 1u);

    EXPECT_EQ(reduce(), kLimit5);
    EXPECT_EQ(count(video_db(2), "h5"), "0");
    EXPECT_EQ(count(audio_db(), "h5"), "0");
    EXPECT_EQ(server.take().size(), 2u);
}

// The oldest day goes whole when it has no audio.db, or one without rows;
// an audio.db that cannot be read is not taken for either: nothing goes.
TEST_F(Reduce, DayWithoutUsableAudioGoesWholeAndIsUnregistered) {
    enum Audio { None, Empty, Unreadable };
    for (Audio audio : {None, Empty, Unreadable}) {
        SCOPED_TRACE(audio);
        record_video(root(), {{1, {kHour4}}, {3, {kNextDay + 100}}});
        std::map<int, std::vector<int>> no_rows;
        for (int h = 0; h < 24; ++h)
            no_rows[h] = {};
        if (audio == Empty) write_audio_db(root(), no_rows);
        if (audio == Unreadable) {
            std::filesystem::create_directories(day() + "/audio");
            std::ofstream(audio_db()) << std::string(8192, 'x');
        }
        if (audio != Unreadable) {
            EXPECT_EQ(vrix_db_get_reduce_sec(root().c_str()),
                      kDay + (audio == Empty ? 89999 : 3599));
        }
        EXPECT_EQ(reduce(), 0);
        EXPECT_EQ(exists(day()), audio == Unreadable);
        const Rows next{std::to_string(kNextDay)};
        const Rows both{std::to_string(kDay), std::to_string(kNextDay)};
        EXPECT_EQ(rows(dir / "date.db", "select date from H order by date"),
                  audio == Unreadable ? both : next);
        EXPECT_EQ(rows(dir / "date.db", "select date from ch1").empty(), audio != Unreadable);
        EXPECT_EQ(rows(dir / "date.db", "select date from ch3"), next);
        const auto asked = server.take();
        ASSERT_EQ(asked.size(), audio == Unreadable ? 0u : 1u);
        if (!asked.empty()) {
            EXPECT_EQ(asked[0].command, VRIX_RM_DIR);
            EXPECT_EQ(asked[0].path, day());
        }
        std::filesystem::remove_all(day());
        std::filesystem::remove_all(dir / "20240311");
        std::filesystem::remove(dir / "date.db");
    }
}

// What a writer of this process is recording in is kept, with one line: the
// hour, and the whole day when the day would go.  Once the writer has moved
// on, the hour goes as usual.
TEST_F(Reduce, HourOrDayBeingRecordedIsKept) {
    auto kept = [&](const char *line) {
        testing::internal::CaptureStdout();
        EXPECT_EQ(reduce(), 0);
        const std::string out = testing::internal::GetCapturedStdout();
        EXPECT_NE(out.find(line), std::string::npos) << out;
        EXPECT_TRUE(server.take().empty());
    };
    RecContext *video = vrix_db_open_rec_video(root().c_str(), 17);
    ASSERT_NE(video, nullptr);
    record(video, make_frame(1, kHour5 + 10, true, 200));
    vrix_db_rec_video_flush(video, 1);
    kept("media : day 20240310 is being recorded , kept\n"); // no audio.db
    EXPECT_TRUE(exists(stream(1)));

    write_audio_db(root(), {{5, {kHour5}}, {6, {kHour6}}});
    kept("media : hour 5 of 20240310 is being recorded , kept\n");
    EXPECT_EQ(count(video_db(1), "h5"), "1");
    EXPECT_EQ(count(audio_db(), "h5"), "1");

    record(video, make_frame(1, kHour6, true, 200));
    EXPECT_EQ(reduce(), kLimit5);
    EXPECT_FALSE(exists(stream(1)));
    EXPECT_EQ(server.take().size(), 1u);
    vrix_db_close_rec_video(video);

    AudioRecContext *audio = vrix_db_open_rec_audio(root().c_str(), 1);
    ASSERT_NE(audio, nullptr);
    VrixAudioBlock b{};
    b.iSec = kHour6 + 1;
    vrix_db_rec_audio(audio, &b);
    vrix_db_rec_audio_flush(audio); // the writer's own row of hour 6
    kept("media : hour 6 of 20240310 is being recorded , kept\n");
    vrix_db_close_rec_audio(audio);
    EXPECT_EQ(reduce(), kDay + 6 * 3600 + 3599);
}

// The waits leave the disk to a recorder: with none on the root they are
// skipped, and a line says so; while this process or another records it they
// stay (the hooks only shorten them; the total asked for is what counts).
TEST_F(Reduce, PacedOnlyWhileTheRootIsRecorded) {
    hour_five_store();
    unsigned long long before = vrix::paced_total_us();
    testing::internal::CaptureStdout();
    EXPECT_EQ(vrix_db_get_reduce_sec(root().c_str()), kLimit5);
    EXPECT_EQ(reduce(), kLimit5);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(vrix::paced_total_us(), before);
    EXPECT_NE(out.find("media : no process records " + root() + " , not paced\n"),
              std::string::npos)
        << out;

    RecContext *video = vrix_db_open_rec_video(root().c_str(), 17);
    ASSERT_NE(video, nullptr);
    record(video, make_frame(1, kHour6 + 10, true, 200));
    vrix_db_rec_video_flush(video, 1);
    before = vrix::paced_total_us();
    EXPECT_EQ(vrix_db_get_reduce_sec(root().c_str()), kDay + 6 * 3600 + 3599);
    EXPECT_GE(vrix::paced_total_us() - before, 2000000u);
    before = vrix::paced_total_us();
    EXPECT_EQ(reduce(), 0); // hour 6 is being recorded
    EXPECT_GE(vrix::paced_total_us() - before, 1000000u);
    vrix_db_close_rec_video(video);

    // Another process holds the recording lock.
    int ready[2], done[2];
    ASSERT_EQ(pipe(ready), 0);
    ASSERT_EQ(pipe(done), 0);
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        const int fd = open((root() + "/.vrixdb.lock").c_str(), O_RDWR);
        struct flock l {};
        l.l_type = F_WRLCK;
        l.l_len = 1;
        char c = fd >= 0 && fcntl(fd, F_SETLK, &l) == 0 ? 'y' : 'n';
        if (write(ready[1], &c, 1) != 1 || read(done[0], &c, 1) < 0) _exit(1);
        _exit(0);
    }
    char locked = 0;
    ASSERT_EQ(read(ready[0], &locked, 1), 1);
    EXPECT_EQ(locked, 'y');
    before = vrix::paced_total_us();
    EXPECT_EQ(vrix_db_get_reduce_sec(root().c_str()), kDay + 6 * 3600 + 3599);
    EXPECT_GE(vrix::paced_total_us() - before, 2000000u);
    EXPECT_EQ(write(done[1], "x", 1), 1);
    int status = 0;
    waitpid(pid, &status, 0);
    for (int fd : {ready[0], ready[1], done[0], done[1]})
        close(fd);
}

TEST(FreeSpace, MegabytesAboveTheReserve) {
    using vrix::free_space_figure;
    constexpr uint64_t kGiB = (1u << 30) / 4096; // in 4 KiB blocks
    EXPECT_EQ(free_space_figure(9 * kGiB, 4096), 0);
    EXPECT_EQ(free_space_figure(2 * kGiB, 4096), 0);
    EXPECT_EQ(free_space_figure(10 * kGiB, 4096), 1024);
    EXPECT_EQ(free_space_figure(9437184 + 1023, 1024), 0);          // truncated
    EXPECT_EQ(free_space_figure((9437184 + 1024) * 2 - 1, 512), 1); // KiB rounded
    // Large disks are neither wrapped nor cut to 32 bits; the int saturates.
    EXPECT_EQ(free_space_figure(4000000000000 / 4096, 4096), 3805481); // 4 TB
    EXPECT_EQ(free_space_figure((uint64_t{1} << 32) + 10 * kGiB, 4096), (1 << 24) + 1024);
    EXPECT_EQ(free_space_figure(uint64_t{1} << 40, 1 << 20), INT_MAX);
    EXPECT_EQ(free_space_figure(UINT64_MAX, 4096), INT_MAX);
}

// The figure of a sparse 8 TiB file system (a tmpfs mounted in a mount
// namespace of a child process) after a real reduction.
TEST_F(Reduce, FreeSpaceOfALargeDiskIsNotWrapped) {
    hour_five_store();
    const std::string mnt = dir / "large";
    std::filesystem::create_directories(mnt);
    int out[2];
    ASSERT_EQ(pipe(out), 0);
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        int figure = INT_MIN; // no such file system here
        if (unshare(CLONE_NEWNS) == 0 &&
            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
            mount("tmpfs", mnt.c_str(), "tmpfs", 0, "size=8T") == 0) {
            const int fd = open(mnt.c_str(), O_RDONLY);
            int stop = 0;
            figure = -7;
            vrix_db_reduce_media(root().c_str(), &stop, &figure, fd);
        }
        _exit(write(out[1], &figure, sizeof figure) == sizeof figure ? 0 : 1);
    }
    close(out[1]);
    int figure = 0, status = 0;
    const bool got = read(out[0], &figure, sizeof figure) == sizeof figure;
    close(out[0]);
    waitpid(pid, &status, 0);
    ASSERT_TRUE(got && WIFEXITED(status) && WEXITSTATUS(status) == 0);
    if (figure == INT_MIN) GTEST_SKIP() << "no tmpfs in a private mount namespace here";
    EXPECT_EQ(figure, 8 * 1024 * 1024 - 9 * 1024); // MiB above the 9 GiB reserve
}

} // namespace
