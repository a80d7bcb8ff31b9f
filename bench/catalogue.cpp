// The catalogue on the scale benchmark's 30-day store (16 channels x 24
// hours, a key frame per second; see scale_store.h): a month's calendar, a
// day's spans and hours for all 16 channels, a day's event counts and the
// store's bounds, each timed warm (the best of several passes after a
// warming one).  Baselines in the same run: reading every key-frame row of
// the day through the companion library as the program did before the
// catalogue (the spans), and one statement listing date.db's days (the
// calendar).
//
//   bench_catalogue [days=30] [passes=20]
#include "bench_util.h"
#include "report/catalogue_seconds.h"
#include "scale_store.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace {

using namespace scale;

double ms_now() {
    return std::chrono::duration<double, std::milli>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// The first run of the process (which fills the catalogue's memory of
// unchanged databases; the page cache is warm from earlier runs).
double g_first = 0;

// The best of `passes` timed runs after one warming run, in milliseconds;
// the warming run's time in g_first.
double best_ms(int passes, const std::function<long()> &run, long &result) {
    const double t = ms_now();
    result = run();
    g_first = ms_now() - t;
    double best = 1e30;
    for (int i = 0; i < passes; ++i) {
        const double t0 = ms_now();
        result = run();
        best = std::min(best, ms_now() - t0);
    }
    return best;
}

template <class Record> int count_one(const Record *, void *n) {
    ++*static_cast<long *>(n);
    return 0;
}

void problem(const char *path, int reason, void *) {
    std::printf("cannot read %s (%d)\n", path, reason);
}

// The program's former way: every row of every hour table of the day's 16
// video.db files through sql_submit, sorted and cut into spans.
long spans_by_rows(const std::string &root, int day, int gap) {
    long spans = 0;
    std::tm tm{};
    sec_to_tm(&tm, day);
    for (int ch = 1; ch <= kChannels; ++ch) {
        char path[256];
        std::snprintf(path, sizeof path, "%s/%04d%02d%02d/video/%d/video.db", root.c_str(),
                      tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, ch);
        SqlHandle db = nullptr;
        if (sql_open(path, &db) != 0) continue;
        std::vector<long> keys;
        for (int h = 0; h < 24; ++h) {
            char sql[96];
            std::snprintf(sql, sizeof sql, "select sec,offset from h%d order by id;", h);
            ResultTable sec = nullptr, off = nullptr;
            const int n = sql_submit(db, sql, "%u %u", &sec, &off);
            for (int r = 0; r < n; ++r) {
                uint64_t v = 0;
                std::memcpy(&v, sec[r], sizeof v);
                keys.push_back(static_cast<long>(v));
            }
            db_free_sqlite(sec, n > 0 ? n : 1);
            db_free_sqlite(off, n > 0 ? n : 1);
        }
        sql_close(db);
        std::sort(keys.begin(), keys.end());
        for (size_t i = 0; i < keys.size(); ++i)
            if (i == 0 || keys[i] - keys[i - 1] > gap) ++spans;
    }
    return spans;
}

long date_days(const std::string &root) {
    SqlHandle db = nullptr;
    if (sql_open((root + "/date.db").c_str(), &db) != 0) return 0;
    ResultTable t = nullptr;
    const int n = sql_submit(db, "select distinct date from H order by date;", "%u", &t);
    db_free_sqlite(t, n > 0 ? n : 1);
    sql_close(db);
    return n;
}

} // namespace

int main(int argc, char **argv) {
    const int days = argc > 1 ? std::max(1, std::atoi(argv[1])) : 30;
    const int passes = argc > 2 ? std::max(1, std::atoi(argv[2])) : 20;
    if (!bench::start_library()) return 1;
    const std::string root = store(days);
    const char *r = root.c_str();
    const int from = kDay0, to = kDay0 + days * 86400;
    const int day = kDay0 + (days / 2) * 86400, next = day + 86400;
    std::printf("catalogue on the %d-day store (16 channels x 24 hours, a key frame a second), "
                "best of %d warm passes:\n",
                days, passes);

    long n = 0, base = 0;
    const double calendar = best_ms(
        passes,
        [&] {
            long k = 0;
            vrix_cat_days(r, from, to, count_one<VrixCatDay>, &k, problem);
            return k;
        },
        n);
    const double calendarBase = best_ms(
        passes, [&] { return date_days(root); }, base);
    std::printf(
        "  calendar of %d days       %8.3f ms (%ld days); one statement on date.db %.3f ms, "
        "ratio %.1f\n",
        days, calendar, n, calendarBase, calendar / calendarBase);

    for (int gap : {10, 1}) {
        vrix::cat::forget_day_seconds(); // the first call reads every day's index
        const double spans = best_ms(
            passes,
            [&] {
                long k = 0;
                for (int ch = 1; ch <= kChannels; ++ch)
                    vrix_cat_spans(r, VRIX_CAT_VIDEO, ch, day, next, gap, count_one<VrixCatSpan>,
                                   &k, problem);
                return k;
            },
            n);
        const double first = g_first;
        const double rows = best_ms(
            std::max(1, passes / 4), [&] { return spans_by_rows(root, day, gap); }, base);
        std::printf("  a day's spans, 16 ch, gap %2d %8.3f ms (%ld spans; first call %.1f ms); "
                    "every row read as before %.1f ms (%ld), ratio %.4f (first call %.2f)\n",
                    gap, spans, n, first, rows, base, spans / rows, first / rows);
    }
    const double hours = best_ms(
        passes,
        [&] {
            long k = 0;
            for (int ch = 1; ch <= kChannels; ++ch)
                vrix_cat_hours(r, VRIX_CAT_VIDEO, ch, day, day + 1, count_one<VrixCatHour>, &k,
                               problem);
            return k;
        },
        n);
    std::printf(
        "  a day's hours, 16 ch        %8.3f ms (%ld hour files: rows, first, last, bytes)\n",
        hours, n);
    const double events = best_ms(
        passes,
        [&] {
            long k = 0;
            vrix_cat_events(r, from, to, count_one<VrixCatEvents>, &k, problem);
            return k;
        },
        n);
    std::printf("  event counts of %d days   %8.3f ms (%ld day/channel/type records)\n", days,
                events, n);
    int first = 0, last = 0;
    const double bounds = best_ms(
        passes,
        [&] {
            return static_cast<long>(
                vrix_cat_bounds(r, VRIX_CAT_VIDEO, 0, &first, &last, problem, nullptr));
        },
        n);
    std::printf("  oldest and newest, 16 ch    %8.3f ms (%d .. %d)\n", bounds, first, last);
    std::printf("peak RSS            : %ld KiB\n", bench::peak_rss_kib());
    return 0;
}
