#!/usr/bin/env bash
# The program and its demo use the library only through the public headers:
# no header of the library's inside, no SQL of their own on the store, and no
# path of the store built by hand (the catalogue's vrix_cat_path names them).
TOOLS=$1
cd "$TOOLS" || exit 1
status=0
bad() {
    echo "FAIL: $*" >&2
    status=1
}
sources=$(find . -name '*.cpp' -o -name '*.h')

# Quoted includes: the public headers, the program's own files, and the
# headers the build generates (the embedded page and clip).
while IFS=: read -r file _ line; do
    name=$(sed -n 's/^#include "\(.*\)".*/\1/p' <<<"$line")
    case $name in
    vrixdb.h | vrixhdd.h | serve_assets.h | demo_clip.h) continue ;;
    */../* | ../*) bad "$file includes $name from outside tools/" ;;
    esac
    [ -f "$(dirname "$file")/$name" ] || [ -f "./$name" ] || bad "$file includes $name, not a file of tools/"
done < <(grep -n '^#include "' $sources)

# No database access of their own, nor the store's layout.
grep -nE 'sqlite3\.h|sqlite3_|sql_(open|submit|close) *\(' $sources && bad "the store's databases opened in tools/"
grep -nE '"[^"]*(/date\.db|/event\.db|/video\.db|/audio\.db|\.stream|/video/|/audio/)' $sources &&
    bad "a path of the store built in tools/"
grep -niE '"(select|insert|delete|update|create) ' $sources && bad "SQL in tools/"
grep -nE '\b(h_all|ch%d|h%d)\b' $sources && bad "a table of the store named in tools/"
[ $status = 0 ] && echo "layering: ok"
exit $status
