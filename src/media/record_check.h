// Checking that an index row names a whole record of the kind it indexes:
// a video key frame or an audio record of the row's second.
#pragma once

#include <cstdio>

namespace vrix {

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
