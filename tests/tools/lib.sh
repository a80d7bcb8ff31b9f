# Shared by the end-to-end tests of the vrixdb program: sourced with the
# program's path in VRIXDB.
set -u

fail() {
    echo "FAIL: $*" >&2
    exit 1
}

# A scratch directory removed when the test ends.
SCRATCH=$(mktemp -d "${TMPDIR:-/tmp}/vrixdb-tool-XXXXXX")
trap 'rm -rf "$SCRATCH"' EXIT

# The library's queues are machine-wide: whatever an earlier run left in them
# would be handed to this one.
clear_queues() {
    local key
    for key in 1220 1221 1222; do ipcrm -Q "$key" 2>/dev/null || true; done
}

# Runs the program; its standard output is in $OUT, standard error in $ERR.
OUT=$SCRATCH/.out
ERR=$SCRATCH/.err
run() {
    "$VRIXDB" "$@" >"$OUT" 2>"$ERR" || fail "vrixdb $* exited $?: $(cat "$ERR")"
}

# The program must refuse the arguments: non-zero exit (in $CODE), a message
# on standard error, and nothing written under $SCRATCH/work.
refused() {
    local before after
    mkdir -p "$SCRATCH/work"
    before=$(cd "$SCRATCH/work" && find . | sort)
    CODE=0
    (cd "$SCRATCH/work" && "$VRIXDB" "$@") >"$OUT" 2>"$ERR" || CODE=$?
    [ "$CODE" != 0 ] || fail "accepted: vrixdb $*"
    [ -s "$ERR" ] || fail "no message for: vrixdb $*"
    after=$(cd "$SCRATCH/work" && find . | sort)
    [ "$before" = "$after" ] || fail "vrixdb $* wrote: $(diff <(echo "$before") <(echo "$after"))"
}

# One value of a query on an index database.
sql() { sqlite3 -readonly "$1" "$2"; }

# Frame lines of `vrixdb play` (comments start with #).
frames() { grep -v '^#' "$OUT"; }

# Whether the program was built with subcommand $1 (export-mp4 and serve are
# left out when their libraries were missing at configure time).
has_subcommand() { "$VRIXDB" --help | grep -q "^  $1 "; }

# Starts `vrixdb serve --root ROOT` on a free local port with the options
# given: its process in $SERVER (killed when the test ends), its address
# (http://127.0.0.1:PORT) in $URL.
start_serve() {
    local root=$1
    shift
    "$VRIXDB" serve --root "$root" --listen 127.0.0.1:0 "$@" >"$SCRATCH/serve.out" \
        2>"$SCRATCH/serve.err" &
    SERVER=$!
    trap 'kill $SERVER 2>/dev/null; rm -rf "$SCRATCH"' EXIT
    for _ in $(seq 100); do
        grep -q http "$SCRATCH/serve.out" && break
        sleep 0.1
    done
    URL=$(grep -o 'http://127.0.0.1:[0-9]*' "$SCRATCH/serve.out") ||
        fail "serve did not start: $(cat "$SCRATCH/serve.err")"
}
