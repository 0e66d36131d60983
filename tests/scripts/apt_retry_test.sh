#!/usr/bin/env bash
# The set-up scripts against a mirror that fails for a while: a fake
# apt-get first on PATH fails its first N calls of a kind, then works.
# Usage: apt_retry_test.sh SOURCE_DIR
set -uo pipefail
src=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/bin" "$work/scripts"
cp "$src/scripts/setup.sh" "$src/scripts/armhf-sysroot.sh" "$src/scripts/apt-retry.sh" "$work/scripts/"

# apt-get: logs each call; the first $FAIL_<KIND> calls of a kind fail.
cat > "$work/bin/apt-get" <<'FAKE'
#!/usr/bin/env bash
echo "$1" >> "$LOG"
kind=$(echo "$1" | tr a-z A-Z)
fail=FAIL_$kind
n=$(grep -cx "$1" "$LOG")
[ "$n" -le "${!fail:-0}" ] && { echo "E: File has unexpected size. Mirror sync in progress?" >&2; exit 100; }
[ "$1" = download ] && touch z.deb
exit 0
FAKE
# dpkg-query: every package is installed but those in $MISSING.
cat > "$work/bin/dpkg-query" <<'FAKE'
#!/usr/bin/env bash
for p in $MISSING; do [ "$p" = "${!#}" ] && exit 1; done
echo "install ok installed"
FAKE
printf '#!/bin/sh\necho armhf\n' > "$work/bin/dpkg"
printf '#!/bin/sh\nmkdir -p "$3/usr/lib"\n' > "$work/bin/dpkg-deb"
printf '#!/bin/sh\nexec "$@"\n' > "$work/bin/sudo"
chmod +x "$work/bin/"*

failed=0
# check NAME EXPECTED_STATUS EXPECTED_CALLS: the last run's status and its
# apt-get calls, one word each.
check() {
  local calls
  calls=$(tr '\n' ' ' < "$LOG")
  if [ "$status" != "$2" ] || [ "${calls% }" != "$3" ]; then
    echo "FAIL $1: status $status (want $2), calls '${calls% }' (want '$3')"
    cat "$work/err"
    failed=1
  fi
}
# run [VAR=VALUE...] SCRIPT ARGS: the script with a fresh call log.
run() {
  export LOG="$work/log"
  : > "$LOG"
  env PATH="$work/bin:$PATH" APT_PAUSE=0 "$@" > "$work/out" 2> "$work/err"
  status=$?
}

# setup.sh, the sysroot left out (its stamp says it is there)
sysroot="$work/build/sysroot-armhf"
mkdir -p "$sysroot"
echo "zlib1g zlib1g-dev libpng16-16 libpng-dev libgtest-dev libgmock-dev" > "$sysroot/.packages"

run MISSING= "$work/scripts/setup.sh"
check "all there" 0 ""
[ -s "$work/out" ] || [ -s "$work/err" ] && { echo "FAIL all there: not silent"; failed=1; }
run MISSING=cmake FAIL_UPDATE=2 "$work/scripts/setup.sh"
check "update fails twice" 0 "update update update install"
run MISSING=cmake FAIL_UPDATE=99 "$work/scripts/setup.sh"
check "update never works, the lists suffice" 0 "update update update update install"
run MISSING=cmake FAIL_INSTALL=3 "$work/scripts/setup.sh"
check "install fails thrice" 0 "update install update install install update install"
run MISSING=cmake FAIL_INSTALL=99 "$work/scripts/setup.sh"
check "install never works" 100 "update$(printf ' install update install%.0s' 1 2 3 4)"

# the sysroot's download
rm -rf "$sysroot"
run FAIL_DOWNLOAD=2 "$work/scripts/armhf-sysroot.sh" "$sysroot"
check "download fails twice" 0 "download update download download"
run FAIL_DOWNLOAD=99 "$work/scripts/armhf-sysroot.sh" "$sysroot"
check "a sysroot that is there" 0 ""
exit $failed
