// Steps of the video writer shared by the frame path, flush and close.
#pragma once

#include "rec_context.h"

namespace vrix {

// Writes out the buffered bytes at the current position and closes the
// hour's file; a failed write cuts it back to its last whole frame and drops
// the rows of the frames lost (c.iHour is still the file's hour).
void close_hour_file(RecChannel &c, int n);

// Writes out every channel's buffered bytes (the syncer's side of the
// write-behind buffers).
void write_out_buffers(void *rec_context);

// Commits the channel's waiting rows in one transaction under its mutex,
// creating first the tables they need that were not created yet and
// registering their day and hours.
void commit_channel(RecContext &ctx, RecChannel &c, int n);

} // namespace vrix
