// The one test of a frame's kind: the library takes a frame for a key frame
// when the two top bits of its payload's key byte are clear.
#pragma once

#include "vrixdb.h"

#include <cstddef>
#include <cstdint>

namespace vrixtool {

inline bool is_key_frame(const uint8_t *payload, size_t len) {
    return len > VRIX_FRAME_KEY_BYTE && (payload[VRIX_FRAME_KEY_BYTE] & VRIX_FRAME_KEY_MASK) == 0;
}

} // namespace vrixtool
