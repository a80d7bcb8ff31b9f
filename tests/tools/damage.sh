#!/usr/bin/env bash
# A database that cannot be read is reported, with repair suggested and exit
# status 2, never listed as empty; a store that is sound but holds nothing
# there still says so with status 0.
VRIXDB=$1
. "$(dirname "$0")/lib.sh"
clear_queues
ROOT=$SCRATCH/store
cp -a "$2" "$ROOT"
DAY=$ROOT/20240614

# Nothing recorded on the day asked for: empty answers, status 0.
run ls --root "$ROOT" --day 2024-06-20
[ "$(grep -c '(none)' "$OUT")" = 2 ] && grep -q "^events 0$" "$OUT" || fail "empty day: $(cat "$OUT")"
run play --root "$ROOT" --ch 5 --from 2024-06-20T00:00:00
grep -q "^# 0 frames" "$OUT" || fail "empty play: $(cat "$OUT")"
run events --root "$ROOT" --from 2024-06-20T00:00:00
grep -q "^# 0 events" "$OUT" || fail "no events: $(cat "$OUT")"

# Runs a command that must find $1 unreadable.
unreadable() {
    local db=$1
    shift
    "$VRIXDB" "$@" >"$OUT" 2>"$ERR"
    local status=$?
    [ $status = 2 ] || fail "vrixdb $* exited $status with $db damaged: $(cat "$OUT" "$ERR")"
    grep -q "cannot read $db .*vrixdb repair --root $ROOT\$" "$ERR" ||
        fail "vrixdb $* does not name $db: $(cat "$ERR")"
}

# The page of ch 5's key-frame table, and event.db's first page, overwritten.
v5=$DAY/video/5/video.db
page=$(sql "$v5" "select rootpage from sqlite_master where name = 'h11';")
size=$(sql "$v5" "pragma page_size;")
dd if=/dev/urandom of="$v5" bs="$size" seek=$((page - 1)) count=1 conv=notrunc status=none
dd if=/dev/urandom of="$DAY/event.db" bs=1024 count=4 conv=notrunc status=none
unreadable "$v5" ls --root "$ROOT" --day 20240614
grep -q "^  5   cannot read $v5" "$OUT" || fail "ls shows ch 5 as: $(cat "$OUT")"
grep -q "^events cannot read" "$OUT" || fail "ls shows the events as: $(cat "$OUT")"
unreadable "$DAY/event.db" ls --root "$ROOT"
unreadable "$v5" play --root "$ROOT" --ch 5 --from 2024-06-14T10:00:00
unreadable "$DAY/event.db" events --root "$ROOT" --from 2024-06-14T10:00:00
# The other channels play as before.
run play --root "$ROOT" --ch 6 --from 2024-06-14T11:00:00 --to 2024-06-14T11:00:00
grep -q "^# 25 frames" "$OUT" || fail "ch 6: $(cat "$OUT")"
echo "damage: ok"
