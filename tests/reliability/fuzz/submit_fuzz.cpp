// Fuzz target: whatever any process on the machine may put on the submit
// queue, handled by the submit thread while it serves a recording context.
// Each input is a run of messages (a length byte, a type byte, that many text
// bytes, 0..128); the context is opened, the messages sent and the context
// closed, which returns only once the thread has dealt with all of them.  The
// type byte's bits 0..1 give the message type 1..4; bits 6..7 the size sent:
// mostly the whole 128-byte text (zero-padded), as the library's own
// messages are, sometimes just the bytes taken or a longer text.
#include "scratch.h"
#include "vrixdb.h"

#include <sys/msg.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

namespace {

struct Served {
    vrix::fuzz::Scratch dir;
    std::string root;
    int inputs = 0;

    Served() {
        setenv("TZ", "UTC", 1);
        root = dir.path();
        for (int key : {VRIX_SUBMIT_MQ_KEY, VRIX_RM_MQ_KEY, VRIX_RM_ACK_MQ_KEY})
            if (const int id = msgget(key, 0); id >= 0) msgctl(id, IPC_RMID, nullptr);
        vrix_db_init(msgget(IPC_PRIVATE, IPC_CREAT | 0600));
    }
    // Day messages make directories for any day: start afresh now and then.
    void tidy() {
        if (++inputs % 64) return;
        std::error_code ec;
        for (const auto &e : std::filesystem::directory_iterator(root, ec))
            std::filesystem::remove_all(e.path(), ec);
    }
    static Served &served();
};

Served &Served::served() {
    static Served s;
    return s;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Served &s = Served::served();
    s.tidy();
    RecContext *ctx = vrix_db_open_rec_video(s.root.c_str(), 5);
    if (!ctx) return 0;
    for (size_t at = 0, sent = 0; at + 2 <= size && sent < 32; ++sent) {
        const size_t len = std::min<size_t>(data[at] % (VRIX_MSG_TEXT_SIZE + 1), size - at - 2);
        struct {
            long mtype;
            unsigned char mtext[VRIX_MSG_TEXT_SIZE + 72];
        } m{};
        m.mtype = 1 + data[at + 1] % 4;
        std::memcpy(m.mtext, data + at + 2, len);
        const unsigned pick = data[at + 1] >> 6;
        const size_t text = pick == 3 ? sizeof m.mtext : pick == 2 ? len : VRIX_MSG_TEXT_SIZE;
        msgsnd(g_iSubmitMq, &m, text, IPC_NOWAIT);
        at += 2 + len;
    }
    vrix_db_close_rec_video(ctx);
    return 0;
}
