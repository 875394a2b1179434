#!/usr/bin/env bash
# Installs what building and testing need on a Debian 12 machine. Packages
# already present are not fetched again, so a second run costs a second.
#   scripts/setup.sh          build tools and libraries only
#   scripts/setup.sh --tests  also the independent programs the tests compare with
#   scripts/setup.sh --windows the mingw-w64 cross compiler, its zlib, and wine (Windows build)
set -euo pipefail

build_pkgs=(build-essential cmake pkg-config libjpeg62-turbo-dev libpng-dev libtiff-dev)
test_pkgs=(libgtest-dev libgmock-dev libbenchmark-dev clang libclang-rt-14-dev
           imagemagick libvips-tools python3 python3-numpy python3-opencv python3-imageio
           python3-tifffile libtiff-tools libimage-exiftool-perl exiv2 enfuse hyperfine time)

want=("${build_pkgs[@]}")
if [ "${1:-}" = "--tests" ]; then want+=("${test_pkgs[@]}"); fi
windows_pkgs=(g++-mingw-w64-x86-64-posix libz-mingw-w64-dev wine wine64)
if [ "${1:-}" = "--windows" ]; then want+=("${windows_pkgs[@]}"); fi

missing=()
for p in "${want[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  # apt's own lines go to a log, shown only when something fails.
  mkdir -p "$(dirname "$0")/../build"
  log="$(cd "$(dirname "$0")/.." && pwd)/build/setup.log"
  echo "setup: installing ${#missing[@]} packages (${missing[*]}); log in build/setup.log"
  SUDO=""
  [ "$(id -u)" -ne 0 ] && SUDO="sudo"
  { $SUDO apt-get update -qq &&
    DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"; } \
    > "$log" 2>&1 || { tail -30 "$log"; echo "setup: installing failed (see build/setup.log)"; exit 1; }
fi
