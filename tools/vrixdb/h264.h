// H.264 Annex-B elementary streams and the frame records that carry them.
//
// A stream is cut into access units (the NAL units of one picture, with their
// start codes).  Each access unit is stored as one frame record whose payload
// begins with a private prefix of kPrefixSize bytes:
//
//   offset  size  content
//        0     2  'V' 'H'
//        2     1  0x00 for an access unit with an IDR picture (a key frame),
//                 0x40 for any other (bits 7..6 not both clear)
//        3     1  prefix version, 1
//        4     4  length of the access unit in bytes (little-endian)
//        8     4  number of the access unit from the start of the recording
//       12     2  frames per second of the recording
//       14    22  zero
//       36     1  channel index from 0 (channel number - 1)
//       37     3  zero
//       40     n  the access unit, byte for byte as it was in the stream
//
// Bytes 2 and 36 are the two payload bytes the library reads.  Concatenating
// the access units of consecutive records gives back the original stream.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <vector>

namespace vrixtool {

constexpr size_t kPrefixSize = 40;

struct AccessUnit {
    size_t offset; // where it starts in the stream (its first start code)
    size_t size;
    bool idr;
};

// The access units of an Annex-B stream; bytes before the first start code
// are not part of any.  Empty when there is no start code.
std::vector<AccessUnit> split_access_units(const std::vector<uint8_t> &stream);

// The access units of a stream read piece by piece: it holds one read and
// the unit being completed, never the whole stream.  It reads the file's
// descriptor (what has arrived, up to 1 MiB), so a unit is handed out as soon
// as the next one begins; the FILE is not read through stdio.
class AccessUnitReader {
  public:
    explicit AccessUnitReader(std::FILE *in) : in_(in) {}
    // The next whole access unit; false at the end of the input (or when it
    // cannot be read: failed()).
    bool next(std::vector<uint8_t> &au, bool &idr);
    bool failed() const { return failed_; }
    uint64_t bytes_read() const { return read_; }

  private:
    void fill();
    std::FILE *in_;
    std::vector<uint8_t> buf_; // from the first unit not handed out on
    std::vector<AccessUnit> units_;
    size_t nextUnit_ = 0;
    bool eof_ = false, failed_ = false;
    uint64_t read_ = 0;
};

struct FrameMeta {
    int ch;          // 1..16
    uint32_t number; // access unit number
    uint16_t fps;
    uint32_t sec;  // frame time
    uint32_t sec2; // second time word: milliseconds within the second
};

// The whole frame record (16-byte header, prefix, access unit).
std::vector<uint8_t> wrap_access_unit(const uint8_t *au, size_t size, bool idr,
                                      const FrameMeta &meta);

struct Unwrapped {
    const uint8_t *au;
    size_t size;
    bool idr;
    uint32_t number;
};
// The access unit inside a played-back payload; none when the payload does
// not carry this prefix.
std::optional<Unwrapped> unwrap_payload(const uint8_t *payload, size_t len);

} // namespace vrixtool
