// The store access functions over SQLite 3.
#include "vrixhdd.h"

#include <sqlite3.h>

#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

constexpr int kBusy = -1;
constexpr int kFailed = -2;
constexpr int kMaxColumns = 8;

enum class Cell : unsigned char { Int32, UInt64 };

// Parses "%d %u ..." into cell kinds; false on anything else.
bool parse_format(const char *format, std::vector<Cell> &cells) {
    for (const char *p = format; *p;) {
        if (*p == ' ') {
            ++p;
            continue;
        }
        if (p[0] != '%' || (p[1] != 'd' && p[1] != 'u')) return false;
        cells.push_back(p[1] == 'd' ? Cell::Int32 : Cell::UInt64);
        p += 2;
    }
    return cells.size() <= kMaxColumns;
}

struct Value {
    bool null;
    int64_t v;
};

int failure_code(int rc) {
    rc &= 0xff;
    return (rc == SQLITE_BUSY || rc == SQLITE_LOCKED) ? kBusy : kFailed;
}

struct Statement {
    sqlite3_stmt *stmt = nullptr;
    ~Statement() { sqlite3_finalize(stmt); }
};

// Runs every statement of `sql` in order.  A statement that fails is passed
// over and the rest still run (a batch with one bad row keeps the others);
// the first failure is returned.  Busy or locked stops at once, so that the
// caller can repeat the call.  Rows of the statements that yield columns are
// appended to `rows`.
int run_all(sqlite3 *db, const char *sql, size_t columns, std::vector<Value> &rows) {
    int first_failure = 0;
    const char *tail = sql;
    while (tail && *tail) {
        Statement s;
        const char *next = nullptr;
        int rc = sqlite3_prepare_v2(db, tail, -1, &s.stmt, &next);
        if (next == tail) next = nullptr; // nothing consumed: no way forward
        tail = next;
        if (rc != SQLITE_OK) {
            const int code = failure_code(rc);
            if (code == kBusy) return code;
            if (!first_failure) first_failure = code;
            continue;
        }
        if (!s.stmt) continue; // whitespace or comment only
        const int have = sqlite3_column_count(s.stmt);
        while ((rc = sqlite3_step(s.stmt)) == SQLITE_ROW) {
            if (columns == 0) continue;
            for (size_t c = 0; c < columns; ++c) {
                const int col = static_cast<int>(c);
                const bool null = col >= have || sqlite3_column_type(s.stmt, col) == SQLITE_NULL;
                rows.push_back({null, null ? 0 : sqlite3_column_int64(s.stmt, col)});
            }
        }
        if (rc != SQLITE_DONE) {
            const int code = failure_code(rc);
            if (code == kBusy) return code;
            if (!first_failure) first_failure = code;
        }
    }
    return first_failure;
}

// Writes the collected rows into the caller's holders (see the header).
int store_rows(const std::vector<Cell> &cells, const std::vector<Value> &rows,
               ResultTable **holders) {
    const size_t n = cells.empty() ? 0 : rows.size() / cells.size();
    for (size_t c = 0; c < cells.size(); ++c) {
        if (*holders[c] == nullptr) {
            auto *slots = static_cast<void **>(std::calloc(n ? n : 1, sizeof(void *)));
            if (!slots) return kFailed;
            *holders[c] = slots;
        }
    }
    for (size_t r = 0; r < n; ++r) {
        for (size_t c = 0; c < cells.size(); ++c) {
            void **slots = *holders[c];
            const Value &v = rows[r * cells.size() + c];
            if (v.null) {
                std::free(slots[r]);
                slots[r] = nullptr;
                continue;
            }
            const size_t width = cells[c] == Cell::Int32 ? 4 : 8;
            if (!slots[r] && !(slots[r] = std::calloc(1, width))) return kFailed;
            if (cells[c] == Cell::Int32) {
                const int32_t x = static_cast<int32_t>(v.v);
                std::memcpy(slots[r], &x, 4);
            } else {
                const uint64_t x = static_cast<uint64_t>(v.v);
                std::memcpy(slots[r], &x, 8);
            }
        }
    }
    return static_cast<int>(n);
}

} // namespace

extern "C" int sql_open(const char *path, SqlHandle *handle) {
    if (!path || !handle) return kFailed;
    sqlite3 *db = nullptr;
    const int rc = sqlite3_open_v2(path, &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    if (rc != SQLITE_OK) {
        sqlite3_close(db);
        return failure_code(rc);
    }
    sqlite3_busy_timeout(db, VRIX_SQL_BUSY_TIMEOUT_MS);
    *handle = db;
    return 0;
}

extern "C" int sql_close(SqlHandle handle) {
    if (!handle) return kFailed;
    return sqlite3_close_v2(static_cast<sqlite3 *>(handle)) == SQLITE_OK ? 0 : kFailed;
}

extern "C" int sql_submit(SqlHandle handle, const char *sql, const char *format, ...) {
    if (!handle || !sql) return kFailed;
    std::vector<Cell> cells;
    if (format && !parse_format(format, cells)) return kFailed;

    ResultTable *holders[kMaxColumns] = {};
    va_list ap;
    va_start(ap, format);
    for (size_t c = 0; c < cells.size(); ++c)
        holders[c] = va_arg(ap, ResultTable *);
    va_end(ap);
    for (size_t c = 0; c < cells.size(); ++c)
        if (!holders[c]) return kFailed;

    std::vector<Value> rows;
    const int rc = run_all(static_cast<sqlite3 *>(handle), sql, cells.size(), rows);
    if (rc < 0) return rc;
    if (cells.empty()) return 0;
    return store_rows(cells, rows, holders);
}
