// Channel and event-type lists as typed on the command line.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vrixtool {

// "1,3,5-8" or "all" (1..max); channels from `min` to `max`.
std::optional<std::vector<int>> parse_channels(const std::string &text, int min, int max);

// Channels 0..64 as the event query takes them: bits for 1..32 and 33..64,
// and whether channel 0 (the recorder's own events) is in.
struct ChannelMasks {
    uint32_t lo = 0, hi = 0;
    int withCh0 = 0;
};
ChannelMasks channel_masks(const std::vector<int> &channels);

// Event types: "all", or names and codes separated by commas, e.g.
// "motion,alarm" or "1,8,64".  The result is the query's type mask.
std::optional<uint32_t> parse_types(const std::string &text);

// "manual", "motion", "alarm" or "type8" ... for a stored type code.
std::string type_name(int type);

} // namespace vrixtool
