#include "messages.h"

#include "lock_check.h"
#include "store/records.h"

#include <sys/msg.h>

#include <cerrno>
#include <cstring>

namespace vrix {

int send_message(int queue, const NotifyMessage &msg) {
    require_no_db_lock("queue send");
    while (msgsnd(queue, &msg, VRIX_MSG_TEXT_SIZE, 0) != 0) {
        if (errno != EINTR) return -1;
    }
    return 0;
}

// One byte more than a message of ours holds tells a longer one apart (the
// kernel cuts it to what fits and reports the cut size).
ssize_t receive_message(int queue, NotifyMessage &msg) {
    struct {
        long mtype;
        unsigned char mtext[VRIX_MSG_TEXT_SIZE + 1];
    } in;
    require_no_db_lock("queue receive");
    ssize_t n;
    while ((n = msgrcv(queue, &in, sizeof in.mtext, 0, MSG_NOERROR)) < 0)
        if (errno != EINTR) return -1;
    msg.mtype = in.mtype;
    const size_t kept = n < VRIX_MSG_TEXT_SIZE ? static_cast<size_t>(n) : VRIX_MSG_TEXT_SIZE;
    std::memcpy(msg.mtext, in.mtext, kept);
    std::memset(msg.mtext + kept, 0, VRIX_MSG_TEXT_SIZE - kept);
    return n;
}

void prepare_message(NotifyMessage &msg, unsigned char kind) {
    std::memset(&msg, 0, sizeof msg);
    msg.mtype = 1;
    msg.mtext[0] = kind;
}

void put_message_word(NotifyMessage &msg, int offset, int value) {
    store_le32(msg.mtext + offset, static_cast<uint32_t>(value));
}

int message_word(const NotifyMessage &msg, int offset) {
    return static_cast<int>(load_le32(msg.mtext + offset));
}

} // namespace vrix
