// Rebuilding one hour's index from its stream file, the primary data: a row
// per key frame for video, a row per second for audio, exactly as the
// writers make them.  The scan (media/record_scan.h) ends at the first record
// that is not whole and valid; every SQL failure is passed over.
#include "core/calendar.h"
#include "maintenance.h"
#include "media/record_scan.h"
#include "media/stream_file.h"

namespace {

void rebuild(FILE *fp, SqlHandle db, int hour, bool video) {
    if (!fp || !db) return;
    vrix::refresh_timezone(); // the hour's records are told apart by local time
    const long long size = vrix::file_size(fp);
    if (size >= 0) vrix::index_from(fp, 0, size, hour, video, nullptr, db);
}

} // namespace

extern "C" void vrix_db_repair_video(FILE *fp, SqlHandle db, int hour) {
    rebuild(fp, db, hour, true);
}

extern "C" void vrix_db_repair_audio(FILE *fp, SqlHandle db, int hour) {
    rebuild(fp, db, hour, false);
}
