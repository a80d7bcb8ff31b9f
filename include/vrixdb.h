/*
 * libvrixdb - the recording database of a multi-channel video recorder.
 *
 * Call vrix_db_init once per process before anything else (only sec_to_tm,
 * db_free_sqlite and the repair functions may come first).  Every function
 * may then be called from any thread; calls on one context must not overlap.
 *
 * Failures are reported as one line on standard output; functions that open a
 * context return null on failure, steps return 1 (found), 0 (nothing) or -1.
 *
 * The recorder interface comes first; what this library offers beyond it
 * (version, sync interval, test hooks, the remove server) is in the
 * "Extensions" section at the end.
 */
#ifndef VRIXDB_H
#define VRIXDB_H

#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/time.h>
#include <time.h>

/* The export marker of every public name.  Defined here and in vrixhdd.h
 * alike, so either header works alone and a board's own vrixhdd.h needs
 * none. */
#ifndef VRIX_API
#if defined(__GNUC__)
#define VRIX_API __attribute__((visibility("default")))
#else
#define VRIX_API
#endif
#endif

#include "vrixhdd.h"

/* The library's version (also that of its pkg-config and CMake packages). */
#define VRIX_VERSION_MAJOR 0
#define VRIX_VERSION_MINOR 1
#define VRIX_VERSION_PATCH 0

/* The longest root (characters, without the terminating zero) the open
 * functions, reports and maintenance accept; every path of the store is
 * formed from it in 128 bytes. */
#define VRIX_MAX_ROOT_LENGTH 98

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Records that cross the boundary ---------------------------------- */

/* The System V message of every queue of the system: type 1 and 128 bytes of
 * text whose byte 0 is the kind.  Sent and received with a text size of 128. */
#define VRIX_MSG_TEXT_SIZE 128
typedef struct NotifyMessage {
    long mtype;
    unsigned char mtext[VRIX_MSG_TEXT_SIZE];
} NotifyMessage;

/* Message kinds (text byte 0). */
#define VRIX_MSG_DAY 0x64       /* 'd': prepare the next day, register the day */
#define VRIX_MSG_HOUR 0x65      /* 'e': register a channel's day and hour */
#define VRIX_MSG_STOP 0x67      /* 'g': park the submit thread */
#define VRIX_MSG_DISK_ERROR 159 /* to the application: a write or a sync failed */

/* Queue keys of the library. */
#define VRIX_SUBMIT_MQ_KEY 1220
#define VRIX_RM_MQ_KEY 1221
#define VRIX_RM_ACK_MQ_KEY 1222

/* Header of a video frame record, as the application hands it to the writer
 * and as it lies in a stream file (all words little-endian).  The payload of
 * iLen bytes follows; payload byte 2 with bits 7..6 clear marks a key frame,
 * payload byte 36 is the channel index from 0. */
typedef struct VrixFrameHeader {
    uint32_t iLen;   /* payload length, header not counted */
    uint32_t iSec;   /* frame time, seconds since 1970 UTC; never 0 */
    uint32_t iSec2;  /* second time word, handed back on playback */
    uint32_t iScale; /* low 16 bits: the scale, 0..10 */
} VrixFrameHeader;

#define VRIX_FRAME_HEADER_SIZE 16
#define VRIX_FRAME_KEY_BYTE 2      /* payload offset of the frame-type bits */
#define VRIX_FRAME_KEY_MASK 0xC0   /* clear in a key frame */
#define VRIX_FRAME_CHANNEL_BYTE 36 /* payload offset of the channel index */
#define VRIX_MAX_SCALE 10
/* The largest payload the writer stores (4 MiB); a larger frame is refused
 * with one line.  Resume, the index rebuild and the start-up repair take a
 * larger length for damage. */
#define VRIX_MAX_FRAME_PAYLOAD 4194304

/* The audio block handed to the audio writer: one 48-byte piece per channel
 * slot, the time of the pieces and the application's second time word. */
#define VRIX_AUDIO_PIECE_SIZE 48
#define VRIX_AUDIO_CHANNELS 4
typedef struct VrixAudioBlock {
    unsigned char piece[VRIX_AUDIO_CHANNELS][VRIX_AUDIO_PIECE_SIZE];
    uint32_t iSec;
    uint32_t iSec2;
} VrixAudioBlock;

/* One 60-byte audio record of a stream file: 48, the seconds, the second
 * time word and the channel's piece. */
#define VRIX_AUDIO_RECORD_SIZE 60

/* One event of a query page (140 bytes). */
typedef struct EventRecord {
    char strText[128]; /* always zero */
    int32_t iSec;
    int32_t iCh;
    int32_t iType;
} EventRecord;

/* Contexts are opaque. */
typedef struct RecContext RecContext;

/* ---- Globals ------------------------------------------------------------ */

#define VRIX_VIDEO_CHANNELS 16
#define VRIX_COMMIT_SCALES 11

/* Slot N guards the video.db files of video channel N (1..16); slot 0 unused. */
VRIX_API extern pthread_mutex_t *g_pVideoSqlMutex[VRIX_VIDEO_CHANNELS + 1];
VRIX_API extern pthread_mutex_t *g_pAudioSqlMutex;
VRIX_API extern pthread_mutex_t *g_pDateSqlMutex;
VRIX_API extern pthread_mutex_t *g_pEventSqlMutex;

VRIX_API extern int g_iSubmitMq;     /* key 1220, the submit thread's queue */
VRIX_API extern int g_iRmMq;         /* key 1221, remove requests */
VRIX_API extern int g_iRmAckMq;      /* key 1222, replies to remove requests */
VRIX_API extern int g_iVrixDbSendMq; /* the application's queue */
VRIX_API extern pthread_t g_ThreadFd;

/* Flag words, read and written whole (atomically) by the library. */
VRIX_API extern int g_iDbSubmitThreadStop;
VRIX_API extern int g_iDbSubmitThreadStopAck;
VRIX_API extern int g_iBackuping;
VRIX_API extern int g_iStopBackup;
VRIX_API extern int g_iStopBackupAck;

VRIX_API extern RecContext *g_pVrixDbRec;
VRIX_API extern struct timezone g_TimeZone;
VRIX_API extern unsigned char g_VrixBackup[4096];

/* Entry K: waiting index rows a key frame of scale K may leave uncommitted. */
VRIX_API extern int g_iCommit[VRIX_COMMIT_SCALES];

VRIX_API extern NotifyMessage g_RecMsg;    /* 'g', parks the submit thread */
VRIX_API extern NotifyMessage g_IdeErrMsg; /* 159, disk-write error */
VRIX_API extern NotifyMessage g_RmMsg;     /* remove request, filled by the sender */

/* ---- Start-up, calendar, store access ----------------------------------- */

/* Returns 1 when ready, 0 when start-up failed. */
VRIX_API int vrix_db_init(int send_queue);

/* Local calendar fields (second..year only) of a count of seconds, with the
 * offset in force at that instant in the zone of TZ (as of the last open; an
 * offset the application wrote into g_TimeZone, or g_TimeZone before any
 * open, is used as a fixed offset).  A null record is ignored. */
VRIX_API void sec_to_tm(struct tm *tm, int sec);

/* Frees a result holder of `rows` slots; null is ignored. */
VRIX_API void db_free_sqlite(ResultTable table, int rows);

/* ---- Submit thread ------------------------------------------------------- */

VRIX_API void *vrix_db_submit_thread(void *unused);
VRIX_API void vrix_db_rec_open_thread(RecContext *ctx);
VRIX_API void vrix_db_rec_close_thread(void);

/* ---- Video recording ----------------------------------------------------- */

/* One context for all channels; `count` is the highest channel number + 1
 * (at most 17).  One context at a time: a second open is refused (null). */
VRIX_API RecContext *vrix_db_open_rec_video(const char *root, int count);
VRIX_API void vrix_db_close_rec_video(RecContext *ctx);
/* One frame record (header and payload, `size` bytes); calls on one context
 * must not overlap. */
VRIX_API void vrix_db_rec_video(RecContext *ctx, const void *frame, int size);
/* Commits channel `ch`'s waiting index rows and writes out its buffer. */
VRIX_API void vrix_db_rec_video_flush(RecContext *ctx, int ch);
/* The day-change step: `day` is "YYYYMMDD", `dayStart` its local midnight. */
VRIX_API int db_chech_video_dir(RecContext *ctx, const char *day, int dayStart);

/* ---- Video playback ------------------------------------------------------ */

typedef struct PlayContext PlayContext;

/* One channel (1..16) from `start` (local time) to `end` (null or tm_year 0:
 * no end, following a recording in progress).  Payloads of up to `bufSize`
 * bytes are read into a 16-byte aligned buffer. */
VRIX_API PlayContext *vrix_db_open_get_video(struct tm *start, struct tm *end, int ch, int bufSize,
                                             const char *root);
VRIX_API void vrix_db_close_get_video(PlayContext *ctx);
/* Locate from `sec` forward (1) or backward (-1): 1 positioned, 0 nothing. */
VRIX_API int db_video_get_new(PlayContext *ctx, int sec, int direction);
/* Locate within the day of `t`: 1 found, 0 hour unusable, -1 day unusable. */
VRIX_API int db_video_date_rec_init(PlayContext *ctx, struct tm *t, int *pos, int *endPos,
                                    int *sec);
/* Next frame forward / previous key frame: 1 ready, 0 none (see get_end). */
VRIX_API int vrix_db_next_video(PlayContext *ctx);
VRIX_API int vrix_db_pre_video(PlayContext *ctx);
/* The payload of the last step (valid until the next step or close). */
VRIX_API int vrix_db_get_video(PlayContext *ctx, void **buf);
VRIX_API void vrix_db_video_get_current_time(PlayContext *ctx, int *sec, int *subTime);
VRIX_API int vrix_db_video_get_current_scale(PlayContext *ctx);
VRIX_API int vrix_db_video_get_end(PlayContext *ctx);
/* Key-frame-only mode, `step` key frames per forward step. */
VRIX_API void vrix_db_video_set_i_mode(PlayContext *ctx, int mode, int step);
VRIX_API int vrix_db_video_get_i_mode(PlayContext *ctx);
/* After each key frame deliver `count` - 1 further frames (0: all). */
VRIX_API void vrix_db_video_set_skip_frame(PlayContext *ctx, int count);
/* The next step locates afresh from `sec`; newPos 0 keeps near the current
 * key frame. */
VRIX_API void vrix_db_video_reset_start_time(PlayContext *ctx, int sec, int newPos);
VRIX_API void vrix_db_video_set_end_time_forever(PlayContext *ctx);
VRIX_API void vrix_db_show_current_pos(PlayContext *ctx);

/* ---- Audio --------------------------------------------------------------- */

typedef struct AudioRecContext AudioRecContext;
typedef struct AudioPlayContext AudioPlayContext;

/* Recording: `count` audio channels (1..4).  Each block (VrixAudioBlock, 200
 * bytes) becomes one 60-byte record per channel in the hour's stream files;
 * the first record of every second is indexed in the day's audio.db. */
VRIX_API AudioRecContext *vrix_db_open_rec_audio(const char *root, int count);
VRIX_API void vrix_db_close_rec_audio(AudioRecContext *ctx);
VRIX_API void vrix_db_rec_audio(AudioRecContext *ctx, const void *block);
VRIX_API void vrix_db_rec_audio_flush(AudioRecContext *ctx);

/* Playback of one audio channel (1..4) from `start` (local time) to `end`
 * (null or tm_year 0: no end, following a recording in progress), across
 * hours and recorded days; `bufSize` must hold one 60-byte record.  Steps
 * deliver whole records into the context's buffer.  Null when the channel,
 * the buffer or the root is refused or date.db cannot be opened. */
VRIX_API AudioPlayContext *vrix_db_open_get_audio(struct tm *start, struct tm *end, int ch,
                                                  int bufSize, const char *root);
VRIX_API void vrix_db_close_get_audio(AudioPlayContext *ctx);
/* Locate from `sec` forward (1) or backward (-1): 1 positioned, 0 nothing. */
VRIX_API int db_audio_get_new(AudioPlayContext *ctx, int sec, int direction);
/* Locate within the day of `t`: 1 found, 0 hour unusable, -1 day unusable. */
VRIX_API int db_audio_date_rec_init(AudioPlayContext *ctx, struct tm *t, int *pos, int *endPos,
                                    int *sec);
/* Next record forward: 1 ready, 0 none (past the end time or nothing more
 * recorded).  Previous indexed second, newest first: 1 ready (its first
 * record), 0 none. */
VRIX_API int vrix_db_next_audio(AudioPlayContext *ctx);
VRIX_API int vrix_db_pre_audio(AudioPlayContext *ctx);
/* The record of the last step and its length, 60 (valid until the next step
 * or close). */
VRIX_API int vrix_db_get_audio(AudioPlayContext *ctx, void **buf);
/* The seconds of the record in the buffer. */
VRIX_API int vrix_get_audio_sec(AudioPlayContext *ctx);
/* Step mode (`mode` non-zero): each forward step jumps `step` recorded
 * seconds and delivers the first record there; backward steps move `step`
 * seconds in either mode. */
VRIX_API void vrix_db_audio_set_i_mode(AudioPlayContext *ctx, int mode, int step);
/* The next step locates afresh from `sec`; newPos 0 keeps near the current
 * row.  Always 1 for a context. */
VRIX_API int vrix_db_reset_audio_strat_time(AudioPlayContext *ctx, int sec, int newPos);
/* Drops the end time: forward play then follows a recording in progress. */
VRIX_API void vrix_db_audio_set_end_time_forever(AudioPlayContext *ctx);
/* Prints the channel and the current index row on standard output. */
VRIX_API void vrix_db_show_audio_current_pos(AudioPlayContext *ctx);

/* ---- Events -------------------------------------------------------------- */

/* Event type codes, one bit each; other values are stored but never selected. */
#define VRIX_EVENT_MANUAL 1
#define VRIX_EVENT_MOTION 2
#define VRIX_EVENT_ALARM 4
/* The further codes 8, 16, 32 and 64 are unnamed; 8 is stamped with the first
 * second of its minute. */

typedef struct EventRecContext EventRecContext;
typedef struct EventQueryContext EventQueryContext;

/* Recording: each event is stamped with the current time and appended to the
 * event.db of its local day, which is registered in date.db at its first
 * event.  Channels 1..64, 0 and -1 are stored as given. */
VRIX_API EventRecContext *vrix_db_open_rec_event(const char *root);
VRIX_API void vrix_db_close_rec_event(EventRecContext *ctx);
/* Always 0; the two trailing integers are accepted and not used. */
VRIX_API int vrix_db_rec_event(EventRecContext *ctx, int ch, int type, int arg1, int arg2);
/* The day-change step: `day` is "YYYYMMDD" of `tm`, the local time of `sec`. */
VRIX_API void db_chech_event_dir(EventRecContext *ctx, const char *day, struct tm tm, time_t sec);
/* Appends one row to the open day; the store's result, negative when no day
 * is open.  arg1, arg2, tm and usec are not used. */
VRIX_API int db_insert_event(EventRecContext *ctx, int arg1, int arg2, struct tm *tm, time_t sec,
                             long usec, int ch, int type);
/* Makes `dir` and opens `dir`/event.db as the context's day; 1 when open. */
VRIX_API int db_create_event(EventRecContext *ctx, const char *dir);
/* Opens `path` as the context's day database (creating its table); 1 when
 * open.  `path` is not modified; the context's day text is not changed. */
VRIX_API int db_create_event_db(EventRecContext *ctx, char *path);

/* Query: pages of `pageSize` events from `start` (local time), forwards or
 * backwards across the days of date.db.  Bit b of chMaskLo selects channel
 * b + 1, of chMaskHi channel b + 33; withCh0 selects channel 0; bit b (0..6)
 * of typeMask selects type 1 << b.  Channel -1 is selected whenever type 1, 8
 * or 64 is.  exactWalk non-zero reverses by re-reading the filtered rows and
 * ignores events recorded into the current day after it was entered. */
VRIX_API EventQueryContext *vrix_db_open_get_event(struct tm *start, uint32_t chMaskLo,
                                                   uint32_t chMaskHi, int withCh0,
                                                   uint32_t typeMask, const char *root,
                                                   int pageSize, size_t scratchSize, int exactWalk);
VRIX_API void vrix_db_close_get_event(EventQueryContext *ctx);
/* Number of records of the next (ascending) or previous (newest first) page;
 * 0 when there is none, leaving the page as it was. */
VRIX_API int vrix_db_next_event(EventQueryContext *ctx);
VRIX_API int vrix_db_pre_event(EventQueryContext *ctx);
/* The page: as many records as the last non-zero page call returned. */
VRIX_API EventRecord *vrix_db_get_event(EventQueryContext *ctx);
/* Moves to the registered day of `sec` or the next (1) / previous (-1) one
 * that has events on the wanted side of `sec`; 1, or 0 when there is none. */
VRIX_API int db_event_get_new(EventQueryContext *ctx, time_t sec, int direction);
/* The last id of the day's events and the first at or after (forwards) or last
 * at or before (backwards) `sec`; 1, or 0 for a day without such events. */
VRIX_API int db_event_date_rec_init(EventQueryContext *ctx, struct tm *day, int *startPos,
                                    int *endPos, time_t sec);

/* ---- Maintenance --------------------------------------------------------- */

/* Space reclamation.  The library never deletes a file itself: for each stream
 * file or day directory it sends a remove request (g_RmMsg: text byte 0 the
 * command, bytes 1.. the zero-terminated path, at most 126 characters) on the
 * queue with key 1221 and blocks until any reply arrives on the queue with key
 * 1222.  Somebody must serve these queues (see vrix_rm_server_start) or the
 * reductions block.  Requests come from one thread at a time.  Pacing: the
 * reductions and the prediction wait fixed times between their steps (an hour
 * of 16 channels at least 224 s) so that recording keeps the disk, but only
 * while a process records the root (this one, or another holding the
 * recording lock of <root>/.vrixdb.lock); with none the waits are skipped and
 * vrix_db_reduce_media says so ("media : no process records <root> , not
 * paced").  Each wait is divided by vrix_db_set_test_hooks's waitDivisor (the
 * default keeps them whole; 1000000 makes seconds microseconds, for tests). */
#define VRIX_RM_FILE 0 /* remove the file named by the path */
#define VRIX_RM_DIR 1  /* remove the directory and everything in it */

/* The last second of the oldest day's first hour with audio rows: the limit
 * the next vrix_db_reduce_media will apply.  0 when date.db cannot be opened
 * or holds no day; the oldest day + 3599 when it has no audio.db; the oldest
 * day + 89999 when its audio.db has no rows. */
VRIX_API int vrix_db_get_reduce_sec(const char *root);
/* Deletes the oldest hour's index rows (every channel's video.db, then
 * audio.db) and has each channel's stream file of that hour removed; returns
 * the limit applied.  When the oldest day has no usable audio index the whole
 * day directory is removed and the day unregistered from date.db: returns 0.
 * *stop is read after each channel reduced (non-zero ends the reduction before
 * audio.db is touched); *freeMB receives the free space above a 9 GiB reserve,
 * in MiB, of the file system of `fd` after each even channel reduced.  Either
 * pointer may be null. */
VRIX_API int vrix_db_reduce_media(const char *root, int *stop, int *freeMB, int fd);
/* Deletes the events of the local day of `sec` stamped at or before `sec`;
 * a day left without events is removed as a whole (recordings included) and
 * unregistered.  Always 0. */
VRIX_API int vrix_db_reduce_event(const char *root, int sec);

/* Backup: byte copies of <root>/date.db and <root>/<day>/event.db to
 * "<file>.sql" beside them.  Each is read under its database's mutex and a
 * read transaction on the source (no writer of any process commits during
 * the copy), once the source passes a quick check; it is written to
 * "<file>.sql.tmp", made durable and renamed over the old copy.  A missing
 * source, a source that fails its check and any failure to write keep the
 * old copy (a failure says so in one line; vrix_db_backup_day in the
 * Extensions returns the outcome).  vrix_db_stop_backup holds further backups
 * off and returns once a running one has finished; vrix_db_start_backup
 * allows them again.  `day` is YYYYMMDD. */
VRIX_API void vrix_db_start_backup(void);
VRIX_API void vrix_db_stop_backup(void);
VRIX_API void vrix_db_backup(const char *root, const char *day);

/* Integrity check and repair, run before any context is opened (no mutex is
 * taken; vrix_db_init is not needed).  Refused with one line ("<function> :
 * <root> is being recorded by this process", or "by another process") while
 * a recording context is open on the store.  Databases are checked in this process
 * through SQLite: only a definite verdict (SQLite finds the file corrupt or
 * not a database, its integrity check fails, or its table is missing) counts
 * as damage.  A database locked by another connection is waited for a few
 * seconds; one still locked, or one that cannot be checked (I/O error, no
 * permission, no memory), is left as it is with one line.  Nothing is ever
 * removed: a damaged database is renamed aside, with its journal, to
 * "<file>.damaged-<UTC time, e.g. 20261125T153400Z>" (a suffix "-2", ... when
 * that name is taken).  A damaged or missing date.db or event.db is replaced
 * by its .sql copy once that copy passes the same check; a damaged or
 * missing video.db or audio.db is made again from the stream files.  Stream
 * files are only read.  Progress goes to vrix_hdd_correct_step.
 *
 * vrix_db_correct_all: date.db (without a usable copy it is made again from
 * the day directories), then every hour the writers' journal
 * <root>/.vrixdb.hours lists: its index checked, the hour reconciled with its
 * stream file and registered in date.db and the day's H.  Without a journal
 * that repair made (older stores), the newest day of every channel (the day
 * before too while the newest is young), the audio.db and event.db of the
 * first such day, and every day directory's unregistered or unindexed hour
 * files.  A date.db left alone ends the run ("vrix_db_correct : fail").
 * Returns 0. */
VRIX_API int vrix_db_correct_all(const char *root);
/* 0 when the database at `path` is sound (table `table` readable), was
 * restored from its checked copy, or was damaged and set aside with no usable
 * copy (the next opener starts an empty database, as after the removal older
 * libraries made); -1 when it was left alone (busy, could not be checked) or
 * is missing (or holds no table) without a usable copy.  Nothing is
 * removed. */
VRIX_API int vrix_db_correct(const char *path, const char *table);
/* `dir` is <root>/<day>/video/<ch>/ and <root>/<day>/audio/ (ending in "/").
 * A damaged index is set aside; it is made again, like a missing one, when
 * there are stream files. */
VRIX_API void vrix_db_correct_video(const char *dir);
VRIX_API int vrix_db_correct_audio(const char *dir); /* always 0 */
/* Rebuild one hour's index table and H row from an open stream file into an
 * open database, up to the first record that is not whole and valid. */
VRIX_API void vrix_db_repair_video(FILE *stream, SqlHandle db, int hour);
VRIX_API void vrix_db_repair_audio(FILE *stream, SqlHandle db, int hour);

/* ---- Reporting ----------------------------------------------------------- */

/* Bytes of the span [start, end] (local times) of one channel, from the
 * indexes and the stream file sizes; audio adds 800 bytes per second.
 * 4294967295 when the total reaches 4 GiB, 0 when nothing is found. */
VRIX_API unsigned vrix_db_get_video_total_size(struct tm *start, struct tm *end, const char *root,
                                               int ch);
VRIX_API unsigned vrix_db_get_audio_total_size(struct tm *start, struct tm *end, const char *root,
                                               int ch);
/* The first recorded time at or after `sec` / the last at or before it, 0
 * when there is none.  Video answers with key frames.  Audio's start is the
 * first recorded second at or after `sec`; its end is the recorded second one
 * index row before the last one at or before `sec` (the backward audio step
 * moves back one row on its first call). */
VRIX_API int vrix_dvd_video_get_start_time(int ch, int sec, const char *root, int bufSize);
VRIX_API int vrix_dvd_video_get_end_time(int ch, int sec, const char *root, int bufSize);
VRIX_API int vrix_dvd_audio_get_start_time(int ch, int sec, const char *root, int bufSize);
VRIX_API int vrix_dvd_audio_get_end_time(int ch, int sec, const char *root, int bufSize);

/* ==== Extensions ===========================================================
 * Beyond the recorder interface: the version, the log sink, the backup's
 * outcome, the sync interval, the test hooks, the remove server and the
 * catalogue.  Later additions of this library go here too. */

/* "MAJOR.MINOR.PATCH" of the library that is loaded (the macros above give
 * the version built against). */
VRIX_API const char *vrix_db_version(void);

/* The library's lines (its messages, "area : what failed") go to standard
 * output unless
 * the application installs a sink: `fn` then gets each line, without its
 * newline and at most 510 characters, with `user`, on whichever thread
 * reports (several may call it at once).  A null `fn` restores standard
 * output.  Installing is thread-safe; a line being reported while the sink
 * changes may still reach the previous one. */
typedef void (*VrixLogFn)(const char *line, void *user);
VRIX_API void vrix_db_set_log(VrixLogFn fn, void *user);

/* vrix_db_backup with its outcome: 0 when every copy whose source is there
 * was made (a missing source keeps its old copy), 1 when backups were held
 * off (vrix_db_stop_backup) before the copies were made, -1 when a copy
 * failed (its old copy kept, one line said why) or the arguments were
 * refused. */
VRIX_API int vrix_db_backup_day(const char *root, const char *day);

/* Durability: the sync interval T in milliseconds (default
 * VRIX_DEFAULT_SYNC_INTERVAL_MS, 2 s).  While a video, audio or event
 * recording context is open, a thread of the library writes out the
 * recording buffers and makes the store durable every T/2, so every frame,
 * audio block and event handed over more than T before a power cut is kept;
 * closing a context makes its store durable at once.  The recording calls
 * never wait for the disk.  0 = never sync (what a power cut loses is then up
 * to the kernel).  Takes effect at the next look at the clock; returns the
 * previous value.  A negative value is refused with one line and changes
 * nothing.
 *
 * How a store is made durable depends on its file system, decided when its
 * first recording context opens (one line says which): one syncfs of the
 * whole file system where that is known to commit everything (ext2/3/4, xfs,
 * btrfs, f2fs, jfs, reiserfs, nilfs2, vfat, exfat, hfsplus, udf, overlay
 * and, with nothing to commit, tmpfs and ramfs); elsewhere (FUSE, network
 * file systems, anything else) an fdatasync of each changed file and an fsync
 * of each directory that gained a name.
 *
 * The promise holds only while the syncs succeed.  A sync that fails (the
 * disk reported a write-back error, or is gone) is logged and sends
 * VRIX_MSG_DISK_ERROR (159, as a failed stream write does) to the
 * application's queue, once for each run of failing passes; a pass that takes
 * longer than T/2 prints one line.  Footage handed over since the last pass
 * that succeeded may be lost at the next power cut, or already be: after a
 * failed write-back the kernel may drop the data it could not write while
 * still serving it from memory until a reboot.  vrix_db_get_sync_state tells
 * where the promise stands. */
#define VRIX_DEFAULT_SYNC_INTERVAL_MS 2000
VRIX_API int vrix_db_set_sync_interval(int milliseconds);

/* The sync state of the store at `root` (any spelling of the directory), as
 * this process has synced it since its first recording context on the store
 * opened.  Times are the library's clock (the test hooks' one when set) in
 * milliseconds since the epoch; 0 = none yet.  Returns 1 and fills *state for
 * a store this process has recorded since vrix_db_init, 0 (and a zeroed
 * *state) otherwise. */
#define VRIX_SYNC_NONE 0        /* no recording context of this process open on it */
#define VRIX_SYNC_FILE_SYSTEM 1 /* one syncfs of its file system a pass */
#define VRIX_SYNC_EACH_FILE 2   /* fdatasync of each changed file, fsync of directories */
typedef struct VrixSyncState {
    int way;              /* VRIX_SYNC_*: how the store is synced now */
    int interval_ms;      /* T in force */
    int64_t durable_ms;   /* start of the last pass that succeeded: everything
                             handed over before it is on the disk */
    int64_t last_pass_ms; /* start of the last pass, successful or not */
    int last_error;       /* errno of the last failed sync, 0 = none */
    int64_t error_ms;     /* start of the pass that failed last */
    unsigned passes;      /* syncs of the store, a close's included */
    unsigned failed_passes;
    unsigned slow_passes; /* passes that took longer than T/2 */
    int64_t longest_pass_ms;
} VrixSyncState;
VRIX_API int vrix_db_get_sync_state(const char *root, VrixSyncState *state);

/* Test hooks: the library's fixed waits (reclamation and event reduction
 * pacing, the reduction prediction, the sync thread's looks at the clock) are
 * divided by waitDivisor; `now`, when set, replaces the real clock where the
 * library stamps the current time (events) and where it ages the recording
 * buffers for the sync interval.  Null hooks, a divisor of 0 or 1 and a null
 * clock keep the waits and the clock as documented; that is also the state
 * before the first call.  For tests and demos only. */
typedef struct VrixTestHooks {
    unsigned waitDivisor;
    int (*now)(void);
} VrixTestHooks;
VRIX_API void vrix_db_set_test_hooks(const VrixTestHooks *hooks);

/* A server for the remove queues (see Maintenance), for the application,
 * tools and tests: a thread that takes requests off queue 1221, removes what
 * they name when it lies inside `root` (links are removed, never followed),
 * and answers every request on queue 1222 with text byte 0 the outcome,
 * refused ones included, so the library never blocks.  Refusals and failures
 * print one line.  `log`, when set, is called on the server thread for every
 * request.  Null when the root does not exist or the queues cannot be had. */
#define VRIX_RM_REMOVED 0
#define VRIX_RM_REFUSED 1 /* outside the root, or not a known command */
#define VRIX_RM_FAILED 2  /* nothing there, or removal failed */
typedef struct VrixRmServer VrixRmServer;
typedef void (*VrixRmLogFn)(int command, const char *path, int outcome, void *user);
VRIX_API VrixRmServer *vrix_rm_server_start(const char *root, VrixRmLogFn log, void *user);
/* Stops the thread (within about a millisecond) and frees the server. */
VRIX_API void vrix_rm_server_stop(VrixRmServer *server);

/* ---- Catalogue: what the store holds --------------------------------------
 * The recorded days, the recorded spans of a channel with the gaps between
 * them, the hours, index rows and bytes of each channel and day, the events
 * per day, channel and type, and the oldest and newest recorded instant:
 * read from the index databases and the sizes of the stream files, never
 * from the media, so an application needs no knowledge of the store's files.
 *
 * - No vrix_db_init is needed (a listing tool runs beside the recorder
 *   without starting the library); any thread, at any time, also while a
 *   recorder writes the store.  Each database is opened read-only and read
 *   one statement at a time, so what the writers committed is seen and a
 *   writer waits at most for one statement.  A busy database is retried like
 *   every access of the library (about a second).  Nothing is created: a
 *   database or directory that is not there is simply empty.  The spans
 *   function remembers a day's recorded seconds while its index file stays
 *   unchanged (the day being recorded is read afresh every time).
 * - A database that is there but cannot be read (damaged, not a database,
 *   or still locked after the retry) is never taken for an empty one: its
 *   path and the reason go to `problem` (once per call and database, with
 *   `user`), what could not be read is left out (an hour whose table cannot
 *   be read counts no rows; the other tables of its database still count),
 *   and the function returns 1 instead of 0.  -1: the arguments were refused
 *   (one line), nothing was delivered.
 * - Times are instants (seconds since 1970).  A day is named by its key, the
 *   first instant of the local day; it lasts until the next day's key, 23 or
 *   25 hours across a change of summer time.  Ranges [from, to) include from
 *   and exclude to.  Records are handed to the callback in ascending order on
 *   the caller's thread; a callback that returns non-zero ends the walk.
 * - A second recorded twice (the clock stepped back, the repeated hour of a
 *   change back) lies once in a span; rows and bytes count everything stored.
 *
 * Example: the first day of June 2024 on which channel 3 recorded, and its
 * spans, a pause of more than 10 s between key frames splitting them:
 *
 *     static void bad(const char *path, int reason, void *user) {
 *         fprintf(stderr, "cannot read %s (%d): try a repair\n", path, reason);
 *     }
 *     static int day(const VrixCatDay *d, void *user) {
 *         if (!(d->uVideo & (1u << (3 - 1)))) return 0;
 *         *(VrixCatDay *)user = *d;
 *         return 1; // found: stop
 *     }
 *     static int span(const VrixCatSpan *s, void *user) {
 *         printf("%d .. %d, %d key frames\n", s->iStart, s->iEnd, s->iRows);
 *         return 0;
 *     }
 *     ...
 *     struct tm june = {.tm_year = 124, .tm_mon = 5, .tm_mday = 1, .tm_isdst = -1};
 *     struct tm july = {.tm_year = 124, .tm_mon = 6, .tm_mday = 1, .tm_isdst = -1};
 *     VrixCatDay first = {0};
 *     int bad_days = vrix_cat_days(root, mktime(&june), mktime(&july), day, &first, bad);
 *     if (first.iDay)
 *         vrix_cat_spans(root, VRIX_CAT_VIDEO, 3, first.iDay, first.iEnd, 10, span, NULL, bad);
 *     // bad_days == 1: date.db could not be read, and "no day" means nothing */

/* What a catalogue function reads: video (channels 1..16), audio (channels
 * 1..4; the index is shared, the stream files are per channel) or events. */
#define VRIX_CAT_VIDEO 1
#define VRIX_CAT_AUDIO 2
#define VRIX_CAT_EVENTS 3

/* Why a database could not be read. */
#define VRIX_CAT_DAMAGED 1 /* it did not open or a read failed: damaged, or not a database */
#define VRIX_CAT_LOCKED 2  /* still locked by another connection after the retry */
typedef void (*VrixCatProblemFn)(const char *path, int reason, void *user);

/* A recorded day, from date.db's list of days. */
typedef struct VrixCatDay {
    int32_t iDay;           /* key: the first instant of the local day */
    int32_t iEnd;           /* the next day's key */
    uint32_t uVideo;        /* bit ch - 1: video channel ch recorded that day */
    int32_t iAudio;         /* 1: the day has an audio index */
    int32_t iAudioChannels; /* the highest audio channel with a directory that day, 0 none */
    int32_t iEvents;        /* 1: the day has an event database */
} VrixCatDay;
typedef int (*VrixCatDayFn)(const VrixCatDay *day, void *user);
/* The days whose keys lie in [from, to), from date.db alone and a look at
 * which files of each day are there (no day database is opened): a month
 * costs a few statements. */
VRIX_API int vrix_cat_days(const char *root, int from, int to, VrixCatDayFn fn, void *user,
                           VrixCatProblemFn problem);

/* An hour file of a channel's day: what its index lists and its size. */
typedef struct VrixCatHour {
    int32_t iDay;          /* day key */
    int32_t iHour;         /* local hour 0..23, as the index and the file name it */
    int32_t iStart, iEnd;  /* its instants [start, end): two hours of seconds for the
                              repeated hour of a change back */
    int32_t iRows;         /* index rows: key frames (video), indexed seconds (audio) */
    int32_t iFirst, iLast; /* the earliest and latest indexed second, 0 without rows */
    int64_t lBytes;        /* the stream file's size (of channel `ch` for audio), every pass
                              included; -1 when there is no file */
} VrixCatHour;
typedef int (*VrixCatHourFn)(const VrixCatHour *hour, void *user);
/* The hours the index of `ch` lists (VRIX_CAT_VIDEO or VRIX_CAT_AUDIO) on the
 * days whose keys lie in [from, to), hour by hour: bytes per channel and day
 * are the sum of lBytes >= 0.  An hour listed without a table of rows has 0
 * rows. */
VRIX_API int vrix_cat_hours(const char *root, int kind, int ch, int from, int to, VrixCatHourFn fn,
                            void *user, VrixCatProblemFn problem);

/* A recorded span: consecutive recorded seconds (video: seconds holding a
 * key frame, so the footage runs on past iEnd to the next key frame; audio:
 * indexed seconds) no more than `gap` seconds apart. */
typedef struct VrixCatSpan {
    int32_t iStart;   /* the first recorded second */
    int32_t iEnd;     /* one past the last recorded second */
    int32_t iSeconds; /* recorded seconds in it, each once */
    int32_t iRows;    /* index rows in it (a second recorded twice counts twice) */
} VrixCatSpan;
typedef int (*VrixCatSpanFn)(const VrixCatSpan *span, void *user);
/* The spans of channel `ch` within [from, to): recorded seconds more than
 * `gap` seconds apart (0..86400) start a new span, so with `gap` 0 every
 * recorded second is a span of its own and with 1 a span has no second
 * missing.  A span may cross hours and days. */
VRIX_API int vrix_cat_spans(const char *root, int kind, int ch, int from, int to, int gap,
                            VrixCatSpanFn fn, void *user, VrixCatProblemFn problem);

/* Events of one day, channel and type. */
typedef struct VrixCatEvents {
    int32_t iDay;          /* day key */
    int32_t iCh;           /* channel as stored (0, -1 and 1..64) */
    int32_t iType;         /* type code as stored */
    int32_t iCount;        /* events */
    int32_t iFirst, iLast; /* the earliest and latest of their seconds */
} VrixCatEvents;
typedef int (*VrixCatEventsFn)(const VrixCatEvents *events, void *user);
/* The events of the days whose keys lie in [from, to), counted per channel
 * and type: day by day, and within a day in the order in which the first
 * event of each channel and type was stored.  A day without events gives no
 * record. */
VRIX_API int vrix_cat_events(const char *root, int from, int to, VrixCatEventsFn fn, void *user,
                             VrixCatProblemFn problem);

/* The oldest and newest recorded second of video channel `ch` (0: of any
 * channel; key frames), of the audio (`ch` not used; indexed seconds) or of
 * the events, into *first and *last (either may be null); 0 when nothing is
 * recorded.  A few statements at each end of the store. */
VRIX_API int vrix_cat_bounds(const char *root, int kind, int ch, int *first, int *last,
                             VrixCatProblemFn problem, void *user);

/* Reads every page of every table that playing `ch` of `kind` (or listing
 * the events) from `from` to `to` (instants, either order, inclusive) goes
 * through: date.db's day list and each such day's index database.  For the
 * caller whose playback ended early or found nothing: 1 names, through
 * `problem`, what could not be read; 0 when all of it could.  Costs a read
 * of those databases. */
VRIX_API int vrix_cat_check(const char *root, int kind, int ch, int from, int to,
                            VrixCatProblemFn problem, void *user);

/* The path of a file of the store, for messages, copies and checks: the
 * store's index (VRIX_PATH_DATE_DB), a day's directory, event database,
 * video index of channel `ch`, stream file of channel `ch` and hour, audio
 * index and audio stream file, and the backup copies vrix_db_backup makes.
 * `day` is a day key; arguments a kind does not use are ignored.  Returns
 * the path's length (the path and a terminating zero are written into `buf`
 * of `size` bytes), -1 when the kind or an argument is refused or the path
 * does not fit. */
#define VRIX_PATH_DATE_DB 1
#define VRIX_PATH_DATE_COPY 2
#define VRIX_PATH_DAY_DIR 3
#define VRIX_PATH_EVENT_DB 4
#define VRIX_PATH_EVENT_COPY 5
#define VRIX_PATH_VIDEO_DB 6
#define VRIX_PATH_VIDEO_STREAM 7
#define VRIX_PATH_AUDIO_DB 8
#define VRIX_PATH_AUDIO_STREAM 9
VRIX_API int vrix_cat_path(const char *root, int kind, int day, int ch, int hour, char *buf,
                           int size);

#ifdef __cplusplus
}
#endif

#endif /* VRIXDB_H */
