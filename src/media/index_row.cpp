#include "index_row.h"

#include "store/schema.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>

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

int drop_rows_from(char *batch, int &len, int hour, long long from) {
    int kept = 0, dropped = 0;
    for (int at = 0; at < len;) {
        const char *end = std::strchr(batch + at, ';');
        const int next = end ? static_cast<int>(end - batch) + 1 : len;
        int h = -1, sec = 0;
        long long offset = -1;
        const bool goes = std::sscanf(batch + at, "insert into h%d values(NULL,%d,%lld);", &h, &sec,
                                      &offset) == 3 &&
                          h == hour && offset >= from;
        if (goes) {
            ++dropped;
        } else {
            std::memmove(batch + kept, batch + at, static_cast<size_t>(next - at));
            kept += next - at;
        }
        at = next;
    }
    len = kept;
    batch[len] = '\0';
    return dropped;
}

std::string undo_partial_batch(const char *batch, int len) {
    long long first[24];
    std::fill(std::begin(first), std::end(first), -1LL);
    for (int at = 0; at < len;) {
        const char *end = std::strchr(batch + at, ';');
        int h = -1, sec = 0;
        long long offset = -1;
        if (std::sscanf(batch + at, "insert into h%d values(NULL,%d,%lld);", &h, &sec, &offset) ==
                3 &&
            h >= 0 && h < 24 && (first[h] < 0 || offset < first[h]))
            first[h] = offset;
        at = end ? static_cast<int>(end - batch) + 1 : len;
    }
    std::string out;
    for (int h = 0; h < 24; ++h) {
        if (first[h] < 0) continue;
        Sql q;
        format_into(q.text, sizeof q.text, sql::kDeleteRowsFrom, h, first[h]);
        out += q.text;
    }
    return out;
}

} // namespace vrix
