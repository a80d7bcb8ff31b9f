// The audio playback context of one audio channel.
#pragma once

#include "vrixdb.h"

#include <cstdio>

struct AudioPlayContext {
    int iCurSec;               // where the next location starts; steps leave it
    int iEndSec;               // end of the range; no end = 0x7FFFFFFF
    int iCh;                   // audio channel 1..4
    unsigned char *pFrameBuf;  // record buffer of iBufSize bytes
    int iBufSize;              // at least one record
    int iFrameLen;             // 60 after a successful step
    FILE *fpStream;            // the hour's file of the channel, "rb"
    int iCurPos;               // current index id in h<iHour>
    int iEndPos;               // last index id of the hour to play
    char *strRoot;             // the recording root
    SqlHandle pAudioDb;        // the current day's audio.db; 0 = none
    int iDirection;            // 0 not positioned, 1 forward, -1 backward
    SqlHandle pDateDb;         // date.db of the root
    ResultTable pIntResult;    // one "%d" slot
    ResultTable pOffsetResult; // one "%u" slot
    unsigned char *pHeader;    // pFrameBuf again: the header of the record held
    int iIMode;                // step mode: forward steps jump iStep rows
    int iStep;
    int iHour;
    int iHintPos; // index id to search near; -1 = none
    int iLastSec; // seconds of the last record that advanced iCurPos forward
    // Offset of the next record forward play reads (see the video context).
    long long llNextRecord;
    int iHourStart; // the hour being played (see the video context)
    int iHourEnd;
    int iHourStart2;
    int iHourEnd2;
};
