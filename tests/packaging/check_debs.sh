#!/usr/bin/env bash
# Builds the Debian packages of a build tree and checks them as a Debian
# maintainer would: lintian without errors, the files each must carry, the
# systemd unit, and (native builds) that the simulated instrument unpacked
# into an empty root answers a client.
# Usage: check_debs.sh BUILD_DIR
set -euo pipefail
build=$1
work=$(mktemp -d)
server=""
cleanup() {
  if [ -n "$server" ]; then
    kill "$server" 2>/dev/null || true
    wait "$server" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

(cd "$build" && cpack -G DEB -B "$work/out" >"$work/cpack.log" 2>&1) || { cat "$work/cpack.log"; fail "cpack"; }
shopt -s nullglob
debs=("$work"/out/*.deb)
[ ${#debs[@]} -gt 0 ] || fail "no package built"

for deb in "${debs[@]}"; do
  name=$(dpkg-deb -f "$deb" Package)
  echo "== $name $(dpkg-deb -f "$deb" Version) $(dpkg-deb -f "$deb" Architecture): $(dpkg-deb -f "$deb" Depends)"
  dpkg-deb -c "$deb" | awk '{print $6}' | sed 's|^\./|/|' > "$work/$name.files"
  case $name in
    velatool) want=(/usr/bin/velatool /lib/systemd/system/velatool.service /etc/default/velatool
                    /usr/share/doc/velatool/copyright /usr/share/doc/velatool/changelog.Debian.gz) ;;
    velasim) want=(/usr/bin/velasim /usr/bin/velasim-instrument /usr/lib/velasim/libvelasim.so
                   /usr/share/doc/velasim/copyright) ;;
    *) fail "unexpected package $name" ;;
  esac
  for f in "${want[@]}"; do
    grep -qx "$f" "$work/$name.files" || fail "$name lacks $f"
  done
  [ -n "$(dpkg-deb -f "$deb" Depends)" ] || fail "$name has no dependencies"
  if command -v lintian >/dev/null; then
    # Tags that do not apply to packages built outside a Debian source tree.
    lintian --tag-display-limit 0 --suppress-tags no-manual-page,initial-upload-closes-no-bugs,debian-changelog-file-missing-or-wrong-name,unknown-section,extended-description-is-probably-too-short \
      "$deb" > "$work/lintian.$name" 2>&1 || true
    cat "$work/lintian.$name"
    ! grep -q '^E: ' "$work/lintian.$name" || fail "lintian reports errors for $name"
  else
    echo "lintian not installed: skipped"
  fi
  dpkg-deb -x "$deb" "$work/root"
done

unit=$work/root/lib/systemd/system/velatool.service
if command -v systemd-analyze >/dev/null; then
  # Verify against the unpacked root, where ExecStart's program exists.
  sed "s|ExecStart=/usr/bin/velatool|ExecStart=$work/root/usr/bin/velatool|" "$unit" > "$work/velatool.service"
  out=$(SYSTEMD_LOG_LEVEL=warning systemd-analyze verify "$work/velatool.service" 2>&1 | grep -v "Cannot add dependency job\|not found\|Failed to \(connect\|initialize\)" || true)
  [ -z "$out" ] || { echo "$out"; fail "systemd-analyze verify"; }
  echo "systemd-analyze verify: clean"
fi

[ -x "$work/root/usr/bin/velasim-instrument" ] || exit 0
# The client developer's instrument, from the unpacked packages only.
port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
VELASIM_DIR=$work/board "$work/root/usr/bin/velasim-instrument" "$port" >"$work/sim.out" 2>&1 &
server=$!
reply=""
for _ in $(seq 1 100); do
  if reply=$(python3 - "$port" <<'PY' 2>/dev/null
import socket, sys
s = socket.create_connection(("127.0.0.1", int(sys.argv[1])), timeout=5)
s.sendall(b"1 get batt\n")
data = b""
while b"1 ready" not in data:
    chunk = s.recv(4096)
    if not chunk:
        break
    data += chunk
print(data.decode(), end="")
PY
  ); then
    break
  fi
  sleep 0.1
done
echo "$reply"
grep -q '^1 data [0-9]' <<<"$reply" || { cat "$work/sim.out"; fail "the unpacked instrument did not answer 1 get batt"; }
echo "unpacked velasim instrument answers"
exit 0
