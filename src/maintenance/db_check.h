// The verdict on one database file, judged in this process through SQLite
// (its default VFS, so the file seam sees every read and lock).  Only a
// definite answer counts as damage: SQLite reporting the file corrupt or not
// a database, or its integrity check failing.  A lock held by another
// connection is waited for (about 5 s, shortened by the test hooks); any
// other failure means the file could not be checked, which is not damage.
#pragma once

namespace vrix {

enum class Verdict {
    Sound,     // the integrity check passes and the table reads
    Empty,     // a database without any table (a new or 0-byte file): nothing in it to lose
    Damaged,   // corrupt, not a database, failing its check, or without its table
    Missing,   // no file
    Busy,      // still locked by another connection after the wait
    Unchecked, // could not be checked: an I/O error, no permission, no memory
};

struct CheckResult {
    Verdict verdict;
    int code;     // SQLite's result code (0 when sound), or errno for Missing/Unchecked
    char why[96]; // what SQLite said, for the one line about it
};

// Checks the database at `path`, which must hold table `table`.  A hot
// journal beside it is SQLite's to roll back, as any opener would.
CheckResult check_database(const char *path, const char *table);

} // namespace vrix
