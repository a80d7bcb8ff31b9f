// Shared pieces of reclamation, backup and repair: the remove handshake and
// what a writer keeps (repair's own pieces are in repair.h).  Their database,
// holder and file handles are core's (core/store_access.h).
#pragma once

#include "core/calendar.h"
#include "core/root_lock.h"
#include "core/store_access.h"
#include "store/log.h"
#include "store/paths.h"
#include "vrixdb.h"

#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <memory>

namespace vrix {

// What every reduction and the prediction do first: the root checked
// ("<who> : root path too long"), the zone refreshed, a one-int holder made
// and date.db opened.  False when any of it failed; `no_date` is printed when
// date.db would not open.
struct MaintenanceStart {
    Holder holder{1, kIntCell};
    Db date{date_mutex()};
    bool start(const char *root, const char *who, const char *no_date = nullptr) {
        if (!root_fits(root, who)) return false;
        refresh_timezone();
        if (!holder.t) return false;
        Path p;
        if (reader_date_db(p, root) && date.open(p.text)) return true;
        if (no_date) log_text(no_date);
        return false;
    }
};

// Remove commands of the remove request (text byte 0).
constexpr unsigned char kRemoveFile = 0;
constexpr unsigned char kRemoveTree = 1;

// The remove handshake: fills g_RmMsg with the command and the path, sends it
// on the remove queue and blocks until any reply arrives on the ack queue.
// No mutex may be held.  When the request cannot be sent no reply is awaited.
// `announce` prints "before wait" once sent and "after wait" once answered.
void request_remove(unsigned char command, const char *path, bool announce = false);

// True when a writer of this process is recording in day `day` (named `name`)
// of the store under `root` at an hour up to `last_hour`: what it writes is
// never removed, and one line "<who> : hour H of <name> is being recorded ,
// kept" (or "day <name>" when `last_hour` is kWholeDay) says so.  Recorders in
// other processes are not seen.
constexpr int kWholeDay = 99;
bool kept_for_recording(const char *who, const char *root, int day, const char *name,
                        int last_hour);

// Deletes a day's rows from date.db: H, then ch1..ch16, each under the date
// mutex by itself, with the reclamation's wait after each channel.
void unregister_day(const Db &date_db, int day);

// The free-space figure: MiB above a 9 GiB reserve, from statfs's available
// blocks and block size, truncated; INT_MAX for anything larger.
int free_space_figure(uint64_t bavail, uint64_t bsize);

} // namespace vrix
