// The event contexts: the recording client's day and handles, and the query's
// filter, cursor and page.
#pragma once

#include "vrixdb.h"

#include <cstddef>
#include <ctime>

struct EventRecContext {
    char strDay[12];        // YYYYMMDD of the day pEventDb belongs to; empty until the first event
    char *strRoot;          // root with "/" appended
    SqlHandle pDateDb;      // date.db, open for the context's life
    SqlHandle pEventDb;     // the day's event.db; 0 when its open failed
    ResultTable pIntResult; // one "%d" slot: the day lookup
};

namespace vrix {

// The longest channel clause (ch=-1, ch=0 and 1..64) is 587 characters, the
// longest type clause 76; with the longest page statement around them every
// text fits whole.
constexpr size_t kChFilterSize = 640;
constexpr size_t kTypeFilterSize = 96;
constexpr size_t kEventSqlSize = 768;

// Closes `db` and opens `path` into it under one hold of the event mutex.
// False (and `db` empty) when the open failed.
bool reopen_event_db(SqlHandle &db, const char *path);

} // namespace vrix

struct EventQueryContext {
    time_t iStartSec;                          // moment the current day was entered from
    char strChFilter[vrix::kChFilterSize];     // "(ch=.. or ch=..) and "
    char strTypeFilter[vrix::kTypeFilterSize]; // "(type=.. or type=..) and "
    char *strRoot;                             // plain root
    int iCurPos;                               // id of the last event put into a page
    int iEndPos;                               // highest id of the current day known
    int iDirection;                            // 0 before the first page, then 1 or -1
    SqlHandle pDateDb;                         // date.db, open for the context's life
    SqlHandle pEventDb;                        // the current day's event.db
    void *pScratch;                            // held for the application, never read
    size_t scratchSize;
    EventRecord *pRecords; // the page
    int pageSize;
    int iPageCount;        // size of the last non-empty page
    ResultTable pIdResult; // page columns, pageSize "%d" slots each
    ResultTable pSecResult;
    ResultTable pChResult;
    ResultTable pTypeResult;
    ResultTable pIntResult; // one "%d" slot: single values
    char *strSql;           // kEventSqlSize bytes
    int iEnd;               // no further day in the walking direction
    int exactWalk;
};
