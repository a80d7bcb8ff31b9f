#include "store_access.h"

#include "store/format.h"
#include "store/log.h"
#include "store/schema.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

extern "C" void db_free_sqlite(ResultTable table, int rows) {
    if (!table) return;
    for (int i = 0; i < rows; ++i)
        std::free(table[i]);
    std::free(table);
}

namespace vrix {

ResultTable make_holder(int rows, int width) {
    auto *slots = static_cast<ResultTable>(std::calloc(static_cast<size_t>(rows), sizeof(void *)));
    if (!slots) {
        log_text("vrix : malloc output error 2 !");
        return nullptr;
    }
    for (int i = 0; i < rows; ++i) {
        if (!(slots[i] = std::calloc(1, static_cast<size_t>(width)))) {
            log_text("vrix : malloc output error 1 !");
            db_free_sqlite(slots, i);
            return nullptr;
        }
    }
    return slots;
}

bool open_db(pthread_mutex_t *m, const char *path, SqlHandle &handle) {
    SqlLock hold(m);
    if (sql_open(path, &handle) != 0) {
        handle = nullptr;
        return false;
    }
    sql_submit(handle, sql::kConnectionCache, "");
    return true;
}

void close_db(pthread_mutex_t *m, SqlHandle &handle) {
    if (!handle) return;
    SqlLock hold(m);
    sql_close(handle);
    handle = nullptr;
}

void close_writer_db(SqlHandle &handle) {
    if (!handle) return;
    sql_submit(handle, sql::kIndexDropJournal, "");
    sql_close(handle);
    handle = nullptr;
}

int submit_locked(pthread_mutex_t *m, SqlHandle db, const char *sql) {
    SqlLock hold(m);
    return sql_submit(db, sql, "");
}

bool commit_rows(pthread_mutex_t *m, SqlHandle db, const char *rows,
                 const std::function<void()> &prelude) {
    if (!db) return false;
    SqlLock hold(m);
    bool ok = submit_busy(db, sql::kBegin) == 0;
    if (ok) {
        if (prelude) prelude();
        ok = submit_busy(db, rows) == 0 && submit_busy(db, sql::kCommit) == 0;
    }
    if (!ok) sql_submit(db, sql::kRollback, "");
    return ok;
}

int query_locked(pthread_mutex_t *m, SqlHandle db, const char *sql, const char *format,
                 ResultTable &holder) {
    SqlLock hold(m);
    return sql_submit(db, sql, format, &holder);
}

bool query_int(pthread_mutex_t *m, SqlHandle db, const char *sql, ResultTable &holder, int &out) {
    return query_locked(m, db, sql, "%d", holder) > 0 && holder_int(holder, out);
}

bool query_offset(pthread_mutex_t *m, SqlHandle db, const char *sql, ResultTable &holder,
                  long long &out) {
    return query_locked(m, db, sql, "%u", holder) > 0 && holder_offset(holder, out);
}

int submit_busy(SqlHandle db, const char *sql, const char *format, ResultTable *holder) {
    return retry_busy(
        [&] { return holder ? sql_submit(db, sql, format, holder) : sql_submit(db, sql, format); },
        kBusyAttempts, false);
}

void Db::transaction(std::initializer_list<const char *> parts) const {
    SqlLock hold(m_);
    sql_submit(h_, sql::kReduceBegin, "");
    for (const char *p : parts)
        if (p) sql_submit(h_, p, "");
    sql_submit(h_, sql::kReduceCommit, "");
}

void ensure_row(SqlHandle db, const char *find, const char *insert, ResultTable &holder) {
    if (submit_busy(db, find, "%d", &holder) <= 0) submit_busy(db, insert);
}

void create_hour_table(SqlHandle db, int hour, bool in_order) {
    Sql q;
    format_into(q.text, sizeof q.text, sql::kCreateIndex, hour);
    const bool made = sql_submit(db, q.text, "") >= 0;
    if (!made && !in_order) return;
    format_into(q.text, sizeof q.text, sql::kCreateSecIndex, hour, hour);
    sql_submit(db, q.text, "");
}

void ensure_day(SqlHandle date_db, int day, ResultTable &holder) {
    Sql find, insert;
    format_into(find.text, sizeof find.text, sql::kFindDay, day);
    format_into(insert.text, sizeof insert.text, sql::kInsertDay, day);
    ensure_row(date_db, find.text, insert.text, holder);
}

bool holder_int(ResultTable t, int &out) {
    if (!t || !t[0]) return false;
    int32_t v;
    std::memcpy(&v, t[0], sizeof v);
    out = v;
    return true;
}

bool holder_offset(ResultTable t, long long &out) {
    if (!t || !t[0]) return false;
    uint64_t v;
    std::memcpy(&v, t[0], sizeof v);
    out = static_cast<long long>(v);
    return true;
}

} // namespace vrix
