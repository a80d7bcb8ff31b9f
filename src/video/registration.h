// Registering what the video writer records: the day in date.db (H and
// ch<N>) and the hour in the day's video.db.  The submit thread does it from
// the queue (core/submit_target.h); the writer does it too before it commits
// rows, so that rows never stand in an index that playback cannot reach, even
// when the process dies with the thread's registration still in the queue.
#pragma once

#include "rec_context.h"

namespace vrix {

// The day of the channel's rows in date.db (H and ch<N>), found or added
// through the writer's own holder.
void register_channel_day(RecContext &ctx, int n, int day);

// The hour's table and its row in the day's H, inside the commit.
// Requires: the channel's video mutex held.
void prepare_hour(RecContext &ctx, SqlHandle db, int hour);

} // namespace vrix
