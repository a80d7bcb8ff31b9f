// Bounded formatting into the library's fixed buffers.
#pragma once

#include "vrixdb.h"

#include <cstddef>

namespace vrix {

// snprintf into buf; false (and an empty buffer) when the text would not fit.
bool format_into(char *buf, size_t size, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));

template <size_t N> struct FixedText {
    char text[N] = {};
    const char *c_str() const { return text; }
};

constexpr size_t kPathSize = 128;   // every path of the store
constexpr size_t kSqlSize = 256;    // one statement
constexpr size_t kBatchSize = 2048; // a batch of index rows
// Root + the longest path suffix fits kPathSize.
constexpr size_t kMaxRootLength = VRIX_MAX_ROOT_LENGTH;

using Path = FixedText<kPathSize>;
using Sql = FixedText<kSqlSize>;

} // namespace vrix
