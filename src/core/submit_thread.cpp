// The submit thread: day and hour bookkeeping for the video writer, taken off
// the submit queue so the writer never stalls on it.  Here: the queue, the
// checks of every message, parking and the hand-over; the registrations
// themselves are the recording side's (submit_target.h).
#include "calendar.h"
#include "flags.h"
#include "messages.h"
#include "store/format.h"
#include "store/log.h"
#include "store/paths.h"
#include "store/records.h"
#include "store/schema.h"
#include "store_access.h"
#include "submit_target.h"
#include "sync_point.h"

#include <unistd.h>

#include <atomic>
#include <climits>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>

namespace vrix {
namespace {

// Each stop request carries the number of its close in text bytes 4..7, so a
// stop request that someone else put on the 0666 queue, or one left from an
// earlier run, cannot end the service before the messages queued ahead of
// the real one are handled.
// The numbers start from the process id, so a stop request left behind by an
// earlier process never matches one of this process.
std::atomic<int> g_stop_seq{static_cast<int>(static_cast<unsigned>(getpid()) << 12)};

// Lives as long as the thread, which never ends: never destroyed, since a
// condition destroyed at exit while the parked thread waits on it hangs the
// exit.
struct Handover {
    std::mutex lock;
    std::condition_variable changed;
};
Handover &handover() {
    static Handover *const h = new Handover;
    return *h;
}

// The acknowledgement is re-raised on every wake-up, so a requester that
// clears it while the thread is parked sees it set again.
void park() {
    Handover &h = handover();
    std::unique_lock<std::mutex> hold(h.lock);
    while (flag_get(g_iDbSubmitThreadStop) != 0) {
        if (flag_get(g_iDbSubmitThreadStopAck) == 0) {
            flag_set(g_iDbSubmitThreadStopAck, 1);
            h.changed.notify_all();
        }
        h.changed.wait(hold);
    }
}

// The earliest day key taken: 1970-01-03 00:00 UTC.  Keys of 0, 1 or of the
// first days of 1970 come from zeroed or foreign messages, never from a
// recorder's clock.
constexpr int kFirstDay = 2 * 86400;

// A day key is the first instant of a local day (its midnight, or the change
// when a zone skips midnight) by the library's own calendar, no earlier
// than kFirstDay and at least a day below the end of 32-bit seconds (the
// next day is prepared from it).
bool plausible_day(int day) {
    if (day < kFirstDay || day > INT_MAX - 86400) return false;
    return day_start(day, fields_of(day)) == day;
}

// Validates and carries out one message of `size` text bytes.  Returns true
// for a stop request that should park the thread.  Every message of ours has
// 128 bytes of text: any other size is somebody else's.
bool handle(RecContext *ctx, const NotifyMessage &msg, ssize_t size) {
    if (size > VRIX_MSG_TEXT_SIZE) {
        log_line("submit thread : drop message longer than %d bytes\n", VRIX_MSG_TEXT_SIZE);
        return false;
    }
    if (size != VRIX_MSG_TEXT_SIZE) {
        log_line("submit thread : drop message of %zd bytes\n", size);
        return false;
    }
    const unsigned kind = msg.mtext[0];
    if (kind == VRIX_MSG_STOP) {
        if (flag_get(g_iDbSubmitThreadStop) != 0 && message_word(msg, 4) == g_stop_seq.load())
            return true;
        log_text("submit thread : drop stop request nobody made");
        return false;
    }
    if (kind != VRIX_MSG_DAY && kind != VRIX_MSG_HOUR) {
        log_line("submit thread : drop message of kind %u\n", kind);
        return false;
    }
    const int day = message_word(msg, 4);
    if (!ctx || !plausible_day(day)) {
        log_line("submit thread : drop message of kind %u , day %d\n", kind, day);
        return false;
    }
    if (kind == VRIX_MSG_DAY) {
        register_day_message(*ctx, day);
        return false;
    }
    const int ch = msg.mtext[1];
    const int hour = msg.mtext[2];
    if (ch < 1 || ch >= channel_slots(*ctx) || hour > 23) {
        log_line("submit thread : drop hour message , channel %d , hour %d\n", ch, hour);
        return false;
    }
    register_hour_message(*ctx, ch, hour, day);
    return false;
}

} // namespace

void handover_set(int &word, int value) {
    Handover &h = handover();
    std::lock_guard<std::mutex> hold(h.lock);
    flag_set(word, value);
    h.changed.notify_all();
}

void handover_wait(int &word, bool raised) {
    Handover &h = handover();
    std::unique_lock<std::mutex> hold(h.lock);
    h.changed.wait(hold, [&] { return (flag_get(word) != 0) == raised; });
}

} // namespace vrix

extern "C" void *vrix_db_submit_thread(void *) {
    using namespace vrix;
    pthread_setname_np(pthread_self(), "vrix submit"); // as top -H and the tests show it
    for (;;) {
        park();
        // Out of parking: the opener waits for this before it returns, so a
        // close that follows at once is served and not taken for a park.
        handover_set(g_iDbSubmitThreadStopAck, 0);
        RecContext *ctx = g_pVrixDbRec;
        NotifyMessage msg;
        for (;;) {
            const ssize_t size = receive_message(g_iSubmitMq, msg);
            if (size < 0) {
                // A queue that fails (removed under us) delivers nothing more,
                // not even the stop request: a close must still get its park.
                if (flag_get(g_iDbSubmitThreadStop) != 0) break;
                poll_pause();
                continue;
            }
            const bool stop = handle(ctx, msg, size);
            VRIX_SYNC_POINT("submit_thread:message_handled");
            if (stop) break;
        }
    }
    return nullptr;
}

extern "C" void vrix_db_rec_open_thread(RecContext *ctx) {
    using namespace vrix;
    handover_set(g_iDbSubmitThreadStopAck, 0);
    handover_set(g_iDbSubmitThreadStop, 1);
    handover_wait(g_iDbSubmitThreadStopAck, true);
    g_pVrixDbRec = ctx;
    handover_set(g_iDbSubmitThreadStop, 0);
    handover_wait(g_iDbSubmitThreadStopAck, false);
}

// A thread that is parked already (no context handed over, or an open that
// failed half-way) is not sent a stop request: it would stay in the queue and
// end the next context's service early.
extern "C" void vrix_db_rec_close_thread(void) {
    using namespace vrix;
    const bool serving = flag_get(g_iDbSubmitThreadStop) == 0;
    handover_set(g_iDbSubmitThreadStopAck, 0);
    handover_set(g_iDbSubmitThreadStop, 1);
    if (serving) {
        NotifyMessage stop = g_RecMsg;
        put_message_word(stop, 4, g_stop_seq.fetch_add(1) + 1);
        send_message(g_iSubmitMq, stop);
    }
    handover_wait(g_iDbSubmitThreadStopAck, true);
}
