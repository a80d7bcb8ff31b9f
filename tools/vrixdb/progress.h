// Progress of a long step: a bar redrawn in place on a terminal, a few plain
// lines otherwise (logs, pipes, CI).
#pragma once

#include <chrono>
#include <cstdio>
#include <string>

namespace vrixtool {

// The time since it was made, for the figures a step reports.
class Stopwatch {
  public:
    double seconds() const {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - began_).count();
    }
    double ms() const { return seconds() * 1000; }

  private:
    std::chrono::steady_clock::time_point began_ = std::chrono::steady_clock::now();
};

class Progress {
  public:
    Progress(FILE *out, std::string label, long total);
    ~Progress();
    void update(long done);
    // Takes the bar off the terminal; the step's own line follows.
    void finish();

  private:
    FILE *out_;
    std::string label_;
    long total_;
    bool tty_;
    bool finished_ = false;
    int lastShown_ = -1; // percent (tty) or quarter (plain) last shown
    std::chrono::steady_clock::time_point lastDraw_{};
};

} // namespace vrixtool
