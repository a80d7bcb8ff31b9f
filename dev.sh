#!/usr/bin/env bash
# Set-up and build entry points for a fresh Debian machine.
#   ./dev.sh demo    install what is missing, build, run the demo
#   ./dev.sh test    install what is missing, build, run the tests
#   ./dev.sh asan    the tests built with AddressSanitizer + UBSan
#   ./dev.sh tsan    the concurrency tests built with ThreadSanitizer and checked lock rules
#   ./dev.sh fuzz    the libFuzzer targets (clang), a few seconds each
#   ./dev.sh release the library, the program and the benchmarks built in Release
#   ./dev.sh bench   build in Release and run the benchmarks
#   ./dev.sh board   build in Release and run the board benchmark (bench_board)
#   ./dev.sh cross armhf|arm64 [sample|all|build]
#                    build for 32- or 64-bit ARM with Debian's cross compiler and
#                    run the sample of tests (or all) under qemu user-mode emulation
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
# Their debug information is line tables only: file and line in backtraces
# and sanitizer reports, for a quarter less compile time than full -g.
build() {
  local dir=$1 targets=()
  local configure=(-DVRIX_WERROR=ON "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O2 -g1 -DNDEBUG"
    "-DCMAKE_C_FLAGS_RELWITHDEBINFO=-O2 -g1 -DNDEBUG")
  shift
  command -v ccache >/dev/null &&
    configure+=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
  while [ $# -gt 0 ] && [ "$1" != "--" ]; do configure+=("$1"); shift; done
  [ $# -gt 0 ] && shift && targets=(--target "$@")
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "${configure[@]}" >/dev/null
  cmake --build "$dir" -j"$(nproc)" "${targets[@]}"
}

# The target's libraries (SQLite, GoogleTest) for a cross build: Debian's
# packages of that architecture, unpacked under .cross/<arch> (see
# cmake/cross.cmake), fetched once.
target_libs() {
  local arch=$1 dir=.cross/$1 p
  local libs=(libsqlite3-0 libsqlite3-dev libgtest-dev)
  [ -f "$dir/.done" ] && return
  rm -rf "$dir"
  mkdir -p "$dir/debs"
  (cd "$dir/debs" && apt-get download "${libs[@]/%/:$arch}")
  for p in "$dir"/debs/*.deb; do dpkg-deb -x "$p" "$dir"; done
  touch "$dir/.done"
}

# The tests run on every push under emulation: the 32-bit differences, the
# records and the file seam, recording and playback, power cuts.  A few
# minutes under qemu on two cores.
cross_sample='^(board_|hdd_sql|store_layout|core_file_io|core_calendar_UTC|video_rec|video_play|reliability_power_cut)'

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
  # The fault sweep with 3 trials per scenario and fault rather than 6: every
  # kind of fault still strikes every scenario under the sanitizers.
  VRIX_TRIALS=3 ASAN_OPTIONS=detect_leaks=1 ctest --test-dir build-asan --output-on-failure -j"$jobs"
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
board)
  deps
  build build-release -DCMAKE_BUILD_TYPE=Release -DVRIX_TESTS=ON -DVRIX_BENCH=ON -- bench_board
  ./build-release/bench/bench_board "${@:2}"
  ;;
cross)
  arch=${2:-}
  case "$arch" in
  armhf) triple=arm-linux-gnueabihf ;;
  arm64) triple=aarch64-linux-gnu ;;
  *) echo "usage: ./dev.sh cross armhf|arm64 [sample|all|build]" >&2; exit 2 ;;
  esac
  what=${3:-sample}
  packages+=("crossbuild-essential-$arch" qemu-user)
  deps
  target_libs "$arch"
  dir=build-$arch
  opts=(-DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-$arch.cmake -DVRIX_VIEWER=OFF -DVRIX_BENCH=OFF)
  case "$what" in
  sample) # only the sample's binaries (and the program) are built
    build "$dir" "${opts[@]}" -- vrixdb vrixdb_tool board_32bit hdd_sql store_layout core_file_io \
      core_calendar video_rec video_play reliability_power_cut ;;
  build) build "$dir" "${opts[@]}" -- vrixdb vrixdb_tool ;; # the library and the program
  *) build "$dir" "${opts[@]}" ;;
  esac
  for f in "$dir"/libvrixdb.so.*.* "$dir"/libvrixhdd.so.*.*; do
    "$triple-strip" -o "$dir/stripped.so" "$f"
    echo "$arch: $(basename "$f") $(stat -c %s "$dir/stripped.so") bytes stripped"
  done
  rm -f "$dir/stripped.so"
  case "$what" in
  sample) ctest --test-dir "$dir" --output-on-failure -j"$jobs" -R "$cross_sample" ;;
  all) ctest --test-dir "$dir" --output-on-failure -j"$jobs" ;;
  esac
  ;;
*)
  sed -n '2,13p' "$0"
  exit 2
  ;;
esac
