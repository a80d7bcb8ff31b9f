// Hostile input at the boundary: what the application (or anybody else on
// the machine-wide submit queue) may hand the library by mistake.  Each case
// must end in a safe outcome and, where the library reports it, in exactly
// one line naming the function.
#include "support/frames.h"
#include "support/lines.h"
#include "support/queues.h"

#include <sys/msg.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <fstream>
#include <functional>

namespace {

using namespace vrix::test;

constexpr int kHour10 = 1710064800; // 2024-03-10 10:00 UTC

// Whether `f` reported exactly one line, and that from `who`.
::testing::AssertionResult one_line_from(const char *who, const std::function<void()> &f) {
    std::string text;
    {
        Lines lines;
        f();
        text = lines.text();
    }
    if (std::count(text.begin(), text.end(), '\n') == 1 &&
        text.rfind(std::string(who) + " : ", 0) == 0)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "wanted one line from " << who << ", got:\n" << text;
}

// What `f` reported, all lines.
std::string lines_of(const std::function<void()> &f) {
    Lines lines;
    f();
    return lines.text();
}

class Hostile : public ::testing::Test {
  protected:
    void SetUp() override { start_library(); }
    std::string stream(int ch, int hour) const {
        return dir /
               ("20240310/video/" + std::to_string(ch) + "/" + std::to_string(hour) + ".stream");
    }
    static std::tm at(int sec) {
        const time_t t = sec;
        std::tm tm{};
        gmtime_r(&t, &tm);
        return tm;
    }
    ScratchDir dir;
};

// Every close, flush and step that accepts a null context ignores it.
TEST_F(Hostile, NullContextsAreIgnored) {
    const auto f = make_frame(1, kHour10, true, 100);
    std::tm t = at(kHour10);
    int a = 0, b = 0, c = 0;
    const auto out = lines_of([&] {
        vrix_db_close_rec_video(nullptr);
        vrix_db_rec_video(nullptr, f.data(), static_cast<int>(f.size()));
        vrix_db_rec_video_flush(nullptr, 1);
        EXPECT_EQ(db_chech_video_dir(nullptr, "20240310", kHour10), -1);
        vrix_db_close_get_video(nullptr);
        EXPECT_EQ(vrix_db_next_video(nullptr), 0);
        EXPECT_EQ(vrix_db_pre_video(nullptr), 0);
        EXPECT_EQ(db_video_get_new(nullptr, kHour10, 1), 0);
        EXPECT_EQ(db_video_date_rec_init(nullptr, &t, &a, &b, &c), -1);
        vrix_db_video_reset_start_time(nullptr, kHour10, 1);
        vrix_db_video_set_end_time_forever(nullptr);
        vrix_db_close_rec_event(nullptr);
        EXPECT_EQ(vrix_db_rec_event(nullptr, 1, 1, 0, 0), 0);
        db_chech_event_dir(nullptr, "20240310", t, kHour10);
        EXPECT_LT(db_insert_event(nullptr, 0, 0, &t, kHour10, 0, 1, 1), 0);
        EXPECT_EQ(db_create_event(nullptr, dir.path().c_str()), 0);
        vrix_db_close_get_event(nullptr);
        EXPECT_EQ(vrix_db_next_event(nullptr), 0);
        EXPECT_EQ(vrix_db_pre_event(nullptr), 0);
        EXPECT_EQ(vrix_db_get_event(nullptr), nullptr);
        EXPECT_EQ(db_event_get_new(nullptr, kHour10, 1), 0);
        sec_to_tm(nullptr, kHour10);
        db_free_sqlite(nullptr, 3);
    });
    EXPECT_EQ(out, "");
}

// One table of bad arguments: each call is refused with one line naming the
// function (or, where the function is silent, just refused), and a frame
// dropped leaves no trace in the store.  Roots are refused from 99
// characters; one of exactly 98 records and plays back.  The next good
// frame is recorded as usual.
TEST_F(Hostile, BadArgumentsAreRefused) {
    const std::string longest = dir.path() + "/" + std::string(97 - dir.path().size(), 'r');
    ASSERT_EQ(longest.size(), 98u);
    ASSERT_EQ(mkdir(longest.c_str(), 0700), 0);
    const std::string over = longest + "x";
    const char *root = dir.path().c_str();
    std::tm t = at(kHour10);
    RecContext *ctx = vrix_db_open_rec_video(root, 5);
    ASSERT_NE(ctx, nullptr);

    auto with_word = [](std::vector<unsigned char> f, int word, uint32_t v) {
        std::memcpy(f.data() + 4 * word, &v, 4);
        return f;
    };
    // Each bad frame lies in a buffer of exactly its size, so that reading
    // past it is caught by the address sanitizer.
    auto cut = [](const std::vector<unsigned char> &f, size_t n) {
        return std::vector<unsigned char>(f.begin(), f.begin() + static_cast<long>(n));
    };
    const auto good = make_frame(1, kHour10, true, 100);
    std::vector<unsigned char> tiny = cut(good, 26); // no channel byte
    tiny[0] = 10;
    tiny[1] = tiny[2] = tiny[3] = 0;
    const std::vector<std::pair<std::vector<unsigned char>, int>> frames = {
        {good, 0},                                 // size 0
        {cut(good, 15), 15},                       // shorter than a header
        {good, -1},                                // negative size
        {cut(good, 60), 60},                       // shorter than its header says
        {with_word(good, 0, 10000), 116},          // payload word far beyond the frame
        {with_word(good, 0, 0xFFFFFFFFu), 116},    // payload word that wraps
        {with_word(good, 1, 0), 116},              // time 0
        {with_word(good, 3, 11), 116},             // scale 11
        {with_word(good, 3, 0xFFFF), 116},         // scale 65535
        {make_frame(5, kHour10, true, 100), 116},  // channel 5 of a 5-slot context
        {make_frame(17, kHour10, true, 100), 116}, // channel 17
        {tiny, 26},
    };

    struct Bad {
        const char *who; // null: refused without a word
        std::function<void()> call;
    };
    std::vector<Bad> table;
    for (const char *r : {static_cast<const char *>(nullptr), over.c_str()}) {
        table.push_back(
            {"vrix_db_open_rec_video", [r] { EXPECT_EQ(vrix_db_open_rec_video(r, 17), nullptr); }});
        table.push_back(
            {"vrix_db_open_rec_event", [r] { EXPECT_EQ(vrix_db_open_rec_event(r), nullptr); }});
    }
    table.push_back({nullptr, [&] {
                         EXPECT_EQ(vrix_db_open_get_video(&t, nullptr, 1, 4096, nullptr), nullptr);
                     }});
    table.push_back(
        {"vrix_db_open_get_video",
         [&] { EXPECT_EQ(vrix_db_open_get_video(&t, nullptr, 1, 4096, over.c_str()), nullptr); }});
    table.push_back({"vrix_db_open_get_event", [&] {
                         EXPECT_EQ(vrix_db_open_get_event(&t, 1, 0, 0, 1, over.c_str(), 10, 0, 0),
                                   nullptr);
                     }});
    table.push_back({"vrix_db_open_get_video", [&] { // no start time
                         EXPECT_EQ(vrix_db_open_get_video(nullptr, nullptr, 1, 4096, root),
                                   nullptr);
                     }});
    table.push_back({"vrix_db_open_rec_video", [&] { // one writer context is open already
                         EXPECT_EQ(vrix_db_open_rec_video(root, 17), nullptr);
                     }});
    for (int ch : {0, -1, 17, INT_MAX})
        table.push_back(
            {"vrix_db_open_get_video",
             [&, ch] { EXPECT_EQ(vrix_db_open_get_video(&t, nullptr, ch, 4096, root), nullptr); }});
    for (int size : {0, -1, INT_MIN})
        table.push_back({"vrix_db_open_get_video", [&, size] {
                             EXPECT_EQ(vrix_db_open_get_video(&t, nullptr, 1, size, root), nullptr);
                         }});
    for (int count : {-1, 18, INT_MAX})
        table.push_back({"vrix_db_open_rec_video",
                         [&, count] { EXPECT_EQ(vrix_db_open_rec_video(root, count), nullptr); }});
    for (int max : {0, -4})
        table.push_back({nullptr, [&, max] {
                             EXPECT_EQ(vrix_db_open_get_event(&t, 1, 0, 0, 1, root, max, 0, 0),
                                       nullptr);
                         }});
    table.push_back(
        {nullptr,
         [&] { EXPECT_EQ(vrix_db_open_get_event(nullptr, 1, 0, 0, 1, root, 10, 0, 0), nullptr); }});
    for (const auto &[f, size] : frames)
        table.push_back(
            {"vrix_db_rec_video", [&, size] { vrix_db_rec_video(ctx, f.data(), size); }});
    table.push_back({"vrix_db_rec_video", [&] { vrix_db_rec_video(ctx, nullptr, 116); }});
    for (int ch : {0, 5, -3})
        table.push_back({"vrix_db_rec_video_flush", [&, ch] { vrix_db_rec_video_flush(ctx, ch); }});
    // Audio: channel counts, roots, channels and buffers out of range, a block of time 0.
    for (int count : {0, 5})
        table.push_back({"vrix_db_open_rec_audio",
                         [&, count] { EXPECT_EQ(vrix_db_open_rec_audio(root, count), nullptr); }});
    table.push_back({"vrix_db_open_rec_audio",
                     [&] { EXPECT_EQ(vrix_db_open_rec_audio(over.c_str(), 2), nullptr); }});
    for (const auto &[ch, size] : {std::pair{1, 59}, std::pair{5, 60}})
        table.push_back({"vrix_db_open_get_audio", [&, ch, size] {
                             EXPECT_EQ(vrix_db_open_get_audio(&t, nullptr, ch, size, root),
                                       nullptr);
                         }});
    AudioRecContext *audio = vrix_db_open_rec_audio(root, 2);
    ASSERT_NE(audio, nullptr);
    const VrixAudioBlock zero{};
    table.push_back({"vrix_db_rec_audio", [&] { vrix_db_rec_audio(audio, &zero); }});

    for (size_t i = 0; i < table.size(); ++i) {
        SCOPED_TRACE("row " + std::to_string(i));
        if (table[i].who)
            EXPECT_TRUE(one_line_from(table[i].who, table[i].call));
        else
            EXPECT_EQ(lines_of(table[i].call), "");
    }
    struct stat st {};
    vrix_db_close_rec_audio(audio);
    EXPECT_NE(stat((dir / "20240310").c_str(), &st), 0) << "a dropped frame or block made the day";

    // The scale is the low half of its word: a high half does no harm.
    const auto scaled = with_word(good, 3, 0x00050000u);
    EXPECT_EQ(lines_of([&] { record(ctx, scaled); }), "");
    vrix_db_rec_video_flush(ctx, 1);
    vrix_db_close_rec_video(ctx);
    EXPECT_EQ(file_bytes(stream(1, 10)), scaled);

    RecContext *at98 = vrix_db_open_rec_video(longest.c_str(), 17);
    ASSERT_NE(at98, nullptr);
    const auto f = make_frame(16, kHour10, true, 100);
    record(at98, f);
    vrix_db_rec_video_flush(at98, 16);
    vrix_db_close_rec_video(at98);
    PlayContext *p = vrix_db_open_get_video(&t, nullptr, 16, 4096, longest.c_str());
    ASSERT_NE(p, nullptr);
    ASSERT_EQ(vrix_db_next_video(p), 1);
    void *buf = nullptr;
    ASSERT_EQ(vrix_db_get_video(p, &buf), 100);
    EXPECT_EQ(std::memcmp(buf, f.data() + 16, 100), 0);
    vrix_db_close_get_video(p);
}

// Garbage and foreign messages on the submit queue, which any process on the
// machine may write to: one line each, and the thread goes on serving.
TEST_F(Hostile, GarbageOnTheSubmitQueue) {
    RecContext *ctx = vrix_db_open_rec_video(dir.path().c_str(), 5);
    ASSERT_NE(ctx, nullptr);
    auto msg = [](unsigned char kind, int ch, int hour, int day) {
        NotifyMessage m{};
        m.mtype = 1;
        m.mtext[0] = kind;
        m.mtext[1] = static_cast<unsigned char>(ch);
        m.mtext[2] = static_cast<unsigned char>(hour);
        std::memcpy(m.mtext + 4, &day, 4);
        return m;
    };
    const int day = 1710028800;
    const std::vector<std::pair<NotifyMessage, size_t>> garbage = {
        {msg(0, 0, 0, 0), 128},
        {msg('x', 1, 2, day), 128},
        {msg(255, 255, 255, -1), 128},
        {msg(VRIX_MSG_HOUR, 0, 10, day), 128}, // channel 0
        {msg(VRIX_MSG_HOUR, 5, 10, day), 128}, // no slot 5 in a 5-slot context
        {msg(VRIX_MSG_HOUR, 200, 10, day), 128},
        {msg(VRIX_MSG_HOUR, 1, 24, day), 128}, // hour 24
        {msg(VRIX_MSG_HOUR, 1, 255, day), 128},
        {msg(VRIX_MSG_HOUR, 1, 10, -86400), 128},
        {msg(VRIX_MSG_DAY, 0, 0, INT_MAX), 128},
        {msg(VRIX_MSG_DAY, 0, 0, INT_MIN), 128},
        {msg(VRIX_MSG_DAY, 0, 0, 0), 128}, // no local midnight of a real day
        {msg(VRIX_MSG_DAY, 0, 0, 1), 128},
        {msg(VRIX_MSG_DAY, 0, 0, INT_MAX - 86400 - 7), 128},
        {msg(VRIX_MSG_DAY, 0, 0, day + 3600), 128},
        {msg(VRIX_MSG_HOUR, 1, 11, day + 60), 128},
        {msg(VRIX_MSG_STOP, 0, 0, 0), 128}, // a stop request nobody made
        {msg(VRIX_MSG_STOP, 0, 0, 12345), 128},
        {msg('x', 0, 0, 0), 1}, // short messages
        {msg(VRIX_MSG_HOUR, 9, 0, 0), 2},
        {msg(VRIX_MSG_HOUR, 1, 11, day), 8}, // whole fields, but not a message of ours
        {msg(VRIX_MSG_HOUR, 1, 11, day), 127},
    };
    struct {
        long mtype = 1;
        unsigned char text[200] = {};
    } longer;
    const NotifyMessage whole = msg(VRIX_MSG_HOUR, 1, 11, day);
    std::memcpy(longer.text, whole.mtext, sizeof whole.mtext);
    NotifyMessage odd = msg('q', 0, 0, 0);
    odd.mtype = 7; // a foreign message type
    const std::string out = lines_of([&] {
        for (const auto &[m, size] : garbage)
            ASSERT_EQ(msgsnd(g_iSubmitMq, &m, size, 0), 0);
        ASSERT_EQ(msgsnd(g_iSubmitMq, &odd, 128, 0), 0);
        ASSERT_EQ(msgsnd(g_iSubmitMq, &longer, sizeof longer.text, 0), 0);
        // Still serving: the hour of a real frame gets registered.
        record(ctx, make_frame(2, kHour10, true, 100));
        vrix_db_close_rec_video(ctx);
    });
    const auto count = [&out](const std::string &part) {
        size_t n = 0;
        for (size_t at = out.find(part); at != std::string::npos; at = out.find(part, at + 1))
            ++n;
        return n;
    };
    EXPECT_EQ(count("\n"), garbage.size() + 2) << out;
    EXPECT_EQ(count("\nsubmit thread : ") + (out.rfind("submit thread : ", 0) == 0), count("\n"))
        << out;
    EXPECT_EQ(rows(dir / "20240310/video/2/video.db", "select hour from H"),
              std::vector<std::string>{"10"});
    EXPECT_EQ(rows(dir / "date.db", "select date from ch2"),
              std::vector<std::string>{std::to_string(day)});
    EXPECT_TRUE(
        rows(dir / "date.db", "select date from H where date <> " + std::to_string(day)).empty());
    EXPECT_TRUE(rows(dir / "date.db", "select date from ch1").empty());
    for (const auto &e : std::filesystem::directory_iterator(dir.path()))
        EXPECT_TRUE(e.path().filename() == "date.db" || e.path().filename() == ".vrixdb.lock" ||
                    e.path().filename() == ".vrixdb.hours" ||
                    e.path().filename().string().rfind("202403", 0) == 0)
            << e.path();
}

// Remove requests that name anything outside the root, directly, through
// "..", or through a link, are refused with one line each and touch nothing
// there; a link inside the root goes, its target stays.
TEST_F(Hostile, RemoveRequestsOutsideTheRoot) {
    const std::string root = dir / "root", outside = dir / "outside";
    ASSERT_EQ(mkdir(root.c_str(), 0700), 0);
    ASSERT_EQ(mkdir(outside.c_str(), 0700), 0);
    const std::string victim = outside + "/victim";
    { std::ofstream(victim) << "keep"; }
    ASSERT_EQ(symlink(outside.c_str(), (root + "/link").c_str()), 0);
    VrixRmServer *rm = vrix_rm_server_start(root.c_str(), nullptr, nullptr);
    ASSERT_NE(rm, nullptr);
    auto ask = [](int command, const std::string &path) {
        NotifyMessage m{};
        m.mtype = 1;
        m.mtext[0] = static_cast<unsigned char>(command);
        std::memcpy(m.mtext + 1, path.data(), std::min<size_t>(path.size(), 126));
        EXPECT_EQ(msgsnd(g_iRmMq, &m, VRIX_MSG_TEXT_SIZE, 0), 0);
        NotifyMessage reply{};
        EXPECT_EQ(msgrcv(g_iRmAckMq, &reply, VRIX_MSG_TEXT_SIZE, 0, 0), VRIX_MSG_TEXT_SIZE);
        return static_cast<int>(reply.mtext[0]);
    };
    const std::vector<std::pair<int, std::string>> refused = {
        {VRIX_RM_FILE, victim},
        {VRIX_RM_DIR, outside},
        {VRIX_RM_FILE, root + "/../outside/victim"},
        {VRIX_RM_DIR, root + "/.."},
        {VRIX_RM_FILE, root + "/link/victim"},
        {VRIX_RM_DIR, root},
        {7, root + "/anything"},
        {VRIX_RM_FILE, ""},
    };
    for (const auto &[command, path] : refused) {
        int outcome = -1;
        EXPECT_TRUE(one_line_from("rm server", [&] { outcome = ask(command, path); }));
        EXPECT_EQ(outcome, VRIX_RM_REFUSED) << command << " " << path;
    }
    EXPECT_EQ(file_bytes(victim).size(), 4u);
    EXPECT_EQ(ask(VRIX_RM_FILE, root + "/link"), VRIX_RM_REMOVED);
    EXPECT_EQ(file_bytes(victim).size(), 4u);
    vrix_rm_server_stop(rm);
}

} // namespace
