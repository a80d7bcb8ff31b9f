// The demo's synthetic recorder: frames and events that can be generated
// again at any time, so that whatever the store hands back can be compared
// byte for byte with what was written.
#pragma once

#include <cstdint>
#include <vector>

namespace vrixtool {

constexpr int kDemoChannels = 16;
constexpr int kDemoFps = 25;

// Channels 1..12 record all the time; 13..16 record on motion, in blocks of
// 20 seconds, so the store has gaps like a real recorder's.
constexpr int kFirstMotionChannel = 13;
// Channels 1..4 record real H.264 (a short clip made by ffmpeg, compiled in),
// so that a browser plays them; the others synthetic payloads.
constexpr int kH264Channels = 4;
bool records(int ch, long sec);

// Frame `index` (0..24, 0 = the second's key frame) of channel `ch` in second
// `sec`: the whole frame record.  The second time word is the frame's
// millisecond within its second; `scale` goes into the scale word.
void make_frame(std::vector<uint8_t> &out, int ch, long sec, int index, unsigned scale);
// The payload only, for comparing what playback delivers.
void make_payload(std::vector<uint8_t> &out, int ch, long sec, int index);
// The frame index of a second time word.
inline int frame_index(int sec2) {
    return sec2 / (1000 / kDemoFps);
}

// Audio: 4 channels, a block every 40 ms, each piece derived from its
// channel, second and index.  The second time word is the millisecond.
constexpr int kDemoAudioChannels = 4;
constexpr int kDemoAudioBlocks = 25; // a second
void make_audio_block(uint8_t block[200], long sec, int index);
// The 60-byte record the store keeps of channel `ch` (1..4) for that block.
void make_audio_record(uint8_t record[60], int ch, long sec, int index);

struct DemoEvent {
    long sec;
    int ch;
    int type;
};
// The events of second `s` of the recording (0 from the start), at most a few.
std::vector<DemoEvent> events_of_second(long start, long s);

} // namespace vrixtool
