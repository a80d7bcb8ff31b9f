#include "progress.h"

#include <unistd.h>

namespace vrixtool {

Progress::Progress(FILE *out, std::string label, long total)
    : out_(out), label_(std::move(label)), total_(total > 0 ? total : 1),
      tty_(isatty(fileno(out)) != 0) {
    update(0);
}

Progress::~Progress() {
    finish();
}

void Progress::update(long done) {
    if (finished_) return;
    if (done > total_) done = total_;
    const int percent = static_cast<int>(done * 100 / total_);
    if (tty_) {
        const auto now = std::chrono::steady_clock::now();
        if (percent == lastShown_ ||
            (percent < 100 && now - lastDraw_ < std::chrono::milliseconds(50)))
            return;
        lastShown_ = percent;
        lastDraw_ = now;
        constexpr int width = 30;
        const int filled = percent * width / 100;
        std::fprintf(out_, "\r  %-12s [%.*s%*s] %3d%%", label_.c_str(), filled,
                     "##############################", width - filled, "", percent);
        std::fflush(out_);
    } else {
        const int quarter = percent / 25;
        if (quarter == lastShown_ || quarter == 0) return;
        lastShown_ = quarter;
        std::fprintf(out_, "  %-12s %3d%%\n", label_.c_str(), quarter * 25);
        std::fflush(out_);
    }
}

void Progress::finish() {
    if (finished_) return;
    finished_ = true;
    if (tty_) {
        // Clear the bar: the step's result line takes its place.
        std::fprintf(out_, "\r%*s\r", 60, "");
        std::fflush(out_);
    }
}

} // namespace vrixtool
