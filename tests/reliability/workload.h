// The recorder workload of the reliability suite.  Every frame and event is a
// pure function of its channel and round, so a verifier can check anything the
// store hands back without keeping a copy of what was written.
#pragma once

#include "support/frames.h"
#include "vrixdb.h"

#include <cstdint>
#include <cstring>
#include <ctime>
#include <optional>
#include <vector>

namespace vrix::rel {

constexpr int kChannels = 16;
constexpr int kT0 = 1710104400;  // 2024-03-10 21:00 UTC: a day boundary comes early
constexpr int kSecPerRound = 4;  // an hour is 900 rounds
constexpr int kEventEvery = 48;  // rounds between two events
constexpr int kPlayBuf = 262144; // playback buffer: the largest frame fits

inline int round_sec(uint32_t r) {
    return kT0 + static_cast<int>(r) * kSecPerRound;
}
// The round of a time, or -1 for a time no round has.
inline long long round_of_sec(long long sec) {
    if (sec < kT0 || (sec - kT0) % kSecPerRound) return -1;
    return (sec - kT0) / kSecPerRound;
}

inline uint32_t mix(uint32_t a, uint32_t b) {
    uint32_t h = a * 0x9E3779B1u ^ (b + 0x7F4A7C15u) * 0x85EBCA77u;
    h ^= h >> 15;
    h *= 0x2C1B3C6Du;
    return h ^ (h >> 13);
}

// Key frames every 3..7 rounds, not aligned across channels; the scale moves
// through the commit thresholds 0, 5, 10 and 2 every 450 rounds.
inline bool is_key(int ch, uint32_t r) {
    return (r + static_cast<uint32_t>(ch)) % (3u + static_cast<uint32_t>(ch) % 5u) == 0;
}
inline unsigned scale_of(int ch, uint32_t r) {
    static constexpr unsigned kScales[] = {0, 1, 2, 9};
    return kScales[(static_cast<uint32_t>(ch) + r / 450u) % 4u];
}
// Now and then a key frame too big for the write-behind buffer.
inline int payload_of(int ch, uint32_t r) {
    const uint32_t h = mix(static_cast<uint32_t>(ch), r);
    if (is_key(ch, r))
        return h % 1024u == 7 ? 131072 + static_cast<int>(h % 4096u) : 200 + h % 1000u;
    return 37 + static_cast<int>(h % 260u);
}

inline std::vector<unsigned char> frame(int ch, uint32_t r) {
    return test::make_frame(ch, round_sec(r), is_key(ch, r), payload_of(ch, r), scale_of(ch, r), r);
}

// The frame a playback step delivered, if it is byte for byte the generator's
// frame of the round its second time word names.
inline std::optional<uint32_t> identify(int ch, int sec, int sec2, int scale, const void *payload,
                                        int len) {
    const uint32_t r = static_cast<uint32_t>(sec2);
    if (round_of_sec(sec) != static_cast<long long>(r) || r > (1u << 30)) return std::nullopt;
    if (len != payload_of(ch, r) || static_cast<unsigned>(scale) != scale_of(ch, r))
        return std::nullopt;
    const auto f = frame(ch, r);
    if (std::memcmp(f.data() + VRIX_FRAME_HEADER_SIZE, payload, static_cast<size_t>(len)) != 0)
        return std::nullopt;
    return r;
}

// Events: one every kEventEvery rounds, its channel and type from the round
// (type 8 is left out: the library moves it to its minute's first second).
inline bool has_event(uint32_t r) {
    return r % kEventEvery == 0;
}
inline int event_ch(uint32_t r) {
    return 1 + static_cast<int>(r / kEventEvery) % kChannels;
}
inline int event_type(uint32_t r) {
    static constexpr int kTypes[] = {1, 2, 4, 16, 32, 64};
    return kTypes[(r / kEventEvery) % 6];
}
// The round of an event page record, if it is one the generator makes.
inline std::optional<uint32_t> identify_event(const EventRecord &e) {
    const long long r = round_of_sec(e.iSec);
    if (r < 0 || !has_event(static_cast<uint32_t>(r))) return std::nullopt;
    const auto u = static_cast<uint32_t>(r);
    if (e.iCh != event_ch(u) || e.iType != event_type(u)) return std::nullopt;
    return u;
}

// Audio: one block per round, each channel's piece from the channel and
// round; the second time word carries the round.
constexpr int kAudioChannels = VRIX_AUDIO_CHANNELS;
inline void audio_piece(int ch, uint32_t r, unsigned char *out) {
    uint32_t x = mix(100u + static_cast<uint32_t>(ch), r);
    for (int i = 0; i < VRIX_AUDIO_PIECE_SIZE; ++i) {
        x = x * 1103515245u + 12345u;
        out[i] = static_cast<unsigned char>(x >> 16);
    }
}
inline VrixAudioBlock audio_block(uint32_t r) {
    return test::audio_block(static_cast<int>(round_sec(r)), r,
                             [r](int ch, unsigned char *piece) { audio_piece(ch, r, piece); });
}
// The round of a 60-byte record playback delivered, if it is exactly the
// generator's record.
inline std::optional<uint32_t> identify_audio(int ch, const unsigned char *rec, int len) {
    if (len != VRIX_AUDIO_RECORD_SIZE) return std::nullopt;
    uint32_t w[3];
    std::memcpy(w, rec, sizeof w);
    unsigned char piece[VRIX_AUDIO_PIECE_SIZE];
    audio_piece(ch, w[2], piece);
    if (w[0] != VRIX_AUDIO_PIECE_SIZE || round_of_sec(static_cast<int32_t>(w[1])) != w[2] ||
        std::memcmp(rec + 12, piece, sizeof piece) != 0)
        return std::nullopt;
    return w[2];
}

} // namespace vrix::rel
