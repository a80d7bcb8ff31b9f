// Byte counts and rates as the reports print them.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
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

// "500M", "20G", "1.5T", "1048576": bytes, with binary K, M, G, T (an
// optional "iB" or "B" after them).
inline std::optional<int64_t> parse_size(const std::string &text) {
    char *end = nullptr;
    const double n = std::strtod(text.c_str(), &end);
    if (end == text.c_str() || !(n >= 0) || text[0] == '-' || text[0] == '+') return std::nullopt;
    std::string unit(end);
    if (unit.size() > 1 && (unit.substr(1) == "iB" || unit.substr(1) == "B")) unit.resize(1);
    static const std::string units = "KMGT";
    double scale = 1;
    if (!unit.empty() && unit != "B") {
        const size_t at = units.find(unit);
        if (unit.size() != 1 || at == std::string::npos) return std::nullopt;
        for (size_t i = 0; i <= at; ++i)
            scale *= 1024;
    }
    const double bytes = n * scale;
    if (bytes > 9.0e18) return std::nullopt;
    return static_cast<int64_t>(bytes);
}

} // namespace vrixtool
