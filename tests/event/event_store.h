// Event test support: a settable clock for the recorder, and direct reads of
// the databases it writes.
#pragma once

#include "store/paths.h"
#include "support/queues.h"
#include "vrixdb.h"

#include <atomic>
#include <cstring>
#include <string>
#include <vector>

namespace vrix::test {

inline std::atomic<int> g_test_now{0};

// Installs the settable clock for the test's lifetime.
struct TestClock {
    TestClock() {
        const VrixTestHooks hooks{1, [] { return g_test_now.load(); }};
        vrix_db_set_test_hooks(&hooks);
    }
    ~TestClock() { vrix_db_set_test_hooks(nullptr); }
    void set(int sec) { g_test_now = sec; }
};

// Day key and day directory of a time in the library's zone (valid once an
// open function has refreshed the zone).
inline int day_key(int sec) {
    std::tm tm{};
    sec_to_tm(&tm, sec);
    return sec - (tm.tm_hour * 3600 + tm.tm_min * 60 + tm.tm_sec);
}
inline std::string day_dir(const std::string &root, int sec) {
    std::tm tm{};
    sec_to_tm(&tm, sec);
    char name[12];
    day_name(name, tm);
    return root + "/" + name;
}

// The rows of a statement with up to three integer columns (none: just run it).
inline std::vector<std::vector<int>> read_rows(const std::string &db_path, const char *sql,
                                               int columns = 0) {
    std::vector<std::vector<int>> out;
    SqlHandle db = nullptr;
    if (sql_open(db_path.c_str(), &db) != 0) return out;
    ResultTable t[3] = {};
    const char *formats[] = {"", "%d", "%d %d", "%d %d %d"};
    const int n = sql_submit(db, sql, formats[columns], &t[0], &t[1], &t[2]);
    for (int r = 0; r < n; ++r) {
        out.emplace_back();
        for (int c = 0; c < columns; ++c)
            out.back().push_back(t[c][r] ? *static_cast<int32_t *>(t[c][r]) : 0);
    }
    for (ResultTable h : t)
        db_free_sqlite(h, n);
    sql_close(db);
    return out;
}

} // namespace vrix::test
