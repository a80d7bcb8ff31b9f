#!/usr/bin/env bash
# export-mp4: stored H.264 comes out as an MP4 that ffprobe and ffmpeg read
# with the frames' recorded times, from a key frame, plain into a file and
# fragmented into a pipe.
VRIXDB=$1
CLIP=$2 # 2 s at 25 frames/s, 320x180, an IDR picture each second
. "$(dirname "$0")/lib.sh"
command -v ffprobe >/dev/null || {
    echo "ffprobe is not installed: skipped"
    exit 77
}
has_subcommand export-mp4 || {
    echo "vrixdb was built without export-mp4: skipped"
    exit 77
}
clear_queues
ROOT=$SCRATCH/store

# "frames key-frames duration" of an MP4, and whether it decodes cleanly.
probe() {
    local frames keys duration
    frames=$(ffprobe -v error -count_frames -select_streams v:0 \
        -show_entries stream=nb_read_frames -of csv=p=0 "$1")
    keys=$(ffprobe -v error -select_streams v:0 -show_entries packet=flags -of csv=p=0 "$1" |
        grep -c K)
    duration=$(ffprobe -v error -show_entries format=duration -of csv=p=0 "$1")
    echo "$frames $keys $duration"
}
decodes() {
    ffmpeg -v error -i "$1" -f null - 2>"$SCRATCH/decode.err" && [ ! -s "$SCRATCH/decode.err" ] ||
        fail "$1 does not decode cleanly: $(cat "$SCRATCH/decode.err")"
}
# Presentation time of packet N (from 1).
pts() { ffprobe -v error -show_entries packet=pts_time -of csv=p=0 "$1" | sed -n "$2p"; }

# Across an hour: 10:59:59 .. 11:00:00, and again at 50 frames/s an hour later.
run record-h264 --root "$ROOT" --ch 4 --start 2024-06-14T10:59:59 "$CLIP"
run record-h264 --root "$ROOT" --ch 4 --start 2024-06-14T12:05:00 --fps 50 "$CLIP"

run export-mp4 --root "$ROOT" --ch 4 --from 2024-06-14T10:59:59 --to 2024-06-14T11:00:00 \
    "$SCRATCH/all.mp4"
grep -q "exported 50 frames (2 key" "$OUT" || fail "export: $(cat "$OUT")"
[ "$(probe "$SCRATCH/all.mp4")" = "50 2 2.000000" ] || fail "all.mp4: $(probe "$SCRATCH/all.mp4")"
[ "$(pts "$SCRATCH/all.mp4" 26)" = 1.000000 ] || fail "frame 26 at $(pts "$SCRATCH/all.mp4" 26)"
decodes "$SCRATCH/all.mp4"
# A plain MP4: its index sits after the media.
grep -q moof "$SCRATCH/all.mp4" && fail "all.mp4 is fragmented"

# From the middle of a second: the first key frame at or after it.
run export-mp4 --root "$ROOT" --ch 4 --from 2024-06-14T11:00:00 --to 2024-06-14T11:00:00 \
    "$SCRATCH/second.mp4"
[ "$(probe "$SCRATCH/second.mp4")" = "25 1 1.000000" ] || fail "second.mp4: $(probe "$SCRATCH/second.mp4")"

# At 50 frames/s the same 50 frames last one second; into a pipe the MP4 is
# fragmented and still complete.
"$VRIXDB" export-mp4 --root "$ROOT" --ch 4 --from 2024-06-14T12:00:00 --to 2024-06-14T12:10:00 - \
    2>"$ERR" | cat >"$SCRATCH/fast.mp4" || fail "export to a pipe: $(cat "$ERR")"
grep -q moof "$SCRATCH/fast.mp4" || fail "fast.mp4 is not fragmented"
[ "$(probe "$SCRATCH/fast.mp4")" = "50 2 1.000000" ] || fail "fast.mp4: $(probe "$SCRATCH/fast.mp4")"
[ "$(pts "$SCRATCH/fast.mp4" 2)" = 0.020000 ] || fail "frame 2 at $(pts "$SCRATCH/fast.mp4" 2)"
decodes "$SCRATCH/fast.mp4"

# Nothing recorded: refused, no file.
refused export-mp4 --root "$ROOT" --ch 4 --from 2024-06-14T11:01:00 --to 2024-06-14T11:02:00 \
    "$SCRATCH/work/gap.mp4"
refused export-mp4 --root "$ROOT" --ch 5 --from 2024-06-14T10:00:00 --to 2024-06-14T12:00:00 \
    "$SCRATCH/work/none.mp4"
# A full disk is named as such; another container by its name is refused.
refused export-mp4 --root "$ROOT" --ch 4 --from 2024-06-14T10:59:59 --to 2024-06-14T11:00:00 /dev/full
grep -q "writing /dev/full failed: No space left on device" "$ERR" || fail "/dev/full: $(cat "$ERR")"
refused export-mp4 --root "$ROOT" --ch 4 --from 2024-06-14T10:59:59 --to 2024-06-14T11:00:00 \
    "$SCRATCH/work/out.mkv"
[ "$CODE" -ge 100 ] && grep -q "only MP4" "$ERR" || fail "out.mkv: $CODE $(cat "$ERR")"
echo "mp4: ok"
