// The catalogue while a recorder writes: every answer is what was committed
// (one span from the first key frame, no second missing), never a problem,
// and it grows as the recording does.
#include "support/frames.h"
#include "support/queues.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace {

using namespace vrix::test;

int collect(const VrixCatSpan *s, void *out) {
    static_cast<std::vector<VrixCatSpan> *>(out)->push_back(*s);
    return 0;
}
void problem(const char *path, int reason, void *) {
    ADD_FAILURE() << "cannot read " << path << " (" << reason << ")";
}

TEST(CatalogueLive, SeesWhatTheWriterCommitted) {
    start_library();
    ScratchDir dir;
    const int t0 = 1718359200 - 30; // across an hour's end
    const int seconds = 240;
    RecContext *rec = vrix_db_open_rec_video(dir.path().c_str(), 17);
    ASSERT_NE(rec, nullptr);
    std::atomic<bool> done{false};
    std::thread writer([&] {
        for (int s = t0; s < t0 + seconds; ++s) {
            for (int i = 0; i < 5; ++i)
                record(rec, make_frame(6, s, i == 0, 200));
            if (s % 7 == 0) vrix_db_rec_video_flush(rec, 6);
        }
        vrix_db_rec_video_flush(rec, 6);
        done = true;
    });
    int last = 0, reads = 0;
    for (bool finished = false; !finished; ++reads) {
        finished = done.load();
        std::vector<VrixCatSpan> spans;
        ASSERT_EQ(vrix_cat_spans(dir.path().c_str(), VRIX_CAT_VIDEO, 6, t0 - 3600, t0 + 3600, 1,
                                 collect, &spans, problem),
                  0);
        if (spans.empty()) continue;
        ASSERT_EQ(spans.size(), 1u);
        EXPECT_EQ(spans[0].iStart, t0);
        EXPECT_EQ(spans[0].iSeconds, spans[0].iEnd - spans[0].iStart);
        EXPECT_GE(spans[0].iEnd, last);
        last = spans[0].iEnd;
    }
    writer.join();
    vrix_db_close_rec_video(rec);
    EXPECT_EQ(last, t0 + seconds);
    EXPECT_GT(reads, 1);
}

} // namespace
