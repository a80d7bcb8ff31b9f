#!/usr/bin/env bash
# vrixdb serve beside hostile clients: connections that say nothing, heads
# sent a line at a time, a body announced and never sent, and a flood of
# connections, all at once; a normal client keeps getting answers quickly.
VRIXDB=$1
. "$(dirname "$0")/lib.sh"
command -v curl >/dev/null || { echo "curl is not installed: skipped"; exit 77; }
has_subcommand serve || { echo "vrixdb was built without serve: skipped"; exit 77; }
clear_queues
ROOT=$SCRATCH/store
run demo --root "$ROOT" --minutes 1
start_serve "$ROOT" --max-streams 4
PORT=${URL##*:}
HOST="Host: 127.0.0.1:$PORT"
pids=()
trap 'kill $SERVER "${pids[@]}" 2>/dev/null; rm -rf "$SCRATCH"' EXIT

# 40 connections that never send anything, opened again as the server drops
# them; 12 that send a header line every second; 4 with a body announced
# and not sent.
(while :; do
    for _ in $(seq 40); do exec {fd}<>/dev/tcp/127.0.0.1/"$PORT" || exit; done
    sleep 6
    for fd in $(ls /proc/$BASHPID/fd); do [ "$fd" -gt 9 ] && eval "exec $fd>&-"; done
done) 2>/dev/null &
pids+=($!)
for _ in $(seq 12); do
    (while :; do
        exec 3<>/dev/tcp/127.0.0.1/"$PORT" || exit
        printf 'GET /api/days HTTP/1.1\r\n%s\r\n' "$HOST" >&3
        while sleep 1; do printf 'X-Slow: yes\r\n' >&3 || break; done
    done) 2>/dev/null &
    pids+=($!)
done
for _ in $(seq 4); do
    (while :; do
        exec 3<>/dev/tcp/127.0.0.1/"$PORT" || exit
        printf 'POST /api/days HTTP/1.1\r\n%s\r\nContent-Length: 100\r\n\r\n' "$HOST" >&3
        cat <&3 >/dev/null
    done) 2>/dev/null &
    pids+=($!)
done
# A flood: 300 connections at a time from one address, opened as fast as
# the shell can, ten times a second at most (on a test machine of two cores
# shared with other work, a shell opening them without a pause takes the
# server's time; bench_serve floods without one).
(while :; do
    for _ in $(seq 300); do exec {fd}<>/dev/tcp/127.0.0.1/"$PORT" || break; done
    for fd in $(ls /proc/$BASHPID/fd); do [ "$fd" -gt 9 ] && eval "exec $fd>&-"; done
    sleep 0.1
done) 2>/dev/null &
pids+=($!)
sleep 1

# For 8 s (past the 5-s limit of a head, so the slow ones are dropped and
# come again), a normal client asks for the days, the page and the spans.
slow=0
worst=0
n=0
end=$((SECONDS + 8))
while [ $SECONDS -lt $end ]; do
    for path in /api/days / '/api/spans?day=2024-06-14'; do
        out=$(curl -s -o "$SCRATCH/body" -w '%{http_code} %{time_total}' --max-time 5 "$URL$path")
        code=${out% *}
        t=${out#* }
        ms=$((10#${t%.*} * 1000 + 10#$(printf '%.3s' "${t#*.}000")))
        [ "$code" = 200 ] || fail "GET $path beside the hostile clients: $code after $ms ms"
        n=$((n + 1))
        [ "$ms" -gt "$worst" ] && worst=$ms
        [ "$ms" -gt 100 ] && slow=$((slow + 1))
        [ "$ms" -lt 3000 ] || fail "GET $path beside the hostile clients took $ms ms"
    done
done
# Every answer well before a head's 5-s limit (a server whose workers the
# hostile clients hold answers only once they are dropped, or never). How
# fast is the benchmark's to say (bench_serve: 38 ms at worst beside a
# flood); a test machine of two cores, under a sanitizer, took 1.4 s.

# The slow head and the body that never comes were answered or dropped, and
# a POST is refused at once.
code=$(curl -s -o "$SCRATCH/body" -w '%{http_code}' -X POST --max-time 5 "$URL/api/days")
[ "$code" = 405 ] || fail "POST /api/days: $code"
kill "${pids[@]}" 2>/dev/null
echo "serve beside hostile clients: $n answers, $slow over 100 ms, the slowest $worst ms"
