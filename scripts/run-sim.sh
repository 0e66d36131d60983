#!/usr/bin/env bash
# Starts the simulated instrument: builds velatool and velasim, then runs
# velatool under the simulated board and shows how to reach it.
# The board lives in $VELASIM_DIR (default build/board) and carries on
# between runs.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh
cmake --preset default >/dev/null
cmake --build --preset default -j "$(nproc 2>/dev/null || echo 2)" >/dev/null

bin=build/default
board=${VELASIM_DIR:-$PWD/build/board}
mkdir -p "$board"
echo "Simulated instrument in $board"
"$bin/sim/velasim" run --dir "$board" -- "$bin/velatool" -a
cat <<MSG

More actions on the same board:
  $bin/sim/velasim run --dir $board -- $bin/velatool -m 1
  $bin/sim/velasim run --dir $board -- $bin/velatool -d 0x822
What the program did to the hardware: $board/journal
The board's values: $board/state (change them with a scenario: sim/README.md)
MSG
