// Demo: one audio channel played back, checked record by record.
#include "demo.h"
#include "vrixdb.h"
#include "vrixdb/progress.h"
#include "vrixdb/times.h"

#include <cstring>

namespace vrixtool {
namespace {

struct AudioPlayer {
    AudioPlayContext *ctx = nullptr;
    AudioPlayer(const Demo &d, long start) {
        std::tm tm = mktime_fields(start);
        ctx =
            vrix_db_open_get_audio(&tm, nullptr, d.audioCh, VRIX_AUDIO_RECORD_SIZE, d.root.c_str());
    }
    ~AudioPlayer() { vrix_db_close_get_audio(ctx); }
};

bool record_matches(const Demo &d, AudioPlayContext *ctx, long sec, int index, std::string &why) {
    void *buf = nullptr;
    const int len = vrix_db_get_audio(ctx, &buf);
    uint8_t want[VRIX_AUDIO_RECORD_SIZE];
    make_audio_record(want, d.audioCh, sec, index);
    if (len != VRIX_AUDIO_RECORD_SIZE || std::memcmp(buf, want, sizeof want)) {
        why = strf("audio record %d of %s (got a record of %s) differs from what was written",
                   index, format_time(sec).c_str(), format_time(vrix_get_audio_sec(ctx)).c_str());
        return false;
    }
    return true;
}

} // namespace

void step_audio(Demo &d) {
    const Stopwatch began;
    std::string why;
    long forward = 0;
    const long expected = d.seconds() * kDemoAudioBlocks;
    {
        AudioPlayer p(d, d.t0);
        while (p.ctx && why.empty() && vrix_db_next_audio(p.ctx) == 1) {
            if (forward == expected) {
                why = "audio playback went on past the last record written";
                break;
            }
            record_matches(d, p.ctx, d.t0 + forward / kDemoAudioBlocks,
                           static_cast<int>(forward % kDemoAudioBlocks), why);
            ++forward;
        }
        if (!p.ctx) why = "the library could not open the audio channel";
    }
    if (why.empty() && forward != expected)
        why = strf("%ld of %ld audio records delivered", forward, expected);
    const double ms = began.ms();

    // Backward, each step moves one indexed second back and delivers the first
    // record of that second; the first step already moves one back from the
    // second located.
    long backward = 0;
    if (why.empty()) {
        AudioPlayer p(d, d.t1 - 1);
        while (p.ctx && why.empty() && vrix_db_pre_audio(p.ctx) == 1) {
            if (backward == d.seconds() - 1) {
                why = "audio playback went on before the first second written";
                break;
            }
            record_matches(d, p.ctx, d.t1 - 2 - backward, 0, why);
            ++backward;
        }
        if (why.empty() && backward != d.seconds() - 1)
            why = strf("%ld of %ld seconds delivered backward", backward, d.seconds() - 1);
    }
    d.result("audio", why.empty(),
             why.empty() ? strf("ch %d forward: %ld records of 60 bytes, every byte as written, "
                                "%.1f ms; backward: %ld seconds newest first",
                                d.audioCh, forward, ms, backward)
                         : why);
}

} // namespace vrixtool
