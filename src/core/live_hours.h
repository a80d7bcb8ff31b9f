// The day and hour each writer of this process is recording in, so that
// reclamation never removes what is being written.  Writers note their hour
// when they open an hour file (once an hour per channel); closing a context
// forgets it.  A store is told by the identity of its root directory, not by
// the spelling of its path.
//
// Only writers of this process are seen: a recorder in another process that
// records into the same root is out of reach of this record.
#pragma once

namespace vrix {

// `writer` is the recording context, `slot` the channel within it.
void note_live_hour(const void *writer, int slot, const char *root, int day, int hour);
void forget_live_hours(const void *writer);

// The earliest hour, at or below `last_hour`, of day key `day` of the store
// under `root` that a writer is in; -1 when none is.
int live_hour_up_to(const char *root, int day, int last_hour);

} // namespace vrix
