// Seeded random stores and random step sequences, each step checked against
// the model of play_model.h.
//
// Undamaged stores (frames larger than the buffer included): every step
// must deliver exactly the record the model names, and a step that delivers
// nothing leaves the end flag set.  Damaged stores (header bits flipped, times
// overwritten with 1980, 0 or any word, payload bytes flipped, a file cut): a
// payload flip is undetectable, so the rule is that every delivered record is
// one that is in the file (as recorded, or as damaged with a time in its
// hour; a time outside it or 0 is never delivered), each run in one
// direction strictly advances and delivers nothing past the end time,
// backward delivers only key frames, and from scratch forward play still
// reaches every record of each group untouched by damage, backward every
// intact key frame.
//
// The kept seeds below run first, then 3 fresh ones (300 with VRIX_LONG=1);
// VRIX_SEED=n replays one seed alone.
#include "play_model.h"
#include "rec_fixture.h"
#include "video/play_context.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <unordered_map>

namespace {

using namespace vrix::test;
using namespace vrix::test::model;

constexpr int kCh = 3;

// Seeds that found defects, kept for good (all in the library before the
// hour bounds, end-time and reversal rules):
//   1  forward play after a backward step delivered a frame twice;
//   3  a reversal after forward-after-backward went one key frame too far back;
//   7  key-frame mode and an end time in a gap delivered frames after the end;
//   12 a forward run went back to the first frames of the recording;
//   21 a forward run after a backward step that found nothing went back.
const std::vector<unsigned> kFoundDefects = {1, 3, 7, 12, 21};

struct Built {
    ScratchDir dir;
    Store s;
    // Delivered bytes -> record.  Keyed by text: GCC 12 at -O3 warns falsely
    // (-Wstringop-overread) on comparing vectors of bytes in a map.
    std::unordered_map<std::string, int> known;
    // Play order: rank of each record, and the records by rank.
    std::vector<int> rank, order;
    std::string path(const File &f) const {
        std::tm t{};
        const time_t h = f.hour_start;
        gmtime_r(&h, &t);
        char day[40];
        std::snprintf(day, sizeof day, "%04d%02d%02d", t.tm_year + 1900, t.tm_mon + 1, t.tm_mday);
        return dir.path() + "/" + day + "/video/" + std::to_string(kCh) + "/" +
               std::to_string(t.tm_hour) + ".stream";
    }
};

uint32_t word_at(const Bytes &b, size_t at) {
    return uint32_t(b[at]) | uint32_t(b[at + 1]) << 8 | uint32_t(b[at + 2]) << 16 |
           uint32_t(b[at + 3]) << 24;
}

// Records the plan with the writer and lays the model's files over it, in
// time order of their hours; a restarted recorder waits for a key frame when
// its first frame goes into an hour file that has data.
void record(Built &b, std::mt19937 &rng) {
    RecContext *rec = vrix_db_open_rec_video(b.dir.path().c_str(), 17);
    ASSERT_NE(rec, nullptr);
    std::map<int, int> file_of; // hour start -> index in b.s.files
    bool fresh = true, wait_key = false;
    unsigned seq = 0;
    for (const Planned &p : plan(rng, kDay)) {
        if (p.restart) {
            vrix_db_rec_video_flush(rec, kCh);
            vrix_db_close_rec_video(rec);
            rec = vrix_db_open_rec_video(b.dir.path().c_str(), 17);
            ASSERT_NE(rec, nullptr);
            fresh = true;
        }
        Rec r{p.sec,
              p.key,
              0,
              0,
              0,
              make_frame(kCh, p.sec, p.key, p.payload, p.scale, seq++),
              p.payload <= b.s.buf,
              false,
              false,
              {}};
        vrix_db_rec_video(rec, r.bytes.data(), static_cast<int>(r.bytes.size()));
        const int hour = p.sec - p.sec % 3600;
        const auto it = file_of.find(hour);
        if (fresh && !p.key && it != file_of.end()) wait_key = true;
        fresh = false;
        wait_key = wait_key && !p.key;
        if (wait_key) continue;
        if (it == file_of.end()) {
            file_of[hour] = static_cast<int>(b.s.files.size());
            b.s.files.push_back({hour, {}, {}});
        }
        r.file = file_of[hour];
        File &f = b.s.files[static_cast<size_t>(r.file)];
        r.at = static_cast<int>(f.recs.size());
        r.off = f.recs.empty() ? 0
                               : b.s.recs[static_cast<size_t>(f.recs.back())].off +
                                     static_cast<long long>(
                                         b.s.recs[static_cast<size_t>(f.recs.back())].bytes.size());
        f.recs.push_back(static_cast<int>(b.s.recs.size()));
        if (r.key) f.rows.push_back(static_cast<int>(b.s.recs.size()));
        b.s.recs.push_back(std::move(r));
    }
    vrix_db_rec_video_flush(rec, kCh);
    vrix_db_close_rec_video(rec);
    std::sort(b.s.files.begin(), b.s.files.end(),
              [](const File &x, const File &y) { return x.hour_start < y.hour_start; });
    for (size_t g = 0; g < b.s.files.size(); ++g) {
        const File &f = b.s.files[g];
        for (int i : f.recs)
            b.s.recs[static_cast<size_t>(i)].file = static_cast<int>(g);
        const Rec &last = b.s.recs[static_cast<size_t>(f.recs.back())];
        struct stat st {};
        ASSERT_EQ(stat(b.path(f).c_str(), &st), 0);
        ASSERT_EQ(st.st_size, last.off + static_cast<long long>(last.bytes.size())) << b.path(f);
    }
    // Play order: the files in time order of their hours, each in file order.
    b.rank.assign(b.s.recs.size(), 0);
    for (const File &f : b.s.files)
        for (int i : f.recs) {
            b.rank[static_cast<size_t>(i)] = static_cast<int>(b.order.size());
            b.order.push_back(i);
        }
}

// Scatters damage over the files and works out what each damaged record
// now reads as.
void damage(Built &b, std::mt19937 &rng) {
    auto pick = [&rng](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
    Store &s = b.s;
    s.damaged = true;
    const int n = pick(1, 6);
    for (int i = 0; i < n; ++i) {
        Rec &r = s.recs[static_cast<size_t>(pick(0, static_cast<int>(s.recs.size()) - 1))];
        const std::string path = b.path(s.files[static_cast<size_t>(r.file)]);
        const int kind = pick(0, 3);
        if (kind == 3 && i == 0) { // a file cut inside a record
            const long long at = r.off + pick(0, static_cast<int>(r.bytes.size()) - 1);
            ASSERT_EQ(truncate(path.c_str(), at), 0);
            for (int g : s.files[static_cast<size_t>(r.file)].recs)
                if (s.recs[static_cast<size_t>(g)].off +
                        static_cast<long long>(s.recs[static_cast<size_t>(g)].bytes.size()) >
                    at)
                    s.recs[static_cast<size_t>(g)].lost = true;
            continue;
        }
        long long at;
        if (kind == 0)
            at = r.off + pick(0, 7); // a bit of the length or time word
        else if (kind == 1)
            at = r.off + 4; // the time word overwritten
        else
            at = r.off + 16 + pick(0, static_cast<int>(r.bytes.size()) - 17); // payload
        std::fstream f(path, std::ios::in | std::ios::out | std::ios::binary);
        f.seekg(at);
        char c = 0;
        if (!f.get(c)) continue; // cut away already
        f.seekp(at);
        if (kind == 1) {
            // 1980, or any word, a quarter of them 0 (the draws as before,
            // for the kept seeds).
            const bool y1980 = pick(0, 1);
            const uint32_t word = y1980 ? 315532800u + static_cast<uint32_t>(pick(0, 99999))
                                        : static_cast<uint32_t>(rng());
            const uint32_t t = !y1980 && word % 4 == 0 ? 0u : word;
            f.write(reinterpret_cast<const char *>(&t), 4);
        } else {
            f.put(static_cast<char>(c ^ (1 << pick(0, 7))));
        }
        r.damaged = true;
    }
    for (Rec &r : s.recs) {
        if (!r.damaged || r.lost) continue;
        const Bytes file = file_bytes(b.path(s.files[static_cast<size_t>(r.file)]));
        if (static_cast<long long>(file.size()) < r.off + 16) continue;
        // A time of 0 or outside the record's hour is damage the player
        // must see: such a record is never delivered.
        const uint32_t len = word_at(file, static_cast<size_t>(r.off));
        const long long sec = word_at(file, static_cast<size_t>(r.off) + 4);
        const long long hour = s.files[static_cast<size_t>(r.file)].hour_start;
        if (len < 1 || len > static_cast<uint32_t>(s.buf) || sec < hour || sec >= hour + 3600 ||
            r.off + 16 + len > static_cast<long long>(file.size()))
            continue;
        r.now.assign(file.begin() + r.off, file.begin() + r.off + 16 + len);
    }
}

// The record a step delivered, as header words and payload.
Bytes delivered(PlayContext *p) {
    void *buf = nullptr;
    const int len = vrix_db_get_video(p, &buf);
    Bytes out(16 + static_cast<size_t>(len));
    const uint32_t w[4] = {static_cast<uint32_t>(len), static_cast<uint32_t>(p->iFrameSec),
                           static_cast<uint32_t>(p->iFrameSubTime),
                           static_cast<uint32_t>(p->iFrameScale)};
    std::memcpy(out.data(), w, 16);
    std::memcpy(out.data() + 16, buf, static_cast<size_t>(len));
    return out;
}

std::string describe(const Store &s, int i) {
    if (i < 0) return "nothing";
    const Rec &r = s.recs[static_cast<size_t>(i)];
    const File &f = s.files[static_cast<size_t>(r.file)];
    return "record " + std::to_string(i) + (r.key ? " key" : "") + (r.fits ? "" : " too large") +
           " at " + std::to_string(r.sec) + ", file " + std::to_string(r.file) + " (" +
           std::to_string(f.recs.size()) + " records, " + std::to_string(f.rows.size()) +
           " rows) #" + std::to_string(r.at);
}

struct Closer {
    PlayContext *p;
    ~Closer() { vrix_db_close_get_video(p); }
};

PlayContext *open_at(const Built &b, long long start, int end) {
    std::tm ts{}, te{};
    const time_t s = static_cast<time_t>(start), e = end;
    gmtime_r(&s, &ts);
    if (end != kNoEnd) gmtime_r(&e, &te);
    return vrix_db_open_get_video(&ts, end != kNoEnd ? &te : nullptr, kCh, b.s.buf,
                                  b.dir.path().c_str());
}

// The record a delivery was, or -3 when it was never recorded.
int identify(const Built &b, PlayContext *p) {
    const Bytes got = delivered(p);
    const auto it = b.known.find(std::string(got.begin(), got.end()));
    return it == b.known.end() ? -3 : it->second;
}

// Group of each record in play order: the key record that begins it (-1
// before the first).  Records of a group with damage, and of a file without
// rows, are not reachable forward.
std::set<int> reachable_forward(const Built &b) {
    const Store &s = b.s;
    std::vector<bool> bad_group(s.recs.size() + 1, false);
    std::vector<int> group(s.recs.size());
    int g = -1;
    for (int i : b.order) {
        const Rec &r = s.recs[static_cast<size_t>(i)];
        if (r.key) g = i;
        group[static_cast<size_t>(i)] = g;
        if (r.damaged || r.lost || !r.fits) bad_group[static_cast<size_t>(g + 1)] = true;
    }
    // A damaged length that reads on over later records hides their groups.
    for (const Rec &d : s.recs) {
        if (d.now.empty()) continue;
        const long long extent = d.off + static_cast<long long>(d.now.size());
        for (int k : s.files[static_cast<size_t>(d.file)].rows)
            if (s.recs[static_cast<size_t>(k)].off > d.off &&
                s.recs[static_cast<size_t>(k)].off < extent)
                bad_group[static_cast<size_t>(k + 1)] = true;
    }
    std::set<int> out;
    for (size_t i = 0; i < s.recs.size(); ++i)
        if (!bad_group[static_cast<size_t>(group[i] + 1)] && group[i] >= 0 &&
            !s.files[static_cast<size_t>(s.recs[i].file)].rows.empty())
            out.insert(static_cast<int>(i));
    return out;
}

class PlayModel : public ::testing::Test {
  protected:
    void SetUp() override { start_library(); }
    void run_seed(unsigned seed);
};

void PlayModel::run_seed(unsigned seed) {
    std::mt19937 rng(seed);
    auto pick = [&rng](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
    Built b;
    ASSERT_NO_FATAL_FAILURE(record(b, rng)) << "seed " << seed;
    // Odd seeds play the store as an older library left it: without the
    // index on the times, searched with the plain statements.
    if (seed % 2)
        for (const File &f : b.s.files) {
            const std::string stream = b.path(f);
            const std::string hour = std::to_string(local_tm(f.hour_start).tm_hour);
            exec(stream.substr(0, stream.rfind('/')) + "/video.db",
                 "drop index if exists h" + hour + "_sec;");
        }
    if (pick(0, 1)) {
        ASSERT_NO_FATAL_FAILURE(damage(b, rng)) << "seed " << seed;
    }
    for (size_t i = 0; i < b.s.recs.size(); ++i) {
        const Rec &r = b.s.recs[i];
        if (!r.damaged && !r.lost && r.fits)
            b.known[std::string(r.bytes.begin(), r.bytes.end())] = static_cast<int>(i);
        if (!r.now.empty()) b.known[std::string(r.now.begin(), r.now.end())] = static_cast<int>(i);
    }
    int first = INT_MAX, last = INT_MIN;
    for (const Rec &r : b.s.recs)
        first = std::min(first, r.sec), last = std::max(last, r.sec);
    auto any_time = [&] {
        return pick(0, 19) == 0 ? -86400 * 400 : pick(first - 4000, last + 4000);
    };
    std::ostringstream log; // the steps so far, printed on a failure

    for (int session = 0; session < 6; ++session) {
        const long long start = any_time();
        const int end = pick(0, 2) ? kNoEnd : pick(first, last);
        PlayContext *p = open_at(b, start, end);
        ASSERT_NE(p, nullptr);
        Closer c{p};
        Model m(b.s, static_cast<int>(start), end);
        log.str("");
        log << "open " << start << " end " << end << "\n";
        int run_dir = 0, run_last = -1;
        const int steps = pick(40, 160);
        for (int step = 0; step < steps; ++step) {
            const int what = pick(0, 99);
            int want = -2, got = -2, dir = 0;
            if (what < 55) {
                dir = 1;
                want = m.next();
                got = vrix_db_next_video(p) == 1 ? identify(b, p) : -1;
                log << "next -> " << got << "\n";
            } else if (what < 78) {
                dir = -1;
                want = m.pre();
                got = vrix_db_pre_video(p) == 1 ? identify(b, p) : -1;
                log << "pre -> " << got << "\n";
            } else if (what < 86) {
                const int mode = pick(0, 1), by = pick(1, 4);
                m.set_i_mode(mode, by);
                vrix_db_video_set_i_mode(p, mode, by);
                log << "i_mode " << mode << " " << by << "\n";
                continue;
            } else if (what < 93) {
                const int n = pick(0, 3);
                m.set_skip(n);
                vrix_db_video_set_skip_frame(p, n);
                log << "skip " << n << "\n";
                continue;
            } else {
                const long long t = any_time();
                m.reset(static_cast<int>(t));
                vrix_db_video_reset_start_time(p, static_cast<int>(t), 1);
                run_dir = 0;
                log << "reset " << t << "\n";
                continue;
            }
            const std::string where = "seed " + std::to_string(seed) + " session " +
                                      std::to_string(session) + " step " + std::to_string(step) +
                                      "\n" + log.str();
            ASSERT_NE(got, -3) << "delivered a record that was never recorded\n" << where;
            if (dir != run_dir) { // a reversal, even one that finds nothing, starts a new run
                run_dir = dir;
                run_last = -1;
            }
            if (got == -1) {
                ASSERT_EQ(vrix_db_video_get_end(p), 1) << "nothing delivered, no end\n" << where;
            } else {
                const Rec &r = b.s.recs[static_cast<size_t>(got)];
                ASSERT_LE(p->iFrameSec, end) << "past the end time\n" << where;
                ASSERT_TRUE(dir == 1 || r.key) << "backward delivered a non-key frame\n" << where;
                const int at = b.rank[static_cast<size_t>(got)];
                ASSERT_TRUE(run_last < 0 || (dir == 1 ? at > run_last : at < run_last))
                    << "run does not advance: " << run_last << " then " << at << "\n"
                    << where;
                run_last = at;
            }
            if (!b.s.damaged) {
                ASSERT_EQ(got, want)
                    << where << "got " << describe(b.s, got) << "\nwant " << describe(b.s, want);
            }
        }
    }

    // From before the first hour, forward reaches every group untouched by
    // damage, every pass of every hour, and from after the last backward
    // every intact key frame.
    std::set<int> fwd, bwd;
    int prev = -1;
    {
        PlayContext *p = open_at(b, b.s.files.front().hour_start - 1, kNoEnd);
        Closer c{p};
        for (int i = 0; i < 20000 && vrix_db_next_video(p) == 1; ++i) {
            const int got = identify(b, p);
            ASSERT_NE(got, -3) << "seed " << seed << ": unrecorded delivery";
            ASSERT_GT(b.rank[static_cast<size_t>(got)], prev)
                << "seed " << seed << ": forward from scratch went back";
            prev = b.rank[static_cast<size_t>(got)];
            fwd.insert(got);
        }
        PlayContext *q = open_at(b, b.s.files.back().hour_start + 3600, kNoEnd);
        Closer cq{q};
        prev = INT_MAX;
        for (int i = 0; i < 20000 && vrix_db_pre_video(q) == 1; ++i) {
            const int got = identify(b, q);
            ASSERT_NE(got, -3) << "seed " << seed << ": unrecorded delivery";
            ASSERT_LT(b.rank[static_cast<size_t>(got)], prev)
                << "seed " << seed << ": backward went on";
            prev = b.rank[static_cast<size_t>(got)];
            bwd.insert(got);
        }
    }
    for (int i : reachable_forward(b))
        ASSERT_TRUE(fwd.count(i)) << "seed " << seed << ": record " << i << " unreachable forward";
    for (size_t i = 0; i < b.s.recs.size(); ++i) {
        const Rec &r = b.s.recs[i];
        ASSERT_TRUE(!r.key || !r.fits || r.damaged || r.lost || bwd.count(static_cast<int>(i)))
            << "seed " << seed << ": key frame " << i << " unreachable backward";
    }
}

TEST_F(PlayModel, RandomStoresAndSteps) {
    std::vector<unsigned> seeds = kFoundDefects;
    if (const char *one = std::getenv("VRIX_SEED")) {
        seeds = {static_cast<unsigned>(std::strtoul(one, nullptr, 10))};
    } else {
        const unsigned count = std::getenv("VRIX_LONG") ? 300 : 3;
        for (unsigned s = 100; s < 100 + count; ++s)
            seeds.push_back(s);
    }
    for (unsigned seed : seeds) {
        ASSERT_NO_FATAL_FAILURE(run_seed(seed));
    }
}

} // namespace
