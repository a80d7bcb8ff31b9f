#!/usr/bin/env bash
# Set-up and build entry points for a fresh Debian machine.
#   ./dev.sh demo    install what is missing, build, run the demo
#   ./dev.sh test    install what is missing, build, run the tests
#   ./dev.sh asan    the tests built with AddressSanitizer + UBSan
#   ./dev.sh tsan    the concurrency tests built with ThreadSanitizer and checked lock rules
#   ./dev.sh fuzz    the libFuzzer targets (clang), a few seconds each
#   ./dev.sh release the library, the program and the benchmarks built in Release
#   ./dev.sh bench   build in Release and run the benchmarks
set -euo pipefail
cd "$(dirname "$0")"

packages=(cmake make g++ gcc binutils pkg-config libsqlite3-dev sqlite3 libgtest-dev
  libcli11-dev nlohmann-json3-dev libxml2-utils tzdata clang libclang-rt-14-dev
  libavformat-dev libavcodec-dev libcpp-httplib-dev ffmpeg curl chromium fuse3 libfuse3-dev)
# The browser test's driver comes from npm; a node installed otherwise will do.
command -v npm >/dev/null || packages+=(nodejs npm)

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
# The developers' builds stop on any warning; ccache is used when installed.
build() {
  local dir=$1 configure=(-DVRIX_WERROR=ON) targets=()
  shift
  command -v ccache >/dev/null &&
    configure+=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
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
  build build-tsan -DVRIX_SANITIZE=thread -DVRIX_DEBUG_LOCKS=ON -DVRIX_BENCH=OFF -- concurrency_tests
  ctest --test-dir build-tsan --output-on-failure -j"$jobs" -L concurrency
  ;;
fuzz)
  deps
  build build-fuzz -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DVRIX_BENCH=OFF \
    -- fuzz_targets
  ctest --test-dir build-fuzz -L fuzz --output-on-failure
  ;;
release)
  deps
  # What ships, built as it ships: the library, the program and the
  # benchmarks in Release (the tests run in `test` and `asan`).
  build build-release -DCMAKE_BUILD_TYPE=Release -DVRIX_TESTS=OFF -DVRIX_BENCH=ON
  ;;
bench)
  deps
  build build-release -DCMAKE_BUILD_TYPE=Release -DVRIX_TESTS=OFF -DVRIX_BENCH=ON
  for b in build-release/bench/bench_*; do [ -x "$b" ] && "$b"; done
  ;;
*)
  sed -n '2,9p' "$0"
  exit 2
  ;;
esac
