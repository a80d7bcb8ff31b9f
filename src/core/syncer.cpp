#include "syncer.h"

#include "file_io.h"
#include "messages.h"
#include "pacing.h"
#include "store/log.h"
#include "sync_point.h"
#include "vrixdb.h"

#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <list>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace vrix {
namespace {

std::atomic<int> g_interval_ms{VRIX_DEFAULT_SYNC_INTERVAL_MS};
std::atomic<bool> g_each_file_everywhere{false};

// File systems by their statfs type.  `syncfs`: the file system's driver
// commits everything dirty on it when asked (its journal or its metadata
// buffers, then the disk's cache), so one syncfs a pass keeps the promise.
// The others are named only for the line at open: FUSE passes no syncfs to
// its server, and network file systems do not promise that one commits the
// server's storage; there, and on any type not listed, each file is synced.
struct FsType {
    unsigned long type;
    const char *name;
    bool syncfs;
};
constexpr FsType kFileSystems[] = {
    {0xEF53, "ext2/3/4", true},  {0x58465342, "xfs", true},   {0x9123683E, "btrfs", true},
    {0xF2F52010, "f2fs", true},  {0x3153464A, "jfs", true},   {0x52654973, "reiserfs", true},
    {0x3434, "nilfs2", true},    {0x4D44, "vfat", true},      {0x2011BAB0, "exfat", true},
    {0x482B, "hfsplus", true},   {0x15013346, "udf", true},   {0x794C7630, "overlay", true},
    {0x01021994, "tmpfs", true}, {0x858458F6, "ramfs", true}, {0x65735546, "fuse", false},
    {0x6969, "nfs", false},      {0xFF534D42, "cifs", false}, {0xFE534D42, "smb2", false},
    {0x00C36400, "ceph", false}, {0x01021997, "9p", false},   {0x5346544E, "ntfs", false},
};

// One store: a root directory of this process's recording contexts, known by
// its identity.  Kept for the life of the process (a recorder has one or
// two), so that its sync state outlives a close.
struct Store {
    dev_t dev;
    ino_t ino;
    std::string root;
    // Under the syncer's mutex.
    int users = 0;   // contexts added and not yet through sync_closed
    int closing = 0; // of those, removed from the passes
    io::Changes pending;
    VrixSyncState state{};
    bool failing = false; // the last sync failed: the message was sent
    // Under sync_mutex: one sync of the store at a time (a pass, a close).
    std::mutex sync_mutex;
    int fd = -1; // the root directory, open while users > 0
    int way = VRIX_SYNC_NONE;
    std::map<std::string, int> kept; // file by file: descriptors of changed files
};

struct Source {
    SyncSource src;
    Store *store; // null: the root could not be found
};

struct Syncer {
    std::mutex mutex; // sources, stores' counts and states; never held across a sync
    std::condition_variable wake;
    std::vector<Source> sources;
    std::list<Store> stores;
    std::thread thread;
    unsigned run = 0;           // a thread runs while this is its number
    long long last_pass_ms = 0; // clock time the last pass began; 0 = none yet
};

Syncer &syncer() {
    static Syncer s;
    return s;
}

long long clock_ms() {
    const Now n = clock_now();
    return static_cast<long long>(n.sec) * 1000 + n.usec / 1000;
}

// When a sync began: by the library's clock (what the sync state reports)
// and by the clock that measures how long it took (a step of the wall clock
// never makes a pass look slow).
struct Began {
    long long at = clock_ms();
    long long mark = interval_clock_ms();
};

Store *find_store(Syncer &s, const char *root) {
    struct stat st {};
    if (!root || stat(root, &st) != 0) return nullptr;
    for (Store &x : s.stores)
        if (x.dev == st.st_dev && x.ino == st.st_ino) return &x;
    return nullptr;
}

// Tracking of changed names is on while a store synced file by file is open.
void update_tracking(Syncer &s) {
    const bool on = std::any_of(s.stores.begin(), s.stores.end(), [](const Store &x) {
        return x.users > 0 && x.way == VRIX_SYNC_EACH_FILE;
    });
    io::track_changes(on);
}

// Opens the store's descriptor and decides its way; the caller holds the
// store's sync mutex and sets both under the syncer's mutex.
void open_store(const Store &st, int &fd, int &way) {
    fd = io::open_to_sync(st.root.c_str());
    struct statfs fs {};
    if (fd < 0 || fstatfs(fd, &fs) != 0) {
        log_line("vrix db : cannot open %s to sync it : %s\n", st.root.c_str(),
                 std::strerror(errno));
        way = VRIX_SYNC_NONE;
        return;
    }
    const unsigned long type = static_cast<unsigned long>(fs.f_type) & 0xFFFFFFFFUL;
    const FsType *known = nullptr;
    for (const FsType &f : kFileSystems)
        if (f.type == type) known = &f;
    const bool whole = known && known->syncfs && !g_each_file_everywhere.load();
    way = whole ? VRIX_SYNC_FILE_SYSTEM : VRIX_SYNC_EACH_FILE;
    char name[24];
    std::snprintf(name, sizeof name, "type 0x%lx", type);
    log_line("vrix db : %s is on %s, synced %s\n", st.root.c_str(), known ? known->name : name,
             whole ? "with one syncfs a pass" : "file by file (fdatasync, fsync of directories)");
}

void close_store(Store &st) {
    for (const auto &[path, fd] : st.kept)
        close(fd);
    st.kept.clear();
    if (st.fd >= 0) close(st.fd);
    st.fd = -1;
    st.way = VRIX_SYNC_NONE;
}

bool under(const std::string &path, const std::string &root) {
    return path.size() > root.size() && path.compare(0, root.size(), root) == 0 &&
           (path[root.size()] == '/' || root == "/");
}

// Hands the names changed since the last take to the stores they lie in;
// names outside every store are dropped.  Under the syncer's mutex.
void distribute_changes(Syncer &s) {
    bool any = false;
    for (const Store &x : s.stores)
        any = any || (x.users > 0 && x.way == VRIX_SYNC_EACH_FILE);
    if (!any) return;
    io::Changes c = io::take_changes();
    for (Store &x : s.stores) {
        if (x.users == 0 || x.way != VRIX_SYNC_EACH_FILE) continue;
        for (std::string &f : c.files)
            if (!f.empty() && under(f, x.root)) x.pending.files.push_back(std::move(f));
        for (std::string &d : c.dirs)
            if (!d.empty() && (d == x.root || under(d, x.root)))
                x.pending.dirs.push_back(std::move(d));
    }
}

std::string dir_of(const std::string &path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash ? slash : 1);
}

// fdatasync of `path` through a descriptor kept while the file changes;
// 0 or the errno.  A file that is gone has nothing to sync.
int sync_kept(Store &st, const std::string &path, std::map<std::string, int> &now) {
    auto it = st.kept.find(path);
    int fd;
    if (it != st.kept.end()) {
        fd = it->second;
        st.kept.erase(it);
    } else if ((fd = io::open_to_sync(path.c_str())) < 0) {
        return errno == ENOENT ? 0 : errno;
    }
    now[path] = fd;
    return io::sync_descriptor(fd, path.c_str(), io::Op::Sync) ? 0 : errno;
}

// Syncs each changed file, the index databases beside changed stream files
// and date.db, then each changed directory, deepest first.  The first errno.
int sync_each_file(Store &st, io::Changes &c) {
    std::vector<std::string> files = std::move(c.files);
    const size_t streams = files.size();
    for (size_t i = 0; i < streams; ++i) {
        const std::string dir = dir_of(files[i]);
        files.push_back(dir + "/video.db");
        files.push_back(dir_of(dir) + "/audio.db");
    }
    files.push_back(st.root + "/date.db");
    std::sort(files.begin(), files.end());
    files.erase(std::unique(files.begin(), files.end()), files.end());
    int error = 0;
    std::map<std::string, int> now;
    for (const std::string &f : files) {
        const int e = sync_kept(st, f, now);
        if (!error) error = e;
    }
    for (const auto &[path, fd] : st.kept) // not changed since the last pass
        close(fd);
    st.kept = std::move(now);

    std::vector<std::string> &dirs = c.dirs;
    const auto depth = [](const std::string &d) { return std::count(d.begin(), d.end(), '/'); };
    std::sort(dirs.begin(), dirs.end(), [&](const std::string &a, const std::string &b) {
        return depth(a) != depth(b) ? depth(a) > depth(b) : a < b;
    });
    dirs.erase(std::unique(dirs.begin(), dirs.end()), dirs.end());
    for (const std::string &d : dirs) {
        const int fd = io::open_to_sync(d.c_str());
        if (fd < 0) {
            if (errno != ENOENT && !error) error = errno;
            continue;
        }
        if (!io::sync_descriptor(fd, d.c_str(), io::Op::SyncDir) && !error) error = errno;
        close(fd);
    }
    return error;
}

// One sync of the store; 0 or the errno of the first failure.
int sync_store(Store &st, io::Changes &c) {
    if (st.fd < 0) return st.way == VRIX_SYNC_NONE ? 0 : EBADF;
    if (st.way == VRIX_SYNC_FILE_SYSTEM)
        return io::sync_descriptor(st.fd, st.root.c_str(), io::Op::SyncAll) ? 0 : errno;
    return sync_each_file(st, c);
}

// Keeps the outcome of a sync that began at `began`; under the syncer's
// mutex.  True when the application is to be told (the caller sends the
// message once the mutex is released: a full queue blocks).
bool record(Store &st, const Began &b, int error, bool close) {
    VrixSyncState &x = st.state;
    const long long began = b.at;
    const long long took = std::max(0LL, interval_clock_ms() - b.mark);
    const int t = g_interval_ms.load();
    ++x.passes;
    x.last_pass_ms = began;
    x.longest_pass_ms = std::max<int64_t>(x.longest_pass_ms, took);
    if (!close && t > 0 && took > t / 2) {
        ++x.slow_passes;
        log_line("vrix db : syncing %s took %lld ms, more than half the sync interval of %d ms\n",
                 st.root.c_str(), took, t);
    }
    if (!error) {
        x.durable_ms = began;
        st.failing = false;
        return false;
    }
    ++x.failed_passes;
    x.last_error = error;
    x.error_ms = began;
    log_line("vrix db : cannot sync %s : %s\n", st.root.c_str(), std::strerror(error));
    const bool tell = !st.failing;
    st.failing = true;
    return tell;
}

void tell_application() {
    send_message(g_iVrixDbSendMq, g_IdeErrMsg);
}

// Writes out every context's buffers under the mutex, then syncs each store
// without it.  `hold` is locked on entry and on return.
void pass(Syncer &s, std::unique_lock<std::mutex> &hold) {
    const Began began;
    for (const Source &x : s.sources)
        if (x.src.write_out) x.src.write_out(x.src.owner);
    VRIX_SYNC_POINT("syncer:written_out");
    distribute_changes(s);
    std::vector<std::pair<Store *, io::Changes>> due;
    for (const Source &x : s.sources)
        if (x.store &&
            std::none_of(due.begin(), due.end(), [&](const auto &d) { return d.first == x.store; }))
            due.emplace_back(x.store, std::move(x.store->pending));
    std::vector<int> errors(due.size(), 0);
    hold.unlock();
    for (size_t i = 0; i < due.size(); ++i) {
        const std::lock_guard one(due[i].first->sync_mutex);
        errors[i] = sync_store(*due[i].first, due[i].second);
    }
    hold.lock();
    bool tell = false;
    for (size_t i = 0; i < due.size(); ++i)
        tell = record(*due[i].first, began, errors[i], false) || tell;
    if (!tell) return;
    hold.unlock();
    tell_application();
    hold.lock();
}

// Looks at the clock every eighth of the interval (divided by the test
// hook's wait divisor) and passes once half an interval has gone by since
// the last pass began: a byte handed over at t is durable by about
// t + 5/8 T plus the time of one pass.
void run(Syncer &s, unsigned mine) {
    std::unique_lock hold(s.mutex);
    while (s.run == mine) {
        const int t = g_interval_ms.load();
        if (t <= 0) {
            s.wake.wait(hold);
            continue;
        }
        // Never below 200 us, so that a large divisor does not spin.
        const unsigned long poll = std::max(200UL, paced_us(t * 1000UL / 8));
        s.wake.wait_for(hold, std::chrono::microseconds(poll));
        if (s.run != mine || g_interval_ms.load() <= 0) continue;
        const long long now = clock_ms();
        if (!s.last_pass_ms || now < s.last_pass_ms || now - s.last_pass_ms >= t / 2) {
            s.last_pass_ms = now;
            pass(s, hold);
        }
        VRIX_SYNC_POINT("syncer:looked");
    }
}

} // namespace

void syncer_add(const SyncSource &src) {
    Syncer &s = syncer();
    struct stat st {};
    const bool known = src.root && stat(src.root, &st) == 0;
    Store *store = nullptr;
    bool first = false;
    {
        const std::lock_guard hold(s.mutex);
        store = known ? find_store(s, src.root) : nullptr;
        if (known && !store) {
            Store &fresh = s.stores.emplace_back();
            fresh.dev = st.st_dev;
            fresh.ino = st.st_ino;
            fresh.root = src.root;
            while (fresh.root.size() > 1 && fresh.root.back() == '/')
                fresh.root.pop_back();
            store = &fresh;
        }
        first = store && store->users++ == 0;
        if (first && store->root != src.root) {
            // The same directory under another name, or a new one that has
            // the identity of one removed since.
            store->root = src.root;
            while (store->root.size() > 1 && store->root.back() == '/')
                store->root.pop_back();
        }
    }
    if (first) {
        // The store's mutex first, as everywhere: a pass may not sync it
        // before it is open.
        const std::lock_guard one(store->sync_mutex);
        int fd, way;
        open_store(*store, fd, way);
        const std::lock_guard hold(s.mutex);
        store->fd = fd;
        store->way = way;
        store->state = VrixSyncState{};
        store->failing = false;
        store->pending = {};
        update_tracking(s);
    }
    const std::lock_guard hold(s.mutex);
    s.sources.push_back({src, store});
    if (s.sources.size() == 1) {
        s.last_pass_ms = 0;
        s.thread = std::thread([&s, mine = s.run] { run(s, mine); });
    }
}

void syncer_remove(void *owner) {
    Syncer &s = syncer();
    std::thread done;
    {
        const std::lock_guard hold(s.mutex);
        const auto it = std::find_if(s.sources.begin(), s.sources.end(),
                                     [owner](const Source &o) { return o.src.owner == owner; });
        if (it == s.sources.end()) return;
        if (it->store) ++it->store->closing;
        s.sources.erase(it);
        if (s.sources.empty()) {
            ++s.run; // a thread started after this one runs under the next number
            done = std::move(s.thread);
        }
    }
    s.wake.notify_all();
    if (done.joinable()) done.join();
}

void sync_closed(const char *root) {
    Syncer &s = syncer();
    Store *st;
    io::Changes c;
    {
        const std::lock_guard hold(s.mutex);
        st = find_store(s, root);
        if (!st || st->closing == 0) return;
    }
    const std::lock_guard one(st->sync_mutex);
    const Began began;
    const bool on = g_interval_ms.load() > 0;
    {
        const std::lock_guard hold(s.mutex);
        if (on) distribute_changes(s);
        c = std::move(st->pending);
    }
    const int error = on ? sync_store(*st, c) : 0;
    bool tell = false;
    {
        const std::lock_guard hold(s.mutex);
        tell = on && record(*st, began, error, true);
        --st->closing;
        if (--st->users == 0) {
            close_store(*st);
            update_tracking(s);
        }
    }
    if (tell) tell_application();
}

int sync_interval_ms() {
    return g_interval_ms.load();
}

void sync_each_file_everywhere(bool on) {
    g_each_file_everywhere.store(on);
}

} // namespace vrix

extern "C" int vrix_db_set_sync_interval(int milliseconds) {
    using namespace vrix;
    if (milliseconds < 0) {
        log_line("vrix_db_set_sync_interval : %d ms out of range , kept %d\n", milliseconds,
                 g_interval_ms.load());
        return g_interval_ms.load();
    }
    Syncer &s = syncer();
    int before;
    {
        const std::lock_guard hold(s.mutex); // a parked thread cannot miss the change
        before = g_interval_ms.exchange(milliseconds);
    }
    s.wake.notify_all();
    return before;
}

extern "C" int vrix_db_get_sync_state(const char *root, VrixSyncState *state) {
    using namespace vrix;
    if (!state) return 0;
    *state = VrixSyncState{};
    Syncer &s = syncer();
    const std::lock_guard hold(s.mutex);
    const Store *st = find_store(s, root);
    if (!st) return 0;
    *state = st->state;
    state->way = st->users > 0 ? st->way : VRIX_SYNC_NONE;
    state->interval_ms = g_interval_ms.load();
    return 1;
}
