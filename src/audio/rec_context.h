// The audio recording context: the files of every audio channel of the
// current hour, the day's audio.db and the index rows waiting for a commit.
#pragma once

#include "vrixdb.h"

#include <cstdio>
#include <mutex>

namespace vrix {
struct RootClaim;
}

constexpr int kAudioBufSize = 2048; // write-behind buffer per channel
constexpr int kAudioSqlBufSize = 2048;
constexpr int kAudioBatchRows = 5; // a batch commits once it holds more rows

struct AudioRecChannel {
    FILE *fpStream;           // the channel's file of the current hour
    long long llOffset;       // where its next record goes
    unsigned char *pFrameBuf; // write-behind buffer
    int iBufLen;
};

struct AudioRecContext {
    char strDay[12];            // current day, "YYYYMMDD"
    char *strRoot;              // root with "/" appended
    AudioRecChannel *pChannels; // slot k is audio channel k + 1
    int iChannelCount;          // 1..4
    ResultTable pIntResult;     // one "%d" slot: the hour lookup
    ResultTable pOffsetResult;  // one "%u" slot: the resume query
    SqlHandle pAudioDb;         // the day's audio.db, reopened every hour
    unsigned char Header[12];   // 48, seconds, second time word
    long long llIndexOffset;    // offset of the first record of the current second
    int iLastSec;               // seconds of the last record stored; 0 = none
    int iPacing;                // the second time word is being paced
    int iPacedWord;
    int iRecSize; // 60
    int iSqlRows;
    char *pSqlBuf;
    int iSqlLen;
    int iYear; // date of the last block; 0 = none
    int iMon;
    int iMday;
    int iHour; // hour of the open files; -1 = none
    // This process's claim on the root: one recording process per store.
    vrix::RootClaim *pRootClaim;
    // Guards the channels' buffers and files against the syncer's write-out;
    // held by the recording thread for the whole of a block.
    std::mutex *pBufLock;
    // A write failed and cut its file at llCutAt: every channel goes back
    // there at the recording thread's next step (the channels share the
    // index's offsets); until then the buffers are dropped, not written.
    int iCutPending;
    long long llCutAt;
    int iWriteFailed; // the last write failed: the disk error is reported once
    int iIndexFailed; // the last commit of index rows failed (reported once)
};

namespace vrix {
// The syncer's side of the buffers: writes out every channel's records.
void write_out_audio(void *context);
} // namespace vrix
