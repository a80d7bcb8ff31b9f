#!/usr/bin/env bash
# record-h264 from standard input (a pipe, and a file with progress), export
# to standard output, and reduce by retention rule over several days.
VRIXDB=$1
. "$(dirname "$0")/lib.sh"
clear_queues
ROOT=$SCRATCH/store
in=$SCRATCH/in.h264
# 4 s at 25 access units a second, an IDR picture first in each second.
for s in 1 2 3 4; do
    for f in $(seq 1 25); do
        [ "$f" = 1 ] && nal='\x65' || nal='\x41'
        printf "\x00\x00\x00\x01$nal\x88\x84\x21\x55\x66\x$(printf %02x "$s")\x$(printf %02x "$f")"
    done
done >"$in"
# Across midnight on ch 1 through a pipe: two days.
cat "$in" | "$VRIXDB" record-h264 --root "$ROOT" --ch 1 --start 2024-06-13T23:59:58 - >"$OUT" 2>"$ERR" ||
    fail "record from a pipe: $(cat "$ERR")"
grep -q "^recorded 100 access units (4 IDR, 1.2 KiB) of standard input to ch 1, 2024-06-13T23:59:58 .. 2024-06-14T00:00:01" "$OUT" ||
    fail "record from a pipe: $(cat "$OUT")"
# From a file on standard input: its size is known, so progress shows (in
# quarters of the bytes read, each read 1 MiB: here one).
"$VRIXDB" record-h264 --root "$ROOT" --ch 2 --start 2024-06-15T10:00:00 - <"$in" >"$OUT" 2>"$ERR" ||
    fail "record from a file: $(cat "$ERR")"
grep -q '^  recording  *100%$' "$OUT" || fail "progress: $(cat "$OUT")"
"$VRIXDB" export-h264 --root "$ROOT" --ch 1 --from 2024-06-13T23:59:58 --to 2024-06-14T00:00:01 - \
    >"$SCRATCH/back.h264" 2>"$ERR" || fail "export to -: $(cat "$ERR")"
cmp "$in" "$SCRATCH/back.h264" || fail "the recording through a pipe differs"
# A live feed through a pipe with --start now: each unit is stored when it
# has arrived, stamped with its arrival. 2 s of units, a pause of 2 s in
# which what came is already in the index, then 2 s more.
t0=$(date +%s)
{
    head -c 600 "$in"
    sleep 1.5
    "$VRIXDB" ls --root "$SCRATCH/live" --day "$(date +%Y%m%d)" --json >"$SCRATCH/live.json" 2>&1
    sleep 0.5
    tail -c +601 "$in"
} | "$VRIXDB" record-h264 --root "$SCRATCH/live" --ch 5 --start now - >"$OUT" 2>"$ERR" ||
    fail "record live: $(cat "$ERR")"
t1=$(date +%s)
keys=$(sqlite3 :memory: "select json_extract(value, '$.key_frames') from
    json_each(json_extract(readfile('$SCRATCH/live.json'), '$.video')) where
    json_extract(value, '$.ch') = 5;")
[ "${keys:-0}" -ge 1 ] || fail "nothing of the live feed stored during its pause: $(cat "$SCRATCH/live.json")"
read -r first last < <(sed -n 's/.* ch 5, \([^ ]*\) \.\. \([^ ]*\) as they arrived$/\1 \2/p' "$OUT")
first=$(date -d "$first" +%s) && last=$(date -d "$last" +%s) || fail "record live: $(cat "$OUT")"
[ "$first" -le $((t0 + 1)) ] && [ "$last" -ge $((first + 1)) ] && [ "$last" -le "$t1" ] ||
    fail "live feed from $t0 to $t1 stamped $(cat "$OUT")"
printf 'no start codes here' | refused record-h264 --root "$SCRATCH/work/r" --ch 1 --start 2024-06-14 -

# Every day is older than a day: the oldest go one after the other, each
# day whole (no audio), until none is left.
run reduce --root "$ROOT" --fast --keep-days 1 --json
jv() { sqlite3 :memory: "select json_extract(readfile('$OUT'), '$1');"; }
[ "$(jv '$.reduced[0].whole_day')|$(jv '$.reduced[2].whole_day')|$(jv '$.left')" = "1|1|empty" ] ||
    fail "reduce --keep-days: $(cat "$OUT")"
[ -z "$(sql "$ROOT/date.db" "select date from H;")" ] && [ ! -e "$ROOT/20240613" ] &&
    [ ! -e "$ROOT/20240615/video" ] || fail "days left: $(ls "$ROOT")"
echo "retention: ok"
