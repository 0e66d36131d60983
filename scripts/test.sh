#!/usr/bin/env bash
# Installs what is missing, then builds and runs every test once:
#   asan    every suite, with AddressSanitizer and UBSan (Debug);
#   default the release build: the program, the board and the packages
#           (the suites already ran under asan, so only what asan leaves out:
#           the package check);
#   armhf   the instrument's cross build, every suite under qemu-arm;
#   fuzz    a bounded run of every fuzz target (clang, ASan/UBSan;
#           scripts/fuzz.sh runs them longer).
# A compiler cache outside the tree (ccache) makes a second run cheap.
# Exits non-zero if anything fails.
set -uo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh || exit 1

jobs=$(nproc 2>/dev/null || echo 2)
status=0
run() { # preset, then what to build (empty: all), then ctest's test filter
  local preset=$1 targets=$2 filter=$3
  local t0=$SECONDS t1
  echo "=== $preset ==="
  if cmake --preset "$preset" >/dev/null &&
     cmake --build --preset "$preset" -j "$jobs" ${targets:+--target $targets} &&
     t1=$SECONDS && ctest --preset "$preset" -j "$jobs" ${filter:+-R "$filter"}; then
    echo "=== $preset: passed (build $((t1 - t0)) s, tests $((SECONDS - t1)) s) ==="
  else
    echo "=== $preset: FAILED ==="
    status=1
  fi
}
start=$(date +%s)
echo "=== set-up: $SECONDS s ==="
run asan "" ""
run default "velatool velasim velasim_preload vela_changelog" "^packaging\\."
run armhf "" ""
run fuzz "" ""
echo "=== all presets: $(( $(date +%s) - start )) s ==="
exit $status
