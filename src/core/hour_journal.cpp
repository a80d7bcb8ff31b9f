#include "hour_journal.h"

#include "file_io.h"
#include "store/format.h"
#include "store/log.h"
#include "store/paths.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>

namespace vrix {
namespace {

// The writers of this process take turns.
std::mutex g_journal_turn;

// The first line of a journal that a writer began.
constexpr char kBegunByWriter[] = "* look through every day";

// A journal of a bounded store holds well under this; anything beyond is not
// one of ours and is not read.
constexpr size_t kMostRead = 1 << 20;

bool same_slot(const JournalHour &a, const JournalHour &b) {
    return a.kind == b.kind && a.channel == b.channel;
}

bool same_hour(const JournalHour &a, const JournalHour &b) {
    return same_slot(a, b) && a.hour == b.hour && std::strcmp(a.day, b.day) == 0;
}

bool valid_day(const char *day) {
    if (std::strlen(day) != 8) return false;
    std::tm tm{};
    if (std::sscanf(day, "%4d%2d%2d", &tm.tm_year, &tm.tm_mon, &tm.tm_mday) != 3) return false;
    const int y = tm.tm_year, m = tm.tm_mon, d = tm.tm_mday;
    tm.tm_year -= 1900;
    tm.tm_mon -= 1;
    const time_t t = timegm(&tm);
    return t != static_cast<time_t>(-1) && y >= 1970 && tm.tm_year == y - 1900 &&
           tm.tm_mon == m - 1 && tm.tm_mday == d;
}

bool parse_line(const std::string &line, JournalHour &h) {
    int used = -1;
    h = JournalHour{};
    if (std::sscanf(line.c_str(), "%c %8[0-9] %d %d%n", &h.kind, h.day, &h.channel, &h.hour,
                    &used) != 4 ||
        used != static_cast<int>(line.size()) || !valid_day(h.day) || h.hour < 0 || h.hour > 23)
        return false;
    if (h.kind == kJournalVideo) return h.channel >= 1 && h.channel <= VRIX_VIDEO_CHANNELS;
    return h.kind == kJournalAudio && h.channel == 0;
}

// What a journal's text holds.
struct Parsed {
    std::vector<JournalHour> hours;
    bool begun_by_writer = false;
    size_t bad = 0;    // whole lines that are not valid
    bool torn = false; // the last line has no newline
};

// Whole lines of `text`.  A last line without its newline was torn by a power
// cut while it was being added: its writer had not yet written anything of
// that hour, so it is passed over silently.
Parsed parse_text(const std::string &text) {
    Parsed p;
    size_t at = 0;
    for (size_t end; at < text.size(); at = end + 1) {
        end = text.find('\n', at);
        if (end == std::string::npos) {
            p.torn = true;
            break;
        }
        const std::string line = text.substr(at, end - at);
        JournalHour h;
        if (at == 0 && line == kBegunByWriter)
            p.begun_by_writer = true;
        else if (parse_line(line, h))
            p.hours.push_back(h);
        else
            ++p.bad;
    }
    return p;
}

bool read_all(FILE *fp, std::string &text) {
    char chunk[4096];
    size_t n;
    while ((n = std::fread(chunk, 1, sizeof chunk, fp)) > 0 && text.size() < kMostRead)
        text.append(chunk, n);
    return !std::ferror(fp);
}

bool write_line(FILE *fp, const JournalHour &h) {
    char line[48];
    if (!format_into(line, sizeof line, "%c %s %d %d\n", h.kind, h.day, h.channel, h.hour))
        return false;
    const size_t n = std::strlen(line);
    return std::fwrite(line, 1, n, fp) == n;
}

// The file's lines written out and made durable; false on any failure.
bool write_durably(FILE *fp, const std::vector<JournalHour> &lines, bool begun_by_writer) {
    if (begun_by_writer && std::fprintf(fp, "%s\n", kBegunByWriter) < 0) return false;
    for (const JournalHour &h : lines)
        if (!write_line(fp, h)) return false;
    return io::sync_file(fp);
}

bool replace(const Path &journal, const char *root, const std::vector<JournalHour> &keep,
             bool begun_by_writer) {
    SidePath tmp;
    if (!path_with_suffix(tmp, journal.text, ".tmp")) return false;
    FILE *fp = io::open_file(tmp.text, "w");
    if (!fp) return false;
    const bool written = write_durably(fp, keep, begun_by_writer);
    const bool closed = std::fclose(fp) == 0;
    if (written && closed && io::rename_file(tmp.text, journal.text) && io::sync_dir(root))
        return true;
    const int e = errno;
    io::remove_file(tmp.text);
    errno = e;
    return false;
}

// The two newest hours of each writer slot, in the journal's order.
std::vector<JournalHour> newest_of_each_slot(const std::vector<JournalHour> &all) {
    std::vector<JournalHour> keep;
    for (size_t i = all.size(); i-- > 0;) {
        int newer = 0;
        for (const JournalHour &k : keep)
            newer += same_slot(k, all[i]);
        if (newer < 2) keep.insert(keep.begin(), all[i]);
    }
    return keep;
}

// Appends `h` to the journal at `journal`, or compacts it with `h` last.
bool add(const Path &journal, const char *root, const JournalHour &h) {
    FILE *fp = io::open_file(journal.text, "rb+");
    const bool made = !fp && errno == ENOENT;
    if (made) fp = io::open_file(journal.text, "wb");
    if (!fp) return false;
    std::string text;
    if (!made && !read_all(fp, text)) {
        std::fclose(fp);
        return false;
    }
    const Parsed p = parse_text(text);
    const std::vector<JournalHour> &listed = p.hours;
    for (size_t i = listed.size(); i-- > 0;) {
        if (!same_slot(listed[i], h)) continue;
        if (same_hour(listed[i], h)) {
            std::fclose(fp);
            return true; // the slot's newest line names this hour already
        }
        break;
    }
    // A torn line is dropped with the rewrite rather than run into the next.
    if (listed.size() >= kJournalCompactAt || p.torn) {
        std::fclose(fp);
        std::vector<JournalHour> keep =
            listed.size() >= kJournalCompactAt ? newest_of_each_slot(listed) : listed;
        keep.push_back(h);
        return replace(journal, root, keep, p.begun_by_writer || p.bad);
    }
    const bool ok = fseeko(fp, 0, SEEK_END) == 0 && write_durably(fp, {h}, made);
    const bool closed = std::fclose(fp) == 0;
    return ok && closed && (!made || io::sync_dir(root));
}

} // namespace

void journal_hour(const char *root, char kind, const char *day, int channel, int hour) {
    if (!root || !day) return;
    JournalHour h{kind, {}, channel, hour};
    std::memcpy(h.day, day, strnlen(day, 8));
    Path journal;
    if (!hour_journal_file(journal, root)) return;
    const std::lock_guard turn(g_journal_turn);
    if (add(journal, root, h)) return;
    const int e = errno;
    const bool gone = io::remove_file(journal.text) || errno == ENOENT;
    log_line("hour journal : %s not written (%s) , %s\n", journal.text, std::strerror(e),
             gone ? "removed , repair will look through every day"
                  : "not removed either , repair may miss this hour");
}

JournalState read_hour_journal(const char *root, std::vector<JournalHour> &out) {
    out.clear();
    Path journal;
    if (!hour_journal_file(journal, root)) return JournalState::Failed;
    FILE *fp = io::open_file(journal.text, "rb");
    if (!fp) return errno == ENOENT ? JournalState::None : JournalState::Failed;
    std::string text;
    const bool read = read_all(fp, text);
    std::fclose(fp);
    if (!read) return JournalState::Failed;
    Parsed p = parse_text(text);
    out = std::move(p.hours);
    if (p.bad)
        log_line("hour journal : %zu line(s) of %s unreadable , passed over\n", p.bad,
                 journal.text);
    return p.begun_by_writer || p.bad ? JournalState::Partial : JournalState::Complete;
}

bool replace_hour_journal(const char *root, const std::vector<JournalHour> &keep) {
    Path journal;
    if (!hour_journal_file(journal, root)) return false;
    const std::lock_guard turn(g_journal_turn);
    if (replace(journal, root, keep, false)) return true;
    log_line("hour journal : %s not replaced (%s)\n", journal.text, std::strerror(errno));
    return false;
}

} // namespace vrix
