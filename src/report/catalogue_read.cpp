// The catalogue's reads: problems reported once per call, and read-only
// index databases that are never created by looking.
#include "catalogue.h"

#include "core/calendar.h"
#include "store/log.h"
#include "store/paths.h"

#include <sys/stat.h>

#include <cstdint>
#include <cstring>

namespace vrix::cat {

void Call::report(const char *path, int reason) {
    incomplete_ = true;
    for (const Path &p : reported_)
        if (std::strcmp(p.text, path) == 0) return;
    Path copy;
    format_into(copy.text, sizeof copy.text, "%s", path);
    reported_.push_back(copy);
    if (problem_) problem_(path, reason, user_);
}

bool exists(const char *path) {
    struct stat st {};
    return stat(path, &st) == 0;
}

long long size_of(const char *path) {
    struct stat st {};
    if (stat(path, &st) != 0 || !S_ISREG(st.st_mode)) return -1;
    return static_cast<long long>(st.st_size);
}

ReadDb::ReadDb(Call &call, pthread_mutex_t *m, const char *path) : call_(call), m_(m) {
    format_into(path_.text, sizeof path_.text, "%s", path);
    struct stat st {};
    if (stat(path, &st) != 0 || !S_ISREG(st.st_mode)) return; // not there: empty
    if (!open_db(m_, path, h_)) {
        // Gone meanwhile (a day reclaimed) is nothing to report.
        if (exists(path)) fail(VRIX_CAT_DAMAGED);
        return;
    }
    // This connection never writes, whatever a caller's statement says.
    if (submit_locked(m_, h_, "PRAGMA query_only=1;") < 0) fail(VRIX_CAT_DAMAGED);
}

ReadDb::~ReadDb() {
    close_db(m_, h_);
}

void ReadDb::fail(int reason) {
    if (reason == VRIX_CAT_LOCKED) locked_ = true;
    if (failed_) return;
    failed_ = true;
    call_.report(path_.text, reason);
}

bool ReadDb::query(const char *sql, int columns, std::vector<long long> &out, long long null_as) {
    if (!usable() || columns < 1 || columns > 8) return false;
    static const char *const kFormats[] = {"%u",
                                           "%u %u",
                                           "%u %u %u",
                                           "%u %u %u %u",
                                           "%u %u %u %u %u",
                                           "%u %u %u %u %u %u",
                                           "%u %u %u %u %u %u %u",
                                           "%u %u %u %u %u %u %u %u"};
    ResultTable t[8] = {};
    const int n = retry_busy([&] {
        SqlLock hold(m_);
        return sql_submit(h_, sql, kFormats[columns - 1], &t[0], &t[1], &t[2], &t[3], &t[4], &t[5],
                          &t[6], &t[7]);
    });
    for (int r = 0; r < n; ++r)
        for (int c = 0; c < columns; ++c) {
            uint64_t v = 0;
            if (t[c] && t[c][r])
                std::memcpy(&v, t[c][r], sizeof v);
            else
                v = static_cast<uint64_t>(null_as);
            out.push_back(static_cast<long long>(v));
        }
    for (int c = 0; c < columns; ++c)
        db_free_sqlite(t[c], n > 0 ? n : 1);
    if (n < 0) fail(n == kBusy ? VRIX_CAT_LOCKED : VRIX_CAT_DAMAGED);
    return n >= 0;
}

bool ReadDb::hour_tables(bool &has_h, std::vector<int> &tables) {
    has_h = false;
    tables.clear();
    std::vector<long long> rows;
    if (!query("select case when name = 'H' then -1 else cast(substr(name, 2) as int) end "
               "from sqlite_master where type = 'table' and (name = 'H' or name glob "
               "'h[0-9]*');",
               1, rows))
        return false;
    for (long long v : rows) {
        if (v == -1)
            has_h = true;
        else if (v >= 0 && v <= 23)
            tables.push_back(static_cast<int>(v));
    }
    return true;
}

bool ReadDb::listed_hours(std::vector<int> &hours) {
    hours.clear();
    bool has_h = false;
    std::vector<int> tables;
    if (!hour_tables(has_h, tables)) return false;
    if (!has_h) return true;
    std::vector<long long> rows;
    if (!query("select distinct hour from H where hour >= 0 and hour <= 23 order by hour;", 1,
               rows))
        return false;
    for (long long h : rows)
        hours.push_back(static_cast<int>(h));
    return true;
}

int day_key(long long t) {
    const std::tm tm = fields_of(t);
    return day_start(static_cast<int>(t), tm);
}

bool days_in(ReadDb &date, const char *table, long long from, long long to,
             std::vector<int> &days) {
    days.clear();
    if (!date.usable()) return !date.failed();
    Sql q;
    format_into(q.text, sizeof q.text,
                "select count(*) from sqlite_master where type = 'table' and name = '%s';", table);
    std::vector<long long> rows;
    if (!date.query(q.text, 1, rows)) return false;
    if (rows.empty() || rows[0] == 0) return true;
    rows.clear();
    format_into(q.text, sizeof q.text,
                "select distinct date from %s where date >= %lld and date < %lld order by date;",
                table, from, to);
    if (!date.query(q.text, 1, rows)) return false;
    for (long long d : rows)
        days.push_back(static_cast<int>(d));
    return true;
}

pthread_mutex_t *index_mutex(int kind, int ch) {
    switch (kind) {
    case VRIX_CAT_VIDEO:
        return video_mutex(ch);
    case VRIX_CAT_AUDIO:
        return audio_mutex();
    default:
        return event_mutex();
    }
}

bool index_db_path(Path &p, const char *root, int kind, int day, int ch) {
    const std::tm d = day_fields(day);
    switch (kind) {
    case VRIX_CAT_VIDEO:
        return reader_video_db(p, root, d, ch);
    case VRIX_CAT_AUDIO:
        return reader_audio_db(p, root, d);
    default:
        return reader_event_db(p, root, d);
    }
}

bool root_ok(const char *root, const char *who) {
    if (!root || !*root) {
        log_line("%s : no root\n", who);
        return false;
    }
    return root_fits(root, who);
}

} // namespace vrix::cat
