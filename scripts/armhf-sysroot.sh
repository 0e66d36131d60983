#!/usr/bin/env bash
# Unpacks the armhf libraries the target build links against (zlib, libpng,
# GoogleTest) from Debian's armhf packages into a private sysroot, by default
# build/sysroot-armhf. The packages are downloaded and unpacked, not
# installed: multiarch installs need the host's and the armhf versions of a
# library to match exactly, which a mirror that is mid-update does not
# guarantee. The C library comes with the cross compiler
# (/usr/arm-linux-gnueabihf). Idempotent.
set -euo pipefail
cd "$(dirname "$0")/.."

sysroot=${1:-build/sysroot-armhf}
packages=(zlib1g zlib1g-dev libpng16-16 libpng-dev libgtest-dev libgmock-dev)
stamp="$sysroot/.packages"
[ -f "$stamp" ] && [ "$(cat "$stamp")" = "${packages[*]}" ] && exit 0

sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
. scripts/apt-retry.sh
if ! dpkg --print-foreign-architectures | grep -qx armhf; then
  $sudo dpkg --add-architecture armhf
  apt_update
fi

debs=$(mktemp -d)
trap 'rm -rf "$debs"' EXIT
chmod 777 "$debs" # apt's download user writes here
echo "armhf-sysroot: downloading ${packages[*]}" >&2
download() {
  (cd "$debs" && apt-get download -qq "${packages[@]/%/:armhf}")
}
apt_retry apt_refreshing download
rm -rf "$sysroot"
mkdir -p "$sysroot"
for deb in "$debs"/*.deb; do
  dpkg-deb -x "$deb" "$sysroot"
done
# Merge /lib into /usr/lib, and make absolute links point inside the sysroot,
# so that the link-time and the run-time search (build RPATH) find one copy.
if [ -d "$sysroot/lib" ]; then
  cp -a "$sysroot/lib/." "$sysroot/usr/lib/"
  rm -rf "$sysroot/lib"
fi
find "$sysroot" -type l -lname '/*' | while read -r link; do
  target=$(readlink "$link")
  ln -sfr "$sysroot/usr${target#/usr}" "$link"
done
echo "${packages[*]}" > "$stamp"
