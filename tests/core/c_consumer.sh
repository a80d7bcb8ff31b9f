#!/usr/bin/env bash
# Installs the libraries (and the program, when built) into a scratch prefix,
# moves the prefix, and runs from there, with LD_LIBRARY_PATH unset:
#   - the program, which finds the libraries through its run path;
#   - a C99 application built with pkg-config;
#   - a C99 application built with find_package(VrixDB) that calls libvrixdb
#     alone, so only libvrixdb is recorded and it must find libvrixhdd itself.
# The applications link with --as-needed, as Debian's packages do.
# The version the header and the library give is the packages' (CMake's) version.
set -euo pipefail
build=$1 source=$2 cmake_project=$3 with_program=${4:-0}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
unset LD_LIBRARY_PATH
cmake --install "$build" --prefix "$work/installed" >/dev/null
mv "$work/installed" "$work/usr" # nothing may point back to where it was installed
prefix=$(cd "$work/usr" && pwd -P)
libdir=$(dirname "$(dirname "$(find "$prefix" -name vrixdb.pc)")")
export PKG_CONFIG_PATH=$libdir/pkgconfig

# Every vrix library the executable loads comes from the prefix, none from the
# build tree or the system.
loads_from_prefix() {
  local loaded
  loaded=$(ldd "$1" | grep 'libvrix' || true)
  if ! grep -q 'libvrixdb' <<<"$loaded" || grep -v "=> $prefix/" <<<"$loaded"; then
    echo "$1: libraries not loaded from $prefix:"
    echo "$loaded"
    exit 1
  fi
}
free_queues() { for q in 1220 1221 1222; do ipcrm -Q $q 2>/dev/null || true; done; }

if [ "$with_program" = 1 ]; then
  loads_from_prefix "$prefix/bin/vrixdb"
  "$prefix/bin/vrixdb" --help >/dev/null
fi

free_queues
gcc -std=c99 -Wall -Wextra -Werror -pedantic $(pkg-config --cflags vrixdb) "$source" \
  -o "$work/consumer" -Wl,--as-needed $(pkg-config --libs vrixdb) \
  -Wl,-rpath,"$(pkg-config --variable=libdir vrixdb)" ${CONSUMER_LDFLAGS:-}
loads_from_prefix "$work/consumer"
version=$(pkg-config --modversion vrixdb)
"$work/consumer" | tee "$work/out"
grep -qx "consumer ok $version" "$work/out" || { echo "header or library version is not $version"; exit 1; }

free_queues
cmake -S "$cmake_project" -B "$work/cm" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCONSUMER_SOURCE="$source" -DCMAKE_C_FLAGS="-std=c99 -Wall -Werror -DVRIXDB_ONLY ${CONSUMER_LDFLAGS:-}" \
  -DCMAKE_EXE_LINKER_FLAGS="-Wl,--as-needed" >/dev/null
cmake --build "$work/cm" >/dev/null
if readelf -d "$work/cm/consumer" | grep -q 'NEEDED.*libvrixhdd'; then
  echo "the libvrixdb-only application records libvrixhdd: the check below proves nothing"
  exit 1
fi
loads_from_prefix "$work/cm/consumer"
"$work/cm/consumer"
