// A store recorded by the writer, and what was written into it, for the
// playback tests.
#pragma once

#include "rec_fixture.h"
#include "video/play_context.h"

#include <map>

namespace vrix::test {

struct Written {
    int sec;
    bool key;
    std::vector<unsigned char> bytes; // the whole record as recorded
};

class PlayVideo : public RecVideo {
  protected:
    static constexpr int kCh = 2;
    static constexpr int kNonKey = 2; // non-key frames after each key frame

    // Records channel kCh for `seconds` seconds from `from`: each second a key
    // frame and kNonKey others.
    void record_span(int from, int seconds) {
        for (int s = from; s < from + seconds; ++s) {
            for (int i = 0; i <= kNonKey; ++i) {
                auto f = make_frame(kCh, s, i == 0, 200 + (s % 7) * 10 + i * 3, 2,
                                    static_cast<unsigned>(written.size()));
                record(ctx, f);
                written.push_back({s, i == 0, std::move(f)});
            }
        }
    }
    // 10:59:50 .. 11:00:09 of the day, then 03:00:00 .. 03:00:04 of the next.
    void record_standard() {
        record_span(kHour10 + 3590, 20);
        record_span(kDay + 86400 + 3 * 3600, 5);
        vrix_db_rec_video_flush(ctx, kCh);
        close();
    }

    PlayContext *open_play(int start, int end = 0, int bufSize = 4096) {
        std::tm ts = local_tm(start), te = local_tm(end);
        return vrix_db_open_get_video(&ts, end ? &te : nullptr, kCh, bufSize, root().c_str());
    }

  public:
    // The record a step delivered, rebuilt from the context's header words
    // and payload, to be compared with what was written.
    static std::vector<unsigned char> delivered(PlayContext *p) {
        void *buf = nullptr;
        const int len = vrix_db_get_video(p, &buf);
        auto f = make_frame(kCh, p->iFrameSec, true, len, static_cast<unsigned>(p->iFrameScale),
                            static_cast<unsigned>(p->iFrameSubTime));
        std::memcpy(f.data() + 16, buf, static_cast<size_t>(len));
        return f;
    }

  protected:
    std::vector<Written> written;
};

} // namespace vrix::test
