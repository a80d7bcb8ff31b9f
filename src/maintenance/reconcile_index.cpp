// Reconciling a sound index with its stream file at start-up: from the
// newest row whose record agrees (or from 0), the whole valid records are
// indexed and rows beyond them dropped, as a resume of the hour would.  The
// stream file is only read: a torn tail is cut by the writer when it resumes
// the hour, and playback never delivers it.
#include "maintenance.h"
#include "media/index_row.h"
#include "media/record_scan.h"
#include "media/stream_file.h"

namespace vrix {
namespace {

// Repair's side of the restart search: its own connection and holder, no
// lock (nothing else is open), rows below the end of the whole records.
struct RepairRestart {
    static constexpr bool kInclusive = false;
    SqlHandle db;
    Holder &holder;
    FILE *fp;
    long long size;
    bool video;
    int query(const char *sql) { return query_locked(nullptr, db, sql, "%u", holder.t); }
    ResultTable &offsets() { return holder.t; }
    bool agrees(long long offset, int sec) {
        return video ? key_frame_agrees(fp, offset, size, sec)
                     : audio_record_agrees(fp, offset, size, sec);
    }
    void row_read() {}
};

} // namespace

void reconcile_hour(SqlHandle db, FILE *fp, int hour, bool video) {
    long long size = file_size(fp);
    if (!db || size < 0) return;
    if (!video) size -= size % VRIX_AUDIO_RECORD_SIZE;
    Holder holder(1, kOffsetCell);
    if (!holder.t) return;
    RepairRestart w{db, holder, fp, size, video};
    const long long from = restart_point(w, hour, size);
    if (from != kIndexUnknown) index_from(fp, from, size, hour, video, nullptr, db);
}

} // namespace vrix
