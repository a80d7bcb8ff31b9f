// Every statement the library submits, as format text.
#pragma once

namespace vrix::sql {

// date.db
inline constexpr char kCreateDateH[] = "create table H(date int);";
inline constexpr char kCreateDateCh[] = "create table ch%d(date int);";
inline constexpr char kFindDay[] = "select date from H where date = %d limit 1;";
inline constexpr char kInsertDay[] = "insert into H values(%d);";
inline constexpr char kFindChannelDay[] = "select date from ch%d where date = %d limit 1;";
inline constexpr char kInsertChannelDay[] = "insert into ch%d values(%d);";

// The writers' connections to video.db and audio.db: the syncer makes them
// durable with the stream files and the indexes are reconciled with the
// stream files after a power loss, so commits do not wait for the disk; the
// rollback journal is kept but not made and deleted again by every commit.
// The writers append to the end of one hour table and its index: the pages
// of that right edge are all they read again, so their cache is small (16
// pages of 4 KiB).
inline constexpr char kIndexNoSync[] =
    "PRAGMA synchronous=OFF;PRAGMA journal_mode=PERSIST;PRAGMA cache_size=16;";
// Every other connection of the library: a player's location reads about 9
// pages, an event page a few more; 64 pages (256 KiB) at most, not SQLite's
// 2 MB, so that a recorder's two dozen connections stay within a few MiB
// however long the store (see "On the board" in the README).
inline constexpr char kConnectionCache[] = "PRAGMA cache_size=64;";
// date.db and event.db keep SQLite's rollback journal, deleted to commit.  The
// deletion is a change of the directory's names: unless the directory is
// synced after it, a power cut can bring the journal back and SQLite then
// rolls the committed transaction back (a day's registration, an event).
// EXTRA syncs the directory at each commit; commits there are rare (a day
// registered, an event).
inline constexpr char kCommitsDurable[] = "PRAGMA synchronous=EXTRA;";
// A writer leaving a day's index takes its journal with it: a reader checks
// an existing journal at every transaction (one more file opened), which only
// the day being recorded should cost.
inline constexpr char kIndexDropJournal[] = "PRAGMA journal_mode=DELETE;";

// video.db and audio.db
inline constexpr char kCreateHourH[] = "create table H(hour int);";
inline constexpr char kFindHour[] = "select hour from H where hour = %d limit 1;";
inline constexpr char kInsertHour[] = "insert into H values(%d);";
inline constexpr char kInsertHourOnce[] =
    "insert into H select %d where not exists (select 1 from H where hour = %d);";
inline constexpr char kCreateIndex[] =
    "create table h%d(id integer primary key , sec int,offset int);";
// An hour table's rows keep the order of their records in the file (`id`),
// which is not always time order: a clock set back starts another pass of
// the hour in the same file.  Hour tables made by this library get an index
// on their times, so that the statements that search by time find their row
// without a walk of the table; a table without it (older stores) is walked
// by the same statements, with the same answer.
inline constexpr char kCreateSecIndex[] = "create index if not exists h%d_sec on h%d(sec);";
inline constexpr char kInsertIndex[] = "insert into h%d values(NULL,%d,%lld);";
inline constexpr char kResumeOffset[] = "select max(offset) from h%d where offset < %lld;";
inline constexpr char kAudioResumeOffset[] = "select max(offset) from h%d where offset <= %lld;";
inline constexpr char kSecAtOffset[] = "select sec from h%d where offset = %lld limit 1;";
inline constexpr char kTableExists[] =
    "select count(*) from sqlite_master where type='table' and name='h%d';";
// Resume and reconcile: the rows after a restart point go, the row at it
// stays when it names the record there (its time), and is added once.
inline constexpr char kDeleteAfter[] = "delete from h%d where offset > %lld;";
inline constexpr char kDeleteAtOtherSec[] = "delete from h%d where offset = %lld and sec <> %d;";
inline constexpr char kInsertIndexOnce[] = "insert into h%d select NULL,%d,%lld where not exists "
                                           "(select 1 from h%d where offset = %lld);";
inline constexpr char kDeleteHour[] = "delete from h%d;";
// A write that failed: the rows of what it lost go.
inline constexpr char kDeleteRowsFrom[] = "delete from h%d where offset >= %lld;";

// playback location and stepping
inline constexpr char kChannelDayFrom[] = "select min(date) from ch%d where date >= %d;";
inline constexpr char kChannelDayUpTo[] = "select max(date) from ch%d where date <= %d;";
inline constexpr char kDayFrom[] = "select min(date) from H where date >= %d;";
inline constexpr char kDayUpTo[] = "select max(date) from H where date <= %d;";
inline constexpr char kHourFrom[] = "select min(hour) from H where hour >= %d";
inline constexpr char kHourUpTo[] = "select max(hour) from H where hour <= %d";
inline constexpr char kLastId[] = "select max(id) from h%d;";
inline constexpr char kFirstId[] = "select min(id) from h%d;";
// The last row to play when the end time lies in the hour: the last in file
// order whose time is not after it.
inline constexpr char kLastIdUpTo[] = "select max(id) from h%d where sec <= %d;";
// Locating a time in its own hour: forward the earliest time at or after it,
// the first pass of it; backward the latest at or before it, its last pass.
inline constexpr char kIdFrom[] = "select id from h%d where sec >= %d order by sec, id limit 1;";
inline constexpr char kIdUpTo[] =
    "select id from h%d where sec <= %d order by sec desc, id desc limit 1;";
// The same from a hinted row on (forward) or up to it (backward).
inline constexpr char kHintIdFrom[] =
    "select id from h%d where sec >= %d and id >= %d order by sec, id limit 1;";
inline constexpr char kHintIdUpTo[] =
    "select id from h%d where sec <= %d and id <= %d order by sec desc, id desc limit 1;";
// The offset of a key frame with the time its row gives, so the record found
// there can be checked against the row before it is trusted.
inline constexpr char kRowOfId[] = "select offset,sec from h%d where id = %d limit 1;";
// Size totals: the rows whose time lies in [from, to) and the bytes they
// index, each row up to the next one in file order (the last one up to the
// file's size Z), none beyond Z.  Arguments: Z, Z, hour, from, to (printed as
// submitted, so without a closing ";").
inline constexpr char kRowBytes[] =
    "select count(*), coalesce(sum(max(0, min(coalesce(n, %lld), %lld) - offset)), 0) from "
    "(select sec, offset, lead(offset) over (order by id) as n from h%d) "
    "where sec >= %d and sec < %d";
// The first row whose record lies after a damaged one: where play resumes.
inline constexpr char kIdAfter[] = "select min(id) from h%d where offset > %lld;";

// event.db
inline constexpr char kCreateEvents[] =
    "create table h_all(id INTEGER PRIMARY KEY , sec int,ch int,type int,data text);";
inline constexpr char kInsertEvent[] = "insert into h_all values(NULL,%d,%d,%d,NULL);";
// A page: channel clause, type clause (each ends in a blank), cursor, count.
inline constexpr char kEventPageForward[] =
    "select id,sec,ch,type from h_all where %s %s id >= %d limit %d;";
inline constexpr char kEventPageBackward[] =
    "select id,sec,ch,type from h_all where %s %s id <= %d order by id desc limit %d;";
inline constexpr char kEventLastId[] = "select max(id) from h_all;";
inline constexpr char kEventFirstIdFrom[] = "select min(id) from h_all where sec >= %d;";
inline constexpr char kEventLastIdUpTo[] = "select max(id) from h_all where sec <= %d;";
// The events' times get an index, made with a new h_all.  Events may be
// stamped before the latest one already stored (a minute event takes the
// start of its minute), so the database keeps in its user_version D, the
// furthest any event went back.  Every earlier row then lies at most D after
// a later one, and the first row at or after a time t (the last at or before
// it) lies within D of the first (last) time found there through the index:
// a short range of the index holds it.
inline constexpr char kCreateEventSecIndex[] =
    "create index if not exists h_all_sec on h_all(sec);";
inline constexpr char kEventSecIndexExists[] =
    "select count(*) from sqlite_master where type='index' and name='h_all_sec';";
inline constexpr char kEventLatestSec[] = "select max(sec) from h_all;";
inline constexpr char kEventLateness[] = "PRAGMA user_version;";
inline constexpr char kSetEventLateness[] = "PRAGMA user_version=%d;";
// The lateness of a day's events as they stand: how far, at most, an event
// lies before the latest one stored ahead of it.
inline constexpr char kEventDayLateness[] =
    "select min(2147483647, max(0, coalesce(max(m - sec), 0))) from (select sec, max(sec) over "
    "(order by id rows between unbounded preceding and 1 preceding) as m from h_all);";
inline constexpr char kEventSecFrom[] =
    "select sec from h_all indexed by h_all_sec where sec >= %d order by sec limit 1;";
inline constexpr char kEventSecUpTo[] =
    "select sec from h_all indexed by h_all_sec where sec <= %d order by sec desc limit 1;";
inline constexpr char kEventFirstIdIn[] =
    "select min(id) from h_all indexed by h_all_sec where sec >= %d and sec <= %d;";
inline constexpr char kEventLastIdIn[] =
    "select max(id) from h_all indexed by h_all_sec where sec >= %d and sec <= %d;";

// transactions
inline constexpr char kBegin[] = "BEGIN TRANSACTION;";
inline constexpr char kCommit[] = "COMMIT TRANSACTION;";
// A write transaction that holds the database's write lock from its start.
inline constexpr char kBeginImmediate[] = "BEGIN IMMEDIATE;";
inline constexpr char kRollback[] = "ROLLBACK;";

// space reclamation
inline constexpr char kOldestDay[] = "select min(date) from H;";
inline constexpr char kCountHour[] = "select count() from h%d;";
inline constexpr char kReduceBegin[] = "BEGIN TRANSACTION";
inline constexpr char kReduceCommit[] = "COMMIT TRANSACTION";
inline constexpr char kDeleteIndexUpTo[] = "delete from h%d where sec <= %d;";
inline constexpr char kDeleteHoursUpTo[] = "delete from H where hour <= %d;";
inline constexpr char kDeleteDay[] = "delete from H where date = %d;";
inline constexpr char kDeleteChannelDay[] = "delete from ch%d where date = %d;";
inline constexpr char kDeleteEventsUpTo[] = "delete from h_all where sec <= %d;";
inline constexpr char kCountEvents[] = "select count() from h_all;";

// integrity check and repair
inline constexpr char kNewestChannelDay[] = "select max(date) from ch%d";

} // namespace vrix::sql
