#!/usr/bin/env bash
# Builds velatool and shows its usage. (The simulated instrument is not in the
# tree yet; this script will start it.)
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh
cmake --preset default >/dev/null
cmake --build --preset default -j "$(nproc 2>/dev/null || echo 2)" >/dev/null
build/default/velatool || true
