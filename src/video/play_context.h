// The video playback context of one channel.
#pragma once

#include "vrixdb.h"

#include <cstdio>

struct PlayContext {
    int iCurSec;               // position time: start, located time, or last frame's time
    int iEndSec;               // end of the range; kNoEnd = none
    int iCh;                   // channel 1..16
    void *pRawBuf;             // frame buffer as allocated (iBufSize + 15 bytes)
    unsigned char *pFrameBuf;  // pRawBuf rounded up to 16 bytes; payloads land here
    int iBufSize;              // largest payload accepted
    int iFrameLen;             // bytes of the last payload
    FILE *fpStream;            // current hour's stream, "rb"
    int iCurPos;               // current key-frame id in h<iHour>
    int iEndPos;               // last key-frame id of the hour to play
    int iHour;                 // hour of fpStream and of the table in use
    char *strRoot;             // the recording root
    SqlHandle pVideoDb;        // video.db of the current day; 0 = none
    int iDirection;            // 0 not positioned, 1 forward, -1 backward
    SqlHandle pDateDb;         // date.db of the root
    ResultTable pIntResult;    // one "%d" slot
    ResultTable pOffsetResult; // one "%u" slot
    int iIMode;                // key-frame-only mode
    int iEnd;                  // the last location found nothing
    int iFrameSec;             // header words of the last frame read
    int iFrameSubTime;
    int iFrameScale;
    int iStep;      // key frames per step in key-frame mode and backward
    int iSkipFrame; // skip-frame limit
    int iSkipCount; // non-key frames since the last key frame
    int iHintPos;   // key-frame id to search near; -1 = none
    // Offset in fpStream of the next record forward play reads; a short read
    // at the growing end of a file goes back here before trying again.
    long long llNextRecord;
    // The local hour being played as the seconds [iHourStart, iHourEnd) (two
    // hours of seconds for the repeated hour of a change back), and
    // [iHourStart2, iHourEnd2) where the clock went back into it from a later
    // hour (empty otherwise): a record of this hour's file whose time lies
    // outside both is damage.
    int iHourStart;
    int iHourEnd;
    int iHourStart2;
    int iHourEnd2;
};
