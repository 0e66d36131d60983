#!/usr/bin/env bash
# Starts the simulated instrument with the remote-control server listening
# on port 7073 (or the port given as the first argument), in the foreground
# until Ctrl-C. The board lives in $VELASIM_DIR (default build/board) and
# carries on between runs; its configuration folder is inside it.
set -euo pipefail
cd "$(dirname "$0")/.."

port=${1:-7073}
scripts/setup.sh
cmake --preset default >/dev/null
cmake --build --preset default -j "$(nproc 2>/dev/null || echo 2)" >/dev/null

bin=$PWD/build/default
board=${VELASIM_DIR:-$PWD/build/board}
mkdir -p "$board"
ctl="$bin/sim/velasim ctl --dir $board"
cat <<MSG
Simulated instrument in $board, server on port $port (Ctrl-C ends it).

Talk to it:
  nc localhost $port
  1 get batt batt_v batt_state
  2 capabilities

Press and release the START button, change the battery, plug in USB power:
  $ctl button press; $ctl button release
  $ctl set battery.voltage 3.5
  $ctl set supply.external_v 5
What the program did to the hardware: $board/journal
More control commands: $ctl help    (the board: sim/README.md)
MSG
exec "$bin/sim/velasim" run --dir "$board" -- "$bin/velatool" -r "$port"
