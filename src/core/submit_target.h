// What the submit thread hands its messages to: the recording context that
// was handed over registers days and hours itself.  Core keeps the queue, the
// checks of every message, parking and the hand-over; the recording side
// (video/registration.cpp) defines these.
#pragma once

#include "vrixdb.h"

namespace vrix {

// The number of channel slots of the context (highest channel + 1): an hour
// message names a channel below it.
int channel_slots(const RecContext &ctx);

// A day message: the next day is prepared on disk and `day` is registered in
// date.db.  `day` is a plausible local midnight.
void register_day_message(RecContext &ctx, int day);

// An hour message: the day in the channel's ch<N> table of date.db and the
// hour in the H of the channel's video.db of that day.
void register_hour_message(RecContext &ctx, int ch, int hour, int day);

} // namespace vrix
