// The store access contract, against real SQLite files.
#include "support/queues.h"
#include "vrixdb.h"

#include <sqlite3.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <thread>

namespace {

using vrix::test::ScratchDir;

int32_t cell32(ResultTable t, int row) {
    int32_t v;
    std::memcpy(&v, t[row], 4);
    return v;
}
uint64_t cell64(ResultTable t, int row) {
    uint64_t v;
    std::memcpy(&v, t[row], 8);
    return v;
}

class Sql : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(sql_open((dir / "t.db").c_str(), &db), 0); }
    void TearDown() override { sql_close(db); }
    ScratchDir dir;
    SqlHandle db = nullptr;
};

TEST_F(Sql, NullResultClearsSlotAndNextValueReallocates) {
    ASSERT_EQ(sql_submit(db, "create table h3(id integer primary key , sec int,offset int);", ""),
              0);
    ResultTable t = static_cast<ResultTable>(calloc(1, sizeof(void *)));
    t[0] = calloc(1, 4);
    ASSERT_EQ(sql_submit(db, "select max(id) from h3;", "%d", &t), 1);
    EXPECT_EQ(t[0], nullptr);
    ASSERT_EQ(sql_submit(db, "insert into h3 values(NULL,5,0);", ""), 0);
    ASSERT_EQ(sql_submit(db, "select max(id) from h3;", "%d", &t), 1);
    ASSERT_NE(t[0], nullptr);
    EXPECT_EQ(cell32(t, 0), 1);
    // No row: the slot keeps what the last call left.
    ASSERT_EQ(sql_submit(db, "select id from h3 where id > 5 limit 1;", "%d", &t), 0);
    EXPECT_EQ(cell32(t, 0), 1);
    db_free_sqlite(t, 1);
}

TEST_F(Sql, OffsetsKeepAll64Bits) {
    const uint64_t big = (uint64_t{5} << 32) + 123;
    char q[128];
    snprintf(q, sizeof q,
             "create table h0(id integer primary key , sec int,offset int);"
             "insert into h0 values(NULL,1,%llu);",
             static_cast<unsigned long long>(big));
    ASSERT_EQ(sql_submit(db, q, ""), 0);
    ResultTable off = nullptr;
    ASSERT_EQ(sql_submit(db, "select max(offset) from h0;", "%u", &off), 1);
    EXPECT_EQ(cell64(off, 0), big);
    db_free_sqlite(off, 1);
}

// Null holders get one slot per row, a holder per column.
TEST_F(Sql, MultiColumnAndMultiStatementText) {
    ASSERT_EQ(sql_submit(db,
                         "create table h_all(id INTEGER PRIMARY KEY , sec int,ch int,type int,data "
                         "text);insert into h_all values(NULL,10,1,2,NULL);insert into h_all "
                         "values(NULL,11,0,8,NULL);insert into h_all values(NULL,12,64,1,NULL);",
                         ""),
              0);
    ResultTable c[4] = {};
    ASSERT_EQ(sql_submit(db, "select id,sec,ch,type from h_all order by id limit 3;", "%d %d %d %d",
                         &c[0], &c[1], &c[2], &c[3]),
              3);
    EXPECT_EQ(cell32(c[0], 2), 3);
    EXPECT_EQ(cell32(c[1], 1), 11);
    EXPECT_EQ(cell32(c[2], 2), 64);
    EXPECT_EQ(cell32(c[3], 1), 8);
    for (auto &t : c)
        db_free_sqlite(t, 3);
}

TEST_F(Sql, FailuresLeaveDatabaseAndHoldersAlone) {
    ASSERT_EQ(sql_submit(db, "create table H(hour int);", ""), 0);
    ASSERT_EQ(sql_submit(db, "insert into H values(4);", ""), 0);
    EXPECT_LT(sql_submit(db, "create table H(hour int);", ""), -1);
    ResultTable t = nullptr;
    EXPECT_LT(sql_submit(db, "select nope from H;", "%d", &t), -1);
    EXPECT_EQ(t, nullptr);
    EXPECT_LT(sql_submit(db, "select hour from H;", "%x", &t), -1);
    ASSERT_EQ(sql_submit(db, "select count(*) from H;", "%d", &t), 1);
    EXPECT_EQ(cell32(t, 0), 1);
    db_free_sqlite(t, 1);
}

// One bad statement in a batch costs only itself.
TEST_F(Sql, BadStatementInBatchKeepsTheOthers) {
    ASSERT_EQ(sql_submit(db, "create table h1(id integer primary key , sec int,offset int);", ""),
              0);
    EXPECT_LT(sql_submit(db,
                         "insert into h1 values(NULL,1,0);insert into h9 values(NULL,2,5);"
                         "insert into h1 values(NULL,3,10);",
                         ""),
              -1);
    ResultTable t = nullptr;
    ASSERT_EQ(sql_submit(db, "select count(*) from h1;", "%d", &t), 1);
    EXPECT_EQ(cell32(t, 0), 2);
    db_free_sqlite(t, 1);
}

TEST(SqlHandleZero, IsRefusedHarmlessly) {
    ResultTable t = nullptr;
    EXPECT_LT(sql_submit(nullptr, "select 1;", "%d", &t), 0);
    EXPECT_EQ(t, nullptr);
    EXPECT_NE(sql_close(nullptr), 0);
    SqlHandle h = nullptr;
    EXPECT_NE(sql_open("/nonexistent-dir/x/y.db", &h), 0);
}

// A write lock held by another connection is reported as busy (-1), and the
// same call succeeds once the lock is gone.
TEST_F(Sql, BusyIsMinusOneAndRetryable) {
    ASSERT_EQ(sql_submit(db, "create table H(hour int);", ""), 0);
    sqlite3 *other = nullptr;
    ASSERT_EQ(sqlite3_open((dir / "t.db").c_str(), &other), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(other, "BEGIN EXCLUSIVE;", nullptr, nullptr, nullptr), SQLITE_OK);
    EXPECT_EQ(sql_submit(db, "insert into H values(1);", ""), -1);
    ASSERT_EQ(sqlite3_exec(other, "COMMIT;", nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(other);
    EXPECT_EQ(sql_submit(db, "insert into H values(1);", ""), 0);
}

TEST(FreeSqlite, CountsDecideWhatIsFreed) {
    db_free_sqlite(nullptr, 3); // ignored
    ResultTable t = static_cast<ResultTable>(calloc(2, sizeof(void *)));
    db_free_sqlite(t, 0); // array only
    t = static_cast<ResultTable>(calloc(2, sizeof(void *)));
    t[1] = malloc(4);
    db_free_sqlite(t, 2); // null slot 0 skipped, slot 1 and the array freed
}

TEST(CorrectStep, RecordsAndCallsBack) {
    struct Seen {
        int count = 0, last = 0;
    } seen;
    vrix_hdd_set_correct_step_callback(
        [](int step, void *user) {
            auto *s = static_cast<Seen *>(user);
            ++s->count;
            s->last = step;
        },
        &seen);
    for (int v = 125; v <= 200; v += 5)
        vrix_hdd_correct_step(v);
    vrix_hdd_set_correct_step_callback(nullptr, nullptr);
    EXPECT_EQ(seen.count, 16);
    EXPECT_EQ(seen.last, 200);
    EXPECT_EQ(vrix_hdd_last_correct_step(), 200);
    testing::internal::CaptureStdout();
    vrix_hdd_correct_step(5);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "correct step : 5\n");
}

} // namespace
