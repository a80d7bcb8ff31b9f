// Stream files as the writers and readers use them: opening for resume,
// writing out buffers, cutting at a restart point, and checking that an
// index row names a whole record.
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

// Appends "insert into h%d values(NULL,%d,%lld);" to a batch of `size`
// bytes holding `len`; false (nothing appended) when it would not fit.
bool append_index_row(char *batch, int size, int &len, int hour, int sec, long long offset);

// What an index row finds at its offset: the record it names, something else,
// or a record that runs past the end of the file as it is now (still in the
// writer's buffer, or cut off).
enum class AtRow { Agrees, Disagrees, NotYet };

// A video key frame with the time `sec` and a payload of 1..`max_len` bytes
// at `offset` of a file of `size` bytes.
AtRow key_frame_at(FILE *fp, long long offset, long long size, int sec, long long max_len);

// True when a whole video frame record lies at `offset` of a file of `size`
// bytes, is a key frame and carries the time `sec`.
inline bool key_frame_agrees(FILE *fp, long long offset, long long size, int sec) {
    return key_frame_at(fp, offset, size, sec, 0xFFFFFFFFll) == AtRow::Agrees;
}

// An audio record with the time `sec` at `offset` of a file of `size` bytes.
AtRow audio_record_at(FILE *fp, long long offset, long long size, int sec);

// True when a whole audio record lies at `offset` of a file of `size` bytes
// and carries the time `sec`.
inline bool audio_record_agrees(FILE *fp, long long offset, long long size, int sec) {
    return audio_record_at(fp, offset, size, sec) == AtRow::Agrees;
}

} // namespace vrix
