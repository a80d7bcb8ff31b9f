// Demo: recording 16 channels and a stream of events in virtual time.
#include "demo.h"
#include "vrixdb.h"
#include "vrixdb/library.h"
#include "vrixdb/progress.h"
#include "vrixdb/units.h"

#include <atomic>

namespace vrixtool {
namespace {
std::atomic<int> g_now{0};
}

void set_virtual_now(long sec) {
    g_now.store(static_cast<int>(sec));
}
int virtual_now() {
    return g_now.load();
}

void step_record(Demo &d) {
    RecContext *rec = vrix_db_open_rec_video(d.root.c_str(), kDemoChannels + 1);
    EventRecContext *ev = vrix_db_open_rec_event(d.root.c_str());
    AudioRecContext *au = vrix_db_open_rec_audio(d.root.c_str(), kDemoAudioChannels);
    if (!rec || !ev || !au) {
        d.result("record", false, "the library refused to open the recording contexts");
        vrix_db_close_rec_video(rec);
        vrix_db_close_rec_event(ev);
        vrix_db_close_rec_audio(au);
        return;
    }
    std::vector<uint8_t> frame;
    uint8_t block[sizeof(VrixAudioBlock)];
    static_assert(sizeof(VrixAudioBlock) == 200);
    const Stopwatch began;
    {
        Progress bar(d.out, "recording", d.seconds());
        for (long s = 0; s < d.seconds(); ++s) {
            const long sec = d.t0 + s;
            set_virtual_now(sec);
            for (const DemoEvent &e : events_of_second(d.t0, s)) {
                vrix_db_rec_event(ev, e.ch, e.type, 0, 0);
                d.events.push_back(e);
            }
            for (int i = 0; i < kDemoFps; ++i) {
                // The audio block of this 40 ms, then every channel's frame.
                make_audio_block(block, sec, i);
                vrix_db_rec_audio(au, block);
                ++d.audioBlocks;
                for (int ch = 1; ch <= kDemoChannels; ++ch) {
                    if (!records(ch, sec)) continue;
                    make_frame(frame, ch, sec, i, d.scale);
                    vrix_db_rec_video(rec, frame.data(), static_cast<int>(frame.size()));
                    ++d.frames;
                    d.keys += i == 0;
                    d.bytes += static_cast<int64_t>(frame.size());
                    d.channelBytes[ch] += static_cast<int64_t>(frame.size());
                }
            }
            bar.update(s + 1);
        }
    }
    for (int ch = 1; ch <= kDemoChannels; ++ch)
        vrix_db_rec_video_flush(rec, ch);
    vrix_db_rec_audio_flush(au);
    vrix_db_close_rec_video(rec);
    vrix_db_close_rec_event(ev);
    vrix_db_close_rec_audio(au);
    const double secs = began.seconds();
    const bool diskError = disk_error_reported();
    d.result("record", !diskError,
             strf("%ld frames (%ld key) on %d ch, %.1f MiB in %.2f s = %.0f MiB/s, %.0f "
                  "frames/s; %ld audio blocks of %d ch; %zu events%s",
                  d.frames, d.keys, kDemoChannels, mib(d.bytes), secs, mib(d.bytes) / secs,
                  d.frames / secs, d.audioBlocks, kDemoAudioChannels, d.events.size(),
                  diskError ? "; the library reported a failed disk write" : ""));
}

} // namespace vrixtool
