// The syncer: one thread per process, started with the first recording
// context and stopped with the last, that bounds what a power cut loses.
// Every half sync interval (by the library's clock) it has each recording
// context write out its buffers, then makes everything on the file system of
// each root durable with one syncfs: stream data, new hour files and day
// directories, and the indexes.  The recording threads never wait for a disk
// sync; they only share a short per-channel lock with the write-out.
#pragma once

namespace vrix {

// What a recording context hands the syncer.  `write_out` (may be null) runs
// on the syncer thread and writes out the context's buffered bytes.
struct SyncSource {
    void (*write_out)(void *owner);
    void *owner;
    const char *root;
};

// Adds a context; the first one starts the thread.
void syncer_add(const SyncSource &s);

// Withdraws `owner` once a pass in progress has ended; the last one stops the
// thread.
void syncer_remove(void *owner);

// Makes everything on the file system of `root` durable now, unless syncing
// is off: a context calls it once its files are closed, so a clean close
// loses nothing to a power cut right after it.
void sync_closed(const char *root);

// The sync interval T in milliseconds; 0 = never sync.
int sync_interval_ms();

} // namespace vrix
