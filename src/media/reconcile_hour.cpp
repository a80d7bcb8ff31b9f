// Reconciling a sound index with its stream file: from the newest row whose
// record agrees (or from 0), the whole valid records are indexed and rows
// beyond them dropped, as a resume of the hour would.  Start-up repair does
// it for the newest hours, and a writer for the hour that a process which
// ended uncleanly left behind.  The stream file is only read: a torn tail is
// cut by the writer when it resumes the hour, and playback never delivers it.
#include "core/calendar.h"
#include "core/file_io.h"
#include "core/store_access.h"
#include "index_row.h"
#include "record_check.h"
#include "record_scan.h"
#include "store/format.h"
#include "store/paths.h"
#include "store/schema.h"
#include "stream_file.h"

namespace vrix {
namespace {

// The reconciler's side of the restart search: its own holder, rows below the
// end of the whole records.
struct ReconcileRestart {
    static constexpr bool kInclusive = false;
    SqlHandle db;
    pthread_mutex_t *m;
    Holder &holder;
    FILE *fp;
    long long size;
    bool video;
    int query(const char *sql) {
        return retry_busy([&] { return query_locked(m, db, sql, "%u", holder.t); });
    }
    ResultTable &offsets() { return holder.t; }
    bool agrees(long long offset, int sec) {
        return video ? key_frame_agrees(fp, offset, size, sec)
                     : audio_record_agrees(fp, offset, size, sec);
    }
    void row_read() {}
};

} // namespace

void reconcile_hour(SqlHandle db, FILE *fp, int hour, bool video, pthread_mutex_t *m) {
    long long size = file_size(fp);
    if (!db || size < 0) return;
    if (!video) size -= size % VRIX_AUDIO_RECORD_SIZE;
    Holder holder(1, kOffsetCell);
    if (!holder.t) return;
    ReconcileRestart w{db, m, holder, fp, size, video};
    const long long from = restart_point(w, hour, size);
    if (from != kIndexUnknown) index_from(fp, from, size, hour, video, m, db);
}

namespace {

// The newest hour at or below `hour` that the H table of `db` lists; -1 when
// none, or when the store cannot say.
int newest_listed_hour(SqlHandle db, int hour, pthread_mutex_t *m) {
    Holder holder(1, kIntCell);
    Sql q;
    format_into(q.text, sizeof q.text, sql::kHourUpTo, hour);
    int found = -1;
    return holder.t && hour >= 0 && query_int(m, db, q.text, holder.t, found) ? found : -1;
}

void reconcile_listed(const IndexPlace &place, SqlHandle db, const char *day, int hour,
                      pthread_mutex_t *m) {
    Path p;
    if (hour < 0 || !place.stream(p, day, hour)) return;
    const File fp(io::open_file(p.text, "rb"));
    if (fp) reconcile_hour(db, fp.get(), hour, place.video, m);
}

} // namespace

void catch_up_previous_hour(const IndexPlace &place, SqlHandle db, const char *day, int day_start,
                            int hour, pthread_mutex_t *m) {
    if (db) {
        const int h = newest_listed_hour(db, hour - 1, m);
        if (h >= 0) return reconcile_listed(place, db, day, h, m);
    }
    std::tm tm{};
    sec_to_tm(&tm, day_start - 1);
    char before[12];
    day_name(before, tm);
    Path p;
    if (!place.db(p, before) || !File(io::open_file(p.text, "rb"))) return;
    Db index(m);
    if (index.open(p.text))
        reconcile_listed(place, index.get(), before, newest_listed_hour(index.get(), 23, m), m);
}

} // namespace vrix
