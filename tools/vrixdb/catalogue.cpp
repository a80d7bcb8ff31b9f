#include "catalogue.h"

#include "times.h"

#include <algorithm>
#include <cstdio>

namespace vrixtool {

namespace {

// The catalogue hands one `user` to the record and the problem callbacks: a
// sink of records that knows the Catalogue collecting the problems.
struct SinkBase {
    Catalogue *owner;
};
template <class Record> struct Sink : SinkBase { std::vector<Record> records; };

template <class Record> int take(const Record *r, void *sink) {
    static_cast<Sink<Record> *>(sink)->records.push_back(*r);
    return 0;
}

void note_unreadable(const char *path, int, void *sink) {
    static_cast<SinkBase *>(sink)->owner->add_unreadable(path);
}

int clamp(long t) {
    return static_cast<int>(std::clamp<long>(t, 0, INT_MAX));
}

} // namespace

void Catalogue::add_unreadable(const char *path) {
    if (std::find(unreadable_.begin(), unreadable_.end(), path) == unreadable_.end())
        unreadable_.emplace_back(path);
}

std::string Catalogue::path(int kind, long day, int ch, int hour) const {
    char buf[256];
    return vrix_cat_path(root_.c_str(), kind, clamp(day), ch, hour, buf, sizeof buf) < 0
               ? std::string()
               : std::string(buf);
}

std::vector<VrixCatDay> Catalogue::days(long from, long to) {
    Sink<VrixCatDay> s{{this}, {}};
    vrix_cat_days(root_.c_str(), clamp(from), clamp(to), take<VrixCatDay>, &s, note_unreadable);
    return s.records;
}

std::vector<VrixCatHour> Catalogue::hours(int kind, int ch, long day) {
    Sink<VrixCatHour> s{{this}, {}};
    vrix_cat_hours(root_.c_str(), kind, ch, clamp(day), clamp(day + 1), take<VrixCatHour>, &s,
                   note_unreadable);
    return s.records;
}

std::vector<VrixCatSpan> Catalogue::spans(int kind, int ch, long from, long to, int gap) {
    Sink<VrixCatSpan> s{{this}, {}};
    vrix_cat_spans(root_.c_str(), kind, ch, clamp(from), clamp(to), gap, take<VrixCatSpan>, &s,
                   note_unreadable);
    return s.records;
}

std::vector<VrixCatEvents> Catalogue::events(long day) {
    Sink<VrixCatEvents> s{{this}, {}};
    vrix_cat_events(root_.c_str(), clamp(day), clamp(day + 1), take<VrixCatEvents>, &s,
                    note_unreadable);
    return s.records;
}

void Catalogue::check(int kind, int ch, long from, long to) {
    SinkBase s{this};
    vrix_cat_check(root_.c_str(), kind, ch, clamp(from), clamp(to), note_unreadable, &s);
}

int report_unreadable(const Catalogue &store, const char *command) {
    for (const std::string &path : store.unreadable())
        std::fprintf(stderr,
                     "vrixdb %s: cannot read %s (damaged, not a database, or locked): "
                     "try vrixdb repair --root %s\n",
                     command, path.c_str(), store.root().c_str());
    return store.unreadable().empty() ? 0 : kUnreadableStatus;
}

int check_played_span(const std::string &root, int ch, long from, long to, bool backward,
                      const char *command) {
    Catalogue store(root);
    // Without an end, every day from the start on (backward: before it).
    const long far = to ? to : backward ? 0 : INT_MAX;
    store.check(ch ? VRIX_CAT_VIDEO : VRIX_CAT_EVENTS, ch, from, far);
    return report_unreadable(store, command);
}

} // namespace vrixtool
