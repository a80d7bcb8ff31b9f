// A day's recorded seconds, read once per unchanged database file.
//
// What is remembered is keyed by the path and the file's identity, size and
// modification time.  A file modified within the last two seconds when it
// is read is not remembered: a later write in the same tick of the file
// system's clock could leave the time as it was (the day being recorded is
// always read afresh).
#include "catalogue_seconds.h"

#include "store/format.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <map>
#include <mutex>
#include <string>
#include <utility>

namespace vrix::cat {
namespace {

struct Signature {
    dev_t dev;
    ino_t ino;
    off_t size;
    long long mtime_ns;
    bool operator==(const Signature &) const = default;
};

bool signature_of(const char *path, Signature &sig) {
    struct stat st {};
    if (stat(path, &st) != 0 || !S_ISREG(st.st_mode)) return false;
    sig = {st.st_dev, st.st_ino, st.st_size,
           static_cast<long long>(st.st_mtim.tv_sec) * 1000000000LL + st.st_mtim.tv_nsec};
    return true;
}

// Long enough past any file system's timestamp granularity.
constexpr long long kSettledNs = 2000000000LL;

bool settled(const Signature &sig) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const long long ns = static_cast<long long>(now.tv_sec) * 1000000000LL + now.tv_nsec;
    return ns - sig.mtime_ns >= kSettledNs;
}

struct Entry {
    Signature sig;
    std::vector<Progression> seconds;
};

// At most this many databases are remembered (a month of 16 channels and
// audio is about 510); past it everything is forgotten and refilled.
constexpr size_t kMaxEntries = 2048;

std::mutex g_lock;
std::map<std::string, Entry> g_remembered;

bool recall(const char *path, const Signature &sig, std::vector<Progression> &out) {
    const std::lock_guard<std::mutex> hold(g_lock);
    const auto it = g_remembered.find(path);
    if (it == g_remembered.end() || !(it->second.sig == sig)) return false;
    out = it->second.seconds;
    return true;
}

void remember(const char *path, const Signature &sig, const std::vector<Progression> &seconds) {
    const std::lock_guard<std::mutex> hold(g_lock);
    if (g_remembered.size() >= kMaxEntries) g_remembered.clear();
    g_remembered[path] = {sig, seconds};
}

// Reads every listed hour's seconds from the table (the rows playback
// reads, in id order: in time order but where a clock went back) and merges
// the hours.  False when any of it could not be read.
bool read_seconds(ReadDb &db, std::vector<Progression> &out) {
    bool has_h = false;
    std::vector<int> tables, hours;
    if (!db.usable()) return !db.failed();
    if (!db.hour_tables(has_h, tables)) return false;
    if (!has_h) return true;
    if (!db.listed_hours(hours)) return false;
    std::vector<long long> secs, all;
    bool sorted = true;
    for (int h : hours) {
        if (std::find(tables.begin(), tables.end(), h) == tables.end()) continue;
        Sql q;
        format_into(q.text, sizeof q.text, "select sec from h%d not indexed;", h);
        secs.clear();
        if (!db.query(q.text, 1, secs)) continue;
        for (long long s : secs) {
            sorted = sorted && (all.empty() || s >= all.back());
            all.push_back(s);
        }
    }
    if (!sorted) std::sort(all.begin(), all.end());
    for (size_t i = 0; i < all.size();) {
        size_t j = i + 1;
        while (j < all.size() && all[j] == all[i])
            ++j;
        append_second(out, static_cast<int32_t>(all[i]), static_cast<int32_t>(j - i));
        i = j;
    }
    return !db.failed();
}

} // namespace

void append_second(std::vector<Progression> &list, int32_t sec, int32_t rows) {
    if (!list.empty()) {
        Progression &p = list.back();
        const int32_t step = sec - p.last();
        if (p.rows == rows && step >= 1 && (p.count == 1 || step == p.step)) {
            p.step = step;
            ++p.count;
            return;
        }
    }
    list.push_back({sec, 1, 1, rows});
}

void day_seconds(Call &call, pthread_mutex_t *m, const char *path, std::vector<Progression> &out) {
    out.clear();
    Signature before{};
    if (!signature_of(path, before)) return; // not there: nothing recorded
    if (recall(path, before, out)) return;
    ReadDb db(call, m, path);
    // Remembered only when all of it was read and the file stayed as it was.
    Signature after{};
    if (read_seconds(db, out) && signature_of(path, after) && after == before && settled(after))
        remember(path, after, out);
}

void forget_day_seconds() {
    const std::lock_guard<std::mutex> hold(g_lock);
    g_remembered.clear();
}

} // namespace vrix::cat
