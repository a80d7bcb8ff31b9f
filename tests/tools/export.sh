#!/usr/bin/env bash
# size and range answer from the index as an export needs them.
VRIXDB=$1
ROOT=$2
. "$(dirname "$0")/lib.sh"
clear_queues
at() { date -u -d "@$1" +%Y-%m-%dT%H:%M:%S; }
v7=$ROOT/20240614/video/7/video.db
first=$(sql "$v7" "select min(sec) from h11;")
offset() { sql "$1" "select offset from h11 where sec = $2 order by id limit 1;"; }

# Video: the seconds from --from to --to, both included: the bytes from the
# key frame of the first to the key frame after the last.
run size --root "$ROOT" --ch 7 --from "$(at $((first + 2)))" --to "$(at $((first + 12)))"
want=$(($(offset "$v7" $((first + 13))) - $(offset "$v7" $((first + 2)))))
grep -q "^video ch 7 .*: $want bytes" "$OUT" || fail "video size, want $want: $(cat "$OUT")"
# Audio: the records of those 11 seconds and 800 bytes a second on top.
a=$ROOT/20240614/audio/audio.db
run size --root "$ROOT" --ch 2 --audio --from "$(at $((first + 2)))" --to "$(at $((first + 12)))"
want=$(($(offset "$a" $((first + 13))) - $(offset "$a" $((first + 2))) + 11 * 800))
grep -q "^audio ch 2 .*: $want bytes" "$OUT" || fail "audio size, want $want: $(cat "$OUT")"
# One second: size counts what play delivers (payloads and 16-byte headers).
t=$(at $((first + 5)))
run play --root "$ROOT" --ch 7 --from "$t" --to "$t"
played=$(frames | awk '{s += $3 + 16} END {print s + 0}')
run size --root "$ROOT" --ch 7 --from "$t" --to "$t"
[ "$played" -gt 0 ] && grep -q "^video ch 7 .*: $played bytes" "$OUT" ||
    fail "one second: play gives $played bytes, size $(cat "$OUT")"

# Range: around a moment in a gap of the channel that records on motion, and
# after the last recording.
for ch in 13 14 15 16; do
    v=$ROOT/20240614/video/$ch/video.db
    gap=$(sql "$v" "select sec + 1 from h11 where sec + 1 not in (select sec from h11)
                    and sec + 1 < (select max(sec) from h11) limit 1;")
    [ -n "$gap" ] && break
done
[ -n "$gap" ] || fail "no gap in the motion channels"
run range --root "$ROOT" --ch $ch --at "$(at "$gap")"
before=$(sql "$v" "select max(sec) from h11 where sec <= $gap;")
after=$(sql "$v" "select min(sec) from h11 where sec >= $gap;")
grep -q "at or before: $(at "$before")" "$OUT" && grep -q "at or after: $(at "$after")" "$OUT" ||
    fail "range of ch $ch around $(at "$gap"), want $(at "$before") and $(at "$after"): $(cat "$OUT")"
run range --root "$ROOT" --ch 7 --at "$(at $((first + 7200)))"
grep -q "at or after: none" "$OUT" || fail "a recording after the last: $(cat "$OUT")"
run range --root "$ROOT" --ch 2 --audio --at "$(at $((first + 5)))"
grep -q "at or after: $(at $((first + 5)))" "$OUT" || fail "audio range: $(cat "$OUT")"
echo "export: ok"
