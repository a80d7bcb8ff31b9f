// The library's lines: standard output by default exactly as formatted, an
// installed sink line by line.
#include "store/log.h"
#include "vrixdb.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace vrix;

struct Collected {
    std::vector<std::string> lines;
    static void take(const char *line, void *user) {
        static_cast<Collected *>(user)->lines.emplace_back(line);
    }
};

TEST(Log, DefaultIsStandardOutputAsFormatted) {
    testing::internal::CaptureStdout();
    log_line("rec : ch%d fwrite iRet = %d , Size = %d\n", 3, 0, 12);
    log_line("count = 0 , %s\nstrFile = %s\n", "a", "b");
    log_text("vrix db : already started");
    log_line("%s\n", std::string(2000, 'x').c_str());
    const std::string said = testing::internal::GetCapturedStdout();
    const std::string lines = "rec : ch3 fwrite iRet = 0 , Size = 12\ncount = 0 , a\n"
                              "strFile = b\nvrix db : already started\n";
    EXPECT_EQ(said.substr(0, lines.size()), lines);
    EXPECT_EQ(said.size(), lines.size() + kLogLineSize - 1) << "a cut line keeps its newline";
    EXPECT_EQ(said.back(), '\n');
}

TEST(Log, SinkGetsEachLineUntilRemoved) {
    Collected got;
    vrix_db_set_log(Collected::take, &got);
    EXPECT_FALSE(log_is_default());
    log_line("count = 0 , %s\nstrFile = %s\n", "a", "b");
    log_text("open fail");
    vrix_db_set_log(nullptr, &got);
    EXPECT_TRUE(log_is_default());
    testing::internal::CaptureStdout();
    log_text("back");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "back\n");
    EXPECT_EQ(got.lines, (std::vector<std::string>{"count = 0 , a", "strFile = b", "open fail"}));
}

} // namespace
