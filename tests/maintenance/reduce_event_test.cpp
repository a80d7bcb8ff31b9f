// Event reduction against days recorded by the event writer.
#include "maint_store.h"

namespace {

using namespace vrix::test;

constexpr int kNextDay = kDay + 86400;

class ReduceEvent : public ::testing::Test {
  protected:
    void SetUp() override {
        EventRecContext *ctx = vrix_db_open_rec_event(dir.path().c_str());
        ASSERT_NE(ctx, nullptr);
        for (int t : {kDay + 10 * 3600, kDay + 11 * 3600, kDay + 12 * 3600, kNextDay + 60}) {
            g_maint_now = t;
            vrix_db_rec_event(ctx, 3, VRIX_EVENT_MOTION, 0, 0);
        }
        vrix_db_close_rec_event(ctx);
        exec(date_db, "create table ch3(date int); insert into ch3 values(" + std::to_string(kDay) +
                          "); insert into ch3 values(" + std::to_string(kNextDay) + ");");
    }
    std::string reduce(int sec) {
        testing::internal::CaptureStdout();
        EXPECT_EQ(vrix_db_reduce_event(dir.path().c_str(), sec), 0);
        return testing::internal::GetCapturedStdout();
    }

    Started started;
    ScratchDir dir;
    FastWaits fast{true};
    RemoveServer server{dir.path()};
    const std::string day = dir / kDayName, date_db = dir / "date.db";
};

TEST_F(ReduceEvent, DayGoesOnlyWhenNoEventIsLeft) {
    EXPECT_NE(reduce(kDay + 11 * 3600).find("we have event yet on 20240310\n"), std::string::npos);
    EXPECT_EQ(rows(day + "/event.db", "select sec from h_all"),
              Rows{std::to_string(kDay + 12 * 3600)});
    EXPECT_TRUE(server.take().empty());

    EXPECT_NE(reduce(kDay + 13 * 3600).find("delete event on 20240310\n"), std::string::npos);
    EXPECT_FALSE(exists(day));
    const Rows next{std::to_string(kNextDay)};
    EXPECT_EQ(rows(date_db, "select date from H"), next);
    EXPECT_EQ(rows(date_db, "select date from ch3"), next);
    const auto asked = server.take();
    ASSERT_EQ(asked.size(), 1u);
    EXPECT_EQ(asked[0].command, VRIX_RM_DIR);
    EXPECT_EQ(asked[0].path, day);
}

// A day being recorded in this process keeps its directory, events gone or not.
TEST_F(ReduceEvent, DayBeingRecordedStays) {
    RecContext *video = vrix_db_open_rec_video(dir.path().c_str(), 17);
    ASSERT_NE(video, nullptr);
    record(video, make_frame(3, kDay + 13 * 3600, true, 100));
    const std::string out = reduce(kDay + 14 * 3600);
    vrix_db_close_rec_video(video);
    EXPECT_NE(out.find("event : day 20240310 is being recorded , kept\n"), std::string::npos)
        << out;
    EXPECT_TRUE(rows(day + "/event.db", "select sec from h_all").empty());
    EXPECT_TRUE(exists(day + "/video/3/13.stream"));
    EXPECT_TRUE(server.take().empty());
}

// A registered day without event.db goes whole; an unregistered day stays.
TEST_F(ReduceEvent, DaysWithoutEventDbOrRegistration) {
    const int later = kNextDay + 86400;
    const std::string later_dir = dir / "20240312", loose_dir = dir / "20240315";
    for (const std::string &d : {later_dir, loose_dir}) {
        std::filesystem::create_directories(d + "/video");
        write_file(d + "/video/x", {1});
    }
    exec(date_db, "insert into H values(" + std::to_string(later) + ");");
    reduce(later + 5);
    EXPECT_FALSE(exists(later_dir));
    EXPECT_TRUE(rows(date_db, "select 1 from H where date = " + std::to_string(later)).empty());

    EXPECT_EQ(reduce(later + 3 * 86400), "event : no data in date\n");
    EXPECT_TRUE(exists(loose_dir + "/video/x"));
    EXPECT_EQ(server.take().size(), 1u);
}

} // namespace
