// Stream files as the writers and readers use them: opening for resume,
// writing out buffers, cutting at a restart point.
#pragma once

#include <cstdio>

namespace vrix {

// Opens an existing stream file for update, else creates it empty; unbuffered
// by the C library (the writers keep their own buffers).  Null when both fail.
FILE *open_stream_for_writing(const char *path);

// Size of an open stream, positioned at its end; -1 on failure.
long long stream_size(FILE *fp);

// Size of an open stream without moving it; -1 on failure.
long long file_size(FILE *fp);

// Cuts the file at `offset` (nothing to do when it ends there) and positions
// it there: nothing older than the restart point survives behind new data.
// False when the cut failed: the file keeps what lies beyond `offset`, and
// the position is its end, where the caller goes on.
bool cut_stream(FILE *fp, long long offset);

// What became of a write of whole records at the stream's position: all of
// it written, or not all, in which case the file has been cut back to `at`
// (where the write began: the end of the last whole record before it), the
// stream's error flag cleared and the position set to `at`.  Should the cut
// fail as well, the position is the file's end and what lies from `at` to it
// is a broken record that a reader passes over.
struct Written {
    bool whole;
    long long at;   // offset the write began at
    size_t written; // bytes the system took before it failed
};
Written write_records(FILE *fp, const void *data, size_t len);

// Reports a short or failed write: the line "<who> : ch%d fwrite iRet = %d ,
// Size = %d" and the disk-error notice to the application's queue.
void report_short_write(const char *who, int ch, size_t written, size_t wanted);

// Reports another failure of the disk under a stream or an index: the line
// "<who> : ch%d <what>" and the disk-error notice.
void report_disk_error(const char *who, int ch, const char *what);

} // namespace vrix
