// The start-up repair (vrix_db_correct_all) and the checkers of single
// databases.  date.db is checked first (restored from its copy or made again
// from the day directories).  The databases of the newest day of every
// channel (and of the day before while the newest is young) are checked;
// then every hour the writers' journal lists (core/hour_journal.h) is
// reconciled with its hour file, its index checked first, and registered in
// date.db and the day's H.  Without a journal that repair made, every hour
// the newest days' indexes list is reconciled as well, and every day
// directory is looked through for hour files whose day or hour is not
// registered or whose table has no row.  Afterwards the journal keeps only
// what could not be done.
#include "repair.h"
#include "core/calendar.h"
#include "core/hour_journal.h"
#include "core/pacing.h"
#include "maintenance.h"
#include "store/format.h"
#include "store/log.h"
#include "store/paths.h"
#include "store/schema.h"

#include <sys/stat.h>

#include <map>
#include <set>
#include <utility>

namespace vrix {
namespace {

// The days of a channel that the check without a journal looks at: its
// newest recorded day and, while that day is young (begun less than an hour
// ago, so the recorder may have written the day before's last hour until a
// moment ago), the recorded day before it.  Returns how many of `days` it
// filled.
constexpr int kYoungDay = 3600;
int days_to_check(SqlHandle date, int ch, int days[2]) {
    Sql q;
    format_into(q.text, sizeof q.text, sql::kNewestChannelDay, ch);
    Holder h(1, kIntCell);
    const int n = date ? query_locked(nullptr, date, q.text, "%d", h.t) : 0;
    log_line("iRet = %d\n", n);
    if (n <= 0 || !holder_int(h.t, days[0])) return 0;
    if (clock_now().sec - days[0] >= kYoungDay) return 1;
    format_into(q.text, sizeof q.text, sql::kChannelDayUpTo, ch, days[0] - 1);
    return query_int(nullptr, date, q.text, h.t, days[1]) ? 2 : 1;
}

bool exists(const char *path) {
    struct stat st {};
    return stat(path, &st) == 0;
}

// One run of the start-up repair over the store under `root`.
class StartUp {
  public:
    StartUp(const char *root, SqlHandle date) : root_(root), date_(date) {}

    // The index of a video channel (0: the audio) of a day, checked once per
    // run; false when it is left alone.
    bool index_ready(int ch, const StoreDay &d) {
        const auto key = std::make_pair(ch, d.key);
        if (const auto it = ready_.find(key); it != ready_.end()) return it->second;
        Path dir;
        const bool usable =
            place(ch, d, dir) && correct_index(kind(ch), dir.text) != Outcome::LeftAlone;
        ready_[key] = usable;
        return usable;
    }

    // The day's events, checked once per run.
    void events(const StoreDay &d) {
        if (!event_days_.insert(d.key).second) return;
        Path p;
        AsidePath aside;
        if (!reader_event_db(p, root_, d.tm)) return;
        if (correct_with_copy(p.text, "h_all", Voice{}, aside) == Outcome::SetAside)
            log_line("vrix_db_correct : the events of %s are aside in %s , the next event begins "
                     "a new event.db\n",
                     d.name, aside.text);
    }

    // One hour of a channel (0: the audio) reconciled with its hour file and
    // registered; false when it could not be.
    bool hour(int ch, const StoreDay &d, int h) {
        Path dir, stream;
        if (!place(ch, d, dir) || !kind(ch).stream(stream, dir.text, h)) return false;
        struct stat st {};
        if (stat(stream.text, &st) != 0 || st.st_size == 0) return true; // nothing to index
        if (!index_ready(ch, d) || !reconcile_index_hour(kind(ch), dir.text, h)) return false;
        enroll(ch, d.key);
        return true;
    }

    // Every hour the index lists (the check without a journal).
    void listed_hours(int ch, const StoreDay &d) {
        Path dir;
        if (index_ready(ch, d) && place(ch, d, dir)) reconcile_listed_hours(kind(ch), dir.text);
    }

    // Looks through every day directory for hour files of channel `ch` (0:
    // the audio) whose day or hour is not registered or whose table holds no
    // row, and reconciles those hours.
    void scan(int ch) {
        for (const StoreDay &d : days()) {
            Path dir, first;
            if (!place(ch, d, dir)) continue;
            const char *files = ch ? dir.text : (dir_channel(first, dir.text, 1) ? first.text : "");
            const std::vector<int> hours = stream_hours(files);
            if (hours.empty()) continue;
            const std::vector<int> missing = unindexed(ch, dir.text, hours);
            const bool registered = is_registered(0, d.key) && (!ch || is_registered(ch, d.key));
            if (missing.empty() && registered) continue;
            char who[8];
            format_into(who, sizeof who, ch ? "ch%d" : "audio", ch);
            log_line("scan %s %s : %zu hour file(s) not indexed%s\n", who, d.name, missing.size(),
                     registered ? "" : " , day not registered");
            for (int h : missing)
                hour(ch, d, h);
            if (!registered && index_ready(ch, d)) enroll(ch, d.key);
        }
    }

    // Days whose events are not registered in date.db get their H row.
    void scan_events() {
        for (const StoreDay &d : days()) {
            Path p;
            struct stat st {};
            if (date_ && !is_registered(0, d.key) && day_event_db(p, root_, d.name) &&
                stat(p.text, &st) == 0 && st.st_size > 0)
                register_day(date_, 0, d.key);
        }
    }

  private:
    static const IndexKind &kind(int ch) { return ch ? kVideoIndex : kAudioIndex; }

    // The day in date.db's H, and in ch<ch> for a video channel.
    void enroll(int ch, int key) {
        if (!date_) return;
        register_day(date_, 0, key);
        if (ch) register_day(date_, ch, key);
    }

    bool place(int ch, const StoreDay &d, Path &dir) const {
        return ch ? repair_channel_dir(dir, root_, d.tm, ch) : repair_audio_dir(dir, root_, d.tm);
    }

    const std::vector<StoreDay> &days() {
        if (!days_read_) days_ = day_directories(root_);
        days_read_ = true;
        return days_;
    }

    bool is_registered(int ch, int key) {
        if (!date_) return false;
        Holder holder(1, kIntCell);
        Sql q;
        if (ch)
            format_into(q.text, sizeof q.text, sql::kFindChannelDay, ch, key);
        else
            format_into(q.text, sizeof q.text, sql::kFindDay, key);
        int found;
        return holder.t && query_int(nullptr, date_, q.text, holder.t, found);
    }

    // The hours among `hours` that the index in `dir` does not list or whose
    // table holds no row: registration queries only, no stream is read.
    std::vector<int> unindexed(int ch, const char *dir, const std::vector<int> &hours) {
        SidePath db;
        if (!kind(ch).db(db, dir) || !exists(db.text)) return hours;
        Db index(nullptr);
        Holder holder(1, kIntCell);
        if (!holder.t || !index.open(db.text)) return hours;
        std::vector<int> out;
        for (int h : hours) {
            Sql q;
            int n = 0;
            format_into(q.text, sizeof q.text, sql::kFindHour, h);
            bool indexed = index.value(holder.t, q.text, n);
            format_into(q.text, sizeof q.text, "select count(*) from (select 1 from h%d limit 1);",
                        h);
            indexed = indexed && index.value(holder.t, q.text, n) && n > 0;
            if (!indexed) out.push_back(h);
        }
        return out;
    }

    const char *root_;
    SqlHandle date_;
    std::map<std::pair<int, int>, bool> ready_;
    std::set<int> event_days_;
    std::vector<StoreDay> days_;
    bool days_read_ = false;
};

void correct_all(const char *root) {
    std::vector<JournalHour> journal;
    const JournalState state = read_hour_journal(root, journal);
    const bool trusted = state == JournalState::Complete;
    Path p;
    reader_date_db(p, root);
    if (correct_date_db(root, p.text) == Outcome::LeftAlone) {
        log_text("vrix_db_correct : fail");
        return;
    }
    Db date(nullptr);
    if (exists(p.text) && !date.open(p.text)) {
        log_text("vrix_db_correct : fail");
        return;
    }
    StartUp run(root, date.get());
    std::vector<bool> done(journal.size(), false);
    bool first_day = true;
    for (int ch = 1; ch <= VRIX_VIDEO_CHANNELS; ++ch) {
        vrix_hdd_correct_step(120 + 5 * ch);
        // The newest days are checked in any case; without a journal that
        // repair made, every hour their indexes list is reconciled too.
        int days[2];
        const int n = days_to_check(date.get(), ch, days);
        std::set<int> shown;
        for (int r = 0; r < n; ++r) {
            const StoreDay d = store_day(days[r]);
            log_line("check ch%d %s\n", ch, d.name);
            shown.insert(d.key);
            for (const int which : {ch, 0}) {
                // The first channel with a day checks the audio and events of its days.
                if (which == 0 && !first_day) break;
                if (trusted)
                    run.index_ready(which, d);
                else
                    run.listed_hours(which, d);
            }
            if (first_day) run.events(d);
        }
        if (n > 0) first_day = false;
        for (size_t i = 0; i < journal.size(); ++i) {
            const JournalHour &j = journal[i];
            StoreDay d;
            if (j.kind != kJournalVideo || j.channel != ch || !store_day(j.day, d)) continue;
            if (shown.insert(d.key).second) log_line("check ch%d %s\n", ch, d.name);
            done[i] = run.hour(ch, d, j.hour);
            run.events(d);
        }
        if (!trusted) run.scan(ch);
        if (ch == 1) {
            for (size_t i = 0; i < journal.size(); ++i) {
                StoreDay d;
                if (journal[i].kind != kJournalAudio || !store_day(journal[i].day, d)) continue;
                done[i] = run.hour(0, d, journal[i].hour);
                run.events(d);
            }
            if (!trusted) {
                run.scan(0);
                run.scan_events();
            }
        }
    }
    std::vector<JournalHour> keep;
    for (size_t i = 0; i < journal.size(); ++i)
        if (!done[i]) keep.push_back(journal[i]);
    // A root without one gets an empty journal, trusted from now on.
    struct stat st {};
    if (stat(root, &st) == 0 && S_ISDIR(st.st_mode)) replace_hour_journal(root, keep);
}

} // namespace
} // namespace vrix

extern "C" int vrix_db_correct_all(const char *root) {
    using namespace vrix;
    const MaintenanceHold hold(root, "vrix_db_correct_all", kHoldAlone);
    if (!hold) return 0;
    if (!root_fits(root, "vrix_db_correct_all")) return 0;
    refresh_timezone();
    correct_all(root);
    return 0;
}

extern "C" int vrix_db_correct(const char *path, const char *table) {
    using namespace vrix;
    const MaintenanceHold hold(path, "vrix_db_correct", kHoldInside | kHoldAlone);
    if (!hold) return -1;
    if (!path || !table) return -1;
    AsidePath aside;
    switch (correct_with_copy(path, table, Voice{}, aside)) {
    case Outcome::Sound:
    case Outcome::Restored:
    case Outcome::SetAside: // as removing it did: the next opener starts it afresh
        return 0;
    default:
        return -1;
    }
}

extern "C" void vrix_db_correct_video(const char *dir) {
    using namespace vrix;
    const MaintenanceHold hold(dir, "vrix_db_correct_video", kHoldInside | kHoldAlone);
    if (!hold) return;
    refresh_timezone();
    if (dir) correct_index(kVideoIndex, dir);
}

extern "C" int vrix_db_correct_audio(const char *dir) {
    using namespace vrix;
    const MaintenanceHold hold(dir, "vrix_db_correct_audio", kHoldInside | kHoldAlone);
    if (!hold) return 0;
    refresh_timezone();
    if (dir) correct_index(kAudioIndex, dir);
    return 0;
}
