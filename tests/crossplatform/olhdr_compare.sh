#!/usr/bin/env bash
# olhdr on Linux and olhdr.exe under wine run the same commands in two
# folders; every file written and every printed line must be the same, byte
# for byte:
#   olhdr_compare.sh build/release/tools/olhdr build/windows/bin/olhdr.exe FOLDER
# The Windows side is given paths in both spellings (forward slashes, and
# backslashes for merge). Between them the commands read and write JPEG, PNG,
# 16-bit TIFF (through libtiff too) and Radiance files, and fuse in memory
# and disk mode. Two things in printed lines differ by nature and
# are evened out before the comparison, nothing else in any file:
#  - paths are joined with each platform's separator ("demo/frames" against
#    "demo\frames"): backslashes in the Windows lines become slashes;
#  - the demo's closing lines name the program by its full path (Linux
#    /.../olhdr, Windows Z:\...\olhdr.exe): both become "olhdr".
set -euo pipefail
linux=$(realpath "$1") windows=$(realpath "$2") out=$3
export WINEDEBUG=${WINEDEBUG:--all}
rm -rf "$out"; mkdir -p "$out/linux" "$out/windows"

frames=(demo/frames/frame-1.jpg demo/frames/frame-2.jpg demo/frames/frame-3.jpg)
run() {  # side, program..., then the commands
  local side=$1; shift
  local -a prog=("$@")
  cd "$out/$side"
  local -a wframes=("${frames[@]}")
  [ "$side" = windows ] && wframes=("${frames[@]//\//\\}")
  step() {  # name, arguments...
    local name=$1; shift
    if ! "${prog[@]}" "$@" > "$name.stdout" 2> "$name.stderr"; then
      echo "$side: olhdr $* failed:"; cat "$name.stderr"; return 1
    fi
  }
  step demo demo --out demo
  step info info "${frames[@]}" demo/scene.hdr demo/scene-fused.tif
  step info-json info --json "${frames[0]}"
  step merge merge "${wframes[@]}" -o merge.hdr --preview merge-preview.png
  # Over the demo's own output (a rename over an existing file), same bytes.
  step fuse fuse "${frames[@]}" -o demo/scene-fused.tif -b 16 -j 3
  step preview preview demo/scene-fused.tif -o preview.png --max-size 300
  step fuse-disk fuse "${frames[@]}" -o fuse-disk.jpg --disk --scratch . -j 1
  cd - > /dev/null
}
( run linux "$linux" )
( run windows wine "$windows" )

wself=$(winepath -w "$windows" 2> /dev/null | sed 's|\\|/|g')
for f in "$out"/windows/*.std*; do sed -i -e 's|\\|/|g' -e "s|$wself|olhdr|g" "$f"; done
for f in "$out"/linux/*.std*; do sed -i "s|$linux|olhdr|g" "$f"; done
if diff -r "$out/linux" "$out/windows" > "$out/diff.txt" 2>&1; then
  echo "olhdr: the $(find "$out/linux" -type f | wc -l) files written and printed are identical on Linux and Windows"
else
  echo "olhdr: outputs that differ between Linux and Windows:"
  diff -rq "$out/linux" "$out/windows" || true
  head -40 "$out/diff.txt"
  exit 1
fi
