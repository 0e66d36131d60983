#!/usr/bin/env bash
# Installs what is missing, then configures, builds and runs every test in
# each preset: default, AddressSanitizer/UBSan, the instrument's armhf build
# under qemu-arm, and a bounded run of every fuzz target (clang, ASan/UBSan;
# scripts/fuzz.sh runs them longer).
# Exits non-zero if anything fails.
set -uo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh || exit 1

jobs=$(nproc 2>/dev/null || echo 2)
status=0
for preset in default asan armhf fuzz; do
  echo "=== $preset ==="
  if cmake --preset "$preset" >/dev/null &&
     cmake --build --preset "$preset" -j "$jobs" &&
     ctest --preset "$preset" -j "$jobs"; then
    echo "=== $preset: passed ==="
  else
    echo "=== $preset: FAILED ==="
    status=1
  fi
done
exit $status
