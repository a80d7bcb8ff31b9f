#!/usr/bin/env bash
# --json: one valid document per command, with the keys the README lists and
# the figures of the index databases (read with the sqlite3 shell, whose JSON
# functions also read the program's output).
VRIXDB=$1
ROOT=$2
. "$(dirname "$0")/lib.sh"
clear_queues
DAY=$ROOT/20240614
# The value at a JSON path of the last output.
jv() { sqlite3 :memory: "select json_extract(readfile('$OUT'), '$1');"; }
valid() { [ "$(sqlite3 :memory: "select json_valid(readfile('$OUT'));")" = 1 ] ||
    fail "$1: not one JSON document: $(cat "$OUT")"; }

events=$(sql "$DAY/event.db" "select count(*) from h_all;")
run ls --root "$ROOT" --json
valid ls
[ "$(jv '$.days[0].day')|$(jv '$.days[0].events')|$(jv '$.days[0].video.channels')" = "20240614|$events|16" ] ||
    fail "ls: $(cat "$OUT")"
run ls --root "$ROOT" --day 20240614 --json
valid "ls --day"
keys=$(sql "$DAY/video/7/video.db" "select count(*) from h11;")
[ "$(jv '$.video[6].ch')|$(jv '$.video[6].key_frames')|$(jv '$.events.count')" = "7|$keys|$events" ] ||
    fail "ls --day: $(cat "$OUT")"

from=$(sql "$DAY/video/7/video.db" "select min(sec) from h11;")
run play --root "$ROOT" --ch 7 --from @"$from" --count 30 --json
valid play
[ "$(jv '$.count')|$(jv '$.frames[0].time.sec')|$(jv '$.frames[0].key')|$(jv '$.frames[1].key')" = "30|$from|1|0" ] ||
    fail "play: $(cat "$OUT")"
[ "$(jv '$.bytes')" = "$(sqlite3 :memory: "select sum(value->>'bytes') from json_each(readfile('$OUT'), '\$.frames');")" ] ||
    fail "play: the frames' bytes do not add up"

run events --root "$ROOT" --from 2024-06-14 --ch all --type all --json
valid events
[ "$(jv '$.count')" = "$events" ] && [ "$(jv "\$.events[$((events - 1))].time.sec")" = \
    "$(sql "$DAY/event.db" "select max(sec) from h_all;")" ] || fail "events: $(cat "$OUT")"

run size --root "$ROOT" --ch 7 --from 2024-06-14T11:00:00Z --to 2024-06-14T11:00:09+00:00 --json
valid size
[ "$(jv '$.kind')|$(jv '$.from.local')|$(jv '$.to.sec')" = "video|2024-06-14T11:00:00|$(date -u -d 2024-06-14T11:00:09 +%s)" ] &&
    [ "$(jv '$.bytes')" -gt 0 ] || fail "size: $(cat "$OUT")"

run range --root "$ROOT" --ch 2 --audio --at 2024-06-14T11:00:07 --json
valid range
[ "$(jv '$.last_at_or_before.local') $(jv '$.first_at_or_after.local')" = "2024-06-14T11:00:06 2024-06-14T11:00:07" ] || fail "range: $(cat "$OUT")"
run range --root "$ROOT" --ch 1 --at 2024-06-13 --json
[ "$(jv '$.last_at_or_before')" = "" ] && [ "$(jv '$.first_at_or_after.sec')" = "$from" ] ||
    fail "range before the recording: $(cat "$OUT")"
echo "json: ok"
