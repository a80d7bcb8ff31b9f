#!/usr/bin/env bash
# Every subcommand has help, and refuses bad arguments with a message, a
# non-zero exit and nothing written.
VRIXDB=$1
. "$(dirname "$0")/lib.sh"

subcommands="help demo record-h264 export-h264 ls play events timeline size range reduce backup repair"
run --help
for sub in $subcommands; do
    grep -q "^  $sub" "$OUT" || fail "--help does not list $sub"
done
for sub in ${subcommands#help }; do
    run "$sub" --help
    grep -q -- "--root" "$OUT" || fail "$sub --help shows no --root"
    run help "$sub"
    grep -q -- "--root" "$OUT" || fail "help $sub shows no --root"
done
run --version
grep -qx "vrixdb [0-9]*\.[0-9]*\.[0-9]*" "$OUT" || fail "--version says: $(cat "$OUT")"
# An unknown subcommand is named, with the list.
refused frobnicate --root x
grep -q "unknown subcommand frobnicate" "$ERR" && grep -q "subcommands: help demo" "$ERR" ||
    fail "unknown subcommand: $(cat "$ERR")"
refused help frobnicate
refused -q -v ls --root x

W=$SCRATCH/work
mkdir -p "$W/foreign" && echo keep >"$W/foreign/file"
printf 'no start codes here' >"$W/not.h264"
long=$W/$(printf 'd%.0s' $(seq 1 100))
T=2024-06-14T11:00:00

refused
refused frobnicate
# The demo: nonsense minutes, a directory of something else, a root too long.
refused demo --root "$W/r" --minutes 0
refused demo --root "$W/foreign"
refused demo --root "$long"
# Recording: channel, time, missing or non-H.264 input.
refused record-h264 --root "$W/r" --ch 17 --start $T "$W/not.h264"
refused record-h264 --root "$W/r" --ch 1 --start 2024-13-01T00:00:00 "$W/not.h264"
refused record-h264 --root "$W/r" --ch 1 --start $T "$W/missing.h264"
refused record-h264 --root "$W/r" --ch 1 --start $T "$W/not.h264"
refused record-h264 --root "$W/r" --ch 1 --start $T --fps 0 "$W/not.h264"
# Reading commands on a root that holds no store write nothing into it.
refused export-h264 --root "$W/foreign" --ch 1 --from $T --to $T "$W/out.h264"
refused export-h264 --root "$W/foreign" --ch 1 --from $T --to 2024-06-14T10:00:00 "$W/out.h264"
refused ls --root "$W/foreign"
refused ls --root "$W/foreign" --day 20241301
refused play --root "$W/foreign" --ch 1 --from $T
refused play --root "$W/foreign" --ch 0 --from $T
refused play --root "$W/foreign" --ch 1 --from $T --iframes 0
refused play --root "$W/foreign" --ch 1 --from tomorrow
refused events --root "$W/foreign" --from $T
refused events --root "$W/foreign" --from $T --ch 65
refused events --root "$W/foreign" --from $T --type fire
refused events --root "$W/foreign" --from $T --page 0
refused timeline --root "$W/foreign" --day 20240614 --out "$W/t.svg"
refused timeline --root "$W/foreign" --day 2024-6-14 --out "$W/t.svg"
refused size --root "$W/foreign" --ch 1 --from $T --to $T
refused size --root "$W/foreign" --ch 5 --audio --from $T --to $T
refused range --root "$W/foreign" --ch 1 --at $T
refused range --root "$W/foreign" --ch 1 --at 0
refused reduce --root "$W/foreign"
refused backup --root "$W/foreign" --day 20240614
refused repair --root "$W/foreign"
[ "$(cat "$W/foreign/file")" = keep ] || fail "the foreign directory was touched"
echo "args: ok"
