// Event query over one busy day: 100,000 events over 64 channels and the 7
// types.  Times the first page of 100 with a 3-channel, 2-type filter from a
// random start moment, paging through the whole day, and, for comparison,
// the two statements a first page is made of: the start-id lookup (a scan of
// h_all by time) and one page statement.
//
//   bench_events            a quick run: 200 random starts
//   bench_events --full     2,000 random starts
#include "bench_util.h"
#include "core/store_access.h"
#include "store/schema.h"
#include "vrixdb.h"

#include <sys/ipc.h>
#include <sys/msg.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kEvents = 100000;
constexpr int kPage = 100;
constexpr int kDayNoon = 1718020800;           // 2024-06-10
constexpr uint32_t kChLo = 1u << 4 | 1u << 19; // channels 5 and 20
constexpr uint32_t kChHi = 1u << 7;            // channel 40
constexpr uint32_t kTypes = 2 | 4;             // motion, alarm

int g_now;
int bench_now() {
    return g_now;
}

double ms_since(Clock::time_point t0) {
    return std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
}

struct Stats {
    double p50, p99, max;
};
Stats stats(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return {v[v.size() / 2], v[v.size() * 99 / 100], v.back()};
}
void print(const char *what, const std::vector<double> &v) {
    const Stats s = stats(v);
    std::printf("%-44s p50 %8.3f ms   p99 %8.3f ms   max %8.3f ms\n", what, s.p50, s.p99, s.max);
}

std::string day_db_path(const std::string &root, int day) {
    std::tm tm{};
    sec_to_tm(&tm, day);
    char buf[160];
    std::snprintf(buf, sizeof buf, "%s/%04d%02d%02d/event.db", root.c_str(), tm.tm_year + 1900,
                  tm.tm_mon + 1, tm.tm_mday);
    return buf;
}

// One recorded event makes the day's directory, database and date.db row;
// the rest go in with the recorder's insert statement in one transaction.
int fill_day(const std::string &root, std::mt19937 &rng) {
    VrixTestHooks hooks{1, &bench_now};
    vrix_db_set_test_hooks(&hooks);
    EventRecContext *rec = vrix_db_open_rec_event(root.c_str());
    std::tm tm{};
    sec_to_tm(&tm, kDayNoon);
    const int day = kDayNoon - (tm.tm_hour * 3600 + tm.tm_min * 60 + tm.tm_sec);
    g_now = day;
    vrix_db_rec_event(rec, 1, 1, 0, 0);

    // The recorder's own rate, for reference.
    const auto t0 = Clock::now();
    constexpr int kRecorded = 200;
    for (int i = 0; i < kRecorded; ++i) {
        g_now = day + (i + 1) * 86400 / kEvents; // in time order with the batch below
        vrix_db_rec_event(rec, 1 + static_cast<int>(rng() % 64), 1 << (rng() % 7), 0, 0);
    }
    std::printf("recorder: %d events one by one              %8.3f ms per event\n", kRecorded,
                ms_since(t0) / kRecorded);
    vrix_db_close_rec_event(rec);
    vrix_db_set_test_hooks(nullptr);

    std::string batch;
    char row[96];
    for (int i = 1 + kRecorded; i < kEvents; ++i) {
        std::snprintf(row, sizeof row, vrix::sql::kInsertEvent,
                      day + static_cast<int>(static_cast<long long>(i) * 86400 / kEvents),
                      1 + static_cast<int>(rng() % 64), 1 << (rng() % 7));
        batch += row;
    }
    SqlHandle db = nullptr;
    vrix::open_db(vrix::event_mutex(), day_db_path(root, day).c_str(), db);
    vrix::commit_rows(vrix::event_mutex(), db, batch.c_str());
    vrix::close_db(vrix::event_mutex(), db);
    return day;
}

EventQueryContext *open_query(const std::string &root, int start, int exactWalk) {
    std::tm tm{};
    sec_to_tm(&tm, start);
    return vrix_db_open_get_event(&tm, kChLo, kChHi, 0, kTypes, root.c_str(), kPage, 0, exactWalk);
}

// The two statements of a first page, run alone on the day's database.
void statements(const std::string &path, int day, int samples, std::mt19937 &rng) {
    SqlHandle db = nullptr;
    vrix::open_db(vrix::event_mutex(), path.c_str(), db);
    ResultTable one = vrix::make_holder(1, vrix::kIntCell);
    ResultTable cols[4];
    for (ResultTable &c : cols)
        c = vrix::make_holder(kPage, vrix::kIntCell);
    std::vector<double> scan, seek, pagestmt;
    char sql[768];
    for (int i = 0; i < samples; ++i) {
        const int start = day + static_cast<int>(rng() % 86400);
        std::snprintf(sql, sizeof sql, vrix::sql::kEventFirstIdFrom, start);
        auto t0 = Clock::now();
        sql_submit(db, sql, "%d", &one);
        scan.push_back(ms_since(t0));
        // The library's way with the index: lateness, nearest time, range.
        t0 = Clock::now();
        int late = 0, near = start;
        sql_submit(db, vrix::sql::kEventLateness, "%d", &one);
        vrix::holder_int(one, late);
        std::snprintf(sql, sizeof sql, vrix::sql::kEventSecFrom, start);
        if (sql_submit(db, sql, "%d", &one) > 0) vrix::holder_int(one, near);
        std::snprintf(sql, sizeof sql, vrix::sql::kEventFirstIdIn, start, near + late);
        sql_submit(db, sql, "%d", &one);
        seek.push_back(ms_since(t0));
        int id = 1;
        vrix::holder_int(one, id);
        std::snprintf(sql, sizeof sql, vrix::sql::kEventPageForward,
                      "(ch=5 or ch=20 or ch=40) and ", "(type=2 or type=4) and ", id, kPage);
        t0 = Clock::now();
        sql_submit(db, sql, "%d %d %d %d", &cols[0], &cols[1], &cols[2], &cols[3]);
        pagestmt.push_back(ms_since(t0));
    }
    print("  start id: min(id) where sec >= t", scan);
    print("  start id through the index on times", seek);
    print("  one page statement, 100 of the filter", pagestmt);
    db_free_sqlite(one, 1);
    for (ResultTable c : cols)
        db_free_sqlite(c, kPage);
    vrix::close_db(vrix::event_mutex(), db);
}

} // namespace

int main(int argc, char **argv) {
    const bool full = argc > 1 && std::strcmp(argv[1], "--full") == 0;
    const int samples = full ? 2000 : 200;
    if (!bench::start_library()) {
        std::puts("bench_events : start-up failed");
        return 1;
    }
    char tmpl[] = "/tmp/vrixdb-bench-events-XXXXXX";
    if (!mkdtemp(tmpl)) return 1;
    const std::string root = tmpl;
    std::mt19937 rng(1);

    std::printf("bench_events: %d events over 64 channels and 7 types in one day, page %d,\n"
                "filter 3 channels x 2 types, %d random starts\n",
                kEvents, kPage, samples);
    auto t0 = Clock::now();
    const int day = fill_day(root, rng);
    std::printf("filling the day                                %8.1f ms\n", ms_since(t0));

    std::vector<double> first, firstBack;
    int got = 0;
    for (int i = 0; i < samples; ++i) {
        const int start = day + static_cast<int>(rng() % 86400);
        t0 = Clock::now();
        EventQueryContext *q = open_query(root, start, 0);
        got += vrix_db_next_event(q);
        vrix_db_close_get_event(q);
        first.push_back(ms_since(t0));
        t0 = Clock::now();
        q = open_query(root, start, 0);
        vrix_db_pre_event(q);
        vrix_db_close_get_event(q);
        firstBack.push_back(ms_since(t0));
    }
    print("first page forward (open, page, close)", first);
    print("first page backward (open, page, close)", firstBack);
    std::printf("  (%.1f events per forward first page)\n", static_cast<double>(got) / samples);
    statements(day_db_path(root, day), day, samples, rng);

    for (int exact : {0, 1}) {
        t0 = Clock::now();
        EventQueryContext *q = open_query(root, day, exact);
        int pages = 0, events = 0;
        for (int n; (n = vrix_db_next_event(q)) > 0; ++pages)
            events += n;
        vrix_db_close_get_event(q);
        std::printf("whole day forward, exactWalk %d: %d pages, %d events   %8.1f ms\n", exact,
                    pages, events, ms_since(t0));
    }

    std::error_code ec;
    std::filesystem::remove_all(root, ec);
    return 0;
}
