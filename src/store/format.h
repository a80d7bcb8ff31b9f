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

// A path of the store with something added beside it: the "-journal" and
// ".sql" files next to a database, or the "./" that keeps a path from being
// read as an option.  Repair's longest, the journal of a channel's video.db
// under a 98-character root (with the doubled "/" of its directory form), is
// 134 characters.
constexpr size_t kSidePathSize = kPathSize + 16;

using Path = FixedText<kPathSize>;
using SidePath = FixedText<kSidePathSize>;
using Sql = FixedText<kSqlSize>;

} // namespace vrix
