#!/usr/bin/env bash
# vrixdb serve with a real HTTP client (curl) on the demo's store: the page
# and its API, MP4 streams checked with ffprobe, the bound on streams, hostile
# paths and parameters, and a recorder writing the same store meanwhile.
VRIXDB=$1
CLIP=$2
. "$(dirname "$0")/lib.sh"
for tool in curl ffprobe; do
    command -v $tool >/dev/null || { echo "$tool is not installed: skipped"; exit 77; }
done
has_subcommand serve || { echo "vrixdb was built without serve: skipped"; exit 77; }
clear_queues
ROOT=$SCRATCH/store
# One minute from 10:59:30; the demo's reduction then leaves 11:00:00 on.
run demo --root "$ROOT" --minutes 1

start_serve "$ROOT" --max-streams 2

# get PATH [curl options]: the body in $BODY, the status in $CODE.
BODY=$SCRATCH/.body
get() {
    local path=$1
    shift
    CODE=$(curl -s --path-as-is --max-time 20 -o "$BODY" -w '%{http_code}' "$@" "$URL$path")
}
expect() { # CODE PATH [curl options]
    local want=$1
    shift
    get "$@"
    [ "$CODE" = "$want" ] || fail "GET $1: $CODE, not $want: $(head -c 300 "$BODY")"
}
# A refusal is one line of JSON naming what was wrong.
refused_with() { # CODE PATH
    expect "$@"
    [ "$(wc -l <"$BODY")" = 1 ] && grep -q '^{"error":"[^"]*"}$' "$BODY" ||
        fail "GET $2: not a one-line JSON error: $(cat "$BODY")"
}
frames_keys_duration() {
    echo "$(ffprobe -v error -count_frames -show_entries stream=nb_read_frames -of csv=p=0 "$1")" \
        "$(ffprobe -v error -show_entries packet=flags -of csv=p=0 "$1" | grep -c K)" \
        "$(ffprobe -v error -show_entries format=duration -of csv=p=0 "$1")"
}

# The page and its assets, served from the program itself; ranges of them.
expect 200 /
grep -q 'id="timeline"' "$BODY" || fail "the page: $(head -c 200 "$BODY")"
expect 200 /app.js
expect 206 /app.js -r 0-9
[ "$(wc -c <"$BODY")" = 10 ] || fail "a range of 10 bytes gave $(wc -c <"$BODY")"
expect 416 /app.js -r 999999-

# The API.
expect 200 /api/days
grep -q '"day":"2024-06-14"' "$BODY" || fail "days: $(cat "$BODY")"
expect 200 '/api/spans?day=20240614'
[ "$(grep -o '"ch":' "$BODY" | wc -l)" = 16 ] || fail "spans: $(cat "$BODY")"
grep -q '"ch":1,"spans":\[\[1718362800,1718362830,30,0\]\]' "$BODY" || fail "ch 1 span: $(cat "$BODY")"
# Every event the command line lists, in pages both ways.
run events --root "$ROOT" --from 2024-06-14T00:00:00
total=$(tail -1 "$OUT" | awk '{print $2}')
expect 200 '/api/events?from=2024-06-14T00:00:00&limit=5000'
[ "$(grep -o '"sec":' "$BODY" | wc -l)" = "$total" ] || fail "events: $(cat "$BODY") against $total"
expect 200 '/api/events?from=2024-06-14T23:00:00&dir=back&limit=3&ch=1-16&type=motion,alarm'
grep -q '"more":true' "$BODY" || fail "a page of 3 backward: $(cat "$BODY")"

# Video: 5 s of ch 1 from 11:00:00, at its recorded times; key frames only;
# backward key frame by key frame.
expect 200 '/api/locate?ch=1&from=2024-06-14T10:00:00'
grep -q '"sec":1718362800,"ms":0' "$BODY" || fail "locate: $(cat "$BODY")"
expect 200 '/api/play?ch=1&from=2024-06-14T11:00:00&to=2024-06-14T11:00:04'
cp "$BODY" "$SCRATCH/five.mp4"
[ "$(frames_keys_duration "$SCRATCH/five.mp4")" = "125 5 5.000000" ] ||
    fail "five.mp4: $(frames_keys_duration "$SCRATCH/five.mp4")"
ffmpeg -v error -i "$SCRATCH/five.mp4" -f null - 2>"$SCRATCH/decode.err" && [ ! -s "$SCRATCH/decode.err" ] ||
    fail "five.mp4 does not decode cleanly: $(cat "$SCRATCH/decode.err")"
expect 200 '/api/play?ch=2&from=2024-06-14T11:00:00&to=2024-06-14T11:00:09&keys=2'
[ "$(frames_keys_duration "$BODY")" = "5 5 1.000000" ] || fail "keys=2: $(frames_keys_duration "$BODY")"
expect 200 '/api/play?ch=3&from=2024-06-14T11:00:04&to=2024-06-14T11:00:01&dir=back'
[ "$(frames_keys_duration "$BODY")" = "4 4 0.800000" ] || fail "back: $(frames_keys_duration "$BODY")"

# A clip: the span as export-mp4 writes it to a pipe, named after it, not
# paced; speed paces a stream at that many times the recorded rate, running
# 3 s of real time ahead (30 s at 4x: 12 s at once, 18 s in 4.5 s; 4 s at
# 0.5x: 1.5 s at once, 2.5 s in 5 s).
expect 200 '/api/clip?ch=1&from=2024-06-14T11:00:00&to=2024-06-14T11:00:04' -D "$SCRATCH/head"
grep -qi 'content-disposition: attachment; filename="vrixdb-ch1-20240614T110000-20240614T110004.mp4"' \
    "$SCRATCH/head" || fail "the clip's name: $(cat "$SCRATCH/head")"
"$VRIXDB" export-mp4 --root "$ROOT" --ch 1 --from 2024-06-14T11:00:00 --to 2024-06-14T11:00:04 - 2>/dev/null |
    cat >"$SCRATCH/export.mp4"
cmp -s "$BODY" "$SCRATCH/export.mp4" || fail "the clip differs from export-mp4's: $(frames_keys_duration "$BODY")"
for q in 'to=2024-06-14T11:00:29&speed=4' 'to=2024-06-14T11:00:03&speed=0.5'; do
    t=$(curl -s -o "$BODY" -w '%{time_total}' "$URL/api/play?ch=1&from=2024-06-14T11:00:00&$q")
    case $q in
    *speed=4) awk -v t="$t" 'BEGIN { exit !(t >= 4 && t < 6.5) }' || fail "30 s at 4x took $t s" ;;
    *) awk -v t="$t" 'BEGIN { exit !(t >= 4.5 && t < 7) }' || fail "4 s at 0.5x took $t s" ;;
    esac
done
refused_with 400 '/api/play?ch=1&from=1718362800&speed=32'
refused_with 400 '/api/clip?ch=1&from=1718362800'

# Refused: nothing to play, bad parameters, paths that are not routes.
refused_with 404 '/api/play?ch=7&from=2024-06-14T11:00:00'            # synthetic frames
refused_with 404 '/api/play?ch=1&from=2024-06-15T00:00:00&to=2024-06-15T00:00:10'
for q in 'ch=0&from=1718362800' 'ch=17&from=1718362800' 'ch=x&from=1718362800' 'from=1718362800' \
    'ch=1' 'ch=1&from=teatime' 'ch=1&ch=2&from=1718362800' 'ch=1&from=1718362800&dir=up' \
    'ch=1&from=1718362800&to=1718362700' 'ch=1&from=1718362800&keys=0' \
    'ch=1&from=1718362800&root=/etc' 'ch=1%00&from=1718362800'; do
    refused_with 400 "/api/play?$q"
done
refused_with 400 '/api/spans'
refused_with 400 '/api/spans?day=2024-13-45'
refused_with 400 '/api/events?from=1718362800&limit=0'
refused_with 400 '/api/days?day=../../etc'
for p in /date.db /20240614/event.db /../date.db /%2e%2e/%2e%2e/etc/passwd /api/../date.db \
    '/api/play/../../date.db' /app.js/../../date.db '//etc/passwd'; do
    get "$p"
    [ "$CODE" -ge 400 ] && [ "$CODE" -lt 500 ] || fail "GET $p: $CODE"
    grep -q 'SQLite\|root:' "$BODY" && fail "GET $p served a file"
done
get /api/days -X POST
[ "$CODE" != 200 ] || fail "POST /api/days was answered 200"
# Another site may not use the API: not by a name of its own for this
# address, nor from its scripts or media elements; the names of the listen
# address are taken.
PORT=${URL##*:}
for h in "attacker.example:$PORT" "127.0.0.1:1" "localhost"; do
    refused_with 403 /api/days -H "Host: $h"
done
refused_with 403 /api/days -H "Origin: http://attacker.example"
refused_with 403 /api/days -H "Origin: http://127.0.0.1:$PORT.attacker.example"
refused_with 403 '/api/play?ch=1&from=2024-06-14T11:00:00' -H 'Sec-Fetch-Site: cross-site'
expect 200 /api/days -H "Host: localhost:$PORT" -H "Origin: http://localhost:$PORT"
expect 200 /api/days -H 'Sec-Fetch-Site: same-origin'
expect 200 / -H 'Sec-Fetch-Site: cross-site' # the page itself may be linked to

# Two streams at once (the bound here): a third is refused with 503; once a
# reader leaves, its place is free again.
follow=()
for ch in 1 2; do
    curl -s --max-time 60 -o /dev/null "$URL/api/play?ch=$ch&from=2024-06-14T11:00:00" &
    follow+=($!)
done
# (the two readers may take a while to connect on a loaded machine)
for _ in $(seq 250); do
    get '/api/locate?ch=3&from=2024-06-14T11:00:00' # the API still answers
    get '/api/play?ch=3&from=2024-06-14T11:00:00&to=2024-06-14T11:00:00'
    [ "$CODE" = 503 ] && break
    sleep 0.1
done
[ "$CODE" = 503 ] && grep -q '"error":"all 2 streams are in use' "$BODY" || fail "a third stream: $CODE $(cat "$BODY")"
kill "${follow[0]}"
for _ in $(seq 50); do
    get '/api/play?ch=3&from=2024-06-14T11:00:00&to=2024-06-14T11:00:00'
    [ "$CODE" = 200 ] && break
    sleep 0.2
done
[ "$CODE" = 200 ] || fail "the place of a reader that left was not given back: $CODE"
kill "${follow[1]}"

# A recorder beside the server: six recordings of the clip on ch 6, each in
# an hour of its own, while the API and the streams are asked meanwhile.
# A server that took the recorder's messages would stall its closes.
(for h in 12 13 14 15 16 17; do
    timeout 20 "$VRIXDB" record-h264 --root "$ROOT" --ch 6 --start "2024-06-14T$h:00:00" "$CLIP" ||
        echo "record $h failed"
done >"$SCRATCH/recorder.out" 2>&1) &
RECORDER=$!
while kill -0 $RECORDER 2>/dev/null; do
    expect 200 '/api/spans?day=2024-06-14'
    expect 200 '/api/play?ch=1&from=2024-06-14T11:00:00&to=2024-06-14T11:00:00'
done
wait $RECORDER
[ "$(grep -c 'recorded 50 access units' "$SCRATCH/recorder.out")" = 6 ] ||
    fail "the recorder beside the server: $(cat "$SCRATCH/recorder.out")"
expect 200 '/api/spans?day=2024-06-14'
grep -q '"ch":6,"spans":\[\[[0-9,]*\],\[1718366400,1718366402,2,0\]' "$BODY" ||
    fail "ch 6 after recording: $(cat "$BODY")"
# Across the six hours, a gap passes as one frame: 300 frames in 12 s.
expect 200 '/api/play?ch=6&from=2024-06-14T12:00:00&to=2024-06-14T17:00:01&keys=1'
[ "$(frames_keys_duration "$BODY")" = "12 12 2.400000" ] || fail "ch 6 keys: $(frames_keys_duration "$BODY")"

kill -TERM $SERVER
for _ in $(seq 50); do kill -0 $SERVER 2>/dev/null || break; sleep 0.1; done
wait $SERVER || fail "serve exited $? on SIGTERM: $(cat "$SCRATCH/serve.err")"

# A store recorded where summer time is kept: a winter day, a summer day and
# the night of the change (2024-03-31, 02:00 CET becomes 03:00 CEST).  Each
# answer carries the offset in force at its own instants, not today's.
export TZ=Europe/Berlin
ZROOT=$SCRATCH/zone
for start in 2024-01-15T11:00:06 2024-03-31T01:59:59 2024-06-14T11:00:06; do
    run record-h264 --root "$ZROOT" --ch 1 --start "$start" "$CLIP"
done
start_serve "$ZROOT"
at() { date -d "$1" +%s; }
expect 200 /api/days
for d in 2024-01-15+01:00,3600 2024-03-31+01:00,3600 2024-06-14+02:00,7200; do
    day=${d:0:10} zone=${d:10:6} off=${d#*,}
    grep -q "\"day\":\"$day\",\"start\":$(at "${day}T00:00:00$zone"),\"offset\":$off}" "$BODY" ||
        fail "$day in days: $(cat "$BODY")"
done
expect 200 '/api/spans?day=2024-03-31'
grep -q "\"end\":$(at 2024-04-01T00:00:00+02:00),\"offsets\":\[\[$(at 2024-03-31T00:00:00+01:00),3600\],\[$(at 2024-03-31T03:00:00+02:00),7200\]\]" "$BODY" ||
    fail "the change in spans: $(cat "$BODY")"
grep -q "\"ch\":1,\"spans\":\[\[$(at 2024-03-31T01:59:59+01:00),[0-9]*,[0-9]*,3600\]\]" "$BODY" ||
    fail "the span across the change: $(cat "$BODY")"
expect 200 '/api/spans?day=2024-06-14'
grep -q "\"offsets\":\[\[$(at 2024-06-14T00:00:00+02:00),7200\]\]" "$BODY" &&
    grep -q "\[$(at 2024-06-14T11:00:06+02:00),[0-9]*,[0-9]*,7200\]" "$BODY" ||
    fail "a summer day: $(cat "$BODY")"
expect 200 '/api/locate?ch=1&from=2024-01-15T11:00:00'
grep -q "\"sec\":$(at 2024-01-15T11:00:06+01:00),\"ms\":0,\"offset\":3600" "$BODY" ||
    fail "locate in winter: $(cat "$BODY")"
echo "serve: ok"
