#!/usr/bin/env bash
# play delivers what the index and stream files hold, in all its modes.
VRIXDB=$1
ROOT=$2
. "$(dirname "$0")/lib.sh"
clear_queues
db=$ROOT/20240614/video/7/video.db
first=$(sql "$db" "select min(sec) from h11;")
at() { date -u -d "@$1" +%Y-%m-%dT%H:%M:%S; }

# Forward: a key frame, then the 24 frames of its second, then the next key
# frame; the payloads of a second fill the file from one indexed key frame to
# the next (16-byte headers aside).
run play --root "$ROOT" --ch 7 --from "$(at "$first")" --count 30
[ "$(frames | wc -l)" = 30 ] || fail "play --count 30: $(cat "$OUT")"
kinds=$(frames | awk '{print $4}' | tr '\n' ' ')
[ "$kinds" = "key $(printf -- '- %.0s' $(seq 24))key $(printf -- '- %.0s' $(seq 4))" ] ||
    fail "frame kinds: $kinds"
[ "$(frames | awk 'NR==26 {print $1}')" = "$(at $((first + 1)))" ] || fail "second key frame"
bytes=$(frames | awk 'NR<=25 {s += $3} END {print s}')
span=$(sql "$db" "select (select offset from h11 where sec=$((first + 1))) - offset from h11 where sec=$first;")
[ "$bytes" = $((span - 25 * 16)) ] || fail "a second's payloads: $bytes bytes, the file holds $span"

# --to ends with the last frame of that second, also when it is --from's.
run play --root "$ROOT" --ch 7 --from "$(at "$first")" --to "$(at $((first + 1)))"
[ "$(frames | wc -l)" = 50 ] || fail "play --to: $(frames | wc -l) frames"
run play --root "$ROOT" --ch 7 --from "$(at $((first + 1)))" --to "$(at $((first + 1)))"
[ "$(frames | awk '{print $1}' | uniq -c | awk '{print $1 " " $2}')" = "25 $(at $((first + 1)))" ] ||
    fail "play of one second: $(cat "$OUT")"

# Key frames only, 3 at a time, forward and backward.
run play --root "$ROOT" --ch 7 --from "$(at "$first")" --iframes 3 --count 4
[ "$(frames | awk '{print $1}' | tr '\n' ' ')" = "$(for d in 0 3 6 9; do printf '%s ' "$(at $((first + d)))"; done)" ] ||
    fail "--iframes 3: $(cat "$OUT")"
run play --root "$ROOT" --ch 7 --from "$(at $((first + 20)))" --reverse --iframes 2 --count 3
[ "$(frames | awk '{print $1 $4}' | tr '\n' ' ')" = "$(for d in 20 18 16; do printf '%skey ' "$(at $((first + d)))"; done)" ] ||
    fail "--reverse --iframes 2: $(cat "$OUT")"
# Backward to the first recorded key frame, then nothing more.
run play --root "$ROOT" --ch 7 --from "$(at $((first + 5)))" --reverse
[ "$(frames | wc -l)" = 6 ] || fail "backward from the 6th second: $(cat "$OUT")"
echo "play: ok"
