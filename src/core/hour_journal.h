// The hours the writers open, kept for start-up repair in <root>/.vrixdb.hours:
// one line per hour file a writer opened for writing, "v 20240310 3 10" (video
// channel 3 of that day, hour 10) or "a 20240310 0 10" (the audio of that
// hour).  A writer appends its line and syncs it when it first opens the hour
// file, before any footage of that hour can be on the disk; repair reconciles
// every hour listed, wherever the clock has been, and then empties the
// journal.  Only a journal that repair made is trusted alone: an empty one
// means that repair has reconciled everything since.  A writer that finds no
// journal (an older store, or one whose journal could not be written and was
// removed) begins one with the line "* look through every day", and repair
// then looks through every day as well.
//
// Bounded without repair: once it holds kJournalCompactAt lines, the next
// writer to add one keeps only the two newest hours of each writer slot
// (a video channel, the audio) and its own.  An hour that a writer left two
// hours ago had its rows committed and synced long since; the hours a writer
// was in last, whose rows a close or a crash may have dropped, stay listed.
#pragma once

#include <cstddef>
#include <vector>

namespace vrix {

struct JournalHour {
    char kind;   // 'v' video, 'a' audio
    char day[9]; // YYYYMMDD
    int channel; // video 1..16; 0 for audio
    int hour;    // 0..23
};

constexpr char kJournalVideo = 'v';
constexpr char kJournalAudio = 'a';
constexpr size_t kJournalCompactAt = 64;

// A writer of the store under `root` opened hour file `hour` of `day`
// (YYYYMMDD) of video channel `channel` or of the audio (kind 'a', channel
// 0).  Nothing is written when the slot's newest line names that hour
// already.  A journal that cannot be written is removed, with one line, so
// that repair looks through every day; this process then keeps none.
void journal_hour(const char *root, char kind, const char *day, int channel, int hour);

enum class JournalState {
    None,     // no journal
    Complete, // made by repair: `out` holds every hour opened since
    Partial,  // begun by a writer: `out` holds the hours opened since then
    Failed    // there, but it could not be read
};

// The hours the journal of `root` lists, oldest first.  Lines that are not
// whole and valid (a line torn by a power cut) are passed over, with one line
// counting them, and make the journal Partial.
JournalState read_hour_journal(const char *root, std::vector<JournalHour> &out);

// Replaces the journal of `root` with `keep` (an empty journal when there is
// none): written to a temporary file, synced and renamed over it, its
// directory synced.  False, with one line, when that failed: the journal is
// then as it was.
bool replace_hour_journal(const char *root, const std::vector<JournalHour> &keep);

} // namespace vrix
