// Power loss and damaged files: a recorded store is damaged at random (stream
// files and databases truncated, database pages with flipped bytes, journals
// deleted under a half-written transaction or left behind as garbage), then
// vrix_db_correct_all runs.  Afterwards every database of the newest day and
// date.db must be sound, restored from its .sql copy, or rebuilt from the
// stream files; playback, audio playback and event paging must deliver only
// what was written, byte for byte.  Only what repair looks after is damaged:
// date.db and the newest day.  VRIX_LONG=1 runs many more rounds.
#include "support/queues.h"
#include "verify.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>

namespace {

namespace fs = std::filesystem;
using namespace vrix::rel;
using namespace vrix::test;

constexpr int kVideoChannels = 4;
constexpr uint32_t kFirst = 2400;  // 23:40 of 2024-03-10
constexpr uint32_t kDay2 = 2700;   // 2024-03-11 00:00
constexpr uint32_t kBackup = 3300; // 00:40: the .sql copies are taken here
constexpr uint32_t kEnd = 3700;    // 01:06:40, so the newest day has two hours
constexpr char kDay[] = "20240311";

int g_event_now = kT0;
int event_clock() {
    return g_event_now;
}

bool written(int ch, uint32_t r) {
    return ch >= 1 && ch <= kVideoChannels && r >= kFirst && r < kEnd;
}
bool audio_written(uint32_t r) {
    return r >= kFirst && r < kEnd;
}
bool event_written(uint32_t r) {
    return audio_written(r) && has_event(r);
}

// The store every round starts from, recorded once.
const std::string &recorded_store() {
    static ScratchDir dir;
    static const bool done = [] {
        const char *root = dir.path().c_str();
        const VrixTestHooks hooks{0, event_clock};
        vrix_db_set_test_hooks(&hooks);
        RecContext *rec = vrix_db_open_rec_video(root, kVideoChannels + 1);
        AudioRecContext *audio = vrix_db_open_rec_audio(root, kAudioChannels);
        EventRecContext *ev = vrix_db_open_rec_event(root);
        if (!rec || !audio || !ev) return false;
        for (uint32_t r = kFirst; r < kEnd; ++r) {
            for (int ch = 1; ch <= kVideoChannels; ++ch)
                record(rec, frame(ch, r));
            const VrixAudioBlock block = audio_block(r);
            vrix_db_rec_audio(audio, &block);
            if (has_event(r)) {
                g_event_now = round_sec(r);
                vrix_db_rec_event(ev, event_ch(r), event_type(r), 0, 0);
            }
            if (r == kBackup) vrix_db_backup(root, kDay);
        }
        for (int ch = 1; ch <= kVideoChannels; ++ch)
            vrix_db_rec_video_flush(rec, ch);
        vrix_db_rec_audio_flush(audio);
        vrix_db_close_rec_video(rec);
        vrix_db_close_rec_audio(audio);
        vrix_db_close_rec_event(ev);
        vrix_db_set_test_hooks(nullptr);
        // The submit thread registers hours behind the writer: wait for the last.
        const std::string date = dir / "date.db";
        for (int i = 0; i < 500; ++i) {
            const auto h = rows(date, "select count(*) from ch1 where date = " +
                                          std::to_string(round_sec(kDay2)));
            if (!h.empty() && h[0] == "1" && fs::exists(dir / (std::string(kDay) + "/event.db")))
                break;
            usleep(10000);
        }
        return true;
    }();
    static const std::string empty;
    return done ? dir.path() : empty;
}

std::string shell(const std::string &db, const std::string &sql, int *status = nullptr) {
    const std::string cmd = "sqlite3 '" + db + "' '" + sql + "' 2>&1";
    std::string out;
    int st = -1;
    if (FILE *p = popen(cmd.c_str(), "r")) {
        char buf[256];
        while (std::fgets(buf, sizeof buf, p))
            out += buf;
        st = pclose(p);
    }
    if (status) *status = st;
    while (!out.empty() && (out.back() == '\n' || out.back() == '\r'))
        out.pop_back();
    return out;
}

// Sound as repair judges it: the integrity check passes and the table reads.
bool sound(const std::string &db, const std::string &table) {
    int st = -1;
    if (shell(db, "PRAGMA integrity_check") != "ok") return false;
    shell(db, "select count(*) from " + table, &st);
    return st == 0;
}

// The same judgement on a copy, so that a hot journal is not rolled back here.
bool sound_before(const std::string &db, const std::string &table) {
    ScratchDir tmp;
    const std::string copy = tmp / "x.db";
    fs::copy_file(db, copy);
    if (fs::exists(db + "-journal")) fs::copy_file(db + "-journal", copy + "-journal");
    return sound(copy, table);
}

struct Figures {
    int rounds = 0, damages = 0, sound = 0, restored = 0, rebuilt = 0;
};

class Damager {
  public:
    Damager(std::string root, uint32_t seed) : root_(std::move(root)), rng_(seed) {}

    std::set<std::string> touched; // files damaged in this round

    void one() {
        const std::string day = root_ + "/" + kDay;
        std::vector<std::string> dbs = {root_ + "/date.db", day + "/event.db",
                                        day + "/audio/audio.db"};
        for (int ch = 1; ch <= kVideoChannels; ++ch)
            dbs.push_back(day + "/video/" + std::to_string(ch) + "/video.db");
        std::vector<std::string> streams;
        for (int h = 0; h < 2; ++h) {
            for (int ch = 1; ch <= kVideoChannels; ++ch)
                streams.push_back(day + "/video/" + std::to_string(ch) + "/" + std::to_string(h) +
                                  ".stream");
            for (int ch = 1; ch <= kAudioChannels; ++ch)
                streams.push_back(day + "/audio/" + std::to_string(ch) + "/" + std::to_string(h) +
                                  ".stream");
        }
        const std::string db = dbs[pick(dbs.size())];
        switch (pick(5)) {
        case 0: {
            const std::string s = streams[pick(streams.size())];
            truncate_at_random(s);
            touched.insert(s);
            return;
        }
        case 1:
            truncate_at_random(db);
            break;
        case 2:
            flip_page_bytes(db);
            break;
        case 3:
            half_written(db, pick(2) == 0);
            break;
        default:
            fake_journal(db);
            break;
        }
        touched.insert(db);
    }

  private:
    size_t pick(size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(rng_); }

    void truncate_at_random(const std::string &f) {
        if (!fs::exists(f)) return;
        const auto size = fs::file_size(f);
        fs::resize_file(f, size ? pick(size) : 0);
    }

    void flip_page_bytes(const std::string &db) {
        auto bytes = file_bytes(db);
        if (bytes.size() < 512) return;
        const size_t page = static_cast<size_t>(bytes[16]) << 8 | bytes[17];
        const size_t pages = page ? bytes.size() / page : 1;
        const size_t base = pick(pages) * (page ? page : bytes.size());
        const size_t span = page ? page : bytes.size();
        for (size_t n = 1 + pick(8); n > 0; --n)
            bytes[base + pick(span)] ^= static_cast<unsigned char>(1 + pick(255));
        std::ofstream(db, std::ios::binary | std::ios::trunc)
            .write(reinterpret_cast<const char *>(bytes.data()),
                   static_cast<std::streamsize>(bytes.size()));
    }

    // Power lost in the middle of a transaction that had spilled pages into
    // the database: the files as they were at that moment, with the journal
    // kept (SQLite rolls back) or lost.
    void half_written(const std::string &db, bool keep_journal) {
        const std::string image = db + ".image", journal_image = db + ".image-journal";
        sqlite3 *h = nullptr;
        if (sqlite3_open(db.c_str(), &h) == SQLITE_OK) {
            sqlite3_exec(h,
                         "PRAGMA cache_size=1; BEGIN; CREATE TABLE pad(x); "
                         "INSERT INTO pad WITH RECURSIVE c(i) AS (SELECT 1 UNION ALL SELECT i+1 "
                         "FROM c WHERE i<2000) SELECT randomblob(300) FROM c;",
                         nullptr, nullptr, nullptr);
            std::error_code ec;
            fs::copy_file(db, image, ec);
            fs::copy_file(db + "-journal", journal_image, ec);
            sqlite3_exec(h, "ROLLBACK", nullptr, nullptr, nullptr);
        }
        sqlite3_close(h);
        std::error_code ec;
        fs::remove(db + "-journal", ec);
        if (!fs::exists(image)) return;
        fs::rename(image, db);
        if (keep_journal && fs::exists(journal_image)) fs::rename(journal_image, db + "-journal");
        fs::remove(journal_image, ec);
    }

    void fake_journal(const std::string &db) {
        std::vector<char> junk(pick(3) == 0 ? 0 : 512 + pick(8192));
        for (auto &c : junk)
            c = static_cast<char>(pick(256));
        if (!junk.empty() && pick(2)) // a header that looks like a journal's
            std::memcpy(junk.data(), "\xd9\xd5\x05\xf9\x20\xa1\x63\xd7", 8);
        std::ofstream(db + "-journal", std::ios::binary)
            .write(junk.data(), static_cast<std::streamsize>(junk.size()));
    }

    std::string root_;
    std::mt19937 rng_;
};

std::string table_of(const std::string &db) {
    return db.ends_with("event.db") ? "h_all" : "H";
}

void damage_round(uint32_t seed, Figures &fig) {
    const std::string &store = recorded_store();
    ASSERT_FALSE(store.empty());
    ScratchDir dir;
    const std::string root = dir.path();
    fs::copy(store, root, fs::copy_options::recursive);
    SCOPED_TRACE("seed " + std::to_string(seed));

    Damager damage(root, seed);
    std::mt19937 rng(seed ^ 0x5eedu);
    const int n = 1 + static_cast<int>(rng() % 3);
    for (int i = 0; i < n; ++i)
        damage.one();
    fig.damages += n;

    const std::string day = root + "/" + kDay;
    std::vector<std::string> dbs = {root + "/date.db", day + "/event.db", day + "/audio/audio.db"};
    for (int ch = 1; ch <= kVideoChannels; ++ch)
        dbs.push_back(day + "/video/" + std::to_string(ch) + "/video.db");
    std::vector<bool> was_sound;
    std::vector<std::vector<unsigned char>> before;
    for (const auto &db : dbs) {
        was_sound.push_back(fs::exists(db) && sound_before(db, table_of(db)));
        before.push_back(file_bytes(db));
    }

    ASSERT_EQ(vrix_db_correct_all(root.c_str()), 0);

    for (size_t i = 0; i < dbs.size(); ++i) {
        const std::string &db = dbs[i];
        ASSERT_TRUE(fs::exists(db)) << db << " is gone after repair";
        EXPECT_TRUE(sound(db, table_of(db))) << db << ": " << shell(db, "PRAGMA integrity_check");
        const bool has_copy = i < 2;
        if (was_sound[i]) {
            ++fig.sound;
        } else if (has_copy) {
            EXPECT_EQ(file_bytes(db), file_bytes(db + ".sql")) << db << " not restored";
            ++fig.restored;
        } else {
            EXPECT_NE(file_bytes(db), before[i]) << db << " not rebuilt";
            ++fig.rebuilt;
        }
    }

    // Playback: only frames that were written, in order, whatever is left.
    const bool date_intact = !damage.touched.count(root + "/date.db");
    for (int ch = 1; ch <= kVideoChannels; ++ch) {
        SCOPED_TRACE("channel " + std::to_string(ch));
        const std::string chdir = day + "/video/" + std::to_string(ch) + "/";
        const bool intact = date_intact && !damage.touched.count(chdir + "video.db") &&
                            !damage.touched.count(chdir + "0.stream") &&
                            !damage.touched.count(chdir + "1.stream");
        const Walk fwd = play(root, ch, round_sec(kDay2), Mode::Forward, written);
        EXPECT_EQ(fwd.wrong, 0u) << fwd.first_fault;
        if (intact) {
            uint32_t key = kDay2;
            while (!is_key(ch, key))
                ++key;
            EXPECT_EQ(fwd.rounds.size(), kEnd - key) << "an undamaged channel lost frames";
        }
        const Walk keys = play(root, ch, round_sec(kFirst), Mode::KeyFrames, written);
        EXPECT_EQ(keys.wrong, 0u) << keys.first_fault;
        const Walk back = play(root, ch, round_sec(kEnd), Mode::Backward, written, 400);
        EXPECT_EQ(back.wrong, 0u) << back.first_fault;
    }
    for (int ch = 1; ch <= kAudioChannels; ++ch) {
        const Walk a = play_audio(root, ch, round_sec(kDay2), audio_written);
        EXPECT_EQ(a.wrong, 0u) << a.first_fault;
    }
    const EventWalk ev = page_events(root, round_sec(kFirst), event_written);
    EXPECT_EQ(ev.wrong, 0u) << ev.first_fault;
    ++fig.rounds;
}

TEST(DamagedFiles, RepairLeavesSoundDatabasesAndPlayableRecordings) {
    start_library();
    const bool long_run = std::getenv("VRIX_LONG") != nullptr;
    const uint32_t rounds = long_run ? 300 : 16;
    Figures fig;
    for (uint32_t seed = 1; seed <= rounds && !HasFatalFailure(); ++seed)
        damage_round(seed, fig);
    std::printf("damaged files: %d rounds, %d damages; databases sound %d, restored %d, "
                "rebuilt %d\n",
                fig.rounds, fig.damages, fig.sound, fig.restored, fig.rebuilt);
    EXPECT_EQ(fig.rounds, static_cast<int>(rounds));
}

} // namespace
