#!/usr/bin/env bash
# Measures what the tests catch: applies each mutation of a list alone (a
# fault a user of the instrument would notice), rebuilds incrementally, runs
# the suites and reports it caught (a test failed) or escaped (all passed).
# A tool for developers, not part of the CI run.
#
#   scripts/mutants.sh [-p PRESET] [-R CTEST_REGEX] [-E CTEST_EXCLUDE] [-n LINE] [LIST]
#
# LIST (default scripts/mutants.txt): "file<TAB>text<TAB>replacement" a line
# (\n stands for a line end), '#' comments; the text must occur exactly once
# in the file. -n runs only
# the mutation on that line of the list. The tree must be clean where the
# list mutates; every file is restored afterwards, also on Ctrl-C.
set -uo pipefail
cd "$(dirname "$0")/.."

preset=default
regex=""
exclude="fuzz|packaging|soak"
only=""
while getopts "p:R:E:n:" opt; do
  case $opt in
    p) preset=$OPTARG ;;
    R) regex=$OPTARG ;;
    E) exclude=$OPTARG ;;
    n) only=$OPTARG ;;
    *) echo "usage: $0 [-p PRESET] [-R REGEX] [-E EXCLUDE] [-n LINE] [LIST]" >&2; exit 2 ;;
  esac
done
shift $((OPTIND - 1))
list=${1:-scripts/mutants.txt}
jobs=$(nproc 2>/dev/null || echo 2)

cmake --preset "$preset" >/dev/null && cmake --build --preset "$preset" -j "$jobs" >/dev/null || {
  echo "mutants: the unmutated tree does not build" >&2; exit 1; }

backup=$(mktemp -d)
current=""
restore() { if [ -n "$current" ]; then cp "$backup/file" "$current"; current=""; fi; }
trap 'restore; rm -rf "$backup"; exit 130' INT TERM

# Replaces the one occurrence of $2 in file $1 by $3; fails unless there is
# exactly one.
apply() {
  python3 - "$@" <<'PY'
import sys
path, old, new = (a.replace("\\n", "\n") for a in sys.argv[1:4])
text = open(path).read()
if text.count(old) != 1:
    sys.exit(1)
open(path, "w").write(text.replace(old, new))
PY
}

caught=0 escaped=0 skipped=0 lineno=0
escapes=()
while IFS=$'\t' read -r file old new; do
  lineno=$((lineno + 1))
  [[ -z "$file" || "$file" == \#* ]] && continue
  [[ -n "$only" && "$only" != "$lineno" ]] && continue
  cp "$file" "$backup/file"
  current=$file
  if ! apply "$file" "$old" "$new"; then
    restore
    echo "line $lineno: NOT APPLICABLE ($file: text not found exactly once)"
    skipped=$((skipped + 1))
    continue
  fi
  start=$(date +%s)
  if ! cmake --build --preset "$preset" -j "$jobs" >/dev/null 2>&1; then
    verdict="caught (does not build)"
    caught=$((caught + 1))
  elif ctest --preset "$preset" -j "$jobs" --timeout 300 ${regex:+-R "$regex"} ${exclude:+-E "$exclude"} \
        --stop-on-failure >"$backup/log" 2>&1; then
    verdict="ESCAPED"
    escaped=$((escaped + 1))
    escapes+=("$lineno: $file: $new")
  else
    # The first test that failed: which test guards against this fault.
    by=$(sed -n 's/.*Test *#[0-9]*: \([^ ]*\) .*\*\*\*.*/\1/p' "$backup/log" | head -1)
    verdict="caught${by:+ by $by}"
    caught=$((caught + 1))
  fi
  restore
  echo "line $lineno: $verdict ($file, $(( $(date +%s) - start )) s)"
done < "$list"

cmake --build --preset "$preset" -j "$jobs" >/dev/null 2>&1
rm -rf "$backup"
echo "mutants: $caught caught, $escaped escaped, $skipped not applicable"
for e in "${escapes[@]}"; do echo "  escaped $e"; done
[ "$escaped" -eq 0 ]
