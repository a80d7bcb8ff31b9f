// Test support (the vrix_test_support library): frame records and audio
// blocks as an encoder hands them over, and a read-only look into the
// store's files.
#pragma once

#include "vrixdb.h"

// The suites take SQLite and the stream and memory functions from here.
#include <sqlite3.h>

#include <cstdint>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace vrix::test {

// A frame of `payload` bytes (at least 37) whose content is derived from its
// channel, time and sequence number, so that every byte can be checked.
std::vector<unsigned char> make_frame(int ch, int sec, bool key, int payload, unsigned scale = 0,
                                      unsigned seq = 0);

inline void record(RecContext *ctx, const std::vector<unsigned char> &f) {
    vrix_db_rec_video(ctx, f.data(), static_cast<int>(f.size()));
}

// An audio block of second `sec` with the second time word `word`; the piece
// of channel ch (1..4) is filled by fill(ch, piece).
template <class Fill> VrixAudioBlock audio_block(int sec, uint32_t word, Fill fill) {
    VrixAudioBlock b{};
    for (int ch = 1; ch <= VRIX_AUDIO_CHANNELS; ++ch)
        fill(ch, b.piece[ch - 1]);
    b.iSec = static_cast<uint32_t>(sec);
    b.iSec2 = word;
    return b;
}

std::vector<unsigned char> file_bytes(const std::string &path);

// The calendar fields of `sec` in the zone the test runs in.
std::tm local_tm(long long sec);

// Rows of a query as text, one string per row with columns joined by ",".
std::vector<std::string> rows(const std::string &db, const std::string &sql);

// Runs SQL text on a database file, creating it; a failure fails the test.
void exec(const std::string &db, const std::string &sql);

} // namespace vrix::test
