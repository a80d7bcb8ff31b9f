// date.db from the day directories: every day with any media or events in H,
// every day a channel has an index or hour files in ch<N>, the day keys being
// local midnights.  It is made this way when date.db and its copy are both
// unusable (or both missing while day directories exist), and a restored copy
// gets the registrations it lacks, so that no recorded day is left out of
// reach of playback and reduction.
#include "core/calendar.h"
#include "core/file_io.h"
#include "durable_copy.h"
#include "repair.h"
#include "store/log.h"
#include "store/paths.h"
#include "store/schema.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

namespace vrix {
namespace {

struct DirCloser {
    void operator()(DIR *d) const { closedir(d); }
};
using Dir = std::unique_ptr<DIR, DirCloser>;

long long size_of(const char *path) {
    struct stat st {};
    return stat(path, &st) == 0 ? static_cast<long long>(st.st_size) : -1;
}

// A database that exists and whose table holds a row; a database that
// cannot be read counts as holding one (it is there to be repaired).
bool holds_rows(const char *db, const char *table) {
    if (size_of(db) <= 0) return false;
    Db h(nullptr);
    Holder holder(1, kIntCell);
    if (!holder.t || !h.open(db)) return true;
    Sql q;
    format_into(q.text, sizeof q.text, "select count(*) from (select 1 from %s limit 1);", table);
    int n = 0;
    return !h.value(holder.t, q.text, n) || n > 0;
}

// What a day directory holds, as date.db registers it.
struct DayHolds {
    bool any = false;
    bool channel[VRIX_VIDEO_CHANNELS + 1] = {};
};

DayHolds day_holds(const char *root, const StoreDay &d) {
    DayHolds held;
    Path p;
    for (int ch = 1; ch <= VRIX_VIDEO_CHANNELS; ++ch) {
        if (!repair_channel_dir(p, root, d.tm, ch)) continue;
        SidePath db;
        held.channel[ch] =
            !stream_hours(p.text).empty() || (dir_video_db(db, p.text) && holds_rows(db.text, "H"));
        held.any = held.any || held.channel[ch];
    }
    if (!held.any && repair_audio_dir(p, root, d.tm)) {
        SidePath db;
        for (int k = 1; k <= VRIX_AUDIO_CHANNELS && !held.any; ++k) {
            Path ch;
            held.any = dir_channel(ch, p.text, k) && !stream_hours(ch.text).empty();
        }
        held.any = held.any || (dir_audio_db(db, p.text) && holds_rows(db.text, "H"));
    }
    if (!held.any && day_event_db(p, root, d.name)) held.any = holds_rows(p.text, "h_all");
    return held;
}

// Registers what every day directory holds, in one transaction.
void register_days(SqlHandle date, const char *root) {
    sql_submit(date, sql::kBegin, "");
    for (const StoreDay &d : day_directories(root)) {
        const DayHolds held = day_holds(root, d);
        if (!held.any) continue;
        register_day(date, 0, d.key);
        for (int ch = 1; ch <= VRIX_VIDEO_CHANNELS; ++ch)
            if (held.channel[ch]) register_day(date, ch, d.key);
    }
    sql_submit(date, sql::kCommit, "");
}

void create_tables(SqlHandle date) {
    Sql q;
    for (int n = 1; n <= VRIX_VIDEO_CHANNELS; ++n) {
        format_into(q.text, sizeof q.text, sql::kCreateDateCh, n);
        sql_submit(date, q.text, "");
    }
    sql_submit(date, sql::kCreateDateH, "");
}

// date.db made anew from the day directories; false when there are none.
bool rebuild(const char *root, const char *date_db) {
    if (day_directories(root).empty()) return false;
    SidePath tmp, tmp_journal;
    if (!path_with_suffix(tmp, date_db, ".rebuild") ||
        !path_with_suffix(tmp_journal, tmp.text, "-journal"))
        return false;
    io::remove_file(tmp.text); // left by a repair that was cut short
    io::remove_file(tmp_journal.text);
    {
        Db made(nullptr);
        if (!made.open(tmp.text)) return false;
        made.run("PRAGMA synchronous=OFF;");
        create_tables(made.get());
        register_days(made.get(), root);
    }
    if (put_in_place(tmp.text, date_db)) return true;
    log_line("vrix_db_correct : %s not made again (%s)\n", date_db, std::strerror(errno));
    return false;
}

} // namespace

StoreDay store_day(int key) {
    StoreDay d{key, {}, fields_of(key)};
    day_name(d.name, d.tm);
    return d;
}

bool store_day(const char *name, StoreDay &d) {
    if (std::strlen(name) != 8 || std::strspn(name, "0123456789") != 8) return false;
    std::tm tm{};
    if (std::sscanf(name, "%4d%2d%2d", &tm.tm_year, &tm.tm_mon, &tm.tm_mday) != 3 ||
        tm.tm_year < 1970)
        return false;
    const int year = tm.tm_year, mon = tm.tm_mon, mday = tm.tm_mday;
    tm.tm_year -= 1900;
    tm.tm_mon -= 1;
    const long long wall = static_cast<long long>(timegm(&tm));
    if (tm.tm_year != year - 1900 || tm.tm_mon != mon - 1 || tm.tm_mday != mday) return false;
    const long long key = first_at_wall(wall);
    if (key <= 0 || key > 0x7FFFFFFFLL - 86400) return false;
    d = store_day(static_cast<int>(key));
    return std::strcmp(d.name, name) == 0;
}

std::vector<StoreDay> day_directories(const char *root) {
    std::vector<StoreDay> days;
    const Dir dir(opendir(root));
    if (!dir) return days;
    while (const dirent *e = readdir(dir.get())) {
        StoreDay d;
        Path p;
        struct stat st {};
        if (store_day(e->d_name, d) && format_into(p.text, sizeof p.text, "%s/%s", root, d.name) &&
            stat(p.text, &st) == 0 && S_ISDIR(st.st_mode))
            days.push_back(d);
    }
    std::sort(days.begin(), days.end(),
              [](const StoreDay &a, const StoreDay &b) { return a.key < b.key; });
    return days;
}

std::vector<int> stream_hours(const char *dir) {
    std::vector<int> hours;
    for (int h = 0; h < 24; ++h) {
        Path p;
        if (dir_stream(p, dir, h) && size_of(p.text) > 0) hours.push_back(h);
    }
    return hours;
}

void register_day(SqlHandle date, int channel, int key) {
    Holder holder(1, kIntCell);
    if (!holder.t) return;
    Sql find, insert;
    if (channel == 0) {
        ensure_day(date, key, holder.t);
        return;
    }
    format_into(find.text, sizeof find.text, sql::kFindChannelDay, channel, key);
    format_into(insert.text, sizeof insert.text, sql::kInsertChannelDay, channel, key);
    ensure_row(date, find.text, insert.text, holder.t);
}

Outcome correct_date_db(const char *root, const char *date_db) {
    AsidePath aside;
    const Outcome o = correct_with_copy(date_db, "H", Voice{}, aside);
    if (o == Outcome::Restored) {
        // The copy may be older than the store: every day directory's
        // registrations it lacks are added.
        Db date(nullptr);
        if (date.open(date_db)) register_days(date.get(), root);
        return o;
    }
    if (o != Outcome::SetAside && o != Outcome::Missing) return o;
    if (!rebuild(root, date_db)) return o;
    log_line("vrix_db_correct : %s made again from the day directories\n", date_db);
    return Outcome::Rebuilt;
}

} // namespace vrix
