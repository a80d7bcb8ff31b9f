// Replacing a file without a moment in which neither the old nor the new one
// is whole: the new bytes go to a temporary file beside it, every write
// checked, are made durable, and the temporary is renamed over the old file,
// whose directory is then synced.  Backup, restore and the rebuilds of
// repair all go this way.
#pragma once

#include <cstddef>
#include <functional>

namespace vrix {

// Up to `n` bytes at `offset` of the source into `buf`: the number read, -1
// on failure.
using ReadAt = std::function<long long(long long offset, unsigned char *buf, size_t n)>;

// Makes `tmp` anew with the first `size` bytes `read` gives, through `buf`,
// every write checked.  False (errno kept) when any step failed; `tmp` is
// then removed.
bool write_temp(const char *tmp, long long size, const ReadAt &read, unsigned char *buf,
                size_t buf_size);

// Makes `tmp` durable, renames it over `to` and syncs the directory.  False
// (errno kept) when a step failed: `tmp` is then removed, unless it was
// renamed already and only the directory could not be synced.
bool put_in_place(const char *tmp, const char *to);

// Syncs the directory that holds `path`.
bool sync_parent(const char *path);

} // namespace vrix
