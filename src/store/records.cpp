#include "records.h"

namespace vrix {

bool parse_frame(const unsigned char *rec, size_t avail, FrameInfo &out) {
    if (avail < VRIX_FRAME_HEADER_SIZE) return false;
    out.len = load_le32(rec);
    out.sec = static_cast<int32_t>(load_le32(rec + 4));
    out.sec2 = load_le32(rec + 8);
    out.scale = load_le32(rec + 12);
    const unsigned char *payload = rec + VRIX_FRAME_HEADER_SIZE;
    const size_t have = avail - VRIX_FRAME_HEADER_SIZE;
    out.key =
        have > VRIX_FRAME_KEY_BYTE && (payload[VRIX_FRAME_KEY_BYTE] & VRIX_FRAME_KEY_MASK) == 0;
    out.channel = have > VRIX_FRAME_CHANNEL_BYTE ? payload[VRIX_FRAME_CHANNEL_BYTE] + 1 : 0;
    return true;
}

void pack_frame_header(unsigned char *out, uint32_t len, int32_t sec, uint32_t sec2,
                       uint32_t scale) {
    store_le32(out, len);
    store_le32(out + 4, static_cast<uint32_t>(sec));
    store_le32(out + 8, sec2);
    store_le32(out + 12, scale);
}

void pack_audio_record(unsigned char *out, int32_t sec, uint32_t sec2, const unsigned char *piece) {
    store_le32(out, VRIX_AUDIO_PIECE_SIZE);
    store_le32(out + 4, static_cast<uint32_t>(sec));
    store_le32(out + 8, sec2);
    std::memcpy(out + 12, piece, VRIX_AUDIO_PIECE_SIZE);
}

bool parse_audio_record(const unsigned char *rec, int32_t &sec, uint32_t &sec2) {
    if (load_le32(rec) != VRIX_AUDIO_PIECE_SIZE) return false;
    sec = static_cast<int32_t>(load_le32(rec + 4));
    sec2 = load_le32(rec + 8);
    return true;
}

} // namespace vrix
