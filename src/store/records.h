// The byte formats of the stream files: video frame records and 60-byte
// audio records, all words little-endian.
#pragma once

#include "vrixdb.h"

#include <cstdint>
#include <cstring>

namespace vrix {

inline uint32_t load_le32(const unsigned char *p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}
inline uint16_t load_le16(const unsigned char *p) {
    return uint16_t(p[0] | p[1] << 8);
}
inline void store_le32(unsigned char *p, uint32_t v) {
    p[0] = static_cast<unsigned char>(v);
    p[1] = static_cast<unsigned char>(v >> 8);
    p[2] = static_cast<unsigned char>(v >> 16);
    p[3] = static_cast<unsigned char>(v >> 24);
}

// What the writer and the readers take from a frame record.  The record must
// hold at least the header; payload fields are read only when present.
struct FrameInfo {
    uint32_t len;   // payload length
    int32_t sec;    // frame time
    uint32_t sec2;  // second time word
    uint32_t scale; // whole scale word
    bool key;       // payload byte 2 has bits 7..6 clear
    int channel;    // payload byte 36 + 1, or 0 when the payload is too short
};

// Parses a header and, if `avail` covers them, the payload's key and channel
// bytes.  Returns false when fewer than 16 bytes are available.
bool parse_frame(const unsigned char *rec, size_t avail, FrameInfo &out);

// The scale that selects the commit threshold: low 16 bits of the scale word.
inline unsigned frame_scale(const FrameInfo &f) {
    return f.scale & 0xffffu;
}

// Packs a video frame record header.
void pack_frame_header(unsigned char *out, uint32_t len, int32_t sec, uint32_t sec2,
                       uint32_t scale);

// Builds the 60-byte audio record of one channel's piece.
void pack_audio_record(unsigned char *out, int32_t sec, uint32_t sec2, const unsigned char *piece);

// Checks an audio record (its first word must be 48) and returns its time.
bool parse_audio_record(const unsigned char *rec, int32_t &sec, uint32_t &sec2);

} // namespace vrix
