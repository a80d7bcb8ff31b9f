#include "index_row.h"

#include "store/schema.h"

#include <cstdio>

namespace vrix {

bool append_index_row(char *batch, int size, int &len, int hour, int sec, long long offset) {
    const int room = size - len;
    const int n =
        std::snprintf(batch + len, static_cast<size_t>(room), sql::kInsertIndex, hour, sec, offset);
    if (n < 0 || n >= room) {
        batch[len] = '\0';
        return false;
    }
    len += n;
    return true;
}

} // namespace vrix
