#!/usr/bin/env bash
# Installs the build and test dependencies from Debian's packages.
# Idempotent: does nothing and prints nothing when all are present.
set -euo pipefail

packages=(g++ cmake ninja-build make pkg-config ccache zlib1g-dev libpng-dev libgtest-dev libgmock-dev
          clang libclang-rt-14-dev
          g++-arm-linux-gnueabihf qemu-user dpkg-dev lintian
          python3 python3-numpy python3-scipy python3-matplotlib)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}" >&2
  sudo=""
  if [ "$(id -u)" -ne 0 ]; then
    sudo="sudo"
  fi
  export DEBIAN_FRONTEND=noninteractive
  . "$(dirname "$0")/apt-retry.sh"
  apt_update
  apt_retry apt_refreshing apt_get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

# The armhf libraries of the instrument's build.
"$(dirname "$0")/armhf-sysroot.sh"
