#include "h264_player.h"

#include "times.h"

namespace vrixtool {

H264Player::H264Player(const std::string &root, int ch, long from, long end, int bufSize) {
    std::tm start = mktime_fields(from);
    std::tm last = mktime_fields(end);
    ctx_ = vrix_db_open_get_video(&start, end ? &last : nullptr, ch, bufSize, root.c_str());
}

H264Player::~H264Player() {
    if (ctx_) vrix_db_close_get_video(ctx_);
}

void H264Player::key_frames_only(int step) {
    vrix_db_video_set_i_mode(ctx_, 1, step);
}

H264Player::Step H264Player::next(PlayedUnit &out, bool backward) {
    const int got = backward ? vrix_db_pre_video(ctx_) : vrix_db_next_video(ctx_);
    if (got != 1) return backward || vrix_db_video_get_end(ctx_) ? Step::End : Step::NotYet;
    int sec = 0, sub = 0;
    vrix_db_video_get_current_time(ctx_, &sec, &sub);
    void *buf = nullptr;
    const int len = vrix_db_get_video(ctx_, &buf);
    const auto unit =
        unwrap_payload(static_cast<const uint8_t *>(buf), len > 0 ? static_cast<size_t>(len) : 0);
    if (!unit) {
        ++foreign_;
        return Step::Foreign;
    }
    out = PlayedUnit{sec, sub, *unit};
    return Step::Unit;
}

} // namespace vrixtool
