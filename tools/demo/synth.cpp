#include "synth.h"

#include "demo_clip.h"
#include "vrixdb.h"
#include "vrixdb/h264.h"

#include <cstring>

namespace vrixtool {
namespace {

uint64_t mix(uint64_t x) {
    x ^= x >> 33;
    x *= 0xff51afd7ed558ccdULL;
    x ^= x >> 33;
    x *= 0xc4ceb9fe1a85ec53ULL;
    x ^= x >> 33;
    return x;
}

uint64_t seed_of(int ch, long sec, int index) {
    return mix(static_cast<uint64_t>(sec) * 1000003ULL + static_cast<uint64_t>(ch) * 131ULL +
               static_cast<uint64_t>(index));
}

// Key frames of 9-12 KiB, the others of 0.6-1.5 KiB: a low-rate stream.
size_t payload_size(uint64_t seed, bool key) {
    return key ? 9000 + seed % 3000 : 600 + seed % 900;
}

void fill_payload(uint8_t *p, size_t len, uint64_t seed, int ch, bool key) {
    uint64_t x = seed | 1;
    size_t i = 0;
    for (; i + 8 <= len; i += 8) {
        x ^= x << 13;
        x ^= x >> 7;
        x ^= x << 17;
        std::memcpy(p + i, &x, 8);
    }
    for (; i < len; ++i)
        p[i] = static_cast<uint8_t>(x >> (8 * (i % 8)));
    p[VRIX_FRAME_KEY_BYTE] = key ? 0x05 : 0x41;
    p[VRIX_FRAME_CHANNEL_BYTE] = static_cast<uint8_t>(ch - 1);
}

void put32(uint8_t *p, uint32_t v) {
    for (int i = 0; i < 4; ++i)
        p[i] = static_cast<uint8_t>(v >> (8 * i));
}

// Channels 1..kH264Channels carry the clip (2 s at 25 frames/s, an IDR
// picture each second): the odd seconds its second half, so the picture
// moves on without a jump.
const std::vector<AccessUnit> &clip_units() {
    static const std::vector<AccessUnit> units =
        split_access_units(std::vector<uint8_t>(kDemoClip, kDemoClip + sizeof kDemoClip));
    return units;
}

std::vector<uint8_t> clip_frame(int ch, long sec, int index) {
    const auto &units = clip_units();
    const size_t n = static_cast<size_t>((sec & 1) * kDemoFps + index) % units.size();
    const FrameMeta meta{ch, static_cast<uint32_t>(n), kDemoFps, static_cast<uint32_t>(sec),
                         static_cast<uint32_t>(index * (1000 / kDemoFps))};
    return wrap_access_unit(kDemoClip + units[n].offset, units[n].size, units[n].idr, meta);
}

} // namespace

void make_payload(std::vector<uint8_t> &out, int ch, long sec, int index) {
    if (ch <= kH264Channels) {
        const auto rec = clip_frame(ch, sec, index);
        out.assign(rec.begin() + VRIX_FRAME_HEADER_SIZE, rec.end());
        return;
    }
    const uint64_t seed = seed_of(ch, sec, index);
    const bool key = index == 0;
    out.resize(payload_size(seed, key));
    fill_payload(out.data(), out.size(), seed, ch, key);
}

bool records(int ch, long sec) {
    return ch < kFirstMotionChannel ||
           mix(static_cast<uint64_t>(sec / 20) * 31ULL + static_cast<uint64_t>(ch)) % 3 != 0;
}

void make_frame(std::vector<uint8_t> &out, int ch, long sec, int index, unsigned scale) {
    if (ch <= kH264Channels) {
        out = clip_frame(ch, sec, index);
        put32(out.data() + 12, scale);
        return;
    }
    const uint64_t seed = seed_of(ch, sec, index);
    const bool key = index == 0;
    const size_t len = payload_size(seed, key);
    out.resize(VRIX_FRAME_HEADER_SIZE + len);
    put32(out.data(), static_cast<uint32_t>(len));
    put32(out.data() + 4, static_cast<uint32_t>(sec));
    put32(out.data() + 8, static_cast<uint32_t>(index * (1000 / kDemoFps)));
    put32(out.data() + 12, scale);
    fill_payload(out.data() + VRIX_FRAME_HEADER_SIZE, len, seed, ch, key);
}

namespace {
void audio_piece(uint8_t *p, int ch, long sec, int index) {
    uint64_t x = seed_of(100 + ch, sec, index);
    for (int i = 0; i < VRIX_AUDIO_PIECE_SIZE; i += 8) {
        x = mix(x + 0x9e3779b97f4a7c15ULL);
        std::memcpy(p + i, &x, 8);
    }
}
} // namespace

void make_audio_block(uint8_t block[200], long sec, int index) {
    for (int ch = 1; ch <= kDemoAudioChannels; ++ch)
        audio_piece(block + (ch - 1) * VRIX_AUDIO_PIECE_SIZE, ch, sec, index);
    put32(block + 192, static_cast<uint32_t>(sec));
    put32(block + 196, static_cast<uint32_t>(index * (1000 / kDemoAudioBlocks)));
}

void make_audio_record(uint8_t record[60], int ch, long sec, int index) {
    put32(record, VRIX_AUDIO_PIECE_SIZE);
    put32(record + 4, static_cast<uint32_t>(sec));
    put32(record + 8, static_cast<uint32_t>(index * (1000 / kDemoAudioBlocks)));
    audio_piece(record + 12, ch, sec, index);
}

std::vector<DemoEvent> events_of_second(long start, long s) {
    std::vector<DemoEvent> out;
    const long sec = start + s;
    const uint64_t h = mix(static_cast<uint64_t>(sec) ^ 0x5eedULL);
    if (s == 5) out.push_back({sec, 1, VRIX_EVENT_MANUAL});
    if (h % 3 == 0)
        out.push_back({sec, static_cast<int>(1 + (h >> 8) % kDemoChannels), VRIX_EVENT_MOTION});
    if (s % 17 == 3)
        out.push_back({sec, static_cast<int>(1 + (s / 17) % kDemoChannels), VRIX_EVENT_ALARM});
    return out;
}

} // namespace vrixtool
