// Start-up state: globals, message records, and queues left by an earlier run.
#include "support/queues.h"
#include "vrixdb.h"

#include <gtest/gtest.h>

#include <sys/syscall.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sched.h>

namespace {

struct Stale {
    int ids[3];
};

// Plays an earlier run: the three queues exist, and the submit queue holds
// two messages nobody served.  Then the library starts over them.
const Stale &start_over_stale_queues() {
    static const Stale stale = [] {
        vrix::test::remove_stale_queues();
        Stale s{};
        const int keys[3] = {VRIX_SUBMIT_MQ_KEY, VRIX_RM_MQ_KEY, VRIX_RM_ACK_MQ_KEY};
        for (int i = 0; i < 3; ++i)
            s.ids[i] = msgget(keys[i], IPC_CREAT | 0666);
        NotifyMessage m{};
        m.mtype = 1;
        m.mtext[0] = 'x';
        msgsnd(s.ids[0], &m, VRIX_MSG_TEXT_SIZE, 0);
        m.mtext[0] = VRIX_MSG_STOP;
        msgsnd(s.ids[0], &m, VRIX_MSG_TEXT_SIZE, 0);
        testing::internal::CaptureStdout();
        const int ok = vrix_db_init(vrix::test::app_queue());
        const std::string out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(ok, 1);
        EXPECT_NE(out.find("vrix thread : policy SCHED_OTHER , priority 0"), std::string::npos)
            << out;
        return s;
    }();
    return stale;
}

TEST(StartUp, ReturnsParkedWithInitialState) {
    start_over_stale_queues();
    EXPECT_EQ(g_iDbSubmitThreadStop, 1);
    EXPECT_EQ(g_iDbSubmitThreadStopAck, 1);
    EXPECT_EQ(g_pVrixDbRec, nullptr);
    EXPECT_EQ(g_iBackuping, 0);
    EXPECT_EQ(g_iStopBackup, 0);
    EXPECT_EQ(g_iStopBackupAck, 0);
    EXPECT_EQ(g_iVrixDbSendMq, vrix::test::app_queue());
    const int commit[11] = {0, 5, 10, 0, 0, 0, 0, 0, 0, 2, 0};
    EXPECT_EQ(0, memcmp(g_iCommit, commit, sizeof commit));
    EXPECT_EQ(g_pVideoSqlMutex[0], nullptr);
    for (int n = 1; n <= 16; ++n)
        EXPECT_NE(g_pVideoSqlMutex[n], nullptr);
    EXPECT_NE(g_pAudioSqlMutex, nullptr);
    EXPECT_NE(g_pDateSqlMutex, g_pEventSqlMutex);
}

TEST(StartUp, MessageRecords) {
    start_over_stale_queues();
    EXPECT_EQ(g_RecMsg.mtype, 1);
    EXPECT_EQ(g_RecMsg.mtext[0], 0x67);
    EXPECT_EQ(g_IdeErrMsg.mtype, 1);
    EXPECT_EQ(g_IdeErrMsg.mtext[0], 0x9F);
    EXPECT_EQ(g_RmMsg.mtype, 1);
    for (const NotifyMessage *m : {&g_RecMsg, &g_IdeErrMsg, &g_RmMsg})
        for (int i = 1; i < VRIX_MSG_TEXT_SIZE; ++i)
            ASSERT_EQ(m->mtext[i], 0);
    static_assert(sizeof(NotifyMessage) == sizeof(long) + 128);
}

// The queues of an earlier run are used as they are, with their messages:
// the parked thread has not taken them.
TEST(StartUp, ReusesQueuesOfAnEarlierRun) {
    const Stale &s = start_over_stale_queues();
    EXPECT_EQ(g_iSubmitMq, s.ids[0]);
    EXPECT_EQ(g_iRmMq, s.ids[1]);
    EXPECT_EQ(g_iRmAckMq, s.ids[2]);
    msqid_ds info{};
    ASSERT_EQ(msgctl(g_iSubmitMq, IPC_STAT, &info), 0);
    EXPECT_EQ(info.msg_qnum, 2u);
}

TEST(StartUp, SecondCallIsHarmless) {
    start_over_stale_queues();
    pthread_mutex_t *before = g_pDateSqlMutex;
    testing::internal::CaptureStdout();
    EXPECT_EQ(vrix_db_init(vrix::test::app_queue()), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "vrix db : already started\n");
    EXPECT_EQ(g_pDateSqlMutex, before);
}

// The system call the library's submit thread is in, from /proc: its first
// field is the call's number ("running" while on a processor).
std::string submit_thread_syscall() {
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name, call;
        std::getline(std::ifstream(task.path() / "comm"), name);
        if (name != "vrix submit") continue;
        std::ifstream(task.path() / "syscall") >> call;
        return call;
    }
    return "no submit thread";
}

// Parked, the thread waits on a condition (a futex), not in a timed sleep
// that would wake it over and over: a process that only started the library
// costs no CPU.  Checked after start-up and after a hand-over.
TEST(StartUp, ParkedThreadSleepsUntilWoken) {
    start_over_stale_queues();
    const std::string futex = std::to_string(SYS_futex);
    for (int round = 0; round < 2; ++round) {
        std::string seen;
        for (int i = 0; i < 2000 && seen != futex; ++i) {
            seen = submit_thread_syscall();
            sched_yield();
        }
        EXPECT_EQ(seen, futex) << "round " << round;
        vrix_db_rec_close_thread();
    }
}

// Releasing and parking the thread without a context to serve: the stop
// request of a close is not left behind in the queue.
TEST(StartUp, HandOverWithoutContext) {
    start_over_stale_queues();
    vrix_db_rec_close_thread();
    EXPECT_EQ(g_iDbSubmitThreadStopAck, 1);
    msqid_ds info{};
    ASSERT_EQ(msgctl(g_iSubmitMq, IPC_STAT, &info), 0);
    EXPECT_EQ(info.msg_qnum, 2u);
}

} // namespace
