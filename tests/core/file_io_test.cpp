// The file layer and the power-cut model the durability tests stand on: only
// synced bytes and durable names survive a cut, through stream files and
// through SQLite alike.
#include "core/file_io.h"
#include "support/power_cut.h"
#include "support/queues.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace vrix {
namespace {

std::string contents(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

bool exists(const std::string &path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0;
}

void put(FILE *fp, const std::string &s) {
    ASSERT_EQ(std::fwrite(s.data(), 1, s.size(), fp), s.size());
    ASSERT_EQ(std::fflush(fp), 0);
}

// The root of each test exists before the layer does: it counts as durable.
class PowerCutModel : public ::testing::Test {
  protected:
    test::ScratchDir dir;
};

TEST_F(PowerCutModel, OnlySyncedBytesOfAFileSurvive) {
    const std::string path = dir / "a.stream";
    std::ofstream(path) << "old-";
    test::PowerCut layer;
    FILE *fp = io::open_file(path.c_str(), "rb+");
    ASSERT_NE(fp, nullptr);
    ASSERT_EQ(fseeko(fp, 0, SEEK_END), 0);
    put(fp, "synced");
    ASSERT_TRUE(io::sync_file(fp));
    put(fp, "-lost");
    ASSERT_EQ(fseeko(fp, 0, SEEK_SET), 0);
    put(fp, "OVER"); // an overwrite of synced bytes is undone too
    EXPECT_EQ(io::file_size(fp), 15);
    ASSERT_TRUE(io::truncate_file(fp, 2)); // and so is a cut behind them
    std::fclose(fp);
    layer.restore();
    EXPECT_EQ(contents(path), "old-synced");
}

TEST_F(PowerCutModel, NamesNotMadeDurableVanish) {
    const std::string day = dir / "day", kept = dir / "kept";
    test::PowerCut layer;
    io::make_dir(day.c_str());
    io::make_dir(kept.c_str());
    ASSERT_TRUE(io::sync_dir(dir.path().c_str())); // both names are durable now
    io::make_dir((day + "/video").c_str());
    FILE *fp = io::open_file((kept + "/1.stream").c_str(), "wb+");
    ASSERT_NE(fp, nullptr);
    put(fp, "data");
    ASSERT_TRUE(io::sync_file(fp)); // its data, but never its name
    std::fclose(fp);
    layer.restore();
    EXPECT_TRUE(exists(day));
    EXPECT_TRUE(exists(kept));
    EXPECT_FALSE(exists(day + "/video"));
    EXPECT_FALSE(exists(kept + "/1.stream"));
}

TEST_F(PowerCutModel, ATornWriteKeepsAPrefixOfItself) {
    const std::string path = dir / "t.stream";
    std::ofstream(path) << "0123";
    test::PowerCut layer;
    FILE *fp = io::open_file(path.c_str(), "rb+");
    ASSERT_NE(fp, nullptr);
    ASSERT_EQ(fseeko(fp, 0, SEEK_END), 0);
    put(fp, "abcdefghijklmnopqrstuvwxyz");
    std::fclose(fp);
    layer.restore(test::Writeback::TornLast, 7);
    const std::string left = contents(path);
    ASSERT_GE(left.size(), 4u);
    ASSERT_LT(left.size(), 30u);
    EXPECT_EQ(left, std::string("0123abcdefghijklmnopqrstuvwxyz").substr(0, left.size()));
}

// The library's databases go through the same layer: a transaction committed
// with synchronous=FULL is durable, one committed with it OFF is not, and a
// database in a directory whose name was never made durable is gone with it.
int count_rows(const std::string &db) {
    SqlHandle h = nullptr;
    if (sql_open(db.c_str(), &h) != 0) return -1;
    ResultTable t = nullptr;
    int n = -1;
    if (sql_submit(h, "select count(*) from t;", "%d", &t) > 0 && t[0])
        std::memcpy(&n, t[0], sizeof n);
    db_free_sqlite(t, 1);
    sql_close(h);
    return n;
}

TEST_F(PowerCutModel, DatabasesKeepWhatTheyCommittedDurably) {
    const std::string extra = dir / "extra.db", full = dir / "full.db", off = dir / "off.db",
                      fresh = dir / "new";
    const std::string day = fresh + "/day";
    for (const std::string &db : {extra, full, off}) {
        SqlHandle h = nullptr;
        ASSERT_EQ(sql_open(db.c_str(), &h), 0);
        ASSERT_EQ(sql_submit(h, "create table t(x); insert into t values(1);", ""), 0);
        sql_close(h);
    }
    {
        test::PowerCut layer;
        io::make_dir(fresh.c_str());
        io::make_dir(day.c_str());
        for (const std::string &db : {extra, full, off, day + "/x.db"}) {
            SqlHandle h = nullptr;
            ASSERT_EQ(sql_open(db.c_str(), &h), 0);
            const char *mode = db == off    ? "pragma synchronous=OFF;"
                               : db == full ? "pragma synchronous=FULL;"
                                            : "pragma synchronous=EXTRA;";
            ASSERT_EQ(sql_submit(h, mode, ""), 0);
            sql_submit(h, "create table if not exists t(x);", "");
            for (int i = 0; i < 3; ++i)
                ASSERT_EQ(sql_submit(h, "insert into t values(zeroblob(3000));", ""), 0);
            EXPECT_STREQ(sqlite3_vfs_find(nullptr)->zName, "vrix");
            sql_close(h);
        }
        layer.restore();
    }
    EXPECT_STRNE(sqlite3_vfs_find(nullptr)->zName, "vrix"); // gone with the layer
    EXPECT_EQ(count_rows(extra), 4);
    // FULL does not sync the directory after deleting the journal that
    // commits: the last commit's journal comes back and rolls it back.
    EXPECT_EQ(count_rows(full), 3);
    EXPECT_EQ(count_rows(off), 1);
    // The first commit in a directory makes its names durable, not the
    // directory's own name: "new" was made durable by extra.db's journal.
    EXPECT_TRUE(exists(fresh));
    EXPECT_FALSE(exists(day));
}

// An observer that fails the operations a test names, as a failing disk would.
struct Failing : io::Observer {
    Failing() { io::set_observer(this); }
    ~Failing() override { io::set_observer(nullptr); }
    void before(const io::Access &) override {}
    io::Fault fault(const io::Access &a) override {
        return a.op == op && (!path || std::strstr(a.path, path)) ? with : io::Fault{};
    }
    io::Op op = io::Op::Read;
    const char *path = nullptr;
    io::Fault with;
};

TEST_F(PowerCutModel, FaultsReachTheirCallers) {
    const std::string path = dir / "f.stream", db = dir / "f.db";
    Failing f;
    f.op = io::Op::Open;
    f.with.error = EACCES;
    EXPECT_EQ(io::open_file(path.c_str(), "wb+"), nullptr);
    EXPECT_EQ(errno, EACCES);
    f.with = {};
    FILE *fp = io::open_file(path.c_str(), "wb+");
    ASSERT_NE(fp, nullptr);
    std::setvbuf(fp, nullptr, _IONBF, 0);
    f.op = io::Op::Write;
    f.with.keep = 3; // every write lands 3 bytes, so the second one of fwrite none
    EXPECT_EQ(std::fwrite("abcdef", 1, 6, fp), 3u);
    f.with = {};
    std::clearerr(fp);
    f.op = io::Op::Sync;
    f.with.error = EIO;
    EXPECT_FALSE(io::sync_file(fp));
    f.op = io::Op::SyncAll;
    EXPECT_FALSE(io::sync_all(dir.path().c_str()));
    std::fclose(fp);
    EXPECT_EQ(contents(path), "abc");

    SqlHandle h = nullptr;
    f.with = {};
    ASSERT_EQ(sql_open(db.c_str(), &h), 0);
    EXPECT_EQ(sql_submit(h, "create table t(x);", ""), 0);
    f.op = io::Op::Write;
    f.path = "f.db";
    f.with.error = ENOSPC;
    EXPECT_NE(sql_submit(h, "insert into t values(1);", ""), 0);
    f.op = io::Op::Lock;
    f.with.error = EBUSY;
    EXPECT_EQ(sql_submit(h, "insert into t values(2);", ""), -1); // busy, as the store reports it
    f.with = {};
    sql_close(h);
    EXPECT_EQ(count_rows(db), 0);
}

} // namespace
} // namespace vrix
