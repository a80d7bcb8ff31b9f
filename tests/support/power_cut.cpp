#include "power_cut.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <random>

namespace vrix::test {
namespace {

// One spelling per file: absolute, no "//", ".", or trailing "/".
std::string normal(const char *path) {
    if (!path || !*path) return {};
    std::string s = std::filesystem::absolute(path).lexically_normal().string();
    while (s.size() > 1 && s.back() == '/')
        s.pop_back();
    return s;
}

std::string parent_of(const std::string &path) {
    const size_t slash = path.rfind('/');
    return slash == 0 ? "/" : path.substr(0, slash == std::string::npos ? 0 : slash);
}

bool exists(const std::string &path) {
    struct stat st {};
    return lstat(path.c_str(), &st) == 0;
}

long long size_of(int fd) {
    struct stat st {};
    return fstat(fd, &st) == 0 ? static_cast<long long>(st.st_size) : 0;
}

// The bytes of [offset, end) that exist in a file of `size` bytes.
std::vector<unsigned char> bytes_at(int fd, long long offset, long long end, long long size) {
    std::vector<unsigned char> b;
    end = std::min(end, size);
    if (offset >= end) return b;
    b.resize(static_cast<size_t>(end - offset));
    const ssize_t n = pread(fd, b.data(), b.size(), offset);
    b.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return b;
}

} // namespace

PowerCut::PowerCut() {
    io::set_observer(this);
}

PowerCut::~PowerCut() {
    io::set_observer(nullptr);
    for (auto &[path, t] : files_)
        if (t.fd >= 0) close(t.fd);
}

PowerCut::Tracked *PowerCut::track(const std::string &path) {
    auto it = files_.find(path);
    if (it != files_.end()) return &it->second;
    const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) return nullptr;
    struct stat st {};
    fstat(fd, &st);
    Tracked &t = files_[path];
    t.fd = fd;
    t.ino = st.st_ino;
    return &t;
}

void PowerCut::forget(const std::string &path) {
    const auto it = files_.find(path);
    if (it == files_.end()) return;
    if (it->second.fd >= 0) close(it->second.fd);
    files_.erase(it);
}

void PowerCut::names_durable_in(const std::string &dir) {
    for (auto it = new_names_.begin(); it != new_names_.end();)
        it = parent_of(*it) == dir ? new_names_.erase(it) : std::next(it);
    for (auto it = removed_.begin(); it != removed_.end();)
        it = parent_of(it->first) == dir ? removed_.erase(it) : std::next(it);
    std::erase_if(renames_, [&](const Renamed &r) { return parent_of(r.to) == dir; });
}

// The file as its last sync left it: every change since undone, newest first.
std::vector<unsigned char> PowerCut::synced_image(const Tracked &t) const {
    const long long size = size_of(t.fd);
    std::vector<unsigned char> b(static_cast<size_t>(size));
    if (size && pread(t.fd, b.data(), b.size(), 0) != size) b.clear();
    for (auto u = t.undo.rbegin(); u != t.undo.rend(); ++u) {
        b.resize(static_cast<size_t>(u->size_before));
        const size_t at = static_cast<size_t>(u->offset);
        if (!u->old.empty()) {
            if (b.size() < at + u->old.size()) b.resize(at + u->old.size());
            std::copy(u->old.begin(), u->old.end(), b.begin() + static_cast<long>(at));
        }
    }
    return b;
}

// The file keeps what is not yet synced of it under its new name; the one it
// replaced is kept whole, to come back if the rename never becomes durable.
void PowerCut::renamed(const std::string &from, const std::string &to) {
    Renamed r{from, to, new_names_.erase(from) > 0, exists(to), {}};
    if (r.had_old) {
        const int fd = open(to.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd >= 0) {
            r.old = bytes_at(fd, 0, size_of(fd), size_of(fd));
            close(fd);
        }
    }
    forget(to);
    if (const auto it = files_.find(from); it != files_.end()) {
        Tracked moved = std::move(it->second);
        files_.erase(it);
        files_[to] = std::move(moved);
    }
    if (last_.path == from) last_.path = to;
    renames_.push_back(std::move(r));
}

void PowerCut::undo_renames() {
    for (auto r = renames_.rbegin(); r != renames_.rend(); ++r) {
        forget(r->to);
        std::error_code ec;
        if (r->from_new)
            std::filesystem::remove(r->to, ec);
        else
            std::filesystem::rename(r->to, r->from, ec);
        if (!r->had_old) continue;
        const int fd = open(r->to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        if (fd < 0 || write(fd, r->old.data(), r->old.size()) != ssize_t(r->old.size()))
            std::perror(r->to.c_str());
        if (fd >= 0) close(fd);
    }
    renames_.clear();
}

void PowerCut::before(const io::Access &a) {
    gate_.lock();
    const std::string path = normal(a.path);
    if (path.empty()) return;
    switch (a.op) {
    case io::Op::Open:
        if (const auto it = files_.find(path); it != files_.end()) {
            // Replaced behind the layer's back (removed by the remove server):
            // what was kept belongs to a file that is gone.
            struct stat st {};
            if (stat(path.c_str(), &st) != 0 || st.st_ino != it->second.ino) forget(path);
        }
        if (a.create && !exists(path)) new_names_.insert(path);
        break;
    case io::Op::MakeDir:
        if (!exists(path)) new_names_.insert(path);
        break;
    case io::Op::Write:
    case io::Op::Truncate: {
        Tracked *t = track(path);
        if (!t) break;
        const long long size = size_of(t->fd);
        const long long end =
            a.op == io::Op::Write ? a.offset + static_cast<long long>(a.length) : size;
        t->undo.push_back({a.offset, bytes_at(t->fd, a.offset, end, size), size});
        if (a.op == io::Op::Write) {
            const auto *d = static_cast<const unsigned char *>(a.data);
            last_ = {path, a.offset, {d, d + a.length}};
        }
        break;
    }
    case io::Op::Sync:
        if (Tracked *t = track(path)) t->undo.clear();
        if (last_.path == path) last_ = {};
        if (a.with_name) names_durable_in(parent_of(path));
        break;
    case io::Op::Remove:
        // A name removed is gone for good only once its directory is synced;
        // until then a cut brings the file back as it was last synced.
        if (!new_names_.erase(path) && exists(path)) {
            if (const Tracked *t = track(path)) removed_[path] = synced_image(*t);
        }
        forget(path);
        if (last_.path == path) last_ = {};
        break;
    case io::Op::SyncDir:
        names_durable_in(path);
        break;
    case io::Op::SyncAll:
        for (auto &[p, t] : files_)
            t.undo.clear();
        new_names_.clear();
        removed_.clear();
        renames_.clear();
        last_ = {};
        break;
    case io::Op::Rename:
        renamed(path, normal(a.to));
        break;
    case io::Op::Read:
    case io::Op::Lock:
        break;
    }
}

void PowerCut::after(const io::Access &) {
    gate_.unlock();
}

// The file as the disk may hold it after writeback in any order.  Pages the
// file had at its last sync hold their old or their new bytes, each on its
// own; of what was appended, a prefix of random length lands (the size is
// committed with the data, as journaling file systems order it).
void PowerCut::reorder(Tracked &t, uint32_t seed) {
    constexpr size_t kPage = 4096;
    std::mt19937 rng(seed);
    const long long now_size = size_of(t.fd);
    std::vector<unsigned char> now(static_cast<size_t>(now_size));
    if (now_size && pread(t.fd, now.data(), now.size(), 0) != now_size) return;
    const std::vector<unsigned char> old = synced_image(t);
    std::vector<unsigned char> out = old;
    for (size_t page = 0; page < std::min(old.size(), now.size()); page += kPage)
        if (rng() % 2) {
            const size_t end = std::min({page + kPage, old.size(), now.size()});
            std::copy(now.begin() + static_cast<long>(page), now.begin() + static_cast<long>(end),
                      out.begin() + static_cast<long>(page));
        }
    if (now.size() > old.size()) {
        const size_t lands = rng() % (now.size() - old.size() + 1);
        out.insert(out.end(), now.begin() + static_cast<long>(old.size()),
                   now.begin() + static_cast<long>(old.size() + lands));
    } else if (rng() % 2) {
        out.resize(now.size()); // the cut reached the disk
    }
    const bool ok = ftruncate(t.fd, static_cast<off_t>(out.size())) == 0 &&
                    (out.empty() ||
                     pwrite(t.fd, out.data(), out.size(), 0) == static_cast<ssize_t>(out.size()));
    if (!ok) std::perror("power cut: reorder");
}

void PowerCut::put_back(Writeback wb, uint32_t seed) {
    std::mt19937 rng(seed);
    for (auto &[path, t] : files_) {
        if (wb == Writeback::Reordered && !t.undo.empty()) {
            reorder(t, static_cast<uint32_t>(rng()));
            t.undo.clear();
            continue;
        }
        for (auto u = t.undo.rbegin(); u != t.undo.rend(); ++u) {
            const bool ok =
                ftruncate(t.fd, u->size_before) == 0 &&
                (u->old.empty() || pwrite(t.fd, u->old.data(), u->old.size(), u->offset) ==
                                       static_cast<ssize_t>(u->old.size()));
            if (!ok) std::perror(path.c_str());
        }
        t.undo.clear();
    }
    if (wb == Writeback::TornLast && !last_.data.empty()) {
        if (Tracked *t = track(last_.path)) {
            const size_t keep = rng() % last_.data.size();
            if (keep && pwrite(t->fd, last_.data.data(), keep, last_.offset) < 0)
                std::perror(last_.path.c_str());
        }
    }
    last_ = {};
    undo_renames();
    // Deepest first, so that a directory is emptied of its own new names
    // before it goes itself.  Reordered writeback keeps some of them; a name
    // inside a directory that vanished goes with it.
    std::vector<std::string> names(new_names_.begin(), new_names_.end());
    std::sort(names.begin(), names.end(),
              [](const std::string &x, const std::string &y) { return x.size() < y.size(); });
    std::vector<std::string> gone;
    for (const std::string &n : names) {
        const bool under_gone = std::any_of(gone.begin(), gone.end(), [&n](const std::string &g) {
            return n.compare(0, g.size() + 1, g + "/") == 0;
        });
        if (under_gone || wb != Writeback::Reordered || rng() % 2) gone.push_back(n);
    }
    std::reverse(gone.begin(), gone.end());
    for (const std::string &n : gone) {
        forget(n);
        std::error_code ec;
        std::filesystem::remove_all(n, ec);
    }
    new_names_.clear();
    // Removals never made durable are undone (reordered writeback lands some).
    for (const auto &[path, bytes] : removed_) {
        if (wb == Writeback::Reordered && rng() % 2) continue;
        const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd < 0 || (!bytes.empty() && write(fd, bytes.data(), bytes.size()) < 0))
            std::perror(path.c_str());
        if (fd >= 0) close(fd);
    }
    removed_.clear();
}

void PowerCut::cut(int status, Writeback wb, uint32_t seed) {
    gate_.lock(); // never given back: every other thread's I/O waits here
    put_back(wb, seed);
    _exit(status);
}

void PowerCut::restore(Writeback wb, uint32_t seed) {
    const std::lock_guard<std::mutex> hold(gate_);
    put_back(wb, seed);
    for (auto &[path, t] : files_)
        if (t.fd >= 0) close(t.fd);
    files_.clear();
}

} // namespace vrix::test
