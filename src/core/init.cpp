// Start-up: mutexes, queues and the parked submit thread.
#include "flags.h"
#include "lock_check.h"
#include "messages.h"
#include "store/log.h"
#include "vrixdb.h"

#include <sys/ipc.h>
#include <sys/msg.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>

namespace vrix {

void poll_pause() {
    require_no_db_lock("poll pause");
    usleep(1);
}

namespace {

std::atomic<bool> g_started{false};

// With VRIX_DEBUG_LOCKS the database mutexes are error-checking: a thread
// locking one twice, or unlocking one it does not hold, is told so.
pthread_mutex_t *new_mutex() {
    auto *m = static_cast<pthread_mutex_t *>(std::malloc(sizeof(pthread_mutex_t)));
    if (!m) return nullptr;
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
#if VRIX_DEBUG_LOCKS
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ERRORCHECK);
#endif
    const int rc = pthread_mutex_init(m, &attr);
    pthread_mutexattr_destroy(&attr);
    if (rc != 0) {
        std::free(m);
        return nullptr;
    }
    return m;
}

constexpr int kQueueFlags = IPC_CREAT | 0666;

#define VRIX_TEXT(x) #x
#define VRIX_VERSION_TEXT(a, b, c) VRIX_TEXT(a) "." VRIX_TEXT(b) "." VRIX_TEXT(c)
constexpr const char *kVersion =
    VRIX_VERSION_TEXT(VRIX_VERSION_MAJOR, VRIX_VERSION_MINOR, VRIX_VERSION_PATCH);

} // namespace
} // namespace vrix

extern "C" const char *vrix_db_version(void) {
    return vrix::kVersion;
}

extern "C" int vrix_db_init(int send_queue) {
    using namespace vrix;
    if (g_started.load()) {
        log_text("vrix db : already started");
        return 1;
    }
    for (int n = 1; n <= VRIX_VIDEO_CHANNELS; ++n)
        if (!(g_pVideoSqlMutex[n] = new_mutex())) return 0;
    if (!(g_pAudioSqlMutex = new_mutex())) return 0;
    if (!(g_pDateSqlMutex = new_mutex())) return 0;
    if (!(g_pEventSqlMutex = new_mutex())) return 0;

    flag_set(g_iDbSubmitThreadStop, 1);
    flag_set(g_iDbSubmitThreadStopAck, 0);
    flag_set(g_iStopBackup, 0);
    flag_set(g_iStopBackupAck, 0);
    flag_set(g_iBackuping, 0);
    g_pVrixDbRec = nullptr;
    g_iSubmitMq = -1;

    prepare_message(g_RecMsg, VRIX_MSG_STOP);
    prepare_message(g_IdeErrMsg, VRIX_MSG_DISK_ERROR);
    prepare_message(g_RmMsg, 0);

    g_iVrixDbSendMq = send_queue;

    if ((g_iSubmitMq = msgget(VRIX_SUBMIT_MQ_KEY, kQueueFlags)) < 0) {
        log_text("vrix db : msgget failed");
        return 0;
    }
    if ((g_iRmMq = msgget(VRIX_RM_MQ_KEY, kQueueFlags)) < 0) {
        log_text("vrix db : rm msgget failed");
        return 0;
    }
    if ((g_iRmAckMq = msgget(VRIX_RM_ACK_MQ_KEY, kQueueFlags)) < 0) {
        log_text("vrix db : rm ack msgget failed");
        return 0;
    }
    if (pthread_create(&g_ThreadFd, nullptr, vrix_db_submit_thread, nullptr) != 0) {
        log_text("vrix db : create submit thread failed");
        return 0;
    }
    handover_wait(g_iDbSubmitThreadStopAck, true);
    g_started.store(true);
    vrix_thread_print_priority(g_ThreadFd);
    return 1;
}
