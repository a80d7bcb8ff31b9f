#!/usr/bin/env bash
# The demo runs to a passing report on the root it is given (which later
# tests read), and a second run on the same root starts it afresh.
VRIXDB=$1
ROOT=$2
MINUTES=${3:-2}
. "$(dirname "$0")/lib.sh"
clear_queues

for pass in first again; do
    start=$(date +%s)
    run demo --root "$ROOT" --minutes "$MINUTES"
    took=$(($(date +%s) - start))
    [ "$took" -lt 30 ] || fail "the demo took $took s"
    for step in record index play "play back" "key frames" audio events sizes ranges repair \
        reduce; do
        grep -q "^  ok    $step " "$OUT" || fail "$pass run: step $step not ok: $(cat "$OUT")"
    done
    grep -q "FAIL" "$OUT" && fail "$pass run reports a failure"
    grep -q "^all 11 checks passed" "$OUT" || fail "$pass run: no summary"
    # Not a terminal: plain progress lines, no bar drawn in place.
    grep -q $'\r' "$OUT" && fail "$pass run drew a progress bar into a pipe"
done
# The second run emptied the first run's store: one day, as written once.
[ "$(ls "$ROOT")" = "$(printf '%s\n' 20240614 20240615 date.db date.db.sql demo.log timeline-20240614.svg)" ] ||
    fail "unexpected root contents: $(ls "$ROOT")"
echo "demo: ok"
