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

// Cuts the file at `offset` and positions it there: nothing older than the
// restart point survives behind new data.  False when either step failed.
bool cut_stream(FILE *fp, long long offset);

// Writes `len` bytes; returns the number written.
size_t write_bytes(FILE *fp, const void *data, size_t len);

// Reports a short write: the line "rec : ch%d fwrite iRet = %d , Size = %d"
// and the disk-error notice to the application's queue.
void report_short_write(int ch, size_t written, size_t wanted);

} // namespace vrix
