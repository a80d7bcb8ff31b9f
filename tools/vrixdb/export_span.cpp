#include "export_span.h"

#include "library.h"
#include "times.h"

namespace vrixtool {

namespace {
constexpr int kExportBuffer = 16 << 20; // the largest access unit exported
}

void add_export_options(CLI::App *sub, ExportOptions &o, const std::string &outHelp) {
    add_channel(sub, o.ch);
    add_span(sub, o.from, o.to);
    sub->add_option("OUT", o.out, outHelp)->required();
}

int SpanExport::open() {
    const long from = from_ = *parse_time(o_.from);
    to_ = *parse_time(o_.to);
    if (to_ < from) {
        std::fprintf(stderr, "vrixdb %s: --to %s lies before --from %s\n", command_, o_.to.c_str(),
                     o_.from.c_str());
        return kWrongArguments;
    }
    const std::string root = library_root(o_.root, command_);
    if (root.empty() || !require_store(root, command_)) return 1;
    if (!file_.open(o_.out, command_) || !start_library()) return 1;
    player_ = std::make_unique<H264Player>(root, o_.ch, from, span_end(to_), kExportBuffer);
    if (!player_->ok()) {
        std::fprintf(stderr, "vrixdb %s: the library could not open channel %d\n", command_, o_.ch);
        return 1;
    }
    return 0;
}

bool SpanExport::play(const std::function<bool(const PlayedUnit &)> &write) {
    PlayedUnit u{};
    for (H264Player::Step step; (step = player_->next(u)) == H264Player::Step::Unit ||
                                step == H264Player::Step::Foreign;) {
        if (step == H264Player::Step::Foreign) continue;
        if (u.sec > to_) break; // the library may hand over a key frame past the span
        if (first < 0) {
            if (!u.unit.idr) continue; // the library starts at a key frame; a foreign one may not
            first = u.sec;
            firstMs = u.ms;
        }
        if (!write(u)) break;
        last = u.sec;
        ++units;
        idr += u.unit.idr;
        bytes += static_cast<long long>(u.unit.size);
    }
    if (first >= 0) return true;
    // The times as read (HH:MM is today), so that the day looked at shows.
    std::fprintf(stderr, "vrixdb %s: no H.264 video on ch %d from %s to %s%s\n", command_, o_.ch,
                 format_time(from_).c_str(), format_time(to_).c_str(),
                 player_->foreign() ? " (only frames of another kind)" : "");
    return false;
}

std::string SpanExport::where() const {
    return " of ch " + std::to_string(o_.ch) + ", " + format_time(first) + " .. " +
           format_time(last) + ", to " + (o_.out == "-" ? "standard output" : o_.out);
}

void SpanExport::report_skipped() const {
    if (player_->foreign())
        std::fprintf(out(), "skipped %ld frames that carry no H.264 prefix\n", player_->foreign());
}

} // namespace vrixtool
