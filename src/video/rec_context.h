// The video recording context: what recording keeps between two frames, for
// every channel.  Slot n serves channel n; slot 0 is never used.
#pragma once

#include "vrixdb.h"

#include <cstdio>
#include <mutex>

namespace vrix {
struct RootClaim;
}

constexpr int kFrameBufSize = 131072; // write-behind buffer per channel
constexpr int kSqlBufSize = 2048;     // index rows waiting for a commit
constexpr int kMaxRecSlots = VRIX_VIDEO_CHANNELS + 1;

struct RecChannel {
    char strDay[12];          // day whose video.db is open in pVideoDb
    FILE *fpStream;           // current hour's stream file
    long long llOffset;       // where the next frame goes (buffered bytes count as written)
    int iHour;                // hour of fpStream and of its table; -1 = none
    SqlHandle pVideoDb;       // video.db of strDay, under the channel's mutex
    unsigned char *pFrameBuf; // write-behind buffer
    int iBufLen;              // bytes held in pFrameBuf
    int iYear;                // date of the last frame taken; iYear 0 = none
    int iMon;
    int iMday;
    int iSqlRows;  // rows waiting in pSqlBuf
    char *pSqlBuf; // index statements waiting for the next commit
    int iSqlLen;
    NotifyMessage HourMsg; // 'e': channel, hour, day start
    int iNewTable;         // the hour's table is still to be created
    int iWaitKey;          // drop frames until a key frame
    // Hours (bit h) whose waiting rows were carried over before their table
    // was created; the next commit creates these tables first.
    unsigned iPendingTables;
    // Guards pFrameBuf, iBufLen, fpStream and the three fields below against
    // the syncer's write-out; the recording thread holds it only while it
    // moves bytes or files.
    std::mutex *pBufLock;
    // A write-out of the syncer failed and cut the file at llCutAt: the
    // recording thread takes it over at its next step (the buffer is dropped
    // until then, its frames' rows name offsets the file no longer has).
    int iCutPending;
    long long llCutAt;
    int iWriteFailed; // the last write failed: the disk error is reported once
    int iIndexFailed; // the last commit of index rows failed (reported once)
};

struct RecContext {
    char strDay[12]; // day last prepared on disk
    char *strRoot;   // root with "/" appended
    RecChannel *pChannels;
    int iChannelCount;         // channel slots: highest channel + 1
    SqlHandle pDateDb;         // date.db, under g_pDateSqlMutex
    ResultTable pOffsetResult; // one "%u" slot: the resume query
    ResultTable pIntResult;    // one "%d" slot: the submit thread's queries
    NotifyMessage DayMsg;      // 'd': day start
    // This process's claim on the root: one recording process per store.
    vrix::RootClaim *pRootClaim;
};
