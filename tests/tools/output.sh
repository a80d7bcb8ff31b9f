#!/usr/bin/env bash
# export-h264 and timeline outputs: a regular file is replaced whole, a FIFO
# or a link is written through in place, "-" is standard output; and a span of
# one second exports that second.
VRIXDB=$1
. "$(dirname "$0")/lib.sh"
clear_queues
ROOT=$SCRATCH/store
in=$SCRATCH/in.h264
# 3 s at 25 access units a second, an IDR picture first in each second; each
# unit is 12 bytes and tells its second and number.
for s in 1 2 3; do
    for f in $(seq 1 25); do
        [ "$f" = 1 ] && nal='\x65' || nal='\x41'
        printf "\x00\x00\x00\x01$nal\x88\x84\x21\x55\x66\x$(printf %02x "$s")\x$(printf %02x "$f")"
    done
done >"$in"
second() { tail -c +$(($1 * 300 + 1)) "$in" | head -c 300; }
run record-h264 --root "$ROOT" --ch 2 --start 2024-06-14T13:00:00 "$in"

# One second, --from and --to the same: its 25 access units.
export_second() { "$VRIXDB" export-h264 --root "$ROOT" --ch 2 --from 2024-06-14T13:00:01 \
    --to 2024-06-14T13:00:01 "$@"; }
export_second "$SCRATCH/one.h264" >"$OUT" 2>"$ERR" || fail "one second: $(cat "$ERR")"
cmp <(second 1) "$SCRATCH/one.h264" || fail "one second exported: $(cat "$OUT")"

# A regular file is replaced; nothing is left beside it.
echo old >"$SCRATCH/file.h264"
export_second "$SCRATCH/file.h264" >"$OUT" 2>"$ERR" || fail "file: $(cat "$ERR")"
cmp <(second 1) "$SCRATCH/file.h264" && [ ! -e "$SCRATCH/file.h264.part" ] || fail "file replaced"

# A link stays a link; its target gets the stream, also when it was longer.
head -c 1000 /dev/zero >"$SCRATCH/target.h264"
ln -s target.h264 "$SCRATCH/link.h264"
export_second "$SCRATCH/link.h264" >"$OUT" 2>"$ERR" || fail "link: $(cat "$ERR")"
[ -L "$SCRATCH/link.h264" ] || fail "the link was replaced"
cmp <(second 1) "$SCRATCH/target.h264" || fail "the link's target"

# A FIFO stays a FIFO; its reader gets the stream.
mkfifo "$SCRATCH/fifo"
cat "$SCRATCH/fifo" >"$SCRATCH/read.h264" &
reader=$!
export_second "$SCRATCH/fifo" >"$OUT" 2>"$ERR" || fail "fifo: $(cat "$ERR")"
wait "$reader"
[ -p "$SCRATCH/fifo" ] || fail "the FIFO was replaced"
cmp <(second 1) "$SCRATCH/read.h264" || fail "through the FIFO"

# "-": the stream alone on standard output, the report on standard error.
export_second - >"$SCRATCH/stdout.h264" 2>"$ERR" || fail "-: $(cat "$ERR")"
cmp <(second 1) "$SCRATCH/stdout.h264" || fail "standard output carries more than the stream"
grep -q "^exported 25 access units .* to standard output" "$ERR" || fail "-: $(cat "$ERR")"
# A name of standard output itself is written like "-".
export_second /dev/fd/1 >"$SCRATCH/fd1.h264" 2>"$ERR" || fail "/dev/fd/1: $(cat "$ERR")"
cmp <(second 1) "$SCRATCH/fd1.h264" || fail "/dev/fd/1 carries more than the stream"
"$VRIXDB" timeline --root "$ROOT" --day 20240614 --out - >"$SCRATCH/stdout.svg" 2>"$ERR" ||
    fail "timeline to -: $(cat "$ERR")"
head -c 5 "$SCRATCH/stdout.svg" | grep -q '^<?xml' && tail -n 1 "$SCRATCH/stdout.svg" | grep -q '^</svg>$' ||
    fail "timeline to -: not just the SVG"

refused export-h264 --root "$ROOT" --ch 2 --from 2024-06-14T13:00:01 --to 2024-06-14T13:00:01 \
    "$SCRATCH/work"
echo "output: ok"
