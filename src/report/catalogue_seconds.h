// The recorded seconds of one day's video.db or audio.db, every hour merged
// and sorted, kept compact as arithmetic progressions (a key frame every
// second, or every two seconds, is one progression per stretch of
// recording) and remembered per process while the database file is
// unchanged, so a timeline asked for again costs a look at each file.
#pragma once

#include "catalogue.h"

#include <cstdint>
#include <vector>

namespace vrix::cat {

// Seconds start, start + step, ... (count of them), each with `rows` index
// rows.  step >= 1; a single second has count 1.
struct Progression {
    int32_t start;
    int32_t step;
    int32_t count;
    int32_t rows;
    int32_t last() const { return start + step * (count - 1); }
};

// Appends (sec, rows), given in ascending order of sec, to a list of
// progressions.
void append_second(std::vector<Progression> &list, int32_t sec, int32_t rows);

// The seconds of the day's index database at `path` (mutex `m`): from the
// process's memory when the file is unchanged since it was read, else read
// (one statement per listed hour) and remembered.  Hours that cannot be read
// are reported through the call and left out (the day is then not
// remembered); a database that is not there is empty.
void day_seconds(Call &call, pthread_mutex_t *m, const char *path, std::vector<Progression> &out);

// Forgets everything remembered (tests).
void forget_day_seconds();

} // namespace vrix::cat
