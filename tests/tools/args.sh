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
# `help` and a bare `vrixdb` list the subcommands (the latter on standard
# error, as wrong arguments).
run help
grep -q "^Subcommands:" "$OUT" && grep -q "^  reduce " "$OUT" || fail "help: $(cat "$OUT")"
refused
grep -q "^  record-h264 " "$ERR" || fail "vrixdb alone: $(cat "$ERR")"
# An unknown subcommand is named, with the list.
refused frobnicate --root x
grep -q "unknown subcommand frobnicate" "$ERR" && grep -q "subcommands: help demo" "$ERR" ||
    fail "unknown subcommand: $(cat "$ERR")"

W=$SCRATCH/work
mkdir -p "$W/foreign" && echo keep >"$W/foreign/file"
printf 'no start codes here' >"$W/not.h264"
long=$W/$(printf 'd%.0s' $(seq 1 100))
T=2024-06-14T11:00:00
E=2024-06-14T10:00:00

# Options of the program, --root among them, before the subcommand.
refused --root "$W/foreign" -q ls
grep -q "no store at $W/foreign" "$ERR" || fail "--root before ls: $(cat "$ERR")"

# What each refusal exits with: "args" (100 and above) for arguments that are
# wrong on their own or together, checked before the store is looked at;
# "fail" (1) for a root that holds no store, input that is not H.264.
while read -r want line; do
    [ -n "$want" ] || continue
    eval "set -- $line"
    refused "$@"
    case $want in
    args) [ "$CODE" -ge 100 ] ;;
    fail) [ "$CODE" = 1 ] ;;
    esac || fail "vrixdb $line exited $CODE, want $want: $(cat "$ERR")"
done <<'TABLE'
args
args frobnicate
args help frobnicate
args -q -v ls --root x
args --root "$W/foreign"
args demo --root "$W/r" --minutes 0
fail demo --root "$W/foreign"
fail demo --root "$long"
args record-h264 --root "$W/r" --ch 17 --start $T "$W/not.h264"
args record-h264 --root "$W/r" --ch 1 --start 2024-13-01T00:00:00 "$W/not.h264"
args record-h264 --root "$W/r" --ch 1 --start $T "$W/missing.h264"
fail record-h264 --root "$W/r" --ch 1 --start $T "$W/not.h264"
args record-h264 --root "$W/r" --ch 1 --start $T --fps 0 "$W/not.h264"
fail export-h264 --root "$W/foreign" --ch 1 --from $T --to $T "$W/out.h264"
args export-h264 --root "$W/foreign" --ch 1 --from $T --to $E "$W/out.h264"
args export-mp4 --root "$W/foreign" --ch 1 --from $T --to $E "$W/out.mp4"
args export-mp4 --root "$W/foreign" --ch 1 --from $E --to $T "$W/out.mkv"
fail ls --root "$W/foreign"
args ls --root "$W/foreign" --day 20241301
fail play --root "$W/foreign" --ch 1 --from $T
args play --root "$W/foreign" --ch 1 --from $T --to $E
args play --root "$W/foreign" --ch 1 --from $E --to $T --reverse
args play --root "$W/foreign" --ch 0 --from $T
args play --root "$W/foreign" --ch 1 --from $T --iframes 0
args play --root "$W/foreign" --ch 1 --from tomorrow
fail events --root "$W/foreign" --from $T
args events --root "$W/foreign" --from $T --ch 65
args events --root "$W/foreign" --from $T --type fire
args events --root "$W/foreign" --from $T --page 0
fail timeline --root "$W/foreign" --day 20240614 --out "$W/t.svg"
args timeline --root "$W/foreign" --day 2024-6-14 --out "$W/t.svg"
fail size --root "$W/foreign" --ch 1 --from $T --to $T
args size --root "$W/foreign" --ch 1 --from $T --to $E
args size --root "$W/foreign" --ch 5 --audio --from $T --to $T
fail range --root "$W/foreign" --ch 1 --at $T
args range --root "$W/foreign" --ch 5 --audio --at $T
args range --root "$W/foreign" --ch 1 --at 0
fail reduce --root "$W/foreign"
args reduce --root "$W/foreign" --keep-free lots
fail backup --root "$W/foreign" --day 20240614
fail repair --root "$W/foreign"
TABLE
[ "$(cat "$W/foreign/file")" = keep ] || fail "the foreign directory was touched"
echo "args: ok"
