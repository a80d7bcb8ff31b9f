// Integrity check and repair: indexes rebuilt from the stream files match
// what the writer made; damaged day lists come back from their copies.
#include "maint_store.h"

#include <cstdlib>

namespace {

using namespace vrix::test;

constexpr int kHour10 = kDay + 10 * 3600, kHour11 = kDay + 11 * 3600;

class Repair : public ::testing::Test {
  protected:
    void SetUp() override {
        record_video(root, {{1, {kHour10 + 1, kHour10 + 2, kHour10 + 4, kHour11 + 7}}});
        written = index();
        ASSERT_EQ(written.size(), 6u); // H 10, 11; three rows in h10, one in h11
    }
    Rows index() const {
        Rows r = rows(video_db, "select hour from H order by hour");
        for (const char *h : {"h10", "h11"})
            for (const auto &row : rows(video_db, std::string("select id,sec,offset from ") + h))
                r.push_back(row);
        return r;
    }
    static void damage(const std::string &path) { write_file(path, Bytes(512, 0x5a)); }
    std::string correct_video() const {
        testing::internal::CaptureStdout();
        vrix_db_correct_video(channel_dir.c_str());
        return testing::internal::GetCapturedStdout();
    }

    Started started;
    ScratchDir dir;
    const std::string root = dir.path(), channel_dir = dir / kDayName + "/video/1/",
                      video_db = channel_dir + "video.db", date_db = dir / "date.db";
    Rows written;
};

TEST_F(Repair, DamagedVideoIndexIsRebuiltAsWrittenAndASoundOneLeftAlone) {
    damage(video_db);
    write_file(video_db + "-journal", {1, 2, 3});
    EXPECT_NE(correct_video().find("remove "), std::string::npos);
    EXPECT_EQ(index(), written);
    EXPECT_FALSE(exists(video_db + "-journal"));

    const auto before = file_bytes(video_db);
    const std::string out = correct_video();
    EXPECT_NE(out.find("video ret = 0\n"), std::string::npos);
    EXPECT_EQ(out.find("remove"), std::string::npos);
    EXPECT_EQ(file_bytes(video_db), before);
}

// The scan ends at the first record that is not whole and valid.
TEST_F(Repair, ScanStopsAtTheFirstInvalidRecord) {
    const std::string stream = channel_dir + "11.stream";
    const auto original = file_bytes(stream);
    const auto next = make_frame(1, kHour11 + 9, true, 64);
    auto len0 = next, time0 = next, too_long = next, cut = next;
    len0[0] = 0;
    time0[4] = time0[5] = time0[6] = time0[7] = 0;
    too_long[2] = 0x02; // 131072 + 64
    cut.pop_back();
    for (const Bytes *bad : {&len0, &time0, &too_long, &cut}) {
        write_file(stream, original);
        write_file(stream, make_frame(1, kHour11 + 8, true, 64), true);
        write_file(stream, *bad, true);
        if (bad != &cut) write_file(stream, next, true); // a cut record ends the file
        std::filesystem::remove(video_db);
        EXPECT_NE(correct_video().find("open fail"), std::string::npos);
        Rows expected = written;
        expected.push_back("2," + std::to_string(kHour11 + 8) + "," +
                           std::to_string(original.size()));
        EXPECT_EQ(index(), expected);
    }
}

TEST_F(Repair, AudioIndexHasOneRowPerSecond) {
    const std::string audio = dir / kDayName + "/audio/";
    std::filesystem::create_directories(audio + "1");
    // A record of another hour ends the valid records of the file.
    write_file(audio + "1/10.stream",
               audio_records({kHour10, kHour10, kHour10, kHour10 + 1, kHour11, kHour10 + 2}));
    vrix_db_correct_audio(audio.c_str());
    EXPECT_EQ(rows(audio + "audio.db", "select hour from H"), Rows{"10"});
    EXPECT_EQ(
        rows(audio + "audio.db", "select id,sec,offset from h10"),
        (Rows{"1," + std::to_string(kHour10) + ",0", "2," + std::to_string(kHour10 + 1) + ",180"}));
}

// Start-up repair reconciles a sound index with its streams: whole frames
// past the last row are indexed, rows beyond the file dropped, the stream
// files only read.  The day before the newest is reconciled only while the
// newest day is young (begun less than an hour ago).
int half_an_hour_into_the_day() {
    return kDay + 1800;
}

TEST_F(Repair, StartUpReconcilesTheNewestDaysWithTheirStreams) {
    const std::string eve_dir = dir / "20240309/video/1/";
    record_video(root, {{1, {kDay - 3600 + 5}}});
    const Bytes tail = make_frame(1, kHour11 + 8, true, 200),
                torn = make_frame(1, kHour11 + 9, true, 80);
    write_file(channel_dir + "11.stream", tail, true);
    write_file(channel_dir + "11.stream", Bytes(torn.begin(), torn.begin() + 50), true);
    write_file(eve_dir + "23.stream", make_frame(1, kDay - 3600 + 6, true, 200), true);
    exec(video_db, "insert into h10 values(NULL," + std::to_string(kHour10 + 5) + ",5000);");
    const auto stream11 = file_bytes(channel_dir + "11.stream");
    const std::string eve = "select sec,offset from h23 order by id";
    const Rows eve_before = rows(eve_dir + "video.db", eve);

    testing::internal::CaptureStdout();
    vrix_db_correct_all(root.c_str());
    testing::internal::GetCapturedStdout();
    Rows expected = written;
    expected.push_back("2," + std::to_string(kHour11 + 8) + ",322");
    EXPECT_EQ(index(), expected);
    EXPECT_EQ(file_bytes(channel_dir + "11.stream"), stream11);
    EXPECT_EQ(rows(eve_dir + "video.db", eve), eve_before) << "the newest day is not young";

    const VrixTestHooks young{1, half_an_hour_into_the_day};
    vrix_db_set_test_hooks(&young);
    testing::internal::CaptureStdout();
    vrix_db_correct_all(root.c_str());
    testing::internal::GetCapturedStdout();
    vrix_db_set_test_hooks(nullptr);
    EXPECT_EQ(rows(eve_dir + "video.db", eve), (Rows{std::to_string(kDay - 3600 + 5) + ",0",
                                                     std::to_string(kDay - 3600 + 6) + ",322"}));
}

TEST_F(Repair, DayListRestoredFromItsCopyOrRemoved) {
    vrix_db_backup(root.c_str(), kDayName);
    const auto good = file_bytes(date_db);
    damage(date_db);
    EXPECT_EQ(vrix_db_correct(date_db.c_str(), "H"), 0);
    EXPECT_EQ(file_bytes(date_db), good);

    std::filesystem::remove(date_db + ".sql");
    damage(date_db);
    EXPECT_EQ(vrix_db_correct(date_db.c_str(), "H"), 0);
    EXPECT_FALSE(exists(date_db));
}

// The whole run reports its progress and rebuilds what is missing; without a
// shell that runs nothing may be taken for damage.
TEST_F(Repair, CorrectAllAndAMissingShell) {
    std::vector<int> steps;
    vrix_hdd_set_correct_step_callback(
        [](int step, void *user) { static_cast<std::vector<int> *>(user)->push_back(step); },
        &steps);
    std::filesystem::remove(video_db);
    const auto date = file_bytes(date_db);
    const std::string path = std::getenv("PATH");
    setenv("PATH", "", 1);
    vrix_db_correct_all(root.c_str());
    EXPECT_EQ(vrix_db_correct(date_db.c_str(), "H"), -1);
    setenv("PATH", path.c_str(), 1);
    EXPECT_TRUE(steps.empty());
    EXPECT_FALSE(exists(video_db));
    EXPECT_EQ(file_bytes(date_db), date);

    vrix_db_correct_all(root.c_str());
    vrix_hdd_set_correct_step_callback(nullptr, nullptr);
    std::vector<int> expected;
    for (int n = 1; n <= 16; ++n)
        expected.push_back(120 + 5 * n);
    EXPECT_EQ(steps, expected);
    EXPECT_EQ(index(), written);
}

// The longest root the library records into (98 characters) is repaired like
// any other: lost video and audio indexes are rebuilt beside their streams.
TEST(RepairLongRoot, LostIndexesAreRebuilt) {
    Started started;
    ScratchDir dir;
    const std::string root = dir / std::string(97 - dir.path().size(), 'r');
    ASSERT_EQ(root.size(), 98u);
    std::filesystem::create_directories(root);
    record_video(root, {{16, {kHour10 + 1, kHour10 + 2}}});
    const std::string day = root + "/" + kDayName, video = day + "/video/16/video.db";
    std::filesystem::create_directories(day + "/audio/1");
    write_file(day + "/audio/1/10.stream", audio_records({kHour10, kHour10 + 1}));
    const Rows keys = rows(video, "select sec,offset from h10");
    ASSERT_EQ(keys.size(), 2u);
    std::filesystem::remove(video);

    testing::internal::CaptureStdout();
    vrix_db_correct_all(root.c_str());
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out.find("too long"), std::string::npos) << out;
    EXPECT_EQ(rows(video, "select sec,offset from h10"), keys);
    EXPECT_EQ(rows(day + "/audio/audio.db", "select sec,offset from h10"),
              (Rows{std::to_string(kHour10) + ",0", std::to_string(kHour10 + 1) + ",60"}));
}

} // namespace
