#!/usr/bin/env bash
# The viewer's costs on a demo store (channels 1-4 hold real H.264):
#   - CPU of vrixdb serve per stream played at the recorded rate;
#   - time from a request to the stream's first bytes (the browser test
#     prints click-to-first-frame);
#   - export-mp4 against export-h264, which reads the same access units and
#     writes them raw.
#   bench_serve [seconds of streaming=20] [streams=4]
# VRIXDB is the program (set when the build configured this script).
set -euo pipefail
VRIXDB=${VRIXDB:-@VRIX_TOOL_PATH@}
SECONDS_STREAMED=${1:-20}
STREAMS=${2:-4}
export TZ=UTC
for tool in curl; do command -v $tool >/dev/null || { echo "bench_serve: needs $tool"; exit 0; }; done
"$VRIXDB" --help | grep -q "^  serve " || { echo "bench_serve: vrixdb built without serve"; exit 0; }
SCRATCH=$(mktemp -d "${TMPDIR:-/tmp}/bench-serve-XXXXXX")
SERVER=
trap '[ -n "$SERVER" ] && kill $SERVER 2>/dev/null; rm -rf "$SCRATCH"' EXIT
ROOT=$SCRATCH/store
for key in 1220 1221 1222; do ipcrm -Q $key 2>/dev/null || true; done
# 10 minutes from 10:55; the reduction leaves 11:00:00 .. 11:04:59.
"$VRIXDB" demo --root "$ROOT" --minutes 10 >/dev/null

cpu_ticks() { awk '{print $14 + $15}' "/proc/$1/stat"; }
now() { date +%s.%N; }

# Export: 5 minutes of ch 1, each way, best of 3.
best() {
    local b=999 t0 t1
    for _ in 1 2 3; do
        t0=$(now)
        "$VRIXDB" "$@" >/dev/null 2>&1
        t1=$(now)
        b=$(awk -v a="$t0" -v c="$t1" -v b="$b" 'BEGIN { d = c - a; print (d < b) ? d : b }')
    done
    echo "$b"
}
span=(--root "$ROOT" --ch 1 --from 2024-06-14T11:00:00 --to 2024-06-14T11:04:59)
raw=$(best export-h264 "${span[@]}" "$SCRATCH/raw.h264")
mp4=$(best export-mp4 "${span[@]}" "$SCRATCH/out.mp4")
bytes=$(stat -c %s "$SCRATCH/raw.h264")
awk -v r="$raw" -v m="$mp4" -v b="$bytes" 'BEGIN {
    printf "export     300 s of ch 1 (%.1f MiB of H.264): export-h264 %.3f s (%.0f MiB/s), export-mp4 %.3f s (%.0f MiB/s), ratio %.2f\n",
        b / 1048576, r, b / 1048576 / r, m, b / 1048576 / m, m / r }'

"$VRIXDB" serve --root "$ROOT" --listen 127.0.0.1:0 --max-streams "$STREAMS" >"$SCRATCH/serve.out" 2>/dev/null &
SERVER=$!
for _ in $(seq 100); do grep -q http "$SCRATCH/serve.out" && break; sleep 0.1; done
URL=$(grep -o 'http://127.0.0.1:[0-9]*' "$SCRATCH/serve.out")

# From the request to the first fragment (the first picture's bytes): the
# stream's first 20 KiB, normal, key-frame and 4x play.
for q in '' '&keys=1' '&speed=4'; do
    t0=$(now)
    curl -s -N --max-time 5 "$URL/api/play?ch=1&from=2024-06-14T11:02:00$q" 2>/dev/null |
        head -c 20480 >/dev/null || true
    t1=$(now)
    echo "first 20 KiB $(awk -v a="$t0" -v b="$t1" 'BEGIN { printf "%.1f ms", (b - a) * 1000 }') after the request (ch 1 from 11:02:00${q:+, ${q#&}})"
done

# A flood beside a normal client: 300 connections at a time that say
# nothing, opened again and again for 5 s; serve's CPU meanwhile and the
# normal client's slowest answer.
PORT=${URL##*:}
c0=$(cpu_ticks "$SERVER")
(end=$((SECONDS + 5)); while [ $SECONDS -lt $end ]; do
    for _ in $(seq 300); do exec {fd}<>/dev/tcp/127.0.0.1/"$PORT" || break; done
    for fd in $(ls /proc/$BASHPID/fd); do [ "$fd" -gt 9 ] && eval "exec $fd>&-"; done
done) 2>/dev/null &
FLOOD=$!
worst=0
while kill -0 $FLOOD 2>/dev/null; do
    t=$(curl -s -o /dev/null --max-time 5 -w '%{time_total}' "$URL/api/days" || echo 5)
    worst=$(awk -v a="$worst" -v b="$t" 'BEGIN { print (b > a) ? b : a }')
done
c1=$(cpu_ticks "$SERVER")
awk -v c=$((c1 - c0)) -v hz="$(getconf CLK_TCK)" -v w="$worst" 'BEGIN {
    printf "flood      300 idle connections at a time for 5 s: serve used %.2f CPU s; the slowest /api/days beside it %.0f ms\n", c / hz, w * 1000 }'

hz=$(getconf CLK_TCK)
c0=$(cpu_ticks "$SERVER")
t0=$(now)
pids=()
for ch in $(seq 1 "$STREAMS"); do
    curl -s -o "$SCRATCH/s$ch.mp4" --max-time "$SECONDS_STREAMED" \
        "$URL/api/play?ch=$(( (ch - 1) % 4 + 1 ))&from=2024-06-14T11:00:00" &
    pids+=($!)
done
wait "${pids[@]}" || true
c1=$(cpu_ticks "$SERVER")
t1=$(now)
total=$(cat "$SCRATCH"/s*.mp4 | wc -c)
awk -v c=$((c1 - c0)) -v hz="$hz" -v w="$(awk -v a="$t0" -v c="$t1" 'BEGIN { print c - a }')" -v n="$STREAMS" -v b="$total" 'BEGIN {
    printf "streams    %d at the recorded rate for %.1f s, %.1f MiB sent: serve used %.2f CPU s = %.2f%% of one core per stream (goal <= 5%%)\n",
        n, w, b / 1048576, c / hz, 100 * c / hz / w / n }'
