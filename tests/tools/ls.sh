#!/usr/bin/env bash
# ls agrees with the index databases of the demo's store.
VRIXDB=$1
ROOT=$2
. "$(dirname "$0")/lib.sh"
DAY=$ROOT/20240614

events=$(sql "$DAY/event.db" "select count(*) from h_all;")
run ls --root "$ROOT"
grep -q "^store $ROOT: 1 day" "$OUT" || fail "ls: $(cat "$OUT")"
grep -Eq "^20240614 +16 ch +16 h .* $events\$" "$OUT" || fail "ls day line: $(cat "$OUT")"

run ls --root "$ROOT" --day 2024-06-14
for ch in $(seq 1 16); do
    db=$DAY/video/$ch/video.db
    hours=$(sql "$db" "select group_concat(hour, ' ') from (select hour from H order by hour);")
    keys=0
    for h in $hours; do keys=$((keys + $(sql "$db" "select count(*) from h$h;"))); done
    grep -Eq "^  $ch +$hours +$keys " "$OUT" || fail "ch $ch: hours $hours, $keys key frames: $(cat "$OUT")"
done
seconds=$(sql "$DAY/audio/audio.db" "select count(*) from h11;")
grep -q "^audio  hours 11, $seconds s indexed, 4 ch" "$OUT" || fail "audio: $(cat "$OUT")"
grep -q "^events $events (" "$OUT" || fail "events: $(cat "$OUT")"
echo "ls: ok"
