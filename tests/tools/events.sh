#!/usr/bin/env bash
# events pages through exactly the rows of event.db that the filter selects,
# both ways and in both walking modes.
VRIXDB=$1
ROOT=$2
. "$(dirname "$0")/lib.sh"
clear_queues
db=$ROOT/20240614/event.db
from=$(sql "$db" "select min(sec) from h_all;")
at() { date -u -d "@$1" +%Y-%m-%dT%H:%M:%S; }
names() { sed 's/^1|/manual|/; s/^2|/motion|/; s/^4|/alarm|/'; }

want=$(sql "$db" "select type, sec, ch from h_all where ch between 2 and 9 and type in (2, 4) order by id;" | names)
n=$(echo "$want" | wc -l)
[ "$n" -gt 7 ] || fail "the demo store holds too few events ($n) for paging"
listed() { frames | awk '{print $4 "|" $1 "|" $3}' | while IFS='|' read -r type t ch; do
    echo "$type|$(date -u -d "$t" +%s)|$ch"; done; }

for exact in "" --exact; do
    run events --root "$ROOT" --from "$(at "$from")" --ch 2-9 --type motion,alarm --page 7 $exact
    [ "$(listed)" = "$want" ] || fail "forward $exact: $(cat "$OUT")"
    pages=$(grep -c '^# page' "$OUT")
    [ "$pages" = $(((n + 6) / 7)) ] || fail "$n events in $pages pages of 7"
    grep '^# page' "$OUT" | head -n -1 | grep -vq ': 7 events' && fail "a short page before the last"

    run events --root "$ROOT" --from "$(at $((from + 3600)))" --ch 2-9 --type 2,4 --page 7 --reverse $exact
    [ "$(listed | tac)" = "$want" ] || fail "backward $exact: $(cat "$OUT")"
done

# --pages stops early; all channels and types list every row.
run events --root "$ROOT" --from "$(at "$from")" --page 5 --pages 2
[ "$(frames | wc -l)" = 10 ] || fail "--pages 2: $(cat "$OUT")"
run events --root "$ROOT" --from "$(at "$from")" --page 1000
[ "$(frames | wc -l)" = "$(sql "$db" "select count(*) from h_all;")" ] || fail "unfiltered count"
echo "events: ok"
