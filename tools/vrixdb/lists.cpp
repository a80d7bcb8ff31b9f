#include "lists.h"

#include "vrixdb.h"

#include <cstdlib>
#include <sstream>

namespace vrixtool {
namespace {

std::optional<int> number(const std::string &s) {
    if (s.empty() || s.size() > 6 || s.find_first_not_of("0123456789") != s.npos)
        return std::nullopt;
    return std::atoi(s.c_str());
}

std::vector<std::string> split(const std::string &text) {
    std::vector<std::string> parts;
    std::stringstream in(text);
    std::string part;
    while (std::getline(in, part, ','))
        parts.push_back(part);
    return parts;
}

} // namespace

ChannelMasks channel_masks(const std::vector<int> &channels) {
    ChannelMasks m;
    for (int ch : channels) {
        if (ch == 0)
            m.withCh0 = 1;
        else if (ch <= 32)
            m.lo |= 1u << (ch - 1);
        else
            m.hi |= 1u << (ch - 33);
    }
    return m;
}

std::optional<std::vector<int>> parse_channels(const std::string &text, int min, int max) {
    std::vector<int> out;
    if (text == "all") {
        for (int c = min; c <= max; ++c)
            out.push_back(c);
        return out;
    }
    std::vector<bool> seen(static_cast<size_t>(max + 1), false);
    for (const std::string &part : split(text)) {
        const size_t dash = part.find('-');
        auto lo = number(dash == part.npos ? part : part.substr(0, dash));
        auto hi = dash == part.npos ? lo : number(part.substr(dash + 1));
        if (!lo || !hi || *lo < min || *hi > max || *lo > *hi) return std::nullopt;
        for (int c = *lo; c <= *hi; ++c)
            if (!seen[static_cast<size_t>(c)]) {
                seen[static_cast<size_t>(c)] = true;
                out.push_back(c);
            }
    }
    if (out.empty()) return std::nullopt;
    return out;
}

std::optional<uint32_t> parse_types(const std::string &text) {
    if (text == "all") return 0x7Fu;
    uint32_t mask = 0;
    for (const std::string &part : split(text)) {
        if (part == "manual")
            mask |= VRIX_EVENT_MANUAL;
        else if (part == "motion")
            mask |= VRIX_EVENT_MOTION;
        else if (part == "alarm")
            mask |= VRIX_EVENT_ALARM;
        else {
            auto code = number(part);
            if (!code || *code < 1 || *code > 64 || (*code & (*code - 1))) return std::nullopt;
            mask |= static_cast<uint32_t>(*code);
        }
    }
    if (!mask) return std::nullopt;
    return mask;
}

std::string type_name(int type) {
    switch (type) {
    case VRIX_EVENT_MANUAL:
        return "manual";
    case VRIX_EVENT_MOTION:
        return "motion";
    case VRIX_EVENT_ALARM:
        return "alarm";
    default:
        return "type" + std::to_string(type);
    }
}

} // namespace vrixtool
