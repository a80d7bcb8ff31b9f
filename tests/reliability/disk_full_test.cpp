// A full disk: stream writes fall short (a file size limit, SIGXFSZ ignored).
// The writer must say so on standard output and on the application's queue,
// keep recording, and leave what it stored readable.  The recorder runs in a
// child process so that the limit never touches the test itself.
#include "support/frames.h"
#include "support/queues.h"

#include <signal.h>
#include <sys/msg.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <sstream>

namespace {

using namespace vrix::test;

constexpr int kHour10 = 1710064800; // 2024-03-10 10:00 UTC
constexpr rlim_t kLimit = 300000;   // bytes any one file may hold
constexpr int kBig = 120;           // seq of a frame too big for the write-behind buffer

// Channel 1 writes far more than the limit in hour 10, then goes on in hour
// 11; channel 2 stays small throughout.
int payload(int ch, int seq) {
    if (ch == 2) return 100 + seq % 50;
    return seq == kBig ? 140000 : 1500 + seq * 7 % 500;
}
std::vector<unsigned char> frame(int ch, int seq) {
    const int sec = kHour10 + (seq < 300 ? seq * 10 : 3600 + seq);
    return make_frame(ch, sec, seq % 5 == 0, payload(ch, seq), 0, static_cast<unsigned>(seq));
}

[[noreturn]] void record_with_limit(const std::string &root, int out) {
    dup2(out, 1);
    signal(SIGXFSZ, SIG_IGN);
    const rlimit lim{kLimit, kLimit};
    if (setrlimit(RLIMIT_FSIZE, &lim) != 0 || vrix_db_init(app_queue()) != 1) _exit(3);
    RecContext *ctx = vrix_db_open_rec_video(root.c_str(), 3);
    if (!ctx) _exit(4);
    for (int seq = 0; seq < 360; ++seq)
        for (int ch : {1, 2})
            record(ctx, frame(ch, seq));
    vrix_db_rec_video_flush(ctx, 1);
    vrix_db_rec_video_flush(ctx, 2);
    vrix_db_close_rec_video(ctx);
    std::fflush(stdout);
    _exit(0);
}

// Plays a channel from 10:00 and returns the seqs delivered; every frame
// must be exactly one that was recorded.
std::vector<int> play_back(const std::string &root, int ch, int &wrong) {
    std::vector<int> seqs;
    const time_t t = kHour10;
    std::tm start{};
    gmtime_r(&t, &start);
    PlayContext *p = vrix_db_open_get_video(&start, nullptr, ch, 1 << 18, root.c_str());
    if (!p) return seqs;
    while (vrix_db_next_video(p) == 1) {
        void *buf = nullptr;
        const int len = vrix_db_get_video(p, &buf);
        int sec = 0, seq = 0;
        vrix_db_video_get_current_time(p, &sec, &seq);
        const auto f = frame(ch, seq);
        if (seq < 0 || seq >= 360 || f.size() != static_cast<size_t>(len) + 16 ||
            std::memcmp(f.data() + 16, buf, static_cast<size_t>(len)) != 0)
            ++wrong;
        else
            seqs.push_back(seq);
    }
    vrix_db_close_get_video(p);
    return seqs;
}

TEST(DiskFull, ShortWritesAreReportedAndRecordingGoesOn) {
    ScratchDir dir;
    const int queue = app_queue();
    while (msgrcv(queue, nullptr, 0, 0, IPC_NOWAIT | MSG_NOERROR) >= 0) {
    }
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    std::fflush(stdout);
    const pid_t pid = fork();
    if (pid == 0) record_with_limit(dir.path(), fds[1]);
    close(fds[1]);
    std::string out;
    char buf[4096];
    for (ssize_t n; (n = read(fds[0], buf, sizeof buf)) > 0;)
        out.append(buf, static_cast<size_t>(n));
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << out;

    // One line per short write, naming the channel, and one notice each.
    int reports = 0;
    std::istringstream lines(out);
    for (std::string l; std::getline(lines, l);) {
        int ch = 0, written = 0, wanted = 0;
        if (std::sscanf(l.c_str(), "rec : ch%d fwrite iRet = %d , Size = %d", &ch, &written,
                        &wanted) != 3)
            continue;
        ++reports;
        EXPECT_EQ(ch, 1) << l;
        EXPECT_LT(written, wanted) << l;
    }
    EXPECT_GE(reports, 2) << out;
    int notices = 0;
    NotifyMessage msg;
    while (msgrcv(queue, &msg, VRIX_MSG_TEXT_SIZE, 0, IPC_NOWAIT) >= 0) {
        EXPECT_EQ(msg.mtext[0], VRIX_MSG_DISK_ERROR);
        ++notices;
    }
    EXPECT_EQ(notices, reports);

    // Channel 1 keeps the frames that fitted whole in hour 10, then all of
    // hour 11; channel 2 never noticed.
    start_library();
    int wrong = 0;
    const std::vector<int> one = play_back(dir.path(), 1, wrong);
    std::vector<int> expected;
    long long end = 0;
    for (int seq = 0; seq < 300; ++seq) {
        end += 16 + payload(1, seq);
        if (end <= static_cast<long long>(kLimit)) expected.push_back(seq);
    }
    for (int seq = 300; seq < 360; ++seq)
        expected.push_back(seq);
    EXPECT_EQ(one, expected);
    std::vector<int> two = play_back(dir.path(), 2, wrong);
    EXPECT_EQ(two.size(), 360u);
    EXPECT_EQ(wrong, 0);
}

} // namespace
