// The library's side of store access: holders, mutex holds, transactions.
#include "core/store_access.h"
#include "support/queues.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace {

using vrix::test::ScratchDir;

TEST(Holder, MadeZeroedWithOneBufferPerSlot) {
    ResultTable t = vrix::make_holder(3, vrix::kOffsetCell);
    ASSERT_NE(t, nullptr);
    for (int i = 0; i < 3; ++i) {
        ASSERT_NE(t[i], nullptr);
        EXPECT_EQ(*static_cast<uint64_t *>(t[i]), 0u);
    }
    long long off = -1;
    EXPECT_TRUE(vrix::holder_offset(t, off));
    EXPECT_EQ(off, 0);
    db_free_sqlite(t, 3);
}

TEST(SqlLock, HoldsTheMutexForItsScope) {
    vrix::test::start_library();
    pthread_mutex_t *m = vrix::video_mutex(7);
    {
        vrix::SqlLock hold(m);
        std::atomic<int> r{-1};
        std::thread([&] { r = pthread_mutex_trylock(m); }).join();
        EXPECT_NE(r.load(), 0);
    }
    ASSERT_EQ(pthread_mutex_trylock(m), 0);
    pthread_mutex_unlock(m);
}

// The writers' rows commit whole or not at all: a batch that fails is rolled
// back (the writer keeps it for the next commit), one that works commits.
TEST(Transaction, IndexRowsCommitWholeOrNotAtAll) {
    vrix::test::start_library();
    ScratchDir dir;
    SqlHandle db = nullptr;
    ASSERT_TRUE(vrix::open_db(vrix::video_mutex(1), (dir / "video.db").c_str(), db));
    const char *rows = "insert into h2 values(NULL,1,0);insert into h2 values(NULL,2,9);";
    EXPECT_FALSE(vrix::commit_rows(vrix::video_mutex(1), db, rows)); // no table yet
    EXPECT_TRUE(vrix::commit_rows(vrix::video_mutex(1), db, rows, [db] {
        sql_submit(db, "create table h2(id integer primary key , sec int,offset int);", "");
    }));
    ResultTable t = vrix::make_holder(1, vrix::kIntCell);
    {
        vrix::SqlLock hold(vrix::video_mutex(1));
        ASSERT_EQ(sql_submit(db, "select count(*) from h2;", "%d", &t), 1);
    }
    int n = 0;
    ASSERT_TRUE(vrix::holder_int(t, n));
    EXPECT_EQ(n, 2);
    db_free_sqlite(t, 1);
    vrix::close_db(vrix::video_mutex(1), db);
    EXPECT_EQ(db, nullptr);
    vrix::close_db(vrix::video_mutex(1), db); // closing nothing is harmless

    SqlHandle bad = reinterpret_cast<SqlHandle>(1);
    EXPECT_FALSE(vrix::open_db(vrix::video_mutex(1), (dir / "no/such/dir.db").c_str(), bad));
    EXPECT_EQ(bad, nullptr);
}

} // namespace
