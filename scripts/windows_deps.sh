#!/usr/bin/env bash
# The image codecs olhdr.exe links (libjpeg-turbo, libpng, libtiff), cross-built
# as static libraries for the `windows` preset. Debian ships zlib for mingw-w64
# (libz-mingw-w64-dev) but none of these three, so they are built here from
# Debian bookworm's own sources: the upstream tarball and Debian's patch series
# (its security fixes included), the very code the Linux build links.
#   scripts/windows_deps.sh      -> build/windows-deps/{include,lib}
# Only the libraries are built (no tools, documentation or tests of theirs);
# libtiff with zlib and JPEG only. Idempotent: a second run finds the stamp
# and returns at once (unless this script changed); downloads are kept in
# build/windows-deps/src.
#
# Trust chain: the archive's signed InRelease (checked with gpgv against
# debian-archive-keyring where both are installed) gives the sha256 of the
# Sources index, which gives the file names and sha256 of every tarball.
set -euo pipefail
shopt -s inherit_errexit
cd "$(dirname "$0")/.."
root=$PWD
out=$root/build/windows-deps
src=$out/src
mirror=${OL_DEBIAN_MIRROR:-http://deb.debian.org/debian}
suite=bookworm
triple=x86_64-w64-mingw32
toolchain=$root/cmake/mingw-w64-x86_64.cmake
packages=(libjpeg-turbo libpng1.6 tiff)
say() { echo "windows-deps: $*" >&2; }

# The stamp names this script's own hash, so that a changed recipe rebuilds.
recipe="recipe $(sha256sum "$0" | cut -c1-16)"
if [ -f "$out/stamp" ] && [ -f "$out/lib/libtiff.a" ] && grep -qx "$recipe" "$out/stamp"; then
  say "already built ($(paste -sd, "$out/stamp"))"; exit 0
fi
for tool in curl xz sha256sum patch cmake "$triple-gcc-posix"; do
  command -v "$tool" > /dev/null || { say "$tool is missing (scripts/setup.sh --windows installs it)"; exit 1; }
done
[ -f "/usr/$triple/lib/libz.a" ] || { say "libz-mingw-w64-dev is missing (scripts/setup.sh --windows)"; exit 1; }
started=$(date +%s)
mkdir -p "$src"
fetch() { curl -fsSL --retry 3 -o "$2" "$1" || { say "cannot download $1"; exit 1; }; }

# The Sources index, checked against the signed release file when possible.
if [ ! -s "$src/Sources.xz" ]; then
  fetch "$mirror/dists/$suite/InRelease" "$src/InRelease"
  keyring=/usr/share/keyrings/debian-archive-keyring.gpg
  if command -v gpgv > /dev/null && [ -f "$keyring" ]; then
    gpgv --keyring "$keyring" "$src/InRelease" > /dev/null 2>&1 ||
      { say "InRelease: bad signature"; rm -f "$src/InRelease"; exit 1; }
  else
    say "gpgv or debian-archive-keyring missing: the Sources index is checked against an unsigned InRelease"
  fi
  fetch "$mirror/dists/$suite/main/source/Sources.xz" "$src/Sources.xz.part"
  want=$(awk '/^SHA256:/ {s = 1; next} /^[^ ]/ {s = 0} s && $3 == "main/source/Sources.xz" {print $1}' "$src/InRelease")
  have=$(sha256sum "$src/Sources.xz.part" | cut -d' ' -f1)
  [ -n "$want" ] && [ "$want" = "$have" ] || { say "Sources.xz: sha256 $have, InRelease says '$want'"; exit 1; }
  mv "$src/Sources.xz.part" "$src/Sources.xz"
fi

# Per package: "directory version sha256 name" of its orig and debian tarballs.
files() {
  xz -dc "$src/Sources.xz" | awk -v p="$1" '
    /^Package: / {pkg = $2} /^Version: / {ver = $2} /^Directory: / {dir = $2}
    /^Checksums-Sha256:/ {c = 1; next} /^[^ ]/ {c = 0}
    done {next}
    c && pkg == p && ($3 ~ /\.orig\.tar\./ || $3 ~ /\.debian\.tar\./) {n[++k] = $1 " " $3}
    /^$/ {if (pkg == p && k) {for (i = 1; i <= k; i++) print dir, ver, n[i]; done = 1} k = 0; pkg = ""}'
}

# Downloads, checks and unpacks one package with Debian's patches applied;
# prints the source folder.
unpack() {
  local pkg=$1 dir ver sum name tree="" version=""
  local listing; listing=$(files "$pkg")
  [ -n "$listing" ] || { say "$pkg not found in the $suite Sources index"; exit 1; }
  while read -r dir ver sum name; do
    version=$ver
    if [ ! -f "$src/$name" ]; then fetch "$mirror/$dir/$name" "$src/$name.part"; mv "$src/$name.part" "$src/$name"; fi
    echo "$sum  $src/$name" | sha256sum -c --quiet - > /dev/null 2>&1 ||
      { say "$name: sha256 mismatch"; rm -f "$src/$name"; exit 1; }
  done <<< "$listing"
  tree=$src/$pkg
  rm -rf "$tree"; mkdir -p "$tree"
  tar -xf "$src/$(awk '$4 ~ /orig/ {print $4}' <<< "$listing")" -C "$tree" --strip-components=1
  tar -xf "$src/$(awk '$4 ~ /debian/ {print $4}' <<< "$listing")" -C "$tree"
  if [ -f "$tree/debian/patches/series" ]; then
    grep -v '^[[:space:]]*#' "$tree/debian/patches/series" | while read -r p _; do
      [ -n "$p" ] || continue
      patch -d "$tree" -p1 -s --forward < "$tree/debian/patches/$p" > /dev/null ||
        { say "$pkg: patch $p does not apply"; exit 1; }
    done
  fi
  echo "$pkg $version" >> "$out/stamp.part"
  echo "$tree"
}

gen=(); command -v ninja > /dev/null && gen=(-G Ninja)
launch=(); command -v ccache > /dev/null && launch=(-DCMAKE_C_COMPILER_LAUNCHER=ccache)
jobs=$(nproc)
build() {  # source folder, build folder, target, cmake options...
  local s=$1 b=$2 t=$3; shift 3
  cmake -S "$s" -B "$b" "${gen[@]}" "${launch[@]}" -DCMAKE_TOOLCHAIN_FILE="$toolchain" \
    -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$out/unused" "$@" > "$b.log" 2>&1 &&
    cmake --build "$b" --target "$t" -j"$jobs" >> "$b.log" 2>&1 ||
    { tail -40 "$b.log"; say "building $t failed (log: $b.log)"; exit 1; }
}

rm -rf "$out/include" "$out/lib" "$out/stamp.part"
mkdir -p "$out/include" "$out/lib"
zlib=(-DZLIB_INCLUDE_DIR=/usr/$triple/include -DZLIB_LIBRARY=/usr/$triple/lib/libz.a)

# libjpeg-turbo: the libjpeg 6.2 interface, as Debian's libjpeg62-turbo. The
# SIMD paths need nasm and are left out; their results equal the C code's.
s=$(unpack libjpeg-turbo)
build "$s" "$out/jpeg" jpeg-static -DENABLE_SHARED=OFF -DENABLE_STATIC=ON -DWITH_TURBOJPEG=OFF -DWITH_SIMD=OFF
cp "$s"/{jpeglib.h,jerror.h,jmorecfg.h} "$out/jpeg/jconfig.h" "$out/include/"
cp "$out/jpeg/libjpeg.a" "$out/lib/"

s=$(unpack libpng1.6)
build "$s" "$out/png" png_static -DPNG_SHARED=OFF -DPNG_STATIC=ON -DPNG_EXECUTABLES=OFF -DPNG_TESTS=OFF \
  -Dld-version-script=OFF "${zlib[@]}"
cp "$s"/{png.h,pngconf.h} "$out/png/pnglibconf.h" "$out/include/"
cp "$out/png/libpng16.a" "$out/lib/libpng16.a"

s=$(unpack tiff)
build "$s" "$out/tiff" tiff -DBUILD_SHARED_LIBS=OFF -Dtiff-tools=OFF -Dtiff-tests=OFF -Dtiff-contrib=OFF \
  -Dtiff-docs=OFF -Dcxx=OFF -Dzlib=ON -Djpeg=ON -Dold-jpeg=OFF -Djpeg12=OFF -Dpixarlog=OFF -Djbig=OFF \
  -Dlerc=OFF -Dlzma=OFF -Dzstd=OFF -Dwebp=OFF -Dlibdeflate=OFF -Dsphinx=OFF "${zlib[@]}" \
  -DJPEG_INCLUDE_DIR="$out/include" -DJPEG_LIBRARY="$out/lib/libjpeg.a"
cp "$s"/libtiff/{tiff.h,tiffio.h,tiffvers.h} "$out/tiff/libtiff/tiffconf.h" "$out/include/"
cp "$out/tiff/libtiff/libtiff.a" "$out/lib/"

# Build trees and unpacked sources go; the tarballs stay for a rebuild.
rm -rf "$out/jpeg" "$out/png" "$out/tiff" "$src"/{libjpeg-turbo,libpng1.6,tiff}
echo "$recipe" >> "$out/stamp.part"
mv "$out/stamp.part" "$out/stamp"
say "built $(paste -sd, "$out/stamp") in $(( $(date +%s) - started ))s: $(cd "$out/lib" && ls | tr '\n' ' ')"
