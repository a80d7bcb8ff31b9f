#include "store_index.h"

#include "times.h"
#include "vrixdb.h"

#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <filesystem>

namespace vrixtool {

namespace {
// "h<hour>", built by appending: GCC 12 at -O3 warns falsely (-Wrestrict) on
// a literal prepended to a temporary string.
std::string hour_table(int64_t h) {
    std::string t = "h";
    t += std::to_string(h);
    return t;
}
} // namespace

namespace fs = std::filesystem;

IndexDb::IndexDb(const std::string &path) : path_(path) {
    std::error_code ec;
    if (!fs::is_regular_file(path, ec)) return;
    SqlHandle h = nullptr;
    if (sql_open(path.c_str(), &h) == 0)
        handle_ = h;
    else
        failed_ = true;
}

IndexDb::~IndexDb() {
    if (handle_) sql_close(handle_);
}

std::vector<Row> IndexDb::rows(const std::string &sql, int columns) {
    std::vector<Row> out;
    if (!handle_ || columns < 1 || columns > 4) return out;
    ResultTable t[4] = {};
    const char *formats[] = {"%u", "%u %u", "%u %u %u", "%u %u %u %u"};
    int n = -1;
    // The recorder may hold the database for a moment: busy is worth a retry.
    for (int attempt = 0; attempt < 200; ++attempt) {
        n = sql_submit(handle_, sql.c_str(), formats[columns - 1], &t[0], &t[1], &t[2], &t[3]);
        if (n != -1) break;
        usleep(5000);
    }
    if (n < 0) failed_ = true;
    for (int r = 0; r < n; ++r) {
        Row row;
        for (int c = 0; c < columns; ++c) {
            if (t[c] && t[c][r]) {
                uint64_t v;
                std::memcpy(&v, t[c][r], sizeof v);
                row.emplace_back(static_cast<int64_t>(v));
            } else {
                row.emplace_back(std::nullopt);
            }
        }
        out.push_back(std::move(row));
    }
    for (int c = 0; c < columns; ++c)
        if (t[c]) db_free_sqlite(t[c], n > 0 ? n : 1);
    return out;
}

std::optional<int64_t> IndexDb::value(const std::string &sql) {
    auto r = rows(sql, 1);
    if (r.empty()) return std::nullopt;
    return r[0][0];
}

bool IndexDb::has_table(const std::string &name) {
    const auto n =
        value("select count(*) from sqlite_master where type='table' and name='" + name + "';");
    return n && *n > 0;
}

std::vector<int64_t> IndexDb::column(const std::string &sql) {
    std::vector<int64_t> out;
    for (const Row &r : rows(sql, 1))
        if (r[0]) out.push_back(*r[0]);
    return out;
}

StoreIndex::StoreIndex(std::string root) : root_(std::move(root)) {}

bool StoreIndex::exists() const {
    std::error_code ec;
    return fs::is_regular_file(date_db(), ec);
}

void StoreIndex::note(const IndexDb &db) {
    if (db.failed() &&
        std::find(unreadable_.begin(), unreadable_.end(), db.path()) == unreadable_.end())
        unreadable_.push_back(db.path());
}

std::vector<long> StoreIndex::day_keys(const std::string &table) {
    IndexDb db(date_db());
    std::vector<long> out;
    if (db.has_table(table))
        for (int64_t d : db.column("select distinct date from " + table + " order by date;"))
            out.push_back(static_cast<long>(d));
    note(db);
    return out;
}

namespace {

int64_t file_size(const std::string &path) {
    std::error_code ec;
    const auto size = fs::file_size(path, ec);
    return ec ? -1 : static_cast<int64_t>(size);
}

} // namespace

std::vector<long> StoreIndex::days() {
    return day_keys("H");
}

std::vector<long> StoreIndex::channel_days(int ch) {
    return day_keys("ch" + std::to_string(ch));
}

std::string StoreIndex::date_db() const {
    return root_ + "/date.db";
}

std::string StoreIndex::day_dir(long day) const {
    return root_ + "/" + day_name(day);
}

std::string StoreIndex::event_db(long day) const {
    return day_dir(day) + "/event.db";
}

namespace {
std::string video_dir(const StoreIndex &store, long day, int ch) {
    return store.day_dir(day) + "/video/" + std::to_string(ch);
}
} // namespace

std::string StoreIndex::video_db(long day, int ch) const {
    return video_dir(*this, day, ch) + "/video.db";
}

std::string StoreIndex::stream_file(long day, int ch, int hour) const {
    return video_dir(*this, day, ch) + "/" + std::to_string(hour) + ".stream";
}

std::vector<HourIndex> StoreIndex::hours(const std::string &dbPath, const std::string &streamDir) {
    IndexDb db(dbPath);
    std::vector<HourIndex> out;
    if (db.has_table("H"))
        for (int64_t h : db.column("select distinct hour from H order by hour;")) {
            if (h < 0 || h > 23) continue;
            const std::string table = hour_table(h);
            HourIndex hour{static_cast<int>(h),
                           {},
                           file_size(streamDir + "/" + std::to_string(h) + ".stream")};
            if (db.has_table(table))
                for (const Row &r : db.rows("select sec,offset from " + table + " order by id;", 2))
                    if (r[0] && r[1]) hour.keys.push_back({static_cast<int>(*r[0]), *r[1]});
            out.push_back(std::move(hour));
        }
    note(db);
    return out;
}

std::vector<HourIndex> StoreIndex::video(long day, int ch) {
    return hours(video_db(day, ch), video_dir(*this, day, ch));
}

// Every audio channel has the same hours; channel 1's files stand for all.
std::vector<HourIndex> StoreIndex::audio(long day) {
    const std::string dir = day_dir(day) + "/audio";
    return hours(dir + "/audio.db", dir + "/1");
}

int StoreIndex::audio_channels(long day) const {
    int n = 0;
    std::error_code ec;
    for (int c = 1; c <= VRIX_AUDIO_CHANNELS; ++c)
        if (fs::is_directory(day_dir(day) + "/audio/" + std::to_string(c), ec)) n = c;
    return n;
}

std::vector<EventRow> StoreIndex::events(long day) {
    IndexDb db(event_db(day));
    std::vector<EventRow> out;
    if (db.has_table("h_all"))
        for (const Row &r : db.rows("select id,sec,ch,type from h_all order by id;", 4))
            if (r[0] && r[1] && r[2] && r[3])
                out.push_back({static_cast<int>(*r[0]), static_cast<int>(*r[1]),
                               static_cast<int>(*r[2]), static_cast<int>(*r[3])});
    note(db);
    return out;
}

// Counting a table's rows reads every page of it (not of an index, which
// SQLite would count instead).
void StoreIndex::check_tables(IndexDb &db, const std::vector<std::string> &tables) {
    for (const std::string &t : tables)
        if (!db.failed() && db.has_table(t))
            db.value("select count(*) from " + t + " not indexed;");
    note(db);
}

void StoreIndex::check_span(int ch, long first, long last) {
    const size_t before = unreadable_.size();
    const auto days = day_keys(ch ? "ch" + std::to_string(ch) : "H");
    if (unreadable_.size() > before) return; // date.db itself
    for (long day : days) {
        if (day < first || day > last) continue;
        if (!ch) {
            IndexDb db(event_db(day));
            check_tables(db, {"h_all"});
            continue;
        }
        IndexDb db(video_db(day, ch));
        std::vector<std::string> tables{"H"};
        if (db.has_table("H"))
            for (int64_t h : db.column("select distinct hour from H;"))
                tables.push_back(hour_table(h));
        check_tables(db, tables);
    }
}

int report_unreadable(const StoreIndex &store, const char *command) {
    for (const std::string &path : store.unreadable())
        std::fprintf(stderr,
                     "vrixdb %s: cannot read %s (damaged, not a database, or locked): "
                     "try vrixdb repair --root %s\n",
                     command, path.c_str(), store.root().c_str());
    return store.unreadable().empty() ? 0 : kUnreadableStatus;
}

int check_played_span(const std::string &root, int ch, long from, long to, bool backward,
                      const char *command) {
    StoreIndex store(root);
    const long near = day_start(from);
    const long far = to ? day_start(to) : backward ? LONG_MIN : LONG_MAX;
    store.check_span(ch, backward ? far : near, backward ? near : far);
    return report_unreadable(store, command);
}

} // namespace vrixtool
