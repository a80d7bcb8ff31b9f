#include "durable_copy.h"

#include "core/file_io.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

namespace vrix {
namespace {

// Keeps errno across the removal of a temporary after a failure.
bool drop(const char *tmp) {
    const int e = errno;
    io::remove_file(tmp);
    errno = e;
    return false;
}

} // namespace

bool sync_parent(const char *path) {
    const char *slash = std::strrchr(path, '/');
    const std::string dir = !slash          ? "."
                            : slash == path ? "/"
                                            : std::string(path, static_cast<size_t>(slash - path));
    return io::sync_dir(dir.c_str());
}

bool write_temp(const char *tmp, long long size, const ReadAt &read, unsigned char *buf,
                size_t buf_size) {
    FILE *out = io::open_file(tmp, "wb");
    if (!out) return drop(tmp); // it may have been made before the failure
    bool ok = true;
    for (long long at = 0; ok && at < size;) {
        const size_t want = static_cast<size_t>(std::min<long long>(size - at, buf_size));
        const long long got = read(at, buf, want);
        if (got <= 0) {
            if (got == 0) errno = EIO; // the source ended before its size
            ok = false;
            break;
        }
        ok = std::fwrite(buf, 1, static_cast<size_t>(got), out) == static_cast<size_t>(got);
        at += got;
    }
    ok = ok && std::fflush(out) == 0;
    const int e = errno;
    const bool closed = std::fclose(out) == 0;
    errno = ok ? errno : e;
    return (ok && closed) || drop(tmp);
}

bool put_in_place(const char *tmp, const char *to) {
    FILE *fp = io::open_file(tmp, "rb+");
    if (!fp) return drop(tmp);
    const bool synced = io::sync_file(fp);
    const int e = errno;
    if (std::fclose(fp) != 0 || !synced) {
        errno = synced ? errno : e;
        return drop(tmp);
    }
    if (!io::rename_file(tmp, to)) return drop(tmp);
    return sync_parent(to);
}

} // namespace vrix
