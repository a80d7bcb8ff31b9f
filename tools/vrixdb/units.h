// Byte counts and rates as the reports print them.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

namespace vrixtool {

inline std::string format_bytes(int64_t bytes) {
    char buf[32];
    const double b = static_cast<double>(bytes);
    if (bytes < 0)
        return "-";
    else if (bytes < 1024)
        std::snprintf(buf, sizeof buf, "%lld B", static_cast<long long>(bytes));
    else if (bytes < 1024 * 1024)
        std::snprintf(buf, sizeof buf, "%.1f KiB", b / 1024);
    else if (bytes < 1024LL * 1024 * 1024)
        std::snprintf(buf, sizeof buf, "%.1f MiB", b / (1024 * 1024));
    else
        std::snprintf(buf, sizeof buf, "%.2f GiB", b / (1024 * 1024 * 1024));
    return buf;
}

inline double mib(int64_t bytes) {
    return static_cast<double>(bytes) / (1024.0 * 1024.0);
}

} // namespace vrixtool
