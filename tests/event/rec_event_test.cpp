// Event recording: stamping, day registration, day switches and failures.
#include "event/event_store.h"

#include <sqlite3.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

namespace {

using namespace vrix::test;
using Rows = std::vector<std::vector<int>>;

constexpr int kSomeNoon = 1718020800; // 2024-06-10

class Recording : public testing::Test {
  protected:
    void SetUp() override {
        start_library();
        rec = vrix_db_open_rec_event(dir.path().c_str());
        ASSERT_NE(rec, nullptr);
        day = day_key(kSomeNoon);
    }
    void TearDown() override { vrix_db_close_rec_event(rec); }
    void record(int sec, int ch, int type) {
        clock.set(sec);
        vrix_db_rec_event(rec, ch, type, 7, 9); // the trailing two leave no trace
    }
    std::string db_of(int sec) const { return day_dir(dir.path(), sec) + "/event.db"; }

    TestClock clock;
    ScratchDir dir;
    EventRecContext *rec = nullptr;
    int day = 0;
};

TEST_F(Recording, StampsRowsRegistersDaysAndSwitchesAtMidnight) {
    const int next = day + 86400;
    record(day + 45296, 3, 8); // 12:34:56, stored at 12:34:00
    record(day + 45296, -1, 1);
    record(next - 1, 64, 2);
    record(next, 0, 4);
    record(next + 30, 5, 8);
    vrix_db_close_rec_event(rec);
    // A second client on a day already registered adds rows, not days.
    rec = vrix_db_open_rec_event(dir.path().c_str());
    record(next - 1, 9, 1000); // any type is stored as given

    const char *all = "select sec,ch,type from h_all order by id;";
    EXPECT_EQ(
        read_rows(db_of(day), all, 3),
        (Rows{{day + 45240, 3, 8}, {day + 45296, -1, 1}, {next - 1, 64, 2}, {next - 1, 9, 1000}}));
    EXPECT_EQ(read_rows(db_of(next), all, 3), (Rows{{next, 0, 4}, {next, 5, 8}}));
    EXPECT_EQ(read_rows(db_of(day), "select count(*) from h_all where data is not null;", 1),
              (Rows{{0}}));
    EXPECT_EQ(read_rows(dir / "date.db", "select date from H order by date;", 1),
              (Rows{{day}, {next}}));
}

// A day's events get an index on their times, and the day keeps how far an
// event went back behind the latest (a minute event takes the start of its
// minute).  The first page starts at the first event recorded at or after the
// time (backward: the last at or before it), pages running on in store order.
TEST_F(Recording, TimesIndexedWithTheDaysLateness) {
    auto pragma = [&](const char *sql) { return read_rows(db_of(day), sql, 1); };
    auto first_secs = [&](int from, int way) {
        std::tm tm{};
        sec_to_tm(&tm, from);
        EventQueryContext *q =
            vrix_db_open_get_event(&tm, 0xFFFFu, 0, 0, 0x7F, dir.path().c_str(), 3, 0, 0);
        std::vector<int> secs;
        const int n = way > 0 ? vrix_db_next_event(q) : vrix_db_pre_event(q);
        for (int i = 0; i < n; ++i)
            secs.push_back(vrix_db_get_event(q)[i].iSec - day);
        vrix_db_close_get_event(q);
        return secs;
    };
    for (int s : {100, 200, 300, 400})
        record(day + s, 1, 1);
    EXPECT_EQ(pragma("select count(*) from sqlite_master where name = 'h_all_sec';"), (Rows{{1}}));
    EXPECT_EQ(pragma("PRAGMA user_version;"), (Rows{{0}}));
    // A reader holds the day's database while the late event comes in: the
    // lateness goes in with the event or not at all.
    sqlite3 *reader = nullptr;
    ASSERT_EQ(sqlite3_open(db_of(day).c_str(), &reader), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(reader, "BEGIN; select count(*) from h_all;", nullptr, nullptr, nullptr),
              SQLITE_OK);
    std::thread release([reader] {
        std::this_thread::sleep_for(std::chrono::milliseconds(75));
        sqlite3_exec(reader, "COMMIT;", nullptr, nullptr, nullptr);
    });
    record(day + 250, 1, 1);
    release.join();
    sqlite3_close(reader);
    record(day + 390, 1, 1); // less late than the one before
    EXPECT_EQ(pragma("PRAGMA user_version;"), (Rows{{150}}));
    EXPECT_EQ(first_secs(day + 220, 1), (std::vector<int>{300, 400, 250}));
    EXPECT_EQ(first_secs(day + 260, -1), (std::vector<int>{250, 400, 300}));
    EXPECT_EQ(first_secs(day + 395, -1), (std::vector<int>{390, 250, 400}));
}

// A day an older library began (no index) gets the index and its lateness at
// the first event this library records there.
TEST_F(Recording, OlderDayGetsTheIndexAtItsFirstWrite) {
    std::filesystem::create_directories(day_dir(dir.path(), day));
    read_rows(db_of(day), "create table h_all(id INTEGER PRIMARY KEY , sec int,ch int,type "
                          "int,data text);");
    for (int s : {100, 300, 220, 290})
        read_rows(
            db_of(day),
            ("insert into h_all values(NULL," + std::to_string(day + s) + ",1,1,NULL);").c_str());
    record(day + 500, 1, 1);
    EXPECT_EQ(
        read_rows(db_of(day), "select count(*) from sqlite_master where name = 'h_all_sec';", 1),
        (Rows{{1}}));
    EXPECT_EQ(read_rows(db_of(day), "PRAGMA user_version;", 1), (Rows{{80}}));
}

// A day whose database cannot be opened loses its events, reported once; the
// day is still registered and the next day records again.
TEST_F(Recording, LostDayIsReportedOnceAndTheNextDayRecovers) {
    std::ofstream(day_dir(dir.path(), day)) << "not a directory";
    testing::internal::CaptureStdout();
    record(day + 100, 1, 1);
    record(day + 200, 1, 1);
    EXPECT_LT(db_insert_event(rec, 0, 0, nullptr, day + 300, 0, 1, 1), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "db_chech_event_dir : open sqlite fail\n");
    record(day + 86400, 2, 2);
    EXPECT_EQ(read_rows(db_of(day + 86400), "select sec,ch from h_all;", 2),
              (Rows{{day + 86400, 2}}));
    EXPECT_EQ(read_rows(dir / "date.db", "select count(*) from H;", 1), (Rows{{2}}));
}

// The exported day steps on a directory of the caller's choosing; a failed
// open leaves no day open and the caller's path untouched.
TEST_F(Recording, CallerChosenDayAndRefusedOpens) {
    EXPECT_EQ(db_create_event(rec, (dir / "manual").c_str()), 1);
    EXPECT_EQ(db_insert_event(rec, 0, 0, nullptr, 1234, 0, 7, 4), 0);
    EXPECT_EQ(read_rows(dir / "manual/event.db", "select sec,ch,type from h_all;", 3),
              (Rows{{1234, 7, 4}}));
    std::string path = dir / "no/such/event.db";
    const std::string before = path;
    testing::internal::CaptureStdout();
    EXPECT_EQ(db_create_event_db(rec, path.data()), 0);
    EXPECT_EQ(vrix_db_open_rec_event(std::string(99, 'r').c_str()), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "db_create_event_db : open sqlite fail\n"
              "vrix_db_open_rec_event : root path too long\n");
    EXPECT_EQ(path, before);
    EXPECT_LT(db_insert_event(rec, 0, 0, nullptr, 1235, 0, 7, 4), 0);
    EXPECT_EQ(vrix_db_open_rec_event((dir / "missing").c_str()), nullptr);
}

} // namespace
