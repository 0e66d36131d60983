#!/usr/bin/env bash
# Longer fuzzing campaigns of the libFuzzer targets in fuzz/ (the tests of the
# fuzz preset run each of them only briefly).
#
#   scripts/fuzz.sh [-t SECONDS] [-j JOBS] [-n] [TARGET...]
#
#   -t SECONDS  time per target (default 600, ten minutes)
#   -j JOBS     parallel fuzzing processes per target (libFuzzer's -fork;
#               default 1)
#   -n          do not build: run the fuzzers as they are in build/fuzz
#   TARGET      request_line ini_document nv_counters config_read base64
#               (default: all, one after the other)
#
# The targets are built with the fuzz preset (clang, ASan+UBSan) in
# build/fuzz. Each target's corpus grows in build/fuzz/campaign/<target>/,
# which later runs continue from; the seeds in fuzz/corpus/<target>/ are only
# read. Findings (crash-*, leak-*, timeout-*, oom-*) land in
# build/fuzz/campaign/artifacts/<target>-*. The script exits non-zero if any
# target found something.
#
# A finding, step by step:
#   reproduce:  build/fuzz/fuzz/fuzz_<target> <artifact>
#   minimise:   build/fuzz/fuzz/fuzz_<target> -minimize_crash=1 -runs=20000 \
#                   -exact_artifact_path=/tmp/min <artifact>
#   after the fix, keep /tmp/min as a regression case:
#               cp /tmp/min fuzz/corpus/<target>/<what-it-is>
# To fold new coverage of a campaign back into the seeds (keep them small):
#   build/fuzz/fuzz/fuzz_<target> -merge=1 fuzz/corpus/<target> build/fuzz/campaign/<target>
set -uo pipefail
cd "$(dirname "$0")/.."

seconds=600
jobs=1
build=1
while getopts "t:j:nh" opt; do
  case $opt in
    t) seconds=$OPTARG ;;
    j) jobs=$OPTARG ;;
    n) build=0 ;;
    *) sed -n '2,32p' "$0"; exit 2 ;;
  esac
done
shift $((OPTIND - 1))
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  targets=(request_line ini_document nv_counters config_read base64)
fi

build_targets=()
for t in "${targets[@]}"; do
  if [ ! -f "fuzz/$t.cpp" ]; then
    echo "unknown target: $t" >&2
    exit 2
  fi
  build_targets+=("fuzz_$t")
done
if [ $build -eq 1 ]; then
  cmake --preset fuzz >/dev/null || exit 1
  cmake --build build/fuzz -j 2 --target "${build_targets[@]}" || exit 1
fi

campaign=build/fuzz/campaign
mkdir -p "$campaign/artifacts"
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

status=0
for t in "${targets[@]}"; do
  corpus=$campaign/$t
  mkdir -p "$corpus"
  options=(-max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -close_fd_mask=3
           -print_final_stats=1 -artifact_prefix="$campaign/artifacts/$t-")
  case $t in
    ini_document) options+=(-max_len=20000) ;;
    *) options+=(-max_len=4096) ;;
  esac
  [ -f "fuzz/$t.dict" ] && options+=(-dict="fuzz/$t.dict")
  [ "$jobs" -gt 1 ] && options+=(-fork="$jobs" -ignore_crashes=1)
  echo "=== $t: ${seconds}s, corpus $corpus ($(ls "$corpus" | wc -l) inputs)"
  if ! "build/fuzz/fuzz/fuzz_$t" "${options[@]}" "$corpus" "fuzz/corpus/$t" 2>"$campaign/$t.log"; then
    status=1
  fi
  grep -E '^stat::(number_of_executed_units|average_exec_per_sec|new_units_added|peak_rss_mb)' "$campaign/$t.log"
  found=$(ls "$campaign/artifacts" | grep -c "^$t-" || true)
  [ "$found" -gt 0 ] && status=1
  echo "=== $t: corpus $(ls "$corpus" | wc -l) inputs, findings $found (log $campaign/$t.log)"
done
exit $status
