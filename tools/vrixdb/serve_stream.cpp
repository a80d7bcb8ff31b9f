// /api/play: one channel from a second as a fragmented MP4 for a <video>
// element, paced at the recording's own rate a few seconds ahead of the
// viewer; key frames only (forward, every STEP-th) or backward key frame by
// key frame; without an end it follows a recording in progress.
#include "h264_player.h"
#include "mp4.h"
#include "serve.h"
#include "serve_json.h"
#include "times.h"
#include "vrixdb.h"

#include <chrono>
#include <climits>
#include <cstdlib>
#include <memory>
#include <thread>

namespace vrixtool {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kStreamBuffer = 8 << 20; // the largest access unit streamed
constexpr int64_t kLeadMs = 3000;      // how far a stream runs ahead of real time
constexpr int64_t kIdleMs = 30000;     // a followed recording silent this long ends the stream
constexpr int64_t kKeyFrameMs = 200;   // how long a key frame shows in key-frame play
constexpr int64_t kGapMs = 2000;       // longer between two frames is a gap in the recording
constexpr int64_t kFrameMs = 40;       // what a gap becomes
constexpr int64_t kFastGapMs = 10000;  // longer between two key frames is a gap in fast play
constexpr int64_t kKeyLead = 34;       // key frames sent ahead in key-frame play
constexpr int kLocateRun = 250;        // frames looked at for a first H.264 key frame
constexpr int kUnitsPerCall = 25;      // units muxed between checks of the server's state

// One of the server's bounded stream places, given back when the stream goes.
class StreamSlot {
  public:
    explicit StreamSlot(ServeConfig &c) : config_(c) {
        held_ = ++config_.streams <= config_.maxStreams;
        if (!held_) --config_.streams;
    }
    ~StreamSlot() {
        if (held_) --config_.streams;
    }
    StreamSlot(const StreamSlot &) = delete;
    StreamSlot &operator=(const StreamSlot &) = delete;
    bool held() const { return held_; }

  private:
    ServeConfig &config_;
    bool held_;
};

struct Request {
    int ch = 0;
    long from = 0;
    long to = 0; // 0: none
    bool backward = false;
    int keyStep = 0;   // forward key-frame play, every keyStep-th key frame
    double speed = 0;  // times the recorded rate (0: key frames at kKeyFrameMs, else 1)
    bool clip = false; // a download: unpaced, the recorded distances kept
};

class Stream {
  public:
    Stream(ServeConfig &config, const Request &r)
        : slot_(config), r_(r), player_(config.root, r.ch, r.from,
                                        r.to && !r.backward ? span_end(r.to) : 0, kStreamBuffer),
          mp4_([this](const uint8_t *d, size_t n) {
              return sink_->write(reinterpret_cast<const char *>(d), n);
          }) {
        if (player_.ok() && r.keyStep > 0 && !r.backward) player_.key_frames_only(r.keyStep);
    }

    bool has_slot() const { return slot_.held(); }

    // Steps to the first key frame; false, with the reason, when there is none.
    bool locate(std::string &why) {
        if (!player_.ok()) {
            why = "nothing recorded on ch " + std::to_string(r_.ch) + " at " + format_time(r_.from);
            return false;
        }
        for (int tries = 0; tries < kLocateRun; ++tries) {
            const auto step = player_.next(pending_, r_.backward);
            if (step == H264Player::Step::Foreign) continue;
            if (step != H264Player::Step::Unit || outside(pending_.sec)) break;
            if (!pending_.unit.idr) continue;
            havePending_ = true;
            first_ = pending_;
            pendingAt_ = media_ms(pending_);
            return true;
        }
        why = "no H.264 video on ch " + std::to_string(r_.ch) +
              (r_.backward ? " at or before " : " at or after ") + format_time(r_.from);
        return false;
    }
    long first_sec() const { return first_.sec; }
    int first_ms() const { return first_.ms; }

    // Called by the server until it returns false (the reader left) or the
    // stream is done.
    bool pump(httplib::DataSink &sink) {
        sink_ = &sink;
        const auto now = Clock::now();
        if (!started_) {
            start_ = now;
            started_ = true;
        }
        // Stream time goes at `speed` times real time, except key frames
        // timed at their recorded distance over the speed (the player shows
        // them at 1x); a clip is not paced at all.
        const int64_t real =
            std::chrono::duration_cast<std::chrono::milliseconds>(now - start_).count();
        const bool scaled = r_.speed > 0 && r_.keyStep == 0 && !r_.backward;
        const int64_t elapsed = r_.clip ? INT64_MAX / 4
                                : scaled
                                    ? static_cast<int64_t>(static_cast<double>(real) * r_.speed)
                                    : real;
        for (int n = 0; n < kUnitsPerCall; ++n) {
            if (!havePending_) {
                const auto step = player_.next(pending_, r_.backward);
                if (step == H264Player::Step::Foreign) continue;
                if (step == H264Player::Step::End) return finish(sink);
                if (step == H264Player::Step::NotYet) {
                    if (r_.clip) return finish(sink);
                    if (!idleSince_) idleSince_ = real + 1;
                    if (real + 1 - idleSince_ > kIdleMs) return finish(sink);
                    std::this_thread::sleep_for(std::chrono::milliseconds(100));
                    return true;
                }
                idleSince_ = 0;
                if (outside(pending_.sec)) return finish(sink);
                havePending_ = true;
                pendingAt_ = media_ms(pending_);
            }
            const int64_t at = pendingAt_;
            // Key-frame play sends its first kKeyLead key frames at once: a
            // decoder holds pictures back until it has seen that many.
            const int64_t lead = scaled ? static_cast<int64_t>(kLeadMs * r_.speed)
                                 : r_.keyStep > 0 || r_.backward
                                     ? std::max(kLeadMs, kKeyLead * kKeyFrameMs)
                                     : kLeadMs;
            if (at > elapsed + lead) {
                std::this_thread::sleep_for(std::chrono::milliseconds(
                    std::min<int64_t>((at - elapsed - lead) / (scaled ? r_.speed : 1), 100)));
                return true;
            }
            if (!mp4_.add(pending_.unit.au, pending_.unit.size, pending_.unit.idr, at))
                return false;
            havePending_ = false;
            ++sent_;
        }
        return true;
    }

  private:
    bool outside(long sec) const { return r_.to && (r_.backward ? sec < r_.to : sec > r_.to); }
    // Forward play keeps the recorded distances, but a gap between
    // recordings (another hour, the next motion) passes as one frame;
    // key-frame play shows each key frame for kKeyFrameMs.
    // Fast play (key frames with a speed) keeps their recorded distances
    // over the speed, a gap passing as kFastGapMs; a clip keeps every
    // distance, as export-mp4 does.
    int64_t media_ms(const PlayedUnit &u) {
        const int64_t recorded = u.sec * 1000LL + u.ms;
        if (r_.clip) {
            if (!lastRecorded_) lastRecorded_ = recorded;
            return recorded - lastRecorded_;
        }
        const bool fast = r_.keyStep > 0 && r_.speed > 0 && !r_.backward;
        if ((r_.backward || r_.keyStep > 0) && !fast) return sent_ * kKeyFrameMs;
        if (lastRecorded_) {
            const int64_t step = recorded - lastRecorded_;
            if (fast)
                mediaMs_ += std::max<int64_t>(
                    1, static_cast<int64_t>(
                           static_cast<double>(step >= 0 && step <= kFastGapMs ? step : 1000) /
                           r_.speed));
            else
                mediaMs_ += step >= 0 && step <= kGapMs ? step : kFrameMs;
        }
        lastRecorded_ = recorded;
        return mediaMs_;
    }
    bool finish(httplib::DataSink &sink) {
        if (!mp4_.finish()) return false;
        sink.done();
        return true;
    }

    StreamSlot slot_;
    Request r_;
    H264Player player_;
    httplib::DataSink *sink_ = nullptr;
    Mp4Muxer mp4_;
    PlayedUnit pending_{}, first_{};
    bool havePending_ = false;
    bool started_ = false;
    Clock::time_point start_;
    int64_t idleSince_ = 0; // elapsed ms + 1 when the recording fell silent
    int64_t sent_ = 0;
    int64_t lastRecorded_ = 0; // ms since 1970 of the last unit timed, 0 before the first
    int64_t mediaMs_ = 0;      // its time in the stream
    int64_t pendingAt_ = 0;    // the stream time of the pending unit
};

// ch, from, to, dir (forward, back) and keys (forward key-frame play, every
// keys-th key frame) of /api/play and /api/locate.
Request parse_request(const Params &p) {
    Request r;
    r.ch = p.required_integer("ch", 1, VRIX_VIDEO_CHANNELS);
    const auto from = p.time("from");
    if (!from) throw BadRequest{"from is missing"};
    r.from = *from;
    r.to = p.time("to").value_or(0);
    const std::string dir = p.text("dir").value_or("forward");
    if (dir != "forward" && dir != "back") throw BadRequest{"dir: forward or back"};
    r.backward = dir == "back";
    r.keyStep = p.integer("keys", 1, 100, 0);
    if (const auto speed = p.text("speed")) {
        char *end = nullptr;
        r.speed = std::strtod(speed->c_str(), &end);
        if (speed->empty() || *end || !(r.speed >= 0.25 && r.speed <= 16))
            throw BadRequest{"speed: times the recorded rate, 0.25 to 16"};
        if (r.backward) throw BadRequest{"speed: backward play goes key frame by key frame"};
    }
    if (r.to && (r.backward ? r.to > r.from : r.to < r.from))
        throw BadRequest{r.backward ? "to lies after from (backward play)" : "to lies before from"};
    return r;
}

// YYYYMMDDTHHMMSS of a clip's file name.
std::string name_time(long t) {
    std::string s = format_time(t).substr(0, 19);
    std::string out;
    for (const char c : s)
        if (c != '-' && c != ':') out += c;
    return out;
}

void play(ServeConfig &config, const httplib::Request &req, httplib::Response &res, bool clip) {
    Request r = parse_request(Params(req, {"ch", "from", "to", "dir", "keys", "speed"}));
    if (clip) {
        if (!r.to) throw BadRequest{"to is missing"};
        if (r.backward || r.keyStep || r.speed) throw BadRequest{"a clip is the span as recorded"};
        r.clip = true;
    }
    auto stream = std::make_shared<Stream>(config, r);
    if (!stream->has_slot()) {
        reply_json(res,
                   json_error("all " + std::to_string(config.maxStreams) +
                              " streams are in use; try again later"),
                   503);
        res.set_header("Retry-After", "5");
        return;
    }
    std::string why;
    if (!stream->locate(why)) {
        reply_json(res, json_error(why), 404);
        return;
    }
    res.status = 200;
    res.set_header("Cache-Control", "no-store");
    res.set_header("X-Vrix-Start", std::to_string(stream->first_sec()));
    res.set_header("X-Vrix-Start-Ms", std::to_string(stream->first_ms()));
    if (clip)
        res.set_header("Content-Disposition", "attachment; filename=\"vrixdb-ch" +
                                                  std::to_string(r.ch) + "-" + name_time(r.from) +
                                                  "-" + name_time(r.to) + ".mp4\"");
    res.set_chunked_content_provider(
        "video/mp4", [stream](size_t, httplib::DataSink &sink) { return stream->pump(sink); });
}

// Where a stream asked for the same way would start: the page's clock.
void locate(ServeConfig &config, const httplib::Request &req, httplib::Response &res) {
    const Request r = parse_request(Params(req, {"ch", "from", "dir", "keys", "speed"}));
    ServeConfig unbounded;
    unbounded.root = config.root;
    unbounded.maxStreams = 1;
    Stream stream(unbounded, r);
    std::string why;
    if (!stream.locate(why)) return reply_json(res, json_error(why), 404);
    JsonWriter j;
    j.open('{').key("ch").value(int64_t{r.ch});
    j.key("sec").value(static_cast<int64_t>(stream.first_sec()));
    j.key("ms").value(int64_t{stream.first_ms()});
    j.key("offset").value(static_cast<int64_t>(zone_offset(stream.first_sec())));
    j.key("time").value(format_time(stream.first_sec())).close('}');
    reply_json(res, j.text());
}

void streams(ServeConfig &config, const httplib::Request &req, httplib::Response &res) {
    Params p(req, {});
    JsonWriter j;
    const int64_t used = config.streams.load();
    j.open('{').key("used").value(used);
    j.key("max").value(int64_t{config.maxStreams}).close('}');
    reply_json(res, j.text());
}

} // namespace

bool h264_at(const std::string &root, int ch, long from, long to) {
    ServeConfig unbounded;
    unbounded.root = root;
    unbounded.maxStreams = 1;
    Request r;
    r.ch = ch;
    r.from = from;
    r.to = to;
    Stream stream(unbounded, r);
    std::string why;
    return stream.locate(why);
}

void add_stream_route(httplib::Server &server, ServeConfig &config) {
    server.Get("/api/play",
               guarded([&config](const auto &req, auto &res) { play(config, req, res, false); }));
    server.Get("/api/clip",
               guarded([&config](const auto &req, auto &res) { play(config, req, res, true); }));
    server.Get("/api/streams",
               guarded([&config](const auto &req, auto &res) { streams(config, req, res); }));
    server.Get("/api/locate",
               guarded([&config](const auto &req, auto &res) { locate(config, req, res); }));
}

} // namespace vrixtool
