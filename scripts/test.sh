#!/usr/bin/env bash
# Installs what is missing, then configures, builds and runs every test, first
# in the default preset and then under AddressSanitizer/UBSan.
# Exits non-zero if anything fails.
set -uo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh || exit 1

jobs=$(nproc 2>/dev/null || echo 2)
status=0
for preset in default asan; do
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
