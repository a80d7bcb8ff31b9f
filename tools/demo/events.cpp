// Demo: paging through the recorded events with a filter, both ways.
#include "demo.h"
#include "vrixdb.h"
#include "vrixdb/progress.h"
#include "vrixdb/times.h"

#include <algorithm>

namespace vrixtool {
namespace {

constexpr int kPage = 10;
constexpr int kFirstCh = 1, kLastCh = 8;
constexpr uint32_t kTypes = VRIX_EVENT_MOTION | VRIX_EVENT_ALARM;

bool wanted(const DemoEvent &e) {
    return e.ch >= kFirstCh && e.ch <= kLastCh && (static_cast<uint32_t>(e.type) & kTypes);
}

// Pages from `start` in one direction until the query has no more; false
// when a page is not full before the last.
bool walk(const Demo &d, long start, bool forward, std::vector<DemoEvent> &got, int &pages) {
    std::tm tm = local_fields(start);
    uint32_t lo = 0;
    for (int ch = kFirstCh; ch <= kLastCh; ++ch)
        lo |= 1u << (ch - 1);
    EventQueryContext *q =
        vrix_db_open_get_event(&tm, lo, 0, 0, kTypes, d.root.c_str(), kPage, 0, 0);
    if (!q) return false;
    bool short_page = false;
    for (;;) {
        const int n = forward ? vrix_db_next_event(q) : vrix_db_pre_event(q);
        if (n <= 0) break;
        if (short_page) {
            vrix_db_close_get_event(q);
            return false;
        }
        short_page = n < kPage;
        ++pages;
        const EventRecord *r = vrix_db_get_event(q);
        for (int i = 0; i < n; ++i)
            got.push_back({r[i].iSec, r[i].iCh, r[i].iType});
    }
    vrix_db_close_get_event(q);
    return true;
}

bool same(const std::vector<DemoEvent> &a, const std::vector<DemoEvent> &b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](auto &x, auto &y) {
               return x.sec == y.sec && x.ch == y.ch && x.type == y.type;
           });
}

} // namespace

void step_events(Demo &d) {
    std::vector<DemoEvent> expected;
    for (const DemoEvent &e : d.events)
        if (wanted(e)) expected.push_back(e);

    const Stopwatch began;
    std::vector<DemoEvent> forward, backward;
    int pagesF = 0, pagesB = 0;
    const bool okF = walk(d, d.t0, true, forward, pagesF);
    const double ms = began.ms();
    const bool okB = walk(d, d.t1 - 1, false, backward, pagesB);
    std::reverse(backward.begin(), backward.end());

    std::string why;
    if (!okF || !okB)
        why = "the query could not be opened or returned a short page before the last";
    else if (!same(forward, expected))
        why = strf("forward pages list %zu events, %zu recorded match", forward.size(),
                   expected.size());
    else if (!same(backward, expected))
        why = strf("backward pages list %zu events, %zu recorded match", backward.size(),
                   expected.size());
    d.result("events", why.empty(),
             why.empty() ? strf("ch %d-%d motion+alarm: %zu of %zu events in %d pages of %d "
                                "(%.2f ms a page), the same newest first",
                                kFirstCh, kLastCh, expected.size(), d.events.size(), pagesF, kPage,
                                pagesF ? ms / pagesF : 0.0)
                         : why);
}

} // namespace vrixtool
