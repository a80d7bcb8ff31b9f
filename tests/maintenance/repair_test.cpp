// Integrity check and repair.  One table crosses what can be wrong with a
// database (and with its copy) for each kind of database, and checks what is
// set aside, restored, made again or left alone, that no stream file changes,
// and that playback still finds every recorded day.  A sweep over footage the
// indexes do not lead to (a clock that jumped ahead, registrations that never
// happened) checks that start-up repair finds and indexes it.
#include "core/file_io.h"
#include "maint_store.h"
#include "support/lines.h"

#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>

namespace {

namespace fs = std::filesystem;
using namespace vrix::test;

constexpr int kHour10 = kDay + 10 * 3600, kHour11 = kDay + 11 * 3600;
constexpr int kDayB = kDay + 86400, kHourB = kDayB + 10 * 3600;
constexpr char kNameB[] = "20240311";

// The seconds played forward from `from` on a video channel (audio: ch 0).
std::vector<int> played(const std::string &root, int ch, int from) {
    std::vector<int> secs;
    const auto note = [&secs](int sec) {
        if (secs.empty() || secs.back() != sec) secs.push_back(sec);
    };
    std::tm start = local_tm(from);
    if (ch) {
        PlayContext *p = vrix_db_open_get_video(&start, nullptr, ch, 1 << 16, root.c_str());
        while (p && vrix_db_next_video(p) == 1) {
            int sec = 0, sub = 0;
            vrix_db_video_get_current_time(p, &sec, &sub);
            note(sec);
        }
        vrix_db_close_get_video(p);
        return secs;
    }
    AudioPlayContext *a = vrix_db_open_get_audio(&start, nullptr, 1, 64, root.c_str());
    while (a && vrix_db_next_audio(a) == 1)
        note(vrix_get_audio_sec(a));
    vrix_db_close_get_audio(a);
    return secs;
}

std::vector<int> seconds(int from, int n) {
    std::vector<int> s;
    for (int i = 0; i < n; ++i)
        s.push_back(from + i);
    return s;
}

void record_audio(const std::string &root, const std::vector<int> &secs) {
    AudioRecContext *a = vrix_db_open_rec_audio(root.c_str(), 1);
    ASSERT_NE(a, nullptr);
    for (int s : secs)
        for (uint32_t w = 0; w < 3; ++w) {
            const VrixAudioBlock b = audio_block(s, w, [](int, unsigned char *) {});
            vrix_db_rec_audio(a, &b);
        }
    vrix_db_rec_audio_flush(a);
    vrix_db_close_rec_audio(a);
}

void record_events(const std::string &root, const std::vector<int> &secs) {
    EventRecContext *e = vrix_db_open_rec_event(root.c_str());
    ASSERT_NE(e, nullptr);
    for (int s : secs) {
        g_maint_now = s;
        vrix_db_rec_event(e, 1, 1, 0, 0);
    }
    vrix_db_close_rec_event(e);
}

// Every stream file of a store with its bytes.
std::map<std::string, Bytes> streams(const std::string &root) {
    std::map<std::string, Bytes> out;
    for (const auto &e : fs::recursive_directory_iterator(root))
        if (e.path().extension() == ".stream") out[e.path().string()] = file_bytes(e.path());
    return out;
}

std::vector<std::string> set_aside_files(const std::string &root) {
    std::vector<std::string> out;
    for (const auto &e : fs::recursive_directory_iterator(root))
        if (e.path().filename().string().find(".damaged-") != std::string::npos)
            out.push_back(e.path().string());
    return out;
}

// Two recorded days (video ch 1 and 2, audio, events) with their copies: the
// good ones beside the databases, and older ones (date.db before day B,
// event.db before its last events).
struct Recorded {
    ScratchDir dir;
    std::string root = dir.path();
    Bytes older_date, older_events;
    Rows video_rows, audio_rows;
    std::vector<int> video_secs, audio_secs;
    std::string video_db = root + "/" + kNameB + "/video/1/video.db",
                audio_db = root + "/" + kNameB + "/audio/audio.db",
                event_db = root + "/" + kNameB + "/event.db", date_db = root + "/date.db";

    Recorded() {
        const FastWaits fast(true);
        const std::vector<int> a = seconds(kHour10, 6), b = seconds(kHourB, 6);
        record_video(root, {{1, a}, {2, a}});
        record_audio(root, a);
        record_events(root, {kHour10 + 1, kHour10 + 2});
        vrix_db_backup(root.c_str(), kDayName);
        older_date = file_bytes(date_db + ".sql");
        record_video(root, {{1, b}, {2, b}});
        record_audio(root, b);
        record_events(root, {kHourB + 1, kHourB + 2});
        vrix_db_backup(root.c_str(), kNameB);
        older_events = file_bytes(event_db + ".sql");
        record_events(root, {kHourB + 3});
        vrix_db_backup(root.c_str(), kNameB);
        // Hours and days the submit thread registers behind the writers.
        for (int i = 0; i < 500 && rows(date_db, "select date from ch2").size() < 2; ++i)
            usleep(10000);
        // The start-up repair after a clean stop: an empty journal, trusted.
        vrix_db_correct_all(root.c_str());
        video_rows = index_rows(video_db);
        audio_rows = index_rows(audio_db);
        video_secs = a;
        video_secs.insert(video_secs.end(), b.begin(), b.end());
        audio_secs = video_secs;
    }
    static Rows index_rows(const std::string &db) {
        Rows r = rows(db, "select hour from H order by hour");
        for (const auto &row : rows(db, "select sec,offset from h10 order by id"))
            r.push_back(row);
        return r;
    }
};

const Recorded &recorded() {
    static Recorded r;
    return r;
}

enum class Damage {
    Sound,
    CorruptPage,
    NotADatabase,
    Truncated,
    Busy,
    Unreadable,
    Missing,
    HotJournal,    // power lost in a transaction that spilled pages, its journal kept
    LostJournal,   // the same with the journal lost
    GarbageJournal // a journal of junk beside a sound database
};
enum class Copy { None, Good, Damaged, Older };
const char *const kDamageNames[] = {
    "sound",      "corrupt page", "not a database", "truncated",    "busy",
    "unreadable", "missing",      "hot journal",    "lost journal", "garbage journal"};
bool journal_damage(Damage d) {
    return d >= Damage::HotJournal;
}
const char *const kCopyNames[] = {"no copy", "good copy", "damaged copy", "older copy"};

// Reads of one file fail, as a failing disk would.
struct Unreadable : vrix::io::Observer {
    explicit Unreadable(std::string p) : path(std::move(p)) { vrix::io::set_observer(this); }
    ~Unreadable() override { vrix::io::set_observer(nullptr); }
    void before(const vrix::io::Access &) override {}
    vrix::io::Fault fault(const vrix::io::Access &a) override {
        vrix::io::Fault f;
        if (a.op == vrix::io::Op::Read && a.path && fs::path(a.path) == fs::path(path))
            f.error = EIO;
        return f;
    }
    std::string path;
};

// The database and its journal as a power cut in the middle of a transaction
// that had spilled pages into the database leaves them, the journal kept or
// lost.
void half_written(const std::string &db, bool keep_journal) {
    const std::string image = db + ".image";
    sqlite3 *h = nullptr;
    ASSERT_EQ(sqlite3_open(db.c_str(), &h), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(h,
                           "PRAGMA cache_size=1; BEGIN; CREATE TABLE pad(x); "
                           "INSERT INTO pad WITH RECURSIVE c(i) AS (SELECT 1 UNION ALL SELECT i+1 "
                           "FROM c WHERE i<2000) SELECT randomblob(300) FROM c;",
                           nullptr, nullptr, nullptr),
              SQLITE_OK);
    fs::copy_file(db, image);
    if (keep_journal) fs::copy_file(db + "-journal", image + "-journal");
    sqlite3_exec(h, "ROLLBACK", nullptr, nullptr, nullptr);
    sqlite3_close(h);
    fs::rename(image, db);
    if (keep_journal) fs::rename(image + "-journal", db + "-journal");
}

void damage(const std::string &db, Damage d) {
    if (d == Damage::HotJournal || d == Damage::LostJournal) {
        half_written(db, d == Damage::HotJournal);
        return;
    }
    if (d == Damage::GarbageJournal) { // with a journal's header
        Bytes junk(4096);
        for (size_t i = 0; i < junk.size(); ++i)
            junk[i] = static_cast<unsigned char>(i * 2654435761u >> 13);
        std::memcpy(junk.data(), "\xd9\xd5\x05\xf9\x20\xa1\x63\xd7", 8);
        write_file(db + "-journal", junk);
        return;
    }
    Bytes bytes = file_bytes(db);
    ASSERT_GT(bytes.size(), 8192u);
    switch (d) {
    case Damage::CorruptPage: // the b-tree page header of page 2
        std::fill(bytes.begin() + 4096, bytes.begin() + 4096 + 12, 0xee);
        break;
    case Damage::NotADatabase:
        std::fill(bytes.begin(), bytes.begin() + 100, 0x5a);
        break;
    case Damage::Truncated:
        bytes.resize(bytes.size() / 2 + 100);
        break;
    case Damage::Missing:
        fs::remove(db);
        return;
    default:
        return;
    }
    write_file(db, bytes);
}

struct Case {
    std::string file; // relative to the root
    Damage damage;
    Copy copy;
};

std::vector<Case> cases() {
    std::vector<Case> all;
    const std::string day = std::string(kNameB) + "/";
    for (const std::string &file : {std::string("date.db"), day + "event.db",
                                    day + "video/1/video.db", day + "audio/audio.db"}) {
        const bool has_copy = file.ends_with("date.db") || file.ends_with("event.db");
        for (int d = 0; d <= static_cast<int>(Damage::GarbageJournal); ++d) {
            // Journals with a good copy or none.
            const Copy last = !has_copy                   ? Copy::None
                              : journal_damage(Damage(d)) ? Copy::Good
                                                          : Copy::Older;
            for (int c = 0; c <= static_cast<int>(last); ++c)
                all.push_back({file, static_cast<Damage>(d), static_cast<Copy>(c)});
        }
    }
    return all;
}

void run_case(const Case &c) {
    const Recorded &rec = recorded();
    ScratchDir dir;
    const std::string root = dir / "store", db = root + "/" + c.file;
    fs::copy(rec.root, root, fs::copy_options::recursive);
    const Bytes good_copy = file_bytes(db + ".sql");
    if (fs::exists(db + ".sql")) {
        if (c.copy == Copy::None) fs::remove(db + ".sql");
        if (c.copy == Copy::Damaged) write_file(db + ".sql", Bytes(good_copy.size(), 0x5a));
        if (c.copy == Copy::Older)
            write_file(db + ".sql", c.file == "date.db" ? rec.older_date : rec.older_events);
    }
    damage(db, c.damage);
    const Bytes before = file_bytes(db);
    const auto streams_before = streams(root);

    std::vector<int> steps;
    vrix_hdd_set_correct_step_callback(
        [](int step, void *user) { static_cast<std::vector<int> *>(user)->push_back(step); },
        &steps);
    Lines lines;
    {
        const FastWaits fast;
        std::unique_ptr<HeldElsewhere> busy;
        if (c.damage == Damage::Busy) {
            busy = std::make_unique<HeldElsewhere>(db);
            ASSERT_TRUE(busy->held);
        }
        std::unique_ptr<Unreadable> eio;
        if (c.damage == Damage::Unreadable) eio = std::make_unique<Unreadable>(db);
        EXPECT_EQ(vrix_db_correct_all(root.c_str()), 0);
    }
    vrix_hdd_set_correct_step_callback(nullptr, nullptr);
    SCOPED_TRACE(lines.text());

    const auto aside = set_aside_files(root);
    // What a journal leaves may be sound (rolled back) or damage; either way
    // the database is sound afterwards.
    const bool damaged = c.damage == Damage::CorruptPage || c.damage == Damage::NotADatabase ||
                         c.damage == Damage::Truncated ||
                         (journal_damage(c.damage) && !aside.empty());
    const bool left_alone = c.damage == Damage::Busy || c.damage == Damage::Unreadable;
    const bool lost = damaged || c.damage == Damage::Missing;
    const bool date = c.file == "date.db";

    if (fs::exists(db)) {
        EXPECT_EQ(rows(db, "PRAGMA integrity_check"), Rows{"ok"});
    }
    EXPECT_TRUE(fs::exists(db) || c.file.ends_with("event.db")) << "gone after repair";
    // Only a damaged file is set aside, whole, and nothing but it.
    ASSERT_EQ(aside.size(), damaged ? 1u : 0u);
    if (damaged) {
        EXPECT_EQ(file_bytes(aside[0]), before);
    }
    if (left_alone) {
        EXPECT_EQ(file_bytes(db), before);
        EXPECT_TRUE(lines.has(c.damage == Damage::Busy ? "busy" : "could not be checked"));
    }
    if (c.damage == Damage::Sound) {
        EXPECT_EQ(file_bytes(db), before);
    }
    EXPECT_EQ(streams(root), streams_before) << "a stream file changed";
    const bool ended = date && left_alone;
    EXPECT_EQ(lines.has("vrix_db_correct : fail"), ended);
    EXPECT_EQ(steps.size(), ended ? 0u : 16u);

    if (date && !left_alone) {
        const Rows both = {std::to_string(kDay), std::to_string(kDayB)};
        EXPECT_EQ(rows(db, "select date from H order by date"), both);
        EXPECT_EQ(rows(db, "select date from ch1 order by date"), both);
        EXPECT_EQ(rows(db, "select date from ch2 order by date"), both);
    }
    if (c.file.ends_with("event.db") && lost) {
        const Bytes expected = c.copy == Copy::Good    ? good_copy
                               : c.copy == Copy::Older ? rec.older_events
                                                       : Bytes{};
        EXPECT_EQ(file_bytes(db), expected);
        EXPECT_EQ(fs::exists(db), !expected.empty());
        EXPECT_EQ(lines.has("events of 20240311 are aside"), damaged && expected.empty());
    }
    const bool video = c.file.ends_with("video.db"), audio = c.file.ends_with("audio.db");
    if ((video || audio) && !left_alone) {
        EXPECT_EQ(Recorded::index_rows(db), video ? rec.video_rows : rec.audio_rows);
    }

    // Playback still finds every recorded day.
    EXPECT_EQ(played(root, 1, kDay), rec.video_secs);
    EXPECT_EQ(played(root, 2, kDay), rec.video_secs);
    EXPECT_EQ(played(root, 0, kDay), rec.audio_secs);
}

TEST(RepairTable, EveryDamageOfEveryDatabaseAndItsCopy) {
    Started started;
    ASSERT_EQ(played(recorded().root, 1, kDay), recorded().video_secs);
    for (const Case &c : cases()) {
        SCOPED_TRACE(c.file + ": " + kDamageNames[static_cast<int>(c.damage)] + ", " +
                     kCopyNames[static_cast<int>(c.copy)]);
        run_case(c);
        if (HasFatalFailure()) return;
    }
}

// Footage whose rows or registrations were lost: whole frames after the last
// row of an hour on a day that is no longer the newest (the clock jumped a few
// days ahead), an hour that never got its row in the day's H, a day never
// registered in date.db.  With the writers' journal start-up repair finds all
// of them; without one (an older store) it looks through every day directory
// and finds the unregistered ones.
TEST(Reconcile, FootageTheIndexesDoNotLeadToIsFound) {
    Started started;
    const FastWaits fast;
    const int future = kHour10 + 5 * 86400 - 7 * 3600; // 03:00, five days on
    for (const bool journal : {true, false}) {
        for (const std::string lost :
             {"rows after a clock jump", "hour registration", "day registration"}) {
            if (!journal && lost == "rows after a clock jump") continue; // needs the journal
            SCOPED_TRACE(lost + (journal ? ", with the journal" : ", without a journal"));
            ScratchDir dir;
            const std::string root = dir.path(), day = dir / kDayName, day_b = dir / kNameB;
            // A journal that repair began is trusted alone.
            if (journal) vrix_db_correct_all(root.c_str());
            std::vector<int> a = seconds(kHour10, 4), later = seconds(kHour11, 4);
            if (lost == "rows after a clock jump") later = seconds(future, 3);
            if (lost == "day registration") later = seconds(kHourB, 4);
            record_video(root, {{1, a}});
            record_video(root, {{1, later}});
            std::vector<int> expected = a;
            const std::string index = day + "/video/1/video.db";
            if (lost == "rows after a clock jump") {
                // Two whole key frames the writer put in the file before it
                // was killed, their rows lost; a torn one after them; a row
                // naming nothing in the file.
                for (int s : {kHour10 + 20, kHour10 + 21}) {
                    write_file(day + "/video/1/10.stream", make_frame(1, s, true, 200), true);
                    expected.push_back(s);
                }
                const Bytes torn = make_frame(1, kHour10 + 22, true, 80);
                write_file(day + "/video/1/10.stream", Bytes(torn.begin(), torn.begin() + 50),
                           true);
                exec(index,
                     "insert into h10 values(NULL," + std::to_string(kHour10 + 30) + ",900000);");
            } else if (lost == "hour registration") {
                exec(index, "delete from H where hour = 11; drop table h11;");
            } else {
                exec(dir / "date.db", "delete from ch1 where date = " + std::to_string(kDayB) +
                                          "; delete from H where date = " + std::to_string(kDayB));
                exec(day_b + "/video/1/video.db", "delete from H; drop table h10;");
            }
            expected.insert(expected.end(), later.begin(), later.end());
            if (!journal) fs::remove(dir / ".vrixdb.hours");
            const auto before = streams(root);
            Lines lines;
            vrix_db_correct_all(root.c_str());
            EXPECT_EQ(streams(root), before) << "a stream file changed";
            EXPECT_EQ(played(root, 1, kHour10), expected) << lines.text();
            // Every key frame of the hour has its row, and no row names
            // what is not in the file.
            Rows keys;
            for (int s : expected)
                if (s < kHour11) keys.push_back(std::to_string(s));
            EXPECT_EQ(rows(index, "select sec from h10 order by id"), keys);
            // What was reconciled leaves the journal; a journal is there afterwards.
            EXPECT_TRUE(fs::exists(dir / ".vrixdb.hours"));
            EXPECT_TRUE(file_bytes(dir / ".vrixdb.hours").empty());
        }
    }
}

// The rebuild scan ends at the first record that is not whole and valid.
TEST(Rebuild, ScanStopsAtTheFirstInvalidRecord) {
    Started started;
    ScratchDir dir;
    const std::string channel_dir = dir / kDayName + "/video/1/",
                      video_db = channel_dir + "video.db";
    record_video(dir.path(), {{1, {kHour11 + 7}}});
    const std::string stream = channel_dir + "11.stream";
    const auto original = file_bytes(stream);
    const auto next = make_frame(1, kHour11 + 9, true, 64);
    auto len0 = next, time0 = next, too_long = next, cut = next;
    len0[0] = 0;
    time0[4] = time0[5] = time0[6] = time0[7] = 0;
    too_long[2] = 0x02 + VRIX_MAX_FRAME_PAYLOAD / 65536;
    cut.pop_back();
    for (const Bytes *bad : {&len0, &time0, &too_long, &cut}) {
        write_file(stream, original);
        write_file(stream, make_frame(1, kHour11 + 8, true, 64), true);
        write_file(stream, *bad, true);
        if (bad != &cut) write_file(stream, next, true); // a cut record ends the file
        fs::remove(video_db);
        testing::internal::CaptureStdout();
        vrix_db_correct_video(channel_dir.c_str());
        EXPECT_NE(testing::internal::GetCapturedStdout().find("open fail"), std::string::npos);
        EXPECT_EQ(
            rows(video_db, "select id,sec,offset from h11"),
            (Rows{"1," + std::to_string(kHour11 + 7) + ",0",
                  "2," + std::to_string(kHour11 + 8) + "," + std::to_string(original.size())}));
    }
}

TEST(Rebuild, AudioIndexHasOneRowPerSecond) {
    Started started;
    ScratchDir dir;
    const std::string audio = dir / kDayName + "/audio/";
    fs::create_directories(audio + "1");
    // A record of another hour ends the valid records of the file.
    write_file(audio + "1/10.stream",
               audio_records({kHour10, kHour10, kHour10, kHour10 + 1, kHour11, kHour10 + 2}));
    vrix_db_correct_audio(audio.c_str());
    EXPECT_EQ(rows(audio + "audio.db", "select hour from H"), Rows{"10"});
    EXPECT_EQ(
        rows(audio + "audio.db", "select id,sec,offset from h10"),
        (Rows{"1," + std::to_string(kHour10) + ",0", "2," + std::to_string(kHour10 + 1) + ",180"}));
}

// The longest root the library records into (98 characters) is repaired like
// any other: damaged indexes are set aside and made again beside their
// streams, under names that still fit.
TEST(Rebuild, LongestRoot) {
    Started started;
    ScratchDir dir;
    const std::string root = dir / std::string(97 - dir.path().size(), 'r');
    ASSERT_EQ(root.size(), 98u);
    fs::create_directories(root);
    record_video(root, {{16, {kHour10 + 1, kHour10 + 2}}});
    record_audio(root, {kHour10, kHour10 + 1});
    const std::string day = root + "/" + kDayName, video = day + "/video/16/video.db",
                      audio = day + "/audio/audio.db";
    const Rows keys = rows(video, "select sec,offset from h10"),
               secs = rows(audio, "select sec,offset from h10");
    ASSERT_EQ(keys.size(), 2u);
    ASSERT_EQ(secs.size(), 2u);
    write_file(video, Bytes(8192, 0x5a));
    fs::remove(audio);

    Lines lines;
    vrix_db_correct_all(root.c_str());
    EXPECT_FALSE(lines.has("too long")) << lines.text();
    EXPECT_EQ(set_aside_files(root).size(), 1u);
    EXPECT_EQ(rows(video, "select sec,offset from h10"), keys);
    EXPECT_EQ(rows(audio, "select sec,offset from h10"), secs);
}

} // namespace
