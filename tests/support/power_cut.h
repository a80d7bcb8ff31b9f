// Test support: a file layer that keeps what a power cut would lose.  Once
// installed, it sees every file operation of the library (stream files,
// directories, and the databases through the SQLite layer) and keeps, per
// file, the old bytes under every write and truncation not yet synced, and
// the names of files and directories made since their directory was last
// synced.  cut() freezes all I/O at one instant, leaves every file as the
// chosen writeback would have (see Writeback), and ends the process, as a
// power cut would.  A rename or a removal counts once its directory is
// synced; before that a cut puts the old names back (a file replaced or
// removed returns with the bytes it had when it was last synced).  Files that
// existed before the layer was installed count as durable.
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

// What reached the disk of what was not synced at the cut.
enum class Writeback {
    None,      // nothing: every file is its last synced image, new names vanish,
               // removed names come back
    TornLast,  // as None, but a random prefix of the last unsynced write lands
    Reordered, // the kernel wrote back in any order: each 4 KiB page a file had
               // at its last sync holds its old or its new bytes, a random prefix
               // of what was appended lands (the size is committed with its
               // data), an unsynced cut lands or not, and each new name lands
               // or vanishes (with everything under it)
};

class PowerCut : public io::Observer {
  public:
    PowerCut();  // installs the layer
    ~PowerCut(); // removes it
    PowerCut(const PowerCut &) = delete;
    PowerCut &operator=(const PowerCut &) = delete;

    // Freezes every thread's I/O, leaves the store as a power cut now would
    // and ends the process with `status`.
    [[noreturn]] void cut(int status, Writeback wb = Writeback::None, uint32_t seed = 0);

    // The same restoration for tests in one process: open handles must be
    // closed first.  Everything on disk counts as durable afterwards.
    void restore(Writeback wb = Writeback::None, uint32_t seed = 0);

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
    void put_back(Writeback wb, uint32_t seed);
    void reorder(Tracked &t, uint32_t seed);
    std::vector<unsigned char> synced_image(const Tracked &t) const;

    std::mutex gate_; // held across each operation, and for good by cut()
    std::map<std::string, Tracked> files_;
    std::set<std::string> new_names_; // files and directories not durable yet
    // Files removed since their directory was last synced, as last synced.
    std::map<std::string, std::vector<unsigned char>> removed_;
    std::vector<Renamed> renames_; // not durable yet, oldest first
    LastWrite last_;               // empty path: none unsynced
};

} // namespace vrix::test
