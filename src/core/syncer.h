// The syncer: one thread per process, started with the first recording
// context and stopped with the last, that bounds what a power cut loses.
// Every half sync interval (by the library's clock) it has each recording
// context write out its buffers, then makes each store durable in the way
// its file system honours:
//
// - one syncfs of the store's file system, where the file system is one that
//   commits everything dirty on it when asked (ext2/3/4, xfs, btrfs, ...):
//   stream data, new hour files and day directories, and the indexes;
// - elsewhere (FUSE, network file systems, anything unknown, where syncfs
//   may never reach the storage) an fdatasync of each file changed since the
//   last pass (stream files, the index databases beside them, date.db) and
//   an fsync of each directory that gained a name.
//
// A failed sync sends the disk-error message to the application's queue and
// is kept in the store's sync state (vrix_db_get_sync_state).  The recording
// threads never wait for a disk sync; they only share a short per-channel
// lock with the write-out, and the syncer's own lock is never held across a
// sync, so that a close or a change of the interval does not wait for a slow
// disk beyond the pass in progress.
#pragma once

namespace vrix {

// What a recording context hands the syncer.  `write_out` (may be null) runs
// on the syncer thread and writes out the context's buffered bytes.
struct SyncSource {
    void (*write_out)(void *owner);
    void *owner;
    const char *root;
};

// Adds a context; the first one starts the thread.  The first context of a
// store opens the descriptor its syncs go through and says in one line how
// the store is synced.
void syncer_add(const SyncSource &s);

// Withdraws `owner` once a pass in progress has ended; the last one stops the
// thread.  The store stays open for the context's sync_closed.
void syncer_remove(void *owner);

// Makes the store of `root` durable now, unless syncing is off: a context
// calls it after syncer_remove, once its files are closed, so that a clean
// close loses nothing to a power cut right after it.  The last context of a
// store closes its descriptors.
void sync_closed(const char *root);

// The sync interval T in milliseconds; 0 = never sync.
int sync_interval_ms();

// Tests: stores opened from now on are synced file by file whatever their
// file system (false: by their file system, the default).
void sync_each_file_everywhere(bool on);

} // namespace vrix
