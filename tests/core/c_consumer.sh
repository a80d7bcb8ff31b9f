#!/usr/bin/env bash
# Installs the library into a scratch prefix and builds a C99 application
# against it twice: with pkg-config and with find_package(VrixDB).  The
# version the header and the library give is the packages' (CMake's) version.
set -euo pipefail
build=$1 source=$2 cmake_project=$3
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
cmake --install "$build" --prefix "$prefix/usr" >/dev/null
libdir=$(dirname "$(find "$prefix" -name vrixdb.pc)")/..
export PKG_CONFIG_PATH=$libdir/pkgconfig
for q in 1220 1221 1222; do ipcrm -Q $q 2>/dev/null || true; done

gcc -std=c99 -Wall -Wextra -Werror -pedantic $(pkg-config --cflags vrixdb) "$source" \
  -o "$prefix/consumer" $(pkg-config --libs vrixdb) ${CONSUMER_LDFLAGS:-}
version=$(pkg-config --modversion vrixdb)
LD_LIBRARY_PATH=$libdir "$prefix/consumer" | tee "$prefix/out"
grep -qx "consumer ok $version" "$prefix/out" || { echo "header or library version is not $version"; exit 1; }

for q in 1220 1221 1222; do ipcrm -Q $q 2>/dev/null || true; done
cmake -S "$cmake_project" -B "$prefix/cm" -DCMAKE_PREFIX_PATH="$prefix/usr" \
  -DCONSUMER_SOURCE="$source" -DCMAKE_C_FLAGS="-std=c99 -Wall -Werror ${CONSUMER_LDFLAGS:-}" >/dev/null
cmake --build "$prefix/cm" >/dev/null
LD_LIBRARY_PATH=$libdir "$prefix/cm/consumer"
