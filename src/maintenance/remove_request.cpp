// The remove handshake on queues 1221/1222, and unregistering a removed day.
#include "core/live_hours.h"
#include "core/lock_check.h"
#include "core/messages.h"
#include "core/pacing.h"
#include "maintenance.h"
#include "store/format.h"
#include "store/log.h"
#include "store/schema.h"

#include <cstdio>
#include <cstring>

namespace vrix {

void request_remove(unsigned char command, const char *path, bool announce) {
    require_no_db_lock("remove handshake");
    // g_RmMsg keeps the type of the last reply (1 from start-up on); only its
    // text is filled here.
    std::memset(g_RmMsg.mtext, 0, sizeof g_RmMsg.mtext);
    // A cut path could name something else: such a request is not made.
    if (!format_into(reinterpret_cast<char *>(g_RmMsg.mtext + 1), sizeof g_RmMsg.mtext - 1, "%s",
                     path)) {
        log_line("rm : path too long %s\n", path);
        return;
    }
    g_RmMsg.mtext[0] = command;
    if (send_message(g_iRmMq, g_RmMsg) != 0) {
        // Nobody will answer a request that never left.
        log_line("rm : send request fail %s\n", path);
        return;
    }
    if (announce) log_text("before wait");
    receive_message(g_iRmAckMq, g_RmMsg);
    if (announce) log_text("after wait");
}

bool kept_for_recording(const char *who, const char *root, int day, const char *name,
                        int last_hour) {
    const int live = live_hour_up_to(root, day, last_hour);
    if (live < 0) return false;
    if (last_hour == kWholeDay)
        log_line("%s : day %s is being recorded , kept\n", who, name);
    else
        log_line("%s : hour %d of %s is being recorded , kept\n", who, live, name);
    return true;
}

void unregister_day(const Db &date_db, int day) {
    Sql q;
    format_into(q.text, sizeof q.text, sql::kDeleteDay, day);
    date_db.run(q.text);
    for (int ch = 1; ch <= VRIX_VIDEO_CHANNELS; ++ch) {
        format_into(q.text, sizeof q.text, sql::kDeleteChannelDay, ch, day);
        date_db.run(q.text);
        pace_sleep_s(1);
    }
}

} // namespace vrix
