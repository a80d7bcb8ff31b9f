#!/usr/bin/env bash
# The timeline is well-formed SVG whose spans are those of the key-frame
# index: a span breaks where key frames lie more than --gap seconds apart.
VRIXDB=$1
ROOT=$2
. "$(dirname "$0")/lib.sh"
svg=$SCRATCH/day.svg

for gap in 10 30; do
    run timeline --root "$ROOT" --day 20240614 --out "$svg" --gap $gap
    if command -v xmllint >/dev/null; then
        xmllint --noout "$svg" || fail "not well-formed XML"
    else
        head -c 5 "$svg" | grep -q '^<?xml' && tail -n 1 "$svg" | grep -q '^</svg>$' ||
            fail "not an SVG document"
        [ "$(grep -o '<g[ >]' "$svg" | wc -l)" = "$(grep -o '</g>' "$svg" | wc -l)" ] ||
            fail "unbalanced groups"
    fi
    for ch in $(seq 1 16); do
        db=$ROOT/20240614/video/$ch/video.db
        keys=$(sql "$db" "select group_concat('select sec from h' || hour, ' union all ') from H;")
        want=$(sql "$db" "
            with k as ($keys), g as (select sec, sec - lag(sec) over (order by sec) as d,
                                            lead(sec) over (order by sec) as nxt from k)
            select s.sec || '-' || (select min(e.sec) + 1 from g e
                                    where e.sec >= s.sec and (e.nxt is null or e.nxt - e.sec > $gap))
            from g s where s.d is null or s.d > $gap order by s.sec;")
        got=$(grep -o "class=\"span\" data-ch=\"$ch\" data-start=\"[0-9]*\" data-end=\"[0-9]*\"" "$svg" |
            sed 's/.*data-start="\([0-9]*\)" data-end="\([0-9]*\)"/\1-\2/')
        [ "$got" = "$want" ] || fail "gap $gap, ch $ch: spans $got, the index has $want"
    done
    # The channels that record on motion have gaps of 20 s.
    [ $gap = 30 ] || [ "$(grep -c 'class="span"' "$svg")" -gt 16 ] || fail "no gaps drawn"
done
# Event marks, one per event of the day in the drawn window.
[ "$(grep -c 'class="event"' "$svg")" = "$(sql "$ROOT/20240614/event.db" "select count(*) from h_all;")" ] ||
    fail "event marks"

# A directory that does not exist gets no file and the command fails.
refused timeline --root "$ROOT" --day 20240614 --out "$SCRATCH/work/none/day.svg"
echo "timeline: ok"
