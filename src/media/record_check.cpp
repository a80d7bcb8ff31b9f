#include "record_check.h"

#include "store/records.h"

#include <cstdint>

namespace vrix {

namespace {

// Reads the `n` bytes at `offset`; false (end-of-file state cleared) when
// fewer arrive.
bool read_at(FILE *fp, long long offset, unsigned char *out, size_t n) {
    if (fseeko(fp, offset, SEEK_SET) == 0 && std::fread(out, 1, n, fp) == n) return true;
    std::clearerr(fp);
    return false;
}

} // namespace

AtRow audio_record_at(FILE *fp, long long offset, long long size, int sec) {
    if (offset < 0) return AtRow::Disagrees;
    unsigned char head[12];
    if (size - offset < static_cast<long long>(sizeof head)) return AtRow::NotYet;
    if (!read_at(fp, offset, head, sizeof head)) return AtRow::Disagrees;
    int32_t s;
    uint32_t w;
    if (!parse_audio_record(head, s, w) || s != sec || s == 0) return AtRow::Disagrees;
    return size - offset < VRIX_AUDIO_RECORD_SIZE ? AtRow::NotYet : AtRow::Agrees;
}

AtRow key_frame_at(FILE *fp, long long offset, long long size, int sec, long long max_len) {
    constexpr size_t kHead = VRIX_FRAME_HEADER_SIZE + VRIX_FRAME_KEY_BYTE + 1;
    if (offset < 0) return AtRow::Disagrees;
    unsigned char head[kHead];
    if (size - offset < static_cast<long long>(kHead)) return AtRow::NotYet;
    if (!read_at(fp, offset, head, kHead)) return AtRow::Disagrees;
    FrameInfo f{};
    parse_frame(head, kHead, f);
    if (f.len <= VRIX_FRAME_KEY_BYTE || f.len > max_len || !f.key || f.sec != sec || f.sec == 0)
        return AtRow::Disagrees;
    const long long end = offset + VRIX_FRAME_HEADER_SIZE + static_cast<long long>(f.len);
    return end <= size ? AtRow::Agrees : AtRow::NotYet;
}

} // namespace vrix
