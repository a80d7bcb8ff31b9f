// A recording context over a scratch root, in UTC, for the video tests.
#pragma once

#include "support/frames.h"
#include "support/queues.h"
#include "video/rec_context.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <string>

namespace vrix::test {

constexpr int kDay = 1710028800; // 2024-03-10 00:00:00 UTC
constexpr int kHour10 = kDay + 10 * 3600;

class RecVideo : public ::testing::Test {
  protected:
    void SetUp() override {
        start_library();
        open();
    }
    void TearDown() override { close(); }
    void open() {
        ctx = vrix_db_open_rec_video(root().c_str(), 17);
        ASSERT_NE(ctx, nullptr);
    }
    void close() {
        vrix_db_close_rec_video(ctx);
        ctx = nullptr;
    }
    const std::string &root() const { return dir.path(); }
    std::string day_dir(const char *day = "20240310") const { return root() + "/" + day; }
    std::string stream(int ch, int hour, const char *day = "20240310") const {
        return day_dir(day) + "/video/" + std::to_string(ch) + "/" + std::to_string(hour) +
               ".stream";
    }
    std::string video_db(int ch, const char *day = "20240310") const {
        return day_dir(day) + "/video/" + std::to_string(ch) + "/video.db";
    }
    std::string date_db() const { return root() + "/date.db"; }
    RecChannel &channel(int n) { return ctx->pChannels[n]; }
    static long long size_of(const std::string &path) {
        struct stat st {};
        return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
    }

    ScratchDir dir;
    RecContext *ctx = nullptr;
};

} // namespace vrix::test
