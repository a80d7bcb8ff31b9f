#include "h264.h"

#include "key_frame.h"

#include "vrixdb.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace vrixtool {
namespace {

struct Nal {
    size_t start;  // first byte of its start code (a leading zero byte included)
    size_t header; // its NAL header byte
};

std::vector<Nal> find_nals(const std::vector<uint8_t> &s) {
    std::vector<Nal> nals;
    const size_t n = s.size();
    for (size_t i = 0; i + 3 <= n; ++i) {
        if (s[i] != 0 || s[i + 1] != 0 || s[i + 2] != 1) continue;
        const size_t header = i + 3;
        const size_t start = i > 0 && s[i - 1] == 0 ? i - 1 : i; // 4-byte start code
        if (header < n) nals.push_back({start, header});
        i += 2;
    }
    return nals;
}

bool is_vcl(int type) {
    return type >= 1 && type <= 5;
}

// A slice whose first_mb_in_slice is 0 (its Exp-Golomb code is the single bit
// 1) begins a new picture.
bool first_slice_of_picture(const std::vector<uint8_t> &s, size_t header) {
    return header + 1 < s.size() && (s[header + 1] & 0x80) != 0;
}

void put32(uint8_t *p, uint32_t v) {
    for (int i = 0; i < 4; ++i)
        p[i] = static_cast<uint8_t>(v >> (8 * i));
}

uint32_t get32(const uint8_t *p) {
    return p[0] | p[1] << 8 | p[2] << 16 | static_cast<uint32_t>(p[3]) << 24;
}

} // namespace

std::vector<AccessUnit> split_access_units(const std::vector<uint8_t> &stream) {
    std::vector<AccessUnit> units;
    const auto nals = find_nals(stream);
    bool haveVcl = false;
    for (const Nal &nal : nals) {
        const int type = stream[nal.header] & 0x1F;
        bool starts = units.empty();
        if (!starts && haveVcl) {
            // Delimiters, parameter sets and SEI open the next picture; so does
            // the first slice of a new picture.
            if (type == 9 || type == 7 || type == 8 || type == 6 || (type >= 14 && type <= 18))
                starts = true;
            else if (is_vcl(type) && first_slice_of_picture(stream, nal.header))
                starts = true;
        }
        if (starts) {
            if (!units.empty()) units.back().size = nal.start - units.back().offset;
            units.push_back({nal.start, 0, false});
            haveVcl = false;
        }
        if (is_vcl(type)) haveVcl = true;
        if (type == 5) units.back().idr = true;
    }
    if (!units.empty()) units.back().size = stream.size() - units.back().offset;
    return units;
}

// The last unit split off may go on in the next read, so it is handed out
// only at the end of the input.
bool AccessUnitReader::next(std::vector<uint8_t> &au, bool &idr) {
    while (nextUnit_ + 1 >= units_.size() && !(eof_ && nextUnit_ < units_.size())) {
        if (eof_) return false;
        fill();
    }
    const AccessUnit &u = units_[nextUnit_++];
    au.assign(buf_.begin() + static_cast<long>(u.offset),
              buf_.begin() + static_cast<long>(u.offset + u.size));
    idr = u.idr;
    return true;
}

// Drops what was handed out, reads on and splits again.
void AccessUnitReader::fill() {
    constexpr size_t kRead = 1 << 20;
    // Before the first start code only the bytes that may begin one are kept.
    const size_t keep = nextUnit_ < units_.size() ? units_[nextUnit_].offset
                        : units_.empty()          ? (buf_.size() > 3 ? buf_.size() - 3 : 0)
                                                  : buf_.size();
    buf_.erase(buf_.begin(), buf_.begin() + static_cast<long>(keep));
    const size_t had = buf_.size();
    buf_.resize(had + kRead);
    // Whatever has arrived: a live feed through a pipe is split as it comes,
    // not when a whole block has.
    ssize_t got;
    do
        got = ::read(fileno(in_), buf_.data() + had, kRead);
    while (got < 0 && errno == EINTR);
    if (got <= 0) {
        eof_ = true;
        failed_ = got < 0;
        got = 0;
    }
    buf_.resize(had + static_cast<size_t>(got));
    read_ += static_cast<uint64_t>(got);
    units_ = split_access_units(buf_);
    nextUnit_ = 0;
}

std::vector<uint8_t> wrap_access_unit(const uint8_t *au, size_t size, bool idr,
                                      const FrameMeta &meta) {
    const size_t payload = kPrefixSize + size;
    std::vector<uint8_t> rec(VRIX_FRAME_HEADER_SIZE + payload, 0);
    uint8_t *h = rec.data();
    put32(h, static_cast<uint32_t>(payload));
    put32(h + 4, meta.sec);
    put32(h + 8, meta.sec2);
    put32(h + 12, 0); // scale 0: the index row is committed at once
    uint8_t *p = h + VRIX_FRAME_HEADER_SIZE;
    p[0] = 'V';
    p[1] = 'H';
    p[VRIX_FRAME_KEY_BYTE] = idr ? 0x00 : 0x40;
    p[3] = 1;
    put32(p + 4, static_cast<uint32_t>(size));
    put32(p + 8, meta.number);
    p[12] = static_cast<uint8_t>(meta.fps);
    p[13] = static_cast<uint8_t>(meta.fps >> 8);
    p[VRIX_FRAME_CHANNEL_BYTE] = static_cast<uint8_t>(meta.ch - 1);
    if (size) std::memcpy(p + kPrefixSize, au, size);
    return rec;
}

std::optional<Unwrapped> unwrap_payload(const uint8_t *p, size_t len) {
    if (len < kPrefixSize || p[0] != 'V' || p[1] != 'H' || p[3] != 1) return std::nullopt;
    const uint32_t size = get32(p + 4);
    if (size != len - kPrefixSize) return std::nullopt;
    return Unwrapped{p + kPrefixSize, size, is_key_frame(p, len), get32(p + 8)};
}

} // namespace vrixtool
