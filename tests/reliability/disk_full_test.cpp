// A disk that fills up: stream writes fall short or fail with ENOSPC, at a
// buffer that fills, at the syncer's write-out, at a flush, at an hour change
// and at close, for video and audio alike.  After each: the file holds whole
// records only, every row names its record, nothing written before the
// failure is lost, what is handed over once space is back is stored from the
// next key frame on, playback in both directions delivers exactly the file,
// the failure is reported once, and a restart in the same hour cuts nothing.
#include "audio/rec_context.h"
#include "core/file_io.h"
#include "support/frames.h"
#include "support/lines.h"
#include "support/queues.h"
#include "video/rec_writer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <set>

namespace {

using namespace vrix::test;
using Bytes = std::vector<unsigned char>;

constexpr int kDay = 1710028800; // 2024-03-10 00:00:00 UTC
constexpr int kHour10 = kDay + 10 * 3600;
constexpr int kCh = 2;

// Fails every write to a stream file of the medium while `full` is set: a
// short write that lands a third of it, or ENOSPC.  Remembers how far each
// file was written before.
struct FullDisk : vrix::io::Observer {
    explicit FullDisk(bool short_write) : short_write(short_write) { vrix::io::set_observer(this); }
    ~FullDisk() override { vrix::io::set_observer(nullptr); }
    void before(const vrix::io::Access &) override {}
    vrix::io::Fault fault(const vrix::io::Access &a) override {
        vrix::io::Fault f;
        // A full disk refuses a new file too.
        if (a.op == vrix::io::Op::Open && a.create && full && std::strstr(a.path, ".stream") &&
            access(a.path, F_OK) != 0)
            f.error = ENOSPC;
        if (a.op != vrix::io::Op::Write || !std::strstr(a.path, ".stream")) return f;
        const std::lock_guard hold(m);
        if (!full) {
            long long &end = written[a.path];
            end = std::max(end, a.offset + static_cast<long long>(a.length));
        } else if (short_write) {
            f.keep = static_cast<long long>(a.length / 3);
        } else {
            f.error = ENOSPC;
        }
        return f;
    }
    long long written_to(const std::string &path) {
        const std::lock_guard hold(m);
        return written[path];
    }
    const bool short_write;
    std::atomic<bool> full{false};
    std::mutex m;
    std::map<std::string, long long> written;
};

// Where the fault meets the writer.
// Running: the disk fills up while the syncer writes out every few
// milliseconds beside the recording thread.  NewFile: nothing is waiting
// when the next hour's file cannot be made.
enum class Site { Buffer, Syncer, Flush, Hour, Close, Running, NewFile };

// One unit handed over: a video frame or an audio block.
struct Unit {
    int sec;
    bool key; // video: a key frame; audio: every block
    Bytes bytes[2];
};

// What a hour file holds, decoded into the units handed over.
struct Decoded {
    std::vector<int> units; // index of each record's unit (-1: none)
    std::vector<long long> offsets;
    bool whole = true; // only whole records of known units
};

class Medium {
  public:
    Medium(const std::string &root, bool video) : root_(root), video_(video) {}
    bool video() const { return video_; }
    std::vector<Unit> units;

    void open() {
        if (video_)
            vrec_ = vrix_db_open_rec_video(root_.c_str(), kCh + 1);
        else
            arec_ = vrix_db_open_rec_audio(root_.c_str(), 2);
        ASSERT_TRUE(vrec_ || arec_);
    }
    void close() {
        if (vrec_) vrix_db_close_rec_video(vrec_);
        if (arec_) vrix_db_close_rec_audio(arec_);
        vrec_ = nullptr;
        arec_ = nullptr;
    }
    void flush() {
        if (vrec_) vrix_db_rec_video_flush(vrec_, kCh);
        if (arec_) vrix_db_rec_audio_flush(arec_);
    }
    void syncer_write_out() {
        if (vrec_) vrix::write_out_buffers(vrec_);
        if (arec_) vrix::write_out_audio(arec_);
    }
    // Hands over `count` units from second `sec` on: video at 5 frames a
    // second with a key frame each second, audio 25 blocks a second.
    void hand(int sec, int count) {
        const int per_second = video_ ? 5 : 25;
        for (int i = 0; i < count; ++i) {
            const unsigned seq = static_cast<unsigned>(units.size());
            Unit u{sec + i / per_second, !video_ || i % per_second == 0, {}};
            if (video_) {
                u.bytes[0] = make_frame(kCh, u.sec, u.key,
                                        2000 + static_cast<int>(seq * 977 % 7000), 0, seq);
                record(vrec_, u.bytes[0]);
            } else {
                const VrixAudioBlock b = audio_block(u.sec, seq, [seq](int ch, unsigned char *p) {
                    for (int k = 0; k < 48; ++k)
                        p[k] = static_cast<unsigned char>(seq * 7 + ch * 48 + k);
                });
                for (int k = 0; k < 2; ++k) {
                    const uint32_t head[3] = {48, b.iSec, b.iSec2};
                    u.bytes[k].resize(60);
                    std::memcpy(u.bytes[k].data(), head, 12);
                    std::memcpy(u.bytes[k].data() + 12, b.piece[k], 48);
                }
                vrix_db_rec_audio(arec_, &b);
            }
            units.push_back(std::move(u));
        }
    }
    std::string stream(int hour, int k = 0) const {
        return root_ + "/20240310/" +
               (video_ ? "video/" + std::to_string(kCh) : "audio/" + std::to_string(k + 1)) + "/" +
               std::to_string(hour) + ".stream";
    }
    std::string db() const {
        return root_ + "/20240310/" +
               (video_ ? "video/" + std::to_string(kCh) + "/video.db" : "audio/audio.db");
    }
    // The unit a record of channel k is, by the sequence number in its third
    // word, or -1 when its bytes are not that unit's.
    int identify(const unsigned char *rec, size_t len, int k) const {
        uint32_t seq = 0;
        std::memcpy(&seq, rec + 8, 4);
        return seq < units.size() && units[seq].bytes[k] == Bytes(rec, rec + len) ? int(seq) : -1;
    }
    // The hour file of channel k as units.
    Decoded decode(int hour, int k = 0) const {
        Decoded d;
        const Bytes b = file_bytes(stream(hour, k));
        for (size_t at = 0; at < b.size() && d.whole;) {
            const size_t left = b.size() - at;
            const size_t len = !video_      ? 60
                               : left >= 16 ? 16 + (b[at] | b[at + 1] << 8 | b[at + 2] << 16)
                                            : 0;
            const int u = len >= 16 && left >= len ? identify(b.data() + at, len, k) : -1;
            d.whole = u >= 0;
            d.units.push_back(u);
            d.offsets.push_back(static_cast<long long>(at));
            at += len;
        }
        return d;
    }
    // Index rows of the hour as (offset, sec).
    std::vector<std::pair<long long, int>> index(int hour) const {
        std::vector<std::pair<long long, int>> out;
        for (const std::string &r :
             rows(db(), "select offset, sec from h" + std::to_string(hour) + " order by id")) {
            long long off = 0;
            int sec = 0;
            std::sscanf(r.c_str(), "%lld,%d", &off, &sec);
            out.emplace_back(off, sec);
        }
        return out;
    }
    // Whether record i of a decoded file starts a row: a key frame, or the
    // first audio record of a run of one second.
    bool row_worthy(const Decoded &d, size_t i) const {
        const Unit &u = units[static_cast<size_t>(d.units[i])];
        return video_ ? u.key : i == 0 || units[static_cast<size_t>(d.units[i - 1])].sec != u.sec;
    }
    // Units delivered playing channel 1 from `from`, forward or backward.
    std::vector<int> play(int from, bool forward) const {
        std::vector<int> got;
        std::tm t = local_tm(from);
        Bytes b;
        void *buf = nullptr;
        if (video_) {
            PlayContext *p = vrix_db_open_get_video(&t, nullptr, kCh, 1 << 16, root_.c_str());
            while (p && got.size() < 5000 &&
                   (forward ? vrix_db_next_video(p) : vrix_db_pre_video(p)) == 1) {
                const int len = vrix_db_get_video(p, &buf);
                int w[4] = {len, 0, 0, 0};
                vrix_db_video_get_current_time(p, &w[1], &w[2]);
                b.assign(reinterpret_cast<unsigned char *>(w),
                         reinterpret_cast<unsigned char *>(w + 4));
                b.insert(b.end(), static_cast<unsigned char *>(buf),
                         static_cast<unsigned char *>(buf) + len);
                got.push_back(identify(b.data(), b.size(), 0));
            }
            vrix_db_close_get_video(p);
        } else {
            AudioPlayContext *p = vrix_db_open_get_audio(&t, nullptr, 1, 64, root_.c_str());
            while (p && got.size() < 20000 &&
                   (forward ? vrix_db_next_audio(p) : vrix_db_pre_audio(p)) == 1) {
                const int len = vrix_db_get_audio(p, &buf);
                got.push_back(identify(static_cast<unsigned char *>(buf), size_t(len), 0));
            }
            vrix_db_close_get_audio(p);
        }
        return got;
    }

  private:
    std::string root_;
    bool video_;
    RecContext *vrec_ = nullptr;
    AudioRecContext *arec_ = nullptr;
};

struct Case {
    bool video;
    bool short_write;
    Site site;
};

std::string name_of(const testing::TestParamInfo<Case> &info) {
    static const char *sites[] = {"Buffer", "Syncer",  "Flush",  "Hour",
                                  "Close",  "Running", "NewFile"};
    return std::string(info.param.video ? "Video" : "Audio") +
           (info.param.short_write ? "Short" : "Enospc") + sites[int(info.param.site)];
}

// With the syncer running every few milliseconds, its syncs cost little on
// a file system in memory.
const bool g_in_memory = access("/dev/shm", W_OK) == 0 && setenv("TMPDIR", "/dev/shm", 1) == 0;

class DiskFull : public testing::TestWithParam<Case> {
  protected:
    void SetUp() override {
        start_library();
        before_ = vrix_db_set_sync_interval(0); // the test runs the syncer's write-out itself
        // Audio days are found through date.db's H, which video fills.
        vrix_db_close_rec_video(vrix_db_open_rec_video(dir.path().c_str(), 17));
        exec(dir / "date.db", "insert into H values(" + std::to_string(kDay) + ");");
        while (msgrcv(app_queue(), nullptr, 0, 0, IPC_NOWAIT | MSG_NOERROR) >= 0) {
        }
        lines_ = std::make_unique<Lines>();
    }
    void TearDown() override {
        lines_.reset();
        vrix_db_set_sync_interval(before_);
    }
    // Every invariant of hour file `hour` as it stands; `complete`: a resume
    // went over it, so every record that starts a row has one.
    void check_file(const Medium &m, int hour, bool complete) {
        SCOPED_TRACE("hour " + std::to_string(hour));
        const Decoded d = m.decode(hour);
        ASSERT_TRUE(d.whole) << "bytes that are no whole record handed over";
        if (!m.video()) {
            const Decoded other = m.decode(hour, 1);
            EXPECT_TRUE(other.whole);
            EXPECT_EQ(other.units, d.units) << "the audio channels disagree";
        }
        for (size_t i = 0; i < d.units.size(); ++i) {
            if (i) {
                ASSERT_LT(d.units[i - 1], d.units[i]);
            }
            // A frame whose predecessor is lost waits for a key frame.
            if (i && m.video() && !m.units[size_t(d.units[i])].key) {
                ASSERT_EQ(d.units[i - 1], d.units[i] - 1) << "frame " << d.units[i];
            }
        }
        std::set<long long> worthy;
        for (size_t i = 0; i < d.units.size(); ++i)
            if (m.row_worthy(d, i)) worthy.insert(d.offsets[i]);
        std::set<long long> indexed;
        for (const auto &[off, sec] : m.index(hour)) {
            const auto at = std::find(d.offsets.begin(), d.offsets.end(), off);
            ASSERT_TRUE(at != d.offsets.end()) << "a row names no record: " << off;
            const size_t i = static_cast<size_t>(at - d.offsets.begin());
            EXPECT_EQ(m.units[size_t(d.units[i])].sec, sec) << off;
            EXPECT_TRUE(m.row_worthy(d, i)) << off;
            EXPECT_TRUE(indexed.insert(off).second) << "two rows name " << off;
        }
        if (complete) {
            EXPECT_EQ(indexed, worthy);
        }
    }
    ScratchDir dir;
    int before_ = 0;
    std::unique_ptr<Lines> lines_;
};

TEST_P(DiskFull, EveryWriteErrorLeavesAConsistentFile) {
    const Case c = GetParam();
    Medium m(dir.path(), c.video);
    FullDisk disk(c.short_write);
    if (c.site == Site::Running) vrix_db_set_sync_interval(4);
    const int a = c.video ? 200 : 400; // 40 s of video, 16 s of audio
    ASSERT_NO_FATAL_FAILURE(m.open());
    m.hand(kHour10, a);
    long long written = disk.written_to(m.stream(10));
    if (!c.video) written = std::min(written, disk.written_to(m.stream(10, 1)));
    disk.full = true;
    int next = m.units.back().sec + 1, hour = 10;
    switch (c.site) {
    case Site::Buffer:
    case Site::Running:
        m.hand(next, a); // several write-outs fail
        next = m.units.back().sec + 1;
        break;
    case Site::Syncer:
        m.hand(next, 10);
        m.syncer_write_out();
        m.hand(next + 2, 10);
        m.syncer_write_out(); // the same episode: reported once

        next += 4;
        break;
    case Site::Flush:
        m.flush();
        break;
    case Site::Hour:
        m.hand(next = kHour10 + 3600, 1); // hour 10 is written out as it is left
        hour = 11;
        next += 1;
        break;
    case Site::Close:
        m.close();
        ASSERT_NO_FATAL_FAILURE(m.open());
        break;
    case Site::NewFile:
        disk.full = false;
        m.flush();
        disk.full = true;
        m.hand(next = kHour10 + 3600, 5);
        hour = 11;
        next += 5;
        break;
    }
    disk.full = false;
    const size_t back = m.units.size();
    m.hand(next, a);
    m.flush(); // an audio close drops rows not flushed
    m.close();

    // One line and one notice for the episode.
    EXPECT_EQ(lines_->count(c.site == Site::NewFile ? "cannot open its hour file" : "fwrite iRet"),
              1);
    NotifyMessage msg{};
    ASSERT_GE(msgrcv(app_queue(), &msg, VRIX_MSG_TEXT_SIZE, 0, IPC_NOWAIT), 0);
    EXPECT_EQ(msg.mtext[0], VRIX_MSG_DISK_ERROR);
    EXPECT_LT(msgrcv(app_queue(), &msg, VRIX_MSG_TEXT_SIZE, 0, IPC_NOWAIT), 0);

    ASSERT_NO_FATAL_FAILURE(check_file(m, 10, false));
    if (hour == 11) {
        ASSERT_NO_FATAL_FAILURE(check_file(m, 11, false));
    }
    const Decoded d10 = m.decode(10), dh = m.decode(hour);
    // What was written before the disk filled up is all there.
    long long end = 0;
    for (int i = 0; i < a; ++i) {
        end += static_cast<long long>(m.units[size_t(i)].bytes[0].size());
        if (end <= written) {
            EXPECT_TRUE(std::count(d10.units.begin(), d10.units.end(), i)) << "unit " << i;
        }
    }
    // Once space is back, every unit from the next key frame on is stored.
    size_t first = back;
    while (!m.units[first].key)
        ++first;
    for (size_t i = first; i < m.units.size(); ++i)
        EXPECT_TRUE(std::count(dh.units.begin(), dh.units.end(), int(i))) << "unit " << i;
    // Playback delivers exactly the files, each from its first row on.
    auto expect_play = [&] {
        std::vector<int> want, keys;
        for (int h = 10; h <= hour; ++h) {
            const Decoded d = m.decode(h);
            bool started = false;
            for (size_t i = 0; i < d.units.size(); ++i) {
                started = started || m.row_worthy(d, i);
                if (started) want.push_back(d.units[i]);
                if (m.row_worthy(d, i)) keys.push_back(d.units[i]);
            }
        }
        EXPECT_EQ(m.play(kHour10, true), want);
        std::reverse(keys.begin(), keys.end());
        // Audio's first backward step delivers the second before the last.
        if (!m.video()) keys.erase(keys.begin());
        EXPECT_EQ(m.play(kHour10 + 7199, false), keys);
    };
    expect_play();

    // A restart in the hour keeps every byte and indexes what it holds.
    const Bytes kept = file_bytes(m.stream(hour));
    ASSERT_NO_FATAL_FAILURE(m.open());
    m.hand(m.units.back().sec + 1, 10);
    m.flush();
    m.close();
    const Bytes now = file_bytes(m.stream(hour));
    ASSERT_GT(now.size(), kept.size());
    EXPECT_TRUE(std::equal(kept.begin(), kept.end(), now.begin())) << "the restart cut the file";
    ASSERT_NO_FATAL_FAILURE(check_file(m, hour, true));
    expect_play();
}

std::vector<Case> all_cases() {
    std::vector<Case> out;
    for (bool video : {true, false}) {
        for (bool short_write : {true, false})
            for (Site s :
                 {Site::Buffer, Site::Syncer, Site::Flush, Site::Hour, Site::Close, Site::Running})
                out.push_back({video, short_write, s});
        out.push_back({video, false, Site::NewFile});
    }
    return out;
}

INSTANTIATE_TEST_SUITE_P(Sites, DiskFull, testing::ValuesIn(all_cases()), name_of);

} // namespace
