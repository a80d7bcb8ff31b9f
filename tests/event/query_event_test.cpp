// Event query against an independent model of what a filter selects and of
// how pages follow one another across days.
#include "event/event_store.h"
#include "support/opened_files.h"

#include <algorithm>
#include <filesystem>
#include <random>
#include <set>
#include <string>

namespace {

using namespace vrix::test;

constexpr int kDay = 86400;
constexpr int kBaseNoon = 1718020800; // 2024-06-10

struct Event {
    int sec, ch, type;
};

struct Filter {
    uint32_t lo, hi;
    int ch0;
    uint32_t types;
    bool selects(const Event &e) const {
        const bool ch = e.ch == -1   ? (types & (1 | 8 | 64)) != 0
                        : e.ch == 0  ? ch0 != 0
                        : e.ch <= 32 ? (lo >> (e.ch - 1) & 1u) != 0
                                     : (hi >> (e.ch - 33) & 1u) != 0;
        return ch && (types & static_cast<uint32_t>(e.type)) != 0;
    }
};

const Filter kAll{~0u, ~0u, 1, 0x7f};

// Registered days 0, 2, 3, 4 and 6 after a base day: 1 and 5 are not
// registered, 3 has no event database and 4 an empty one.  Days 0, 2 and 6
// hold every pairing of channel and type, an event at midnight and one at the
// day's last second.  Times rise with the store order.
class Store {
  public:
    static const Store &get() {
        static const Store s;
        return s;
    }
    std::string root() const { return dir_.path(); }
    int day(int n) const { return base_ + n * kDay; }
    std::vector<Event> events;

  private:
    Store() {
        start_library();
        TestClock clock;
        EventRecContext *rec = vrix_db_open_rec_event(root().c_str());
        base_ = day_key(kBaseNoon);
        std::mt19937 rng(5);
        const int channels[] = {-1, 0, 1, 2, 3, 17, 32, 33, 40, 64};
        int k = 0; // channels and types cycle with coprime periods
        for (int n : {0, 2, 6}) {
            for (int t = day(n); t < day(n + 1); t += 60 * (15 + static_cast<int>(rng() % 40)), ++k)
                events.push_back({t, channels[k % 10], 1 << (k % 7)});
            events.push_back({day(n + 1) - 1, 1, 1});
        }
        for (const Event &e : events) {
            clock.set(e.sec);
            vrix_db_rec_event(rec, e.ch, e.type, 0, 0);
        }
        vrix_db_close_rec_event(rec);
        for (int n : {3, 4})
            read_rows(root() + "/date.db",
                      ("insert into H values(" + std::to_string(day(n)) + ");").c_str());
        std::filesystem::create_directory(day_dir(root(), day(4)));
        read_rows(
            day_dir(root(), day(4)) + "/event.db",
            "create table h_all(id INTEGER PRIMARY KEY , sec int,ch int,type int,data text);");
    }
    ScratchDir dir_;
    int base_ = 0;
};

// A query context that closes itself.
struct Query {
    EventQueryContext *ctx;
    int pageSize;
    Query(int start, const Filter &f, int size, int exactWalk, const std::string &root)
        : pageSize(size) {
        std::tm tm{};
        sec_to_tm(&tm, start);
        ctx = vrix_db_open_get_event(&tm, f.lo, f.hi, f.ch0, f.types, root.c_str(), size, 16,
                                     exactWalk);
    }
    ~Query() { vrix_db_close_get_event(ctx); }
    Query(const Query &) = delete;
    Query &operator=(const Query &) = delete;

    // One page call checked against the events expected; an empty result
    // leaves the page as it was.
    void expect_page(int dir, const std::vector<Event> &want) const {
        ASSERT_NE(ctx, nullptr);
        const EventRecord *page = vrix_db_get_event(ctx);
        const std::vector<EventRecord> before(page, page + pageSize);
        const int n = dir > 0 ? vrix_db_next_event(ctx) : vrix_db_pre_event(ctx);
        ASSERT_EQ(n, static_cast<int>(want.size()));
        if (n == 0) {
            EXPECT_EQ(std::memcmp(before.data(), page, before.size() * sizeof *page), 0);
        }
        for (size_t i = 0; i < want.size(); ++i) {
            const EventRecord &r = page[i];
            EXPECT_TRUE(r.iSec == want[i].sec && r.iCh == want[i].ch && r.iType == want[i].type &&
                        std::all_of(std::begin(r.strText), std::end(r.strText),
                                    [](char c) { return c == 0; }))
                << "record " << i << " sec " << r.iSec << " ch " << r.iCh << ", wanted sec "
                << want[i].sec << " ch " << want[i].ch;
        }
    }
};

// Any sequence of page calls shows consecutive windows of the selected events
// in store order.  The first page starts at the first event at or after the
// start moment (forwards) or the last at or before it (backwards), wherever
// the start lies; pages run on across days; a reversal continues from the
// edge of the page shown (exact walking; without reversals both modes agree).
TEST(Querying, PagesAreConsecutiveWindowsOfTheSelectedEvents) {
    const Store &s = Store::get();
    const Filter filters[] = {
        kAll,
        {5, 0, 0, 3},                      // the documented example: channels 1, 3; types 1, 2
        {0, 1u | 1u << 31, 0, 4 | 16},     // channels 33 and 64, no type that selects -1
        {0, 0, 1, 2 | 32},                 // channel 0 alone
        {0, 0, 0, 8},                      // channel -1 alone
        {1u << 16 | 1u << 31, 0, 0, 0x7f}, // the ends of the low mask
    };
    std::mt19937 rng(11);
    for (int trial = 0; trial < 120; ++trial) {
        const Filter &f = filters[trial % std::size(filters)];
        const int exact = trial / 6 % 2, oneWay = rng() % 2 ? 1 : -1;
        const int pageSize = trial % 5 == 0 ? 500 : 1 + static_cast<int>(rng() % 9);
        const int start = s.day(0) - 3600 + static_cast<int>(rng() % (8 * kDay));
        SCOPED_TRACE(testing::Message() << "trial " << trial);
        Query q(start, f, pageSize, exact, s.root());

        std::vector<Event> list; // the selected events
        long before = 0, upTo = 0;
        for (const Event &e : s.events) {
            if (!f.selects(e)) continue;
            list.push_back(e);
            before += e.sec < start;
            upTo += e.sec <= start;
        }
        const long size = static_cast<long>(list.size());
        bool started = false;
        long lo = 0, hi = -1; // the window shown
        for (int call = 0; call < 25; ++call) {
            const int dir = exact ? (rng() % 2 ? 1 : -1) : oneWay;
            const long from = started ? (dir > 0 ? hi + 1 : lo - 1) : (dir > 0 ? before : upTo - 1);
            const long to = dir > 0 ? std::min(size - 1, from + pageSize - 1)
                                    : std::max(0L, from - pageSize + 1);
            std::vector<Event> want;
            for (long i = from; dir > 0 ? i <= to : i >= to; i += dir)
                want.push_back(list[static_cast<size_t>(i)]);
            q.expect_page(dir, want);
            if (!want.empty()) {
                lo = std::min(from, to), hi = std::max(from, to), started = true;
            } else if (!started &&
                       (dir > 0 ? s.events.back().sec >= start : s.events.front().sec <= start)) {
                lo = dir > 0 ? size : 0, hi = lo - 1, started = true; // a day was entered
            }
        }
    }
}

// Without exact walking a reversal moves the cursor by the page size: after
// ids 11..20 the way back starts at 10, and after 10..1 and the end of the
// store the way forward starts at 11 again.
TEST(Querying, ArithmeticReversalMovesByThePageSize) {
    const Store &s = Store::get();
    const std::vector<Event> ids(s.events.begin(), s.events.begin() + 20); // day 0, ids 1..20
    Query q(ids[10].sec, kAll, 10, 0, s.root());
    q.expect_page(1, {ids.begin() + 10, ids.end()});
    q.expect_page(-1, {ids.rend() - 10, ids.rend()});
    q.expect_page(-1, {});
    q.expect_page(1, {ids.begin() + 10, ids.end()});
}

// The first page opens date.db and the day's event.db once each.
TEST(Querying, FirstPageOpensEachDatabaseOnce) {
    const Store &s = Store::get();
    std::multiset<std::string> names;
    {
        vrix::test::OpenedFiles opens;
        Query q(s.events[5].sec, kAll, 3, 0, s.root());
        q.expect_page(1, {s.events.begin() + 5, s.events.begin() + 8});
        names = opens.names;
    }
    EXPECT_EQ(names, (std::multiset<std::string>{"date.db", "event.db"}));
}

// Events recorded into the last day after a walk reached its end: the
// re-reading walk picks them up, listing none twice; the exact one does not.
TEST(Querying, EventsRecordedWhileAWalkIsAtTheEndOfTheDay) {
    start_library();
    ScratchDir dir;
    TestClock clock;
    EventRecContext *rec = vrix_db_open_rec_event(dir.path().c_str());
    const int day = day_key(kBaseNoon);
    std::vector<Event> ev;
    auto record = [&](int n) {
        for (int i = 0; i < n; ++i) {
            ev.push_back({day + 60 * static_cast<int>(ev.size() + 1), 2, 2});
            clock.set(ev.back().sec);
            vrix_db_rec_event(rec, 2, 2, 0, 0);
        }
    };
    record(10);
    Query reread(day, kAll, 5, 0, dir.path()), exact(day, kAll, 5, 1, dir.path()),
        wide(day, kAll, 8, 0, dir.path());
    for (const Query *q : {&reread, &exact}) {
        q->expect_page(1, {ev.begin(), ev.begin() + 5});
        q->expect_page(1, {ev.begin() + 5, ev.begin() + 10});
    }
    wide.expect_page(1, {ev.begin(), ev.begin() + 8});
    record(2);
    reread.expect_page(1, {ev.begin() + 10, ev.end()});
    exact.expect_page(1, {});
    wide.expect_page(1, {ev.begin() + 8, ev.end()});
    vrix_db_close_rec_event(rec);
}

// The days recording registers are found from inside them in every season,
// also where the zone has summer time.
TEST(Querying, DaysAreFoundInEverySeason) {
    start_library();
    ScratchDir dir;
    TestClock clock;
    EventRecContext *rec = vrix_db_open_rec_event(dir.path().c_str());
    const int noons[] = {1705320000, 1721044800}; // 2024-01-15 and 2024-07-15
    for (int noon : noons) {
        clock.set(noon);
        vrix_db_rec_event(rec, 1, 1, 0, 0);
    }
    vrix_db_close_rec_event(rec);
    for (int noon : noons) {
        Query fwd(day_key(noon), kAll, 1, 0, dir.path());
        Query bwd(day_key(noon) + kDay - 1, kAll, 1, 0, dir.path());
        fwd.expect_page(1, {{noon, 1, 1}});
        bwd.expect_page(-1, {{noon, 1, 1}});
    }
}

// (No start time, bad page sizes and long roots: hostile_input_test.)
TEST(Querying, OpenRefusals) {
    const Store &s = Store::get();
    std::tm tm{};
    const std::string root = s.root();
    auto open = [&](std::tm *start, uint32_t lo, uint32_t types, const char *r, int page) {
        EventQueryContext *q = vrix_db_open_get_event(start, lo, 0, 0, types, r, page, 0, 0);
        vrix_db_close_get_event(q);
        return q != nullptr;
    };
    EXPECT_FALSE(open(&tm, 0, 2 | 4, root.c_str(), 10)); // no channel
    EXPECT_TRUE(open(&tm, 0, 64, root.c_str(), 10));     // channel -1 through type 64
    EXPECT_FALSE(open(&tm, 1, 1, nullptr, 10));
    EXPECT_FALSE(open(&tm, 1, 0, root.c_str(), 10));
    testing::internal::CaptureStdout();
    EXPECT_FALSE(open(&tm, 1, 0x80, root.c_str(), 10));
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "vrix_db_open_get_event : no event type selected\n");
}

} // namespace
