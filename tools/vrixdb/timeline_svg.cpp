// The picture of a recorded day as SVG, which the timeline command and the
// demo draw.
#include "timeline_svg.h"

#include "lists.h"
#include "times.h"
#include "vrixdb.h"

#include <algorithm>
#include <cstdio>

namespace vrixtool {

std::vector<Span> spans_of(int ch, const std::vector<long> &keySecs, long gap) {
    std::vector<Span> spans;
    for (long s : keySecs) {
        if (spans.empty() || s - (spans.back().end - 1) > gap) spans.push_back({ch, s, s + 1, 0});
        spans.back().end = std::max(spans.back().end, s + 1);
        ++spans.back().keys;
    }
    return spans;
}

namespace {

constexpr int kWidth = 1000, kLeft = 64, kRight = 24, kTop = 58, kRow = 22;
constexpr long kBuckets = 300; // at most this many density cells across the plot

const char *type_colour(int type) {
    switch (type) {
    case VRIX_EVENT_MANUAL:
        return "#2b6cb0";
    case VRIX_EVENT_MOTION:
        return "#dd8a1e";
    case VRIX_EVENT_ALARM:
        return "#c53030";
    default:
        return "#718096";
    }
}

std::string hhmm(long t) {
    return format_clock(t).substr(0, 5);
}

// A tick step of whole minutes that gives about 6 to 12 ticks.
long tick_step(long range) {
    for (long step : {60L, 120L, 300L, 600L, 900L, 1800L, 3600L, 7200L, 10800L})
        if (range / step <= 12) return step;
    return 21600;
}

std::string esc(const std::string &s) {
    std::string out;
    for (char c : s) {
        if (c == '&')
            out += "&amp;";
        else if (c == '<')
            out += "&lt;";
        else if (c == '>')
            out += "&gt;";
        else
            out += c;
    }
    return out;
}

} // namespace

std::string render_timeline(const TimelineData &data) {
    std::vector<Span> spans;
    long first = 0, last = 0;
    for (int ch = 1; ch <= 16; ++ch)
        for (const Span &s : spans_of(ch, data.keys[static_cast<size_t>(ch)], data.gap)) {
            spans.push_back(s);
            first = first ? std::min(first, s.start) : s.start;
            last = std::max(last, s.end);
        }
    for (const EventMark &e : data.events) {
        first = first ? std::min<long>(first, e.sec) : e.sec;
        last = std::max<long>(last, e.sec + 1);
    }
    // The window: the whole day (23 or 25 hours when the clock changes), or
    // what was recorded with a margin, on ticks.
    const long end = next_day(data.day);
    long from = data.day, to = end;
    if (!data.fullDay && first) {
        const long step = tick_step(last - first);
        // At least a little room before the first and after the last mark.
        from = std::max(data.day, data.day + (first - 1 - data.day) / step * step);
        to = std::min(end, data.day + ((last + 1 - data.day) + step - 1) / step * step);
        if (to <= from) to = from + step;
    }
    const double plot = kWidth - kLeft - kRight;
    auto x = [&](double t) { return kLeft + (t - from) * plot / static_cast<double>(to - from); };
    bool otherRow = false;
    for (const EventMark &e : data.events)
        if (e.ch < 1 || e.ch > 16) otherRow = true;
    const int rows = 16 + (otherRow ? 1 : 0);
    const int height = kTop + rows * kRow + 64;
    const int bottom = kTop + rows * kRow;

    std::string svg;
    auto add = [&](const std::string &s) { svg += s; };
    char buf[512];
    std::snprintf(buf, sizeof buf,
                  "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                  "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%d\" height=\"%d\" "
                  "viewBox=\"0 0 %d %d\" font-family=\"sans-serif\" font-size=\"11\">\n",
                  kWidth, height, kWidth, height);
    add(buf);
    add("<rect width=\"100%\" height=\"100%\" fill=\"#ffffff\"/>\n");
    const std::tm day = local_fields(data.day);
    std::snprintf(buf, sizeof buf,
                  "<text x=\"%d\" y=\"22\" font-size=\"15\" font-weight=\"bold\">Recorded "
                  "%04d-%02d-%02d, %s - %s (UTC%s)</text>\n",
                  kLeft, day.tm_year + 1900, day.tm_mon + 1, day.tm_mday, hhmm(from).c_str(),
                  to == end ? "24:00" : hhmm(to).c_str(), format_offset(data.day).c_str());
    add(buf);
    std::snprintf(buf, sizeof buf,
                  "<text x=\"%d\" y=\"40\" fill=\"#4a5568\">bars: recorded spans from the "
                  "key-frame index, darker = more key frames; marks: events</text>\n",
                  kLeft);
    add(buf);

    // Rows and their labels.
    for (int r = 0; r < rows; ++r) {
        const int y = kTop + r * kRow;
        std::snprintf(buf, sizeof buf,
                      "<rect x=\"%d\" y=\"%d\" width=\"%.1f\" height=\"%d\" fill=\"%s\"/>\n"
                      "<text x=\"%d\" y=\"%d\" text-anchor=\"end\">%s</text>\n",
                      kLeft, y, plot, kRow, r % 2 ? "#f7fafc" : "#edf2f7", kLeft - 8,
                      y + kRow / 2 + 4, r < 16 ? ("ch " + std::to_string(r + 1)).c_str() : "other");
        add(buf);
    }

    // Axis: ticks where the local clock shows a whole step (so a day of 23 or
    // 25 hours has its ticks on the clock's hours, a repeated one twice, with
    // its offset), lines on its hours stronger.
    const long step = tick_step(to - from);
    add("<g id=\"axis\">\n");
    for (long t = from; t <= to; t += 60) {
        const std::tm at = local_fields(t);
        const long clock = at.tm_hour * 3600L + at.tm_min * 60L;
        if (t != to && clock % step != 0) continue;
        const bool hour = at.tm_min == 0 && at.tm_sec == 0;
        const std::string label =
            t == end ? "24:00" : hhmm(t) + (repeated(t) ? " " + format_offset(t) : "");
        std::snprintf(buf, sizeof buf,
                      "<line x1=\"%.1f\" y1=\"%d\" x2=\"%.1f\" y2=\"%d\" stroke=\"%s\" "
                      "stroke-width=\"%s\"/>\n"
                      "<text x=\"%.1f\" y=\"%d\" text-anchor=\"middle\"%s>%s</text>\n",
                      x(t), kTop - 4, x(t), bottom + 4, hour ? "#2d3748" : "#cbd5e0",
                      hour ? "1.5" : "1", x(t), bottom + 18, hour ? " font-weight=\"bold\"" : "",
                      label.c_str());
        add(buf);
    }
    add("</g>\n");

    // Spans, then the key-frame density inside them.
    add("<g id=\"spans\">\n");
    for (const Span &s : spans) {
        const int y = kTop + (s.ch - 1) * kRow + 4;
        const double x0 = x(std::max(s.start, from)), x1 = x(std::min(s.end, to));
        std::snprintf(buf, sizeof buf,
                      "<rect class=\"span\" data-ch=\"%d\" data-start=\"%ld\" data-end=\"%ld\" "
                      "x=\"%.1f\" y=\"%d\" width=\"%.1f\" height=\"%d\" fill=\"#c6f6d5\" "
                      "stroke=\"#2f855a\" stroke-width=\"0.8\"><title>ch %d: %s - %s, %ld key "
                      "frames</title></rect>\n",
                      s.ch, s.start, s.end, x0, y, std::max(1.0, x1 - x0), kRow - 8, s.ch,
                      format_clock(s.start).c_str(), format_clock(s.end).c_str(), s.keys);
        add(buf);
    }
    add("</g>\n<g id=\"density\">\n");
    // Cells of whole seconds, so that a steady key-frame rate shades evenly.
    const long cell = std::max(1L, (to - from + kBuckets - 1) / kBuckets);
    const size_t cells = static_cast<size_t>((to - from + cell - 1) / cell);
    for (int ch = 1; ch <= 16; ++ch) {
        std::vector<int> counts(cells, 0);
        for (long k : data.keys[static_cast<size_t>(ch)])
            if (k >= from && k < to) ++counts[static_cast<size_t>((k - from) / cell)];
        // Neighbouring cells of one shade are drawn as one rectangle.
        for (size_t b = 0; b < cells;) {
            size_t e = b + 1;
            while (e < cells && counts[e] == counts[b])
                ++e;
            if (counts[b]) {
                // Key frames a second in the cell; one a second shades at 0.85.
                const double rate = counts[b] / static_cast<double>(cell);
                const long c0 = from + static_cast<long>(b) * cell;
                const long c1 = std::min(from + static_cast<long>(e) * cell, to);
                std::snprintf(buf, sizeof buf,
                              "<rect x=\"%.2f\" y=\"%d\" width=\"%.2f\" height=\"%d\" "
                              "fill=\"#276749\" fill-opacity=\"%.2f\"/>\n",
                              x(c0), kTop + (ch - 1) * kRow + 6, x(c1) - x(c0), kRow - 12,
                              std::min(0.85, 0.25 + 0.6 * rate));
                add(buf);
            }
            b = e;
        }
    }
    add("</g>\n<g id=\"events\">\n");
    for (const EventMark &e : data.events) {
        if (e.sec < from || e.sec >= to) continue;
        const int r = e.ch >= 1 && e.ch <= 16 ? e.ch - 1 : 16;
        const double ex = x(e.sec + 0.5);
        const int y = kTop + r * kRow;
        std::snprintf(buf, sizeof buf,
                      "<path class=\"event\" data-type=\"%d\" d=\"M%.1f %d l3.5 -6 h-7 z\" "
                      "fill=\"%s\"><title>%s ch %d at %s</title></path>\n",
                      e.type, ex, y + 8, type_colour(e.type), esc(type_name(e.type)).c_str(), e.ch,
                      format_clock(e.sec).c_str());
        add(buf);
    }
    add("</g>\n");

    // Legend.
    int lx = kLeft;
    const int ly = bottom + 40;
    add("<g id=\"legend\">\n");
    std::snprintf(buf, sizeof buf,
                  "<rect x=\"%d\" y=\"%d\" width=\"18\" height=\"10\" fill=\"#c6f6d5\" "
                  "stroke=\"#2f855a\"/><text x=\"%d\" y=\"%d\">recorded</text>\n",
                  lx, ly - 9, lx + 24, ly);
    add(buf);
    lx += 100;
    for (int type : {VRIX_EVENT_MANUAL, VRIX_EVENT_MOTION, VRIX_EVENT_ALARM, 8}) {
        std::snprintf(buf, sizeof buf,
                      "<path d=\"M%d %d l3.5 -6 h-7 z\" fill=\"%s\"/><text x=\"%d\" "
                      "y=\"%d\">%s</text>\n",
                      lx + 4, ly, type_colour(type), lx + 14, ly,
                      type == 8 ? "other event" : type_name(type).c_str());
        add(buf);
        lx += 100;
    }
    add("</g>\n</svg>\n");
    return svg;
}

std::vector<EventMark> events_between(const std::string &root, long from, long to) {
    std::vector<EventMark> marks;
    std::tm start = mktime_fields(from);
    EventQueryContext *q =
        vrix_db_open_get_event(&start, ~0u, ~0u, 1, 0x7f, root.c_str(), 1000, 0, 0);
    for (bool done = !q; !done;) {
        const int n = vrix_db_next_event(q);
        if (n <= 0) break;
        const EventRecord *rec = vrix_db_get_event(q);
        for (int i = 0; i < n && !done; ++i) {
            if (rec[i].iSec >= to)
                done = true;
            else
                marks.push_back({rec[i].iSec, rec[i].iCh, rec[i].iType});
        }
    }
    vrix_db_close_get_event(q);
    return marks;
}

std::string draw_day(Catalogue &store, long day, long gap, bool fullDay, long &spans,
                     size_t &events) {
    TimelineData data;
    data.day = day;
    data.gap = gap;
    data.fullDay = fullDay;
    data.keys.resize(17);
    spans = 0;
    const long end = next_day(day);
    for (int ch = 1; ch <= 16; ++ch) {
        // Every recorded second (a span of its own at gap 0), once per key frame.
        auto &keys = data.keys[static_cast<size_t>(ch)];
        for (const VrixCatSpan &s : store.spans(VRIX_CAT_VIDEO, ch, day, end, 0))
            keys.insert(keys.end(), static_cast<size_t>(s.iRows), s.iStart);
        spans += static_cast<long>(spans_of(ch, keys, gap).size());
    }
    // The events' counts read the whole day's table: an unreadable one is noted.
    store.events(day);
    data.events = events_between(store.root(), day, end);
    events = data.events.size();
    return render_timeline(data);
}

} // namespace vrixtool
