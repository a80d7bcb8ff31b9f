#include "store_index.h"

#include "times.h"
#include "vrixdb.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>

namespace vrixtool {

namespace fs = std::filesystem;

IndexDb::IndexDb(const std::string &path) {
    std::error_code ec;
    if (!fs::is_regular_file(path, ec)) return;
    SqlHandle h = nullptr;
    if (sql_open(path.c_str(), &h) == 0) handle_ = h;
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

std::vector<int64_t> IndexDb::column(const std::string &sql) {
    std::vector<int64_t> out;
    for (const Row &r : rows(sql, 1))
        if (r[0]) out.push_back(*r[0]);
    return out;
}

StoreIndex::StoreIndex(std::string root) : root_(std::move(root)) {}

bool StoreIndex::exists() const {
    std::error_code ec;
    return fs::is_regular_file(root_ + "/date.db", ec);
}

namespace {

std::vector<long> day_keys(const std::string &root, const std::string &table) {
    IndexDb db(root + "/date.db");
    std::vector<long> out;
    for (int64_t d : db.column("select distinct date from " + table + " order by date;"))
        out.push_back(static_cast<long>(d));
    return out;
}

int64_t file_size(const std::string &path) {
    std::error_code ec;
    const auto size = fs::file_size(path, ec);
    return ec ? -1 : static_cast<int64_t>(size);
}

} // namespace

std::vector<long> StoreIndex::days() {
    return day_keys(root_, "H");
}

std::vector<long> StoreIndex::channel_days(int ch) {
    return day_keys(root_, "ch" + std::to_string(ch));
}

std::string StoreIndex::day_dir(long day) const {
    return root_ + "/" + day_name(day);
}

std::vector<HourIndex> StoreIndex::video(long day, int ch) {
    const std::string dir = day_dir(day) + "/video/" + std::to_string(ch);
    IndexDb db(dir + "/video.db");
    std::vector<HourIndex> out;
    for (int64_t h : db.column("select distinct hour from H order by hour;")) {
        if (h < 0 || h > 23) continue;
        HourIndex hour{
            static_cast<int>(h), {}, file_size(dir + "/" + std::to_string(h) + ".stream")};
        for (const Row &r :
             db.rows("select sec,offset from h" + std::to_string(h) + " order by id;", 2))
            if (r[0] && r[1]) hour.keys.push_back({static_cast<int>(*r[0]), *r[1]});
        out.push_back(std::move(hour));
    }
    return out;
}

std::vector<HourIndex> StoreIndex::audio(long day) {
    const std::string dir = day_dir(day) + "/audio";
    IndexDb db(dir + "/audio.db");
    std::vector<HourIndex> out;
    for (int64_t h : db.column("select distinct hour from H order by hour;")) {
        if (h < 0 || h > 23) continue;
        HourIndex hour{
            static_cast<int>(h), {}, file_size(dir + "/1/" + std::to_string(h) + ".stream")};
        for (const Row &r :
             db.rows("select sec,offset from h" + std::to_string(h) + " order by id;", 2))
            if (r[0] && r[1]) hour.keys.push_back({static_cast<int>(*r[0]), *r[1]});
        out.push_back(std::move(hour));
    }
    return out;
}

int StoreIndex::audio_channels(long day) const {
    int n = 0;
    std::error_code ec;
    for (int c = 1; c <= VRIX_AUDIO_CHANNELS; ++c)
        if (fs::is_directory(day_dir(day) + "/audio/" + std::to_string(c), ec)) n = c;
    return n;
}

std::vector<EventRow> StoreIndex::events(long day) {
    IndexDb db(day_dir(day) + "/event.db");
    std::vector<EventRow> out;
    for (const Row &r : db.rows("select id,sec,ch,type from h_all order by id;", 4))
        if (r[0] && r[1] && r[2] && r[3])
            out.push_back({static_cast<int>(*r[0]), static_cast<int>(*r[1]),
                           static_cast<int>(*r[2]), static_cast<int>(*r[3])});
    return out;
}

} // namespace vrixtool
