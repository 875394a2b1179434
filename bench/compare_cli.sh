#!/usr/bin/env bash
# Whole-program comparison of the command-line host with independent programs
# on the same frames: `olhdr merge` beside OpenCV's Debevec merge, and
# `olhdr fuse` beside enfuse and OpenCV's Mertens fusion. Each program runs
# RUNS times, interleaved, under /usr/bin/time -v; the table gives the median
# wall time and the median peak resident memory.
#
#   bench/compare_cli.sh [OLHDR] [WIDTHxHEIGHT] [FRAMES] [RUNS]
#
# OLHDR defaults to a release build made in build/cli-release.
set -euo pipefail
cd "$(dirname "$0")/.."
olhdr=${1:-}
size=${2:-3000x2000}
frames=${3:-3}
runs=${4:-5}
py=/usr/bin/python3

if [ -z "$olhdr" ]; then
  cmake -S . -B build/cli-release -DCMAKE_BUILD_TYPE=Release -DOL_BUILD_TESTS=OFF -DOL_BUILD_BENCH=OFF > /dev/null
  cmake --build build/cli-release -j2 --target olhdr > build/cli-release.log 2>&1 || { tail -30 build/cli-release.log; exit 1; }
  olhdr=build/cli-release/tools/olhdr
fi
for tool in /usr/bin/time enfuse; do
  command -v "$tool" > /dev/null || { echo "missing $tool"; exit 1; }
done

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$olhdr" bracket -q --size "$size" --frames "$frames" --format tif -o "$work/frames"
mapfile -t inputs < <(ls "$work"/frames/frame-*.tif | sort)

# Exposure times of the generated frames, as their Exif says.
times=$("$olhdr" info --json "${inputs[@]}" | "$py" -c 'import json,sys; print(",".join(str(f["exposure"]) for f in json.load(sys.stdin)))')

cat > "$work/debevec.py" <<PY
import sys, cv2, numpy as np
files = sys.argv[2:]
imgs = [cv2.imread(f, cv2.IMREAD_COLOR) for f in files]
times = np.array([$times], dtype=np.float32)
hdr = cv2.createMergeDebevec().process(imgs, times)
cv2.imwrite(sys.argv[1], hdr)
PY
cat > "$work/mertens.py" <<PY
import sys, cv2, numpy as np
imgs = [cv2.imread(f, cv2.IMREAD_COLOR) for f in sys.argv[2:]]
out = cv2.createMergeMertens().process(imgs)
cv2.imwrite(sys.argv[1], np.clip(out * 255, 0, 255).astype(np.uint8))
PY

declare -A cmd
cmd[olhdr-merge]="$olhdr merge -q ${inputs[*]} -o $work/olhdr.hdr"
cmd[opencv-debevec]="$py $work/debevec.py $work/cv.hdr ${inputs[*]}"
cmd[olhdr-fuse]="$olhdr fuse -q ${inputs[*]} -o $work/olhdr.tif"
cmd[olhdr-fuse-1thread]="$olhdr fuse -q -j 1 ${inputs[*]} -o $work/olhdr1.tif"
cmd[olhdr-fuse-disk]="$olhdr fuse -q --disk --scratch $work ${inputs[*]} -o $work/olhdr-disk.tif"
cmd[enfuse]="enfuse -o $work/enfuse.tif ${inputs[*]}"
cmd[opencv-mertens]="$py $work/mertens.py $work/mertens.tif ${inputs[*]}"
order=(olhdr-merge opencv-debevec olhdr-fuse olhdr-fuse-1thread olhdr-fuse-disk enfuse opencv-mertens)

for name in "${order[@]}"; do : > "$work/$name.txt"; done
for ((r = 0; r < runs; r++)); do
  for name in "${order[@]}"; do
    /usr/bin/time -v -o "$work/time.txt" ${cmd[$name]} > /dev/null 2>&1 || { echo "$name failed"; exit 1; }
    wall=$(awk -F': ' '/Elapsed \(wall clock\)/ {n = split($2, p, ":"); s = 0; for (i = 1; i <= n; i++) s = s * 60 + p[i]; print s}' "$work/time.txt")
    rss=$(awk -F': ' '/Maximum resident set size/ {print $2}' "$work/time.txt")
    echo "$wall $rss" >> "$work/$name.txt"
  done
done

median() { sort -n | awk '{a[NR] = $1} END {print (NR % 2) ? a[(NR + 1) / 2] : (a[NR / 2] + a[NR / 2 + 1]) / 2}'; }
echo "frames: $frames x $size, 8-bit TIFF; $runs runs each, interleaved; $(nproc) cores"
printf '%-20s %10s %12s\n' program "wall (s)" "peak (MiB)"
for name in "${order[@]}"; do
  w=$(awk '{print $1}' "$work/$name.txt" | median)
  m=$(awk '{print $2}' "$work/$name.txt" | median)
  printf '%-20s %10.2f %12.0f\n' "$name" "$w" "$(echo "$m / 1024" | bc -l)"
done
