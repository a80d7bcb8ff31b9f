// Pieces of video playback shared by opening, location and stepping.
#pragma once

#include "media/index_row.h"
#include "play_context.h"

namespace vrix {

// The offset and time of key frame `id` of the current hour, checked against
// the record at that offset: a whole record that fits the buffer, a key
// frame, the row's time.  NotYet: the record runs past the end of the file.
RowCheck key_frame_row(PlayContext &c, int id, long long &offset);

} // namespace vrix
