// The journal of the hours the writers open: what repair reads back, how it
// stays bounded without repair, and what a torn or failed write leaves.
#include "core/file_io.h"
#include "core/hour_journal.h"
#include "support/frames.h"
#include "support/queues.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>

namespace {

using namespace vrix;

std::vector<std::string> listed(const std::string &root, JournalState *state = nullptr) {
    std::vector<JournalHour> hours;
    const JournalState s = read_hour_journal(root.c_str(), hours);
    if (state) *state = s;
    std::vector<std::string> out;
    for (const JournalHour &h : hours)
        out.push_back(std::string(1, h.kind) + " " + h.day + " " + std::to_string(h.channel) + " " +
                      std::to_string(h.hour));
    return out;
}

// Every hour of a day and three more for 16 video channels and the audio: the
// journal never holds more than its bound, and always the two newest hours
// of every writer.  Reopening the newest hour adds nothing.
TEST(HourJournal, BoundedAndKeepsEachWritersNewestHours) {
    test::ScratchDir dir;
    const std::string root = dir.path();
    JournalState state;
    EXPECT_TRUE(listed(root, &state).empty());
    EXPECT_EQ(state, JournalState::None);
    size_t most = 0;
    for (int n = 0; n < 27; ++n) {
        const char *day = n < 24 ? "20240310" : "20240311";
        for (int ch = 0; ch <= 16; ++ch) {
            journal_hour(root.c_str(), ch ? kJournalVideo : kJournalAudio, day, ch, n % 24);
            journal_hour(root.c_str(), ch ? kJournalVideo : kJournalAudio, day, ch, n % 24);
            most = std::max(most, listed(root).size());
        }
    }
    EXPECT_LE(most, kJournalCompactAt + 1);
    const auto now = listed(root, &state);
    EXPECT_EQ(state, JournalState::Partial) << "begun by a writer";
    for (int ch = 0; ch <= 16; ++ch)
        for (int h : {1, 2}) {
            const std::string line = std::string(ch ? "v" : "a") + " 20240311 " +
                                     std::to_string(ch) + " " + std::to_string(h);
            EXPECT_EQ(std::count(now.begin(), now.end(), line), 1) << line;
        }

    // Repair's empty journal is trusted; a line torn by a power cut is passed
    // over, and the next writer's line does not run into it.
    ASSERT_TRUE(replace_hour_journal(root.c_str(), {}));
    EXPECT_TRUE(listed(root, &state).empty());
    EXPECT_EQ(state, JournalState::Complete);
    std::ofstream(root + "/.vrixdb.hours", std::ios::app) << "v 20240311 3 1";
    EXPECT_TRUE(listed(root, &state).empty());
    EXPECT_EQ(state, JournalState::Complete);
    journal_hour(root.c_str(), kJournalVideo, "20240311", 3, 12);
    EXPECT_EQ(listed(root, &state), std::vector<std::string>{"v 20240311 3 12"});
    EXPECT_EQ(state, JournalState::Complete);
}

// A journal that cannot be written is removed, so that repair looks through
// every day; the next writer begins a new one that repair does not trust
// alone.
TEST(HourJournal, AFailedWriteLeavesNoJournalRepairWouldTrust) {
    struct FullDisk : io::Observer {
        FullDisk() { io::set_observer(this); }
        ~FullDisk() override { io::set_observer(nullptr); }
        void before(const io::Access &) override {}
        io::Fault fault(const io::Access &a) override {
            io::Fault f;
            if (a.op == io::Op::Write) f.error = ENOSPC;
            return f;
        }
    };
    test::ScratchDir dir;
    const std::string root = dir.path();
    ASSERT_TRUE(replace_hour_journal(root.c_str(), {}));
    testing::internal::CaptureStdout();
    {
        FullDisk full;
        journal_hour(root.c_str(), kJournalVideo, "20240311", 1, 10);
    }
    EXPECT_NE(testing::internal::GetCapturedStdout().find("hour journal : "), std::string::npos);
    JournalState state;
    listed(root, &state);
    EXPECT_EQ(state, JournalState::None);
    journal_hour(root.c_str(), kJournalVideo, "20240311", 1, 11);
    EXPECT_EQ(listed(root, &state), std::vector<std::string>{"v 20240311 1 11"});
    EXPECT_EQ(state, JournalState::Partial);
}

} // namespace
