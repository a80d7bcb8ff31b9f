// Demo: what an export would ask first, the size of a span and the recorded
// times around a moment.
#include "demo.h"
#include "vrixdb.h"
#include "vrixdb/times.h"
#include "vrixdb/units.h"

namespace vrixtool {
namespace {

constexpr int kRangeBuffer = 1 << 20;

// Bytes of channel `ch` written in the seconds [a, b).
int64_t written(int ch, long a, long b) {
    std::vector<uint8_t> frame;
    int64_t bytes = 0;
    for (long s = a; s < b; ++s)
        if (records(ch, s))
            for (int i = 0; i < kDemoFps; ++i) {
                make_frame(frame, ch, s, i, 0);
                bytes += static_cast<int64_t>(frame.size());
            }
    return bytes;
}

unsigned video_size(const Demo &d, int ch, long a, long b) {
    std::tm ta = mktime_fields(a), tb = mktime_fields(b);
    return vrix_db_get_video_total_size(&ta, &tb, d.root.c_str(), ch);
}

} // namespace

void step_sizes(Demo &d) {
    std::string why;
    // The whole recording of the played channel, and a span between two key
    // frames, which counts from the first to the second.
    const unsigned whole = video_size(d, d.playCh, d.t0, d.t1);
    const long a = d.t0 + 30, b = d.t1 - 30;
    const unsigned part = video_size(d, d.playCh, a, b);
    if (whole != d.channelBytes[d.playCh])
        why = strf("video size of ch %d is %u bytes, %lld written", d.playCh, whole,
                   static_cast<long long>(d.channelBytes[d.playCh]));
    else if (part != written(d.playCh, a, b))
        why = strf("video size of ch %d %s..%s is %u bytes, %lld written", d.playCh,
                   format_clock(a).c_str(), format_clock(b).c_str(), part,
                   static_cast<long long>(written(d.playCh, a, b)));

    std::tm ta = mktime_fields(d.t0), tb = mktime_fields(d.t1);
    const unsigned audio = vrix_db_get_audio_total_size(&ta, &tb, d.root.c_str(), d.audioCh);
    const int64_t audioBytes = d.seconds() * kDemoAudioBlocks * VRIX_AUDIO_RECORD_SIZE;
    if (why.empty() && audio < audioBytes)
        why = strf("audio size of ch %d is %u bytes, less than the %lld recorded", d.audioCh, audio,
                   static_cast<long long>(audioBytes));
    d.result("sizes", why.empty(),
             why.empty() ? strf("ch %d: %s recorded, %s from %s to %s, as written; audio ch %d: "
                                "%s with the library's 800 B/s allowance",
                                d.playCh, format_bytes(whole).c_str(), format_bytes(part).c_str(),
                                format_clock(a).c_str(), format_clock(b).c_str(), d.audioCh,
                                format_bytes(audio).c_str())
                         : why);
}

void step_ranges(Demo &d) {
    std::string why;

    // A moment in a gap of a channel that records on motion: the recording
    // before it ends at its last key frame, the next begins at its first.
    const int ch = kDemoChannels;
    long gap = 0, before = 0, after = 0;
    for (long s = d.t0; s < d.t1 && !after; ++s) {
        if (records(ch, s)) {
            if (gap)
                after = s;
            else
                before = s;
        } else if (before && !gap) {
            gap = s;
        }
    }
    long gotBefore = 0, gotAfter = 0;
    if (gap && after) {
        gotAfter =
            vrix_dvd_video_get_start_time(ch, static_cast<int>(gap), d.root.c_str(), kRangeBuffer);
        gotBefore =
            vrix_dvd_video_get_end_time(ch, static_cast<int>(gap), d.root.c_str(), kRangeBuffer);
        if (gotAfter != after || gotBefore != before)
            why = strf("ch %d around %s: recorded %s .. %s, the library says %s .. %s", ch,
                       format_clock(gap).c_str(), format_clock(before).c_str(),
                       format_clock(after).c_str(), format_clock(gotBefore).c_str(),
                       format_clock(gotAfter).c_str());
    }
    // After the last recording there is nothing to start at.
    const long late = vrix_dvd_video_get_start_time(d.playCh, static_cast<int>(d.t1 + 60),
                                                    d.root.c_str(), kRangeBuffer);
    if (why.empty() && late != 0)
        why = strf("a recording starts at %s after the last one", format_time(late).c_str());
    const long mid = d.t0 + d.seconds() / 2 + 7;
    const long audioStart = vrix_dvd_audio_get_start_time(d.audioCh, static_cast<int>(mid),
                                                          d.root.c_str(), VRIX_AUDIO_RECORD_SIZE);
    const long audioEnd = vrix_dvd_audio_get_end_time(d.audioCh, static_cast<int>(mid),
                                                      d.root.c_str(), VRIX_AUDIO_RECORD_SIZE);
    if (why.empty() && (audioStart != mid || audioEnd > mid || audioEnd < d.t0))
        why = strf("audio around %s: the library says %s .. %s", format_clock(mid).c_str(),
                   format_clock(audioEnd).c_str(), format_clock(audioStart).c_str());

    d.result("ranges", why.empty(),
             why.empty()
                 ? strf("ch %d around %s (no recording): last key frame %s, next %s; "
                        "audio ch %d around %s: %s .. %s",
                        ch, format_clock(gap).c_str(), format_clock(gotBefore).c_str(),
                        format_clock(gotAfter).c_str(), d.audioCh, format_clock(mid).c_str(),
                        format_clock(audioEnd).c_str(), format_clock(audioStart).c_str())
                 : why);
}

} // namespace vrixtool
