#!/usr/bin/env bash
# backup, repair and reduce on a copy of the demo's store.
VRIXDB=$1
. "$(dirname "$0")/lib.sh"
clear_queues
ROOT=$SCRATCH/store
cp -a "$2" "$ROOT"
DAY=$ROOT/20240614
rm -f "$ROOT/date.db.sql" "$DAY/event.db.sql"

# Backup: byte copies beside the databases.
run backup --root "$ROOT" --day 2024-06-14
cmp "$ROOT/date.db" "$ROOT/date.db.sql" || fail "date.db.sql"
cmp "$DAY/event.db" "$DAY/event.db.sql" || fail "event.db.sql"
refused backup --root "$ROOT" --day 20240613

# Repair after damage: a video index is rebuilt from its stream, the events
# come back from the copy.
rows=$(sql "$DAY/video/5/video.db" "select group_concat(sec || ':' || offset) from h11;")
events=$(sql "$DAY/event.db" "select count(*) from h_all;")
for db in "$DAY/video/5/video.db" "$DAY/event.db"; do
    dd if=/dev/urandom of="$db" bs=1024 count=4 conv=notrunc status=none
done
run repair --root "$ROOT"
grep -q "done" "$OUT" || fail "repair: $(cat "$OUT")"
# The library's lines (and the sqlite3 shell's) go to standard error, never
# among the results: its "area : what" lines by default, its traces only with
# -v, which stamps them; -q drops them.
grep -q "^vrix_db_correct : .*/video/5/*video.db damaged" "$ERR" && ! grep -q "^check ch" "$ERR" &&
    ! grep -q "vrix_db_correct" "$OUT" || fail "repair's library lines: $(cat "$OUT" "$ERR")"
run -q repair --root "$ROOT"
[ ! -s "$ERR" ] || fail "-q repair said: $(cat "$ERR")"
run repair -v --root "$ROOT" --json
[ "$(sqlite3 :memory: "select json_extract(readfile('$OUT'), '\$.done');")" = 1 ] ||
    fail "repair --json: $(cat "$OUT")"
grep -Eq "^[0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9]{3} vrix\[[0-9]+\] check ch5 20240614$" "$ERR" ||
    fail "-v repair said: $(cat "$ERR")"
[ "$(sql "$DAY/video/5/video.db" "select group_concat(sec || ':' || offset) from h11;")" = "$rows" ] ||
    fail "ch 5's index was not rebuilt as it was"
[ "$(sql "$DAY/event.db" "select count(*) from h_all;")" = "$events" ] || fail "events not restored"

# A lost date.db comes back from its copy.
rm "$ROOT/date.db"
run repair --root "$ROOT"
cmp "$ROOT/date.db" "$ROOT/date.db.sql" || fail "date.db not restored from its copy"

# Reduce the oldest hour, the only one left in this store: its streams go,
# and with the events up to its end the day goes too.  A stream file that is
# not there is nothing to remove, not a failure.
# What would go, and rules that already hold: nothing is deleted.
run reduce --root "$ROOT" --fast --dry-run --json
[ "$(sqlite3 :memory: "select json_extract(readfile('$OUT'), '\$.would_reduce_up_to.local');")" = \
    2024-06-14T11:59:59 ] || fail "reduce --dry-run: $(cat "$OUT")"
run reduce --root "$ROOT" --fast --keep-free 1M --keep-days 36500
grep -q "^nothing to reduce: the oldest hour left, up to 2024-06-14T11:59:59, is kept" "$OUT" ||
    fail "reduce with the rules holding: $(cat "$OUT")"
[ -e "$DAY/video/9/11.stream" ] || fail "reduce deleted what the rules keep"
refused reduce --root "$ROOT" --keep-free lots
rm "$DAY/video/9/11.stream"
run reduce --root "$ROOT" --fast
grep -q "^reduced up to 2024-06-14T11:59:59: 16 files removed,.*(1 not there)" "$OUT" ||
    fail "reduce: $(cat "$OUT")"
[ ! -e "$DAY" ] || fail "the emptied day is still there"
[ -z "$(sql "$ROOT/date.db" "select date from H;")" ] || fail "the day is still registered"
run reduce --root "$ROOT" --fast
grep -q "nothing to reduce" "$OUT" || fail "reduce of an empty store: $(cat "$OUT")"
echo "maintenance: ok"
