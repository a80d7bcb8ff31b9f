// Demo: the index as written, and playback checked byte for byte.
#include "demo.h"
#include "vrixdb.h"
#include "vrixdb/catalogue.h"
#include "vrixdb/progress.h"
#include "vrixdb/times.h"
#include "vrixdb/units.h"

#include <cstring>
#include <set>

namespace vrixtool {
namespace {

constexpr int kPlayBuffer = 1 << 20;

struct Player {
    PlayContext *ctx = nullptr;
    Player(const Demo &d, long start) {
        std::tm tm = mktime_fields(start);
        ctx = vrix_db_open_get_video(&tm, nullptr, d.playCh, kPlayBuffer, d.root.c_str());
    }
    ~Player() { vrix_db_close_get_video(ctx); }
};

// The frame in the context is the one generated for its channel, second and
// index; `why` says what differs.
bool frame_matches(const Demo &d, PlayContext *ctx, long sec, int index, std::string &why) {
    int got = 0, sub = 0;
    vrix_db_video_get_current_time(ctx, &got, &sub);
    void *buf = nullptr;
    const int len = vrix_db_get_video(ctx, &buf);
    if (got != sec || frame_index(sub) != index) {
        why = strf("expected frame %d of %s, got frame %d of %s", index, format_time(sec).c_str(),
                   frame_index(sub), format_time(got).c_str());
        return false;
    }
    std::vector<uint8_t> want;
    make_payload(want, d.playCh, sec, index);
    if (static_cast<size_t>(len) != want.size() || std::memcmp(buf, want.data(), want.size())) {
        why = strf("frame %d of %s differs from what was written", index, format_time(sec).c_str());
        return false;
    }
    return true;
}

} // namespace

namespace {

// Key-frame play of channel `ch` over the demo's span: the time of every key
// frame the index leads to, in the order of its rows.
std::vector<long> key_frames_played(const Demo &d, int ch) {
    std::tm start = mktime_fields(d.t0), end = mktime_fields(d.t1);
    PlayContext *ctx = vrix_db_open_get_video(&start, &end, ch, kPlayBuffer, d.root.c_str());
    std::vector<long> times;
    if (ctx) vrix_db_video_set_i_mode(ctx, 1, 1);
    while (ctx && vrix_db_next_video(ctx) == 1) {
        int sec = 0, sub = 0;
        vrix_db_video_get_current_time(ctx, &sec, &sub);
        times.push_back(sec);
    }
    vrix_db_close_get_video(ctx);
    return times;
}

} // namespace

// The catalogue lists, per channel, the hour files and key-frame seconds
// written, and the stream files' bytes; key-frame play through the rows
// meets them in the order written.
void step_index(Demo &d) {
    Catalogue store(d.root);
    long rows = 0, hourFiles = 0;
    std::string why;
    const long first = day_start(d.t0), last = next_day(day_start(d.t1 - 1));
    for (int ch = 1; ch <= kDemoChannels && why.empty(); ++ch) {
        // What this channel recorded: its key-frame seconds and hour files.
        std::vector<long> want;
        std::set<std::pair<long, int>> hours;
        for (long s = d.t0; s < d.t1; ++s)
            if (records(ch, s)) {
                want.push_back(s);
                hours.insert({day_start(s), local_fields(s).tm_hour});
            }
        int64_t bytes = 0;
        std::set<std::pair<long, int>> seen;
        for (long day = first; day < last; day = next_day(day))
            for (const VrixCatHour &h : store.hours(VRIX_CAT_VIDEO, ch, day)) {
                seen.insert({day, h.iHour});
                bytes += h.lBytes > 0 ? h.lBytes : 0;
            }
        std::vector<long> listed;
        for (const VrixCatSpan &s : store.spans(VRIX_CAT_VIDEO, ch, first, last, 0))
            listed.insert(listed.end(), static_cast<size_t>(s.iRows), s.iStart);
        hourFiles += static_cast<long>(seen.size());
        rows += static_cast<long>(listed.size());
        const std::vector<long> played = key_frames_played(d, ch);
        size_t bad = 0;
        while (bad < want.size() && bad < listed.size() && want[bad] == listed[bad])
            ++bad;
        if (!store.unreadable().empty())
            why = "cannot read " + store.unreadable().front();
        else if (listed != want)
            why = strf("ch %d: %zu key-frame rows listed, %zu written; the first that differs "
                       "is number %zu",
                       ch, listed.size(), want.size(), bad + 1);
        else if (played != want)
            why = strf("ch %d: key-frame play met %zu key frames, not the %zu written in order", ch,
                       played.size(), want.size());
        else if (seen != hours)
            why = strf("ch %d: %zu hour files listed, %zu recorded", ch, seen.size(), hours.size());
        else if (bytes != d.channelBytes[ch])
            why = strf("ch %d: stream files hold %lld bytes, %lld written", ch,
                       static_cast<long long>(bytes), static_cast<long long>(d.channelBytes[ch]));
    }
    d.result("index", why.empty(),
             why.empty() ? strf("%ld hour files of %d ch, %ld key-frame rows in file order, the "
                                "stream files hold every byte written",
                                hourFiles, kDemoChannels, rows)
                         : why);
}
void step_play_forward(Demo &d) {
    const Stopwatch began;
    Player p(d, d.t0);
    double firstMs = -1;
    long frames = 0;
    int64_t bytes = 0;
    std::string why;
    const long expected = d.seconds() * kDemoFps;
    while (p.ctx && why.empty()) {
        if (vrix_db_next_video(p.ctx) != 1) break;
        if (firstMs < 0) firstMs = began.ms();
        if (frames == expected) {
            why = "playback went on past the last frame written";
            break;
        }
        frame_matches(d, p.ctx, d.t0 + frames / kDemoFps, static_cast<int>(frames % kDemoFps), why);
        void *buf = nullptr;
        bytes += vrix_db_get_video(p.ctx, &buf);
        ++frames;
    }
    const double ms = began.ms();
    if (!p.ctx)
        why = "the library could not open the channel";
    else if (why.empty() && frames != expected)
        why = strf("%ld of %ld frames delivered", frames, expected);
    d.result("play", why.empty(),
             why.empty() ? strf("ch %d forward: %ld frames, %.1f MiB, every byte as written; "
                                "first frame after %.2f ms, %.0f MiB/s",
                                d.playCh, frames, mib(bytes), firstMs, mib(bytes) / (ms / 1000))
                         : why);
}

void step_play_backward(Demo &d) {
    const Stopwatch began;
    Player p(d, d.t1 - 1);
    long frames = 0;
    std::string why;
    while (p.ctx && why.empty() && vrix_db_pre_video(p.ctx) == 1) {
        if (frames == d.seconds()) {
            why = "playback went on before the first frame written";
            break;
        }
        frame_matches(d, p.ctx, d.t1 - 1 - frames, 0, why);
        ++frames;
    }
    const double ms = began.ms();
    if (!p.ctx)
        why = "the library could not open the channel";
    else if (why.empty() && frames != d.seconds())
        why = strf("%ld of %ld key frames delivered backward", frames, d.seconds());
    d.result("play back", why.empty(),
             why.empty() ? strf("ch %d backward: %ld key frames newest first, every byte as "
                                "written, %.1f ms",
                                d.playCh, frames, ms)
                         : why);
}

void step_key_frames(Demo &d) {
    constexpr int step = 10;
    // Key-frame mode steps within an hour; a step past an hour's last key frame
    // lands on the next hour's first.
    std::vector<long> expected;
    for (long s = d.t0; s < d.t1;) {
        const long hourEnd = s - local_fields(s).tm_min * 60 - local_fields(s).tm_sec + 3600;
        for (long k = s; k < std::min(hourEnd, d.t1); k += step)
            expected.push_back(k);
        s = hourEnd;
    }
    Player p(d, d.t0);
    if (p.ctx) vrix_db_video_set_i_mode(p.ctx, 1, step);
    std::string why;
    size_t n = 0;
    while (p.ctx && why.empty() && vrix_db_next_video(p.ctx) == 1) {
        if (n == expected.size()) {
            why = "key-frame play went on past the last key frame";
            break;
        }
        frame_matches(d, p.ctx, expected[n], 0, why);
        ++n;
    }
    if (!p.ctx)
        why = "the library could not open the channel";
    else if (why.empty() && n != expected.size())
        why = strf("%zu of %zu key frames delivered in key-frame mode", n, expected.size());
    d.result("key frames", why.empty(),
             why.empty() ? strf("ch %d every %dth key frame: %zu key frames, each as written",
                                d.playCh, step, n)
                         : why);
}

} // namespace vrixtool
