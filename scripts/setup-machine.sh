#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need; quiet and quick when all are there.
set -euo pipefail
packages=(
  cmake ninja-build make g++ python3 patch xz-utils bzip2 dpkg-dev
  g++-mingw-w64-x86-64-posix gcc-mingw-w64-x86-64-posix binutils-mingw-w64-x86-64 mingw-w64-tools
  wine wine64 xvfb xauth x11-utils imagemagick
  wixl msitools
  libboost-dev googletest libbenchmark-dev
  clang libclang-rt-dev
)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}" >&2
  sudo=""; [ "$(id -u)" = 0 ] || sudo=sudo
  $sudo apt-get update
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y --no-install-recommends "${missing[@]}"
fi
