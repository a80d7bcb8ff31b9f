// A randomized store for the playback model test, and the model: what a
// player must deliver, step by step, from what was recorded.
//
// The model keeps the player's documented state (direction, end flag, the
// hour file, the key-frame row, the next record to read) over plain vectors
// of what each hour file holds; it shares no code with the library.
#pragma once

#include "support/frames.h"

#include <algorithm>
#include <climits>
#include <random>
#include <string>
#include <vector>

namespace vrix::test::model {

using Bytes = std::vector<unsigned char>;

struct Rec {
    int sec;
    bool key;
    int file;      // index in Store::files
    int at;        // index in its file
    long long off; // offset in its file
    Bytes bytes;   // as recorded
    bool fits;     // payload within the player's buffer
    bool damaged = false, lost = false;
    Bytes now; // damaged: the record a player reading at `off` gets; empty if none
};

struct File {
    int hour_start;
    std::vector<int> recs; // global indexes, in file order
    std::vector<int> rows; // the key records, row id = position + 1
};

struct Store {
    std::vector<Rec> recs; // in recording order
    std::vector<File> files;
    int buf = 4096;
    bool damaged = false;
};

constexpr int kNoEnd = INT_MAX;

// Recording plans: segments separated by steps of the clock, forward by
// seconds to days, some starting just before an hour so that they cross it,
// and back: within the hour, into the hour before and across midnight (a
// second pass of an hour file).  Now and then the recorder restarts before a
// segment.  Frames of 40 bytes to beyond the buffer.
struct Planned {
    int sec;
    bool key;
    int payload;
    unsigned scale;
    bool restart; // the recorder is closed and opened again before this frame
};
inline std::vector<Planned> plan(std::mt19937 &rng, int day) {
    auto pick = [&rng](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
    std::vector<Planned> out;
    int t = day + pick(0, 20) * 3600 + pick(0, 3599);
    const int segments = pick(2, 7);
    bool back_over_midnight = false;
    for (int s = 0; s < segments && out.size() < 1500; ++s) {
        const int step = pick(0, 8);
        const int hour = t - t % 3600, midnight = t - t % 86400;
        t = back_over_midnight ? midnight - pick(1, 300)
            : step == 0        ? t + pick(1, 10)
            : step == 1        ? t + pick(60, 3600)
            : step == 2        ? t + pick(3600, 3 * 3600)
            : step == 3        ? t + pick(86400, 2 * 86400)
            : step == 4        ? t
            : step == 5        ? t - pick(1, 600)
            : step == 6        ? hour - pick(1, 1200)
            : step == 7        ? midnight + 86400 + pick(0, 60) // then back over it
                               : t - pick(1, 30);
        back_over_midnight = step == 7 && !back_over_midnight;
        // Just before an hour.
        if (step < 3 && pick(0, 1)) t = std::max(t, t + (3600 - t % 3600) - pick(1, 20));
        const bool restart = pick(0, 5) == 0;
        const int fps = std::vector<int>{1, 2, 5}[static_cast<size_t>(pick(0, 2))];
        const int every = pick(1, 10);
        const int count = pick(10, 300);
        for (int i = 0; i < count; ++i) {
            const int r = pick(0, 99);
            const int payload = r < 85   ? pick(40, 600)
                                : r < 95 ? pick(600, 3000)
                                         : pick(3000, 6000);
            out.push_back({t + i / fps, i % every == 0, payload, static_cast<unsigned>(pick(1, 2)),
                           restart && i == 0});
        }
        t += count / fps + 1;
    }
    return out;
}

// What the player is asked to do, and what it delivered: a record index, -1
// for a 0 return.
enum class Op { Next, Pre, IMode, Skip, Reset };

class Model {
  public:
    Model(const Store &s, int start, int end) : s_(s), T_(start), end_(end) {}

    void set_i_mode(int mode, int step) { imode_ = mode, step_ = step; }
    void set_skip(int n) { skip_ = n; }
    void reset(int sec) {
        placed_ = false;
        dir_ = 0;
        T_ = sec;
    }

    int next() {
        bool seek = false;
        if (dir_ == -1 && !placed_) dir_ = 0;
        if (dir_ == 0) {
            seek = true;
            if (!locate(1, true)) return none(1);
        } else {
            if (dir_ == -1 && ended_) {
                ended_ = false;
                P_ = 1;
                seek = true;
            } else if (dir_ == -1 && !imode_) {
                ++P_;
            } else if (dir_ == 1 && ended_) {
                return -1;
            }
            if (imode_) {
                P_ += step_;
                if (P_ > endPos_ + 1) P_ = endPos_ + 2;
                seek = true;
            }
        }
        dir_ = 1;
        int resume = -1; // a record that could not be read: go on at the next row after it
        for (;;) {
            const File &f = s_.files[static_cast<size_t>(f_)];
            bool used = false;
            if (resume >= 0) {
                used = true;
                for (size_t r = 0; r < f.rows.size(); ++r)
                    if (s_.recs[static_cast<size_t>(f.rows[r])].at > resume) {
                        P_ = static_cast<int>(r) + 1;
                        used = false;
                        resume = -1;
                        break;
                    }
            } else {
                used = seek && P_ > endPos_ + 1;
            }
            if (!used && seek) {
                if (P_ > static_cast<int>(f.rows.size())) {
                    used = true;
                } else {
                    const Rec &k =
                        s_.recs[static_cast<size_t>(f.rows[static_cast<size_t>(P_ - 1)])];
                    if (!k.fits) {
                        ++P_;
                        continue;
                    }
                    at_ = k.at;
                    seek = false;
                }
            }
            if (!used && at_ >= static_cast<int>(f.recs.size())) {
                if (imode_) seek = true;
                used = true;
            }
            if (!used) {
                const int g = f.recs[static_cast<size_t>(at_)];
                const Rec &r = s_.recs[static_cast<size_t>(g)];
                if (!r.fits) {
                    resume = at_;
                    seek = true;
                    continue;
                }
                if (r.sec > end_) return none(1);
                ++at_;
                if (r.key) {
                    skipCount_ = 0;
                    if (!imode_) ++P_;
                    return g;
                }
                ++skipCount_;
                if (skip_ == 0 || skipCount_ < skip_) return g;
                continue;
            }
            if (!locate(1, false)) return none(1);
            resume = -1;
            if (!seek) at_ = 0;
        }
    }

    int pre() {
        auto back = [this](int by) { P_ = P_ < by ? 0 : P_ - by; };
        if (dir_ == 0) {
            if (!locate(-1, true)) return none(-1);
        } else if (dir_ == -1) {
            if (ended_) return -1;
            back(step_);
        } else {
            bool relocate = false;
            if (ended_) {
                P_ = endPos_;
                ended_ = false;
                relocate = !placed_;
            }
            if (relocate) {
                if (!locate(-1, true)) return none(-1);
            } else {
                back(step_);
                if (P_ == 0) {
                    dir_ = -1;
                    if (!locate(-1, false)) {
                        ended_ = true;
                        if (!placed_) return -1;
                        P_ = 1;
                    }
                }
            }
        }
        dir_ = -1;
        if (!placed_) return none(-1);
        for (;;) {
            const File &f = s_.files[static_cast<size_t>(f_)];
            if (P_ <= 0) {
                if (!locate(-1, false)) return none(-1);
                continue;
            }
            if (P_ > static_cast<int>(f.rows.size())) {
                back(1);
                continue;
            }
            const int g = f.rows[static_cast<size_t>(P_ - 1)];
            const Rec &k = s_.recs[static_cast<size_t>(g)];
            if (!k.fits || k.sec > end_) {
                back(1);
                continue;
            }
            at_ = k.at + 1;
            skipCount_ = 0;
            return g;
        }
    }

  private:
    int none(int direction) {
        dir_ = direction;
        ended_ = true;
        return -1;
    }

    // Rows of file g that play: up to the last (in file order) whose time is
    // not after the end time, when it lies in g's hour.
    int rows_to_play(int g) const {
        const File &f = s_.files[static_cast<size_t>(g)];
        if (end_ < f.hour_start || end_ >= f.hour_start + 3600)
            return static_cast<int>(f.rows.size());
        int n = 0;
        for (size_t r = 0; r < f.rows.size(); ++r)
            if (s_.recs[static_cast<size_t>(f.rows[r])].sec <= end_) n = static_cast<int>(r) + 1;
        return n;
    }

    // A location: from T (first) or from the current hour file (crossing);
    // changes nothing when it finds nothing.  In the hour of T the earliest
    // time at or after it, first in file order among equals (forward), or
    // the latest at or before it, last among equals (backward); any other
    // hour is entered at its first row forward, its last row to play
    // backward.
    bool locate(int direction, bool first) {
        const int n = static_cast<int>(s_.files.size());
        long long from = first ? T_ : 0;
        if (first && direction == 1 && from < 0) from = 0;
        if (first && direction == -1) {
            from = std::min<long long>(from, end_);
            if (from < 0) return false;
        }
        auto hour_of = [](long long t) { return t - ((t % 3600) + 3600) % 3600; };
        for (int k = 0; k < n; ++k) {
            const int g = direction == 1 ? k : n - 1 - k;
            const File &f = s_.files[static_cast<size_t>(g)];
            if (first
                    ? (direction == 1 ? f.hour_start < hour_of(from) : f.hour_start > hour_of(from))
                    : (direction == 1 ? g <= f_ : g >= f_))
                continue;
            const bool own = first && f.hour_start == hour_of(from);
            const long long sec0 = own ? from : f.hour_start;
            if (direction == 1 && sec0 > end_) return false;
            const int last = rows_to_play(g);
            if (last == 0) continue;
            int pos = own ? 0 : direction == 1 ? 1 : last;
            long long best = 0;
            for (size_t r = 0; own && r < f.rows.size(); ++r) {
                const int sec = s_.recs[static_cast<size_t>(f.rows[r])].sec;
                if (direction == 1 ? sec >= sec0 && (pos == 0 || sec < best)
                                   : sec <= sec0 && (pos == 0 || sec >= best)) {
                    pos = static_cast<int>(r) + 1;
                    best = sec;
                }
            }
            if (pos == 0) continue;
            f_ = g;
            P_ = pos;
            endPos_ = last;
            placed_ = true;
            ended_ = false;
            dir_ = direction;
            return true;
        }
        return false;
    }

    const Store &s_;
    long long T_;
    int end_;
    int dir_ = 0, imode_ = 0, step_ = 1, skip_ = 0, skipCount_ = 0;
    bool ended_ = false, placed_ = false;
    int f_ = -1, P_ = 0, endPos_ = 0, at_ = 0;
};

} // namespace vrix::test::model
