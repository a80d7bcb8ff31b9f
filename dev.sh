#!/usr/bin/env bash
# Set-up and build entry points for a fresh Debian machine.
#   ./dev.sh demo    install what is missing, build, run the demo
#   ./dev.sh test    install what is missing, build, run the tests
#   ./dev.sh asan    the tests built with AddressSanitizer + UBSan
#   ./dev.sh tsan    the concurrency tests built with ThreadSanitizer and checked lock rules
#   ./dev.sh fuzz    the libFuzzer targets (clang), a few seconds each
#   ./dev.sh bench   build and run the benchmarks
set -euo pipefail
cd "$(dirname "$0")"

packages=(cmake make g++ gcc binutils pkg-config libsqlite3-dev sqlite3 libgtest-dev
  libbenchmark-dev libcli11-dev libxml2-utils tzdata clang libclang-rt-14-dev)

deps() {
  local missing=() p
  for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return
  echo "installing: ${missing[*]}"
  local sudo=""
  [ "$(id -u)" -eq 0 ] || sudo=sudo
  $sudo apt-get update
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y --no-install-recommends "${missing[@]}"
}

# build DIR [cmake options...] [-- build targets...]
build() {
  local dir=$1 configure=() targets=()
  shift
  while [ $# -gt 0 ] && [ "$1" != "--" ]; do configure+=("$1"); shift; done
  [ $# -gt 0 ] && shift && targets=(--target "$@")
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "${configure[@]}" >/dev/null
  cmake --build "$dir" -j"$(nproc)" "${targets[@]}"
}

jobs=$(nproc)
case "${1:-}" in
demo)
  deps
  build build -- vrixdb_tool
  ./build/tools/vrixdb demo --root "${2:-$PWD/demo-root}"
  ;;
test)
  deps
  build build
  ctest --test-dir build --output-on-failure -j"$jobs"
  ;;
asan)
  deps
  build build-asan -DVRIX_SANITIZE=address,undefined -DVRIX_BENCH=OFF
  ASAN_OPTIONS=detect_leaks=1 ctest --test-dir build-asan --output-on-failure -j"$jobs"
  ;;
tsan)
  deps
  build build-tsan -DVRIX_SANITIZE=thread -DVRIX_DEBUG_LOCKS=ON -DVRIX_BENCH=OFF
  ctest --test-dir build-tsan --output-on-failure -j"$jobs" -L concurrency
  ;;
fuzz)
  deps
  cmake -S . -B build-fuzz -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
    -DVRIX_BENCH=OFF >/dev/null
  cmake --build build-fuzz -j"$(nproc)" --target fuzz_targets
  ctest --test-dir build-fuzz -L fuzz --output-on-failure
  ;;
bench)
  deps
  build build -DCMAKE_BUILD_TYPE=Release
  for b in build/bench/bench_*; do [ -x "$b" ] && "$b"; done
  ;;
*)
  sed -n '2,9p' "$0"
  exit 2
  ;;
esac
