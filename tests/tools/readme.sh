#!/usr/bin/env bash
# The README's examples of the reading subcommands, as printed, on the demo's
# store; and the library's traces reach standard error only with -v.
VRIXDB=$1
STORE=$2
README=$3
. "$(dirname "$0")/lib.sh"
clear_queues
cd "$SCRATCH" || fail "no scratch directory"
n=0
while read -r line; do
    # Optional parts, comments and what a pipe feeds are left out.
    cmd=$(sed -e 's/ *#.*//' -e 's/ *|.*//' -e 's/ \[[^]]*\]//g' <<<"$line")
    set -- ${cmd#vrixdb }
    case $1 in
    export-h264 | export-mp4 | ls | play | events | timeline | size | range) ;;
    *) continue ;;
    esac
    args=()
    for a; do [ "$a" = R ] && args+=("$STORE") || args+=("$a"); done
    "$VRIXDB" "${args[@]}" >"$OUT" 2>"$ERR" || fail "README's '$line' exited $?: $(cat "$ERR")"
    [ -s "$OUT" ] || [ "$1" = export-h264 ] || fail "README's '$line' printed nothing"
    n=$((n + 1))
done < <(grep -E '^    vrixdb [a-z0-9-]+ --root R' "$README")
[ "$n" -ge 8 ] || fail "only $n examples found in $README"

# The day a relative time was read as is named when it finds nothing.
"$VRIXDB" export-mp4 --root "$STORE" --ch 1 --from 00:00 --to 00:01 x.mp4 >"$OUT" 2>"$ERR" &&
    fail "export-mp4 of today found something"
grep -q "from $(date +%Y-%m-%d)T00:00:00 to $(date +%Y-%m-%d)T00:01:00" "$ERR" ||
    fail "the message names no day: $(cat "$ERR")"

# The library's traces: only with -v.
run size --root "$STORE" --ch 7 --from 2024-06-14T10:59 --to 2024-06-14T11:00
[ ! -s "$ERR" ] || fail "size said without -v: $(cat "$ERR")"
run -v size --root "$STORE" --ch 7 --from 2024-06-14T10:59 --to 2024-06-14T11:00
grep -q "enter vrix_db_get_video_total_size" "$ERR" || fail "size -v: $(cat "$ERR")"
echo "readme: $n examples ok"
