#!/usr/bin/env bash
# A real H.264 stream made by ffmpeg goes into the store and comes back out
# byte for byte, and a span of it plays in a standard decoder.
VRIXDB=$1
. "$(dirname "$0")/lib.sh"
command -v ffmpeg >/dev/null || {
    echo "ffmpeg is not installed: skipped"
    exit 77
}
clear_queues
ROOT=$SCRATCH/store
in=$SCRATCH/in.h264
# 6 s at 25 frames/s, an IDR picture each second, B-frames on.
ffmpeg -v error -f lavfi -i testsrc=size=176x144:rate=25 -t 6 -c:v libx264 -pix_fmt yuv420p \
    -x264-params keyint=25:min-keyint=25:scenecut=0:bframes=2 -f h264 "$in" ||
    { echo "ffmpeg cannot encode H.264 here: skipped"; exit 77; }
decoded() { ffprobe -v error -count_frames -select_streams v:0 -show_entries \
    stream=nb_read_frames -of csv=p=0 "$1"; }

# Two recordings on channel 4 with a gap between them, the first across an
# hour.  (A recording resumed in an hour file that has one starts over at its
# last indexed key frame, so the second goes into an hour of its own.)
run record-h264 --root "$ROOT" --ch 4 --start 2024-06-14T10:59:57 "$in"
grep -q "recorded 150 access units (6 IDR" "$OUT" || fail "record: $(cat "$OUT")"
run record-h264 --root "$ROOT" --ch 4 --start 2024-06-14T12:05:00 --fps 50 "$in"

# The first recording whole: the same bytes.
run export-h264 --root "$ROOT" --ch 4 --from 2024-06-14T10:59:57 --to 2024-06-14T11:00:02 \
    "$SCRATCH/all.h264"
grep -q "exported 150 access units (6 IDR" "$OUT" || fail "export: $(cat "$OUT")"
cmp "$in" "$SCRATCH/all.h264" || fail "the exported stream differs from the recorded one"

# Two seconds from the middle: starts at an IDR and decodes without error.
run export-h264 --root "$ROOT" --ch 4 --from 2024-06-14T10:59:59 --to 2024-06-14T11:00:00 \
    "$SCRATCH/part.h264"
ffmpeg -v error -i "$SCRATCH/part.h264" -f null - 2>"$SCRATCH/decode.err" &&
    [ ! -s "$SCRATCH/decode.err" ] || fail "decoding the span: $(cat "$SCRATCH/decode.err")"
[ "$(decoded "$SCRATCH/part.h264")" = 50 ] || fail "the span decodes to $(decoded "$SCRATCH/part.h264") frames"
# At 50 frames/s the second recording's 6 seconds take 3.
run export-h264 --root "$ROOT" --ch 4 --from 2024-06-14T11:04:00 --to 2024-06-14T12:10:00 \
    "$SCRATCH/second.h264"
grep -q "12:05:00 .. 2024-06-14T12:05:02" "$OUT" || fail "second recording times: $(cat "$OUT")"
cmp "$in" "$SCRATCH/second.h264" || fail "the second recording differs"

# Played back: IDR access units are the key frames, one a second.
run play --root "$ROOT" --ch 4 --from 2024-06-14T10:59:57 --to 2024-06-14T11:00:02
[ "$(frames | grep -c ' key$')" = 6 ] && [ "$(frames | wc -l)" = 150 ] || fail "play: $(cat "$OUT")"
# Nothing recorded in the gap: nothing exported, no file.
refused export-h264 --root "$ROOT" --ch 4 --from 2024-06-14T11:01:00 --to 2024-06-14T11:02:00 \
    "$SCRATCH/work/gap.h264"
echo "h264: ok"
