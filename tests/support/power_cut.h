// Test support: a file layer that keeps what a power cut would lose.  Once
// installed, it sees every file operation of the library (stream files,
// directories, and the databases through the SQLite layer) and keeps, per
// file, the old bytes under every write and truncation not yet synced, and
// the names of files and directories made since their directory was last
// synced.  cut() freezes all I/O at one instant, puts every file back to its
// last synced image, removes the names that were never made durable,
// optionally tears the last unsynced write (a random prefix of it lands) and
// ends the process, as a power cut would.  A rename counts once its directory
// is synced; before that a cut puts the old names back (the file replaced
// returns with the bytes it had when it was replaced).  Files that existed
// before the layer was installed count as durable.
#pragma once

#include "core/file_io.h"

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace vrix::test {

class PowerCut : public io::Observer {
  public:
    PowerCut();  // installs the layer
    ~PowerCut(); // removes it
    PowerCut(const PowerCut &) = delete;
    PowerCut &operator=(const PowerCut &) = delete;

    // Freezes every thread's I/O, leaves the store as a power cut now would
    // and ends the process with `status`.
    [[noreturn]] void cut(int status, bool tear = false, uint32_t seed = 0);

    // The same restoration for tests in one process: open handles must be
    // closed first.  Everything on disk counts as durable afterwards.
    void restore(bool tear = false, uint32_t seed = 0);

    void before(const io::Access &a) override;
    void after(const io::Access &a) override;

  private:
    struct Undo {
        long long offset;
        std::vector<unsigned char> old; // the bytes the change overwrote
        long long size_before;
    };
    struct Tracked {
        int fd = -1;
        ino_t ino = 0;
        std::vector<Undo> undo; // changes since the last sync, oldest first
    };
    struct Renamed {
        std::string from, to;
        bool from_new = false;          // `from` itself was never made durable
        bool had_old = false;           // `to` named a file before
        std::vector<unsigned char> old; // that file's bytes
    };
    struct LastWrite {
        std::string path;
        long long offset = 0;
        std::vector<unsigned char> data;
    };

    Tracked *track(const std::string &path);
    void forget(const std::string &path);
    void names_durable_in(const std::string &dir);
    void renamed(const std::string &from, const std::string &to);
    void undo_renames();
    void put_back(bool tear, uint32_t seed);

    std::mutex gate_; // held across each operation, and for good by cut()
    std::map<std::string, Tracked> files_;
    std::set<std::string> new_names_; // files and directories not durable yet
    std::vector<Renamed> renames_;    // not durable yet, oldest first
    LastWrite last_;                  // empty path: none unsynced
};

} // namespace vrix::test
