#include "format.h"

#include <cstdarg>
#include <cstdio>

namespace vrix {

bool format_into(char *buf, size_t size, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    const int n = std::vsnprintf(buf, size, fmt, ap);
    va_end(ap);
    if (n < 0 || static_cast<size_t>(n) >= size) {
        if (size) buf[0] = '\0';
        return false;
    }
    return true;
}

} // namespace vrix
