#!/usr/bin/env bash
# Exposure fusion side by side: ol_fusion (bench/fusion_bench), enfuse and
# OpenCV's Mertens fusion, on the same synthetic 8-bit frames in one run.
# Each process is timed whole (reading the frames and writing the result
# included) with GNU time, which also gives its peak resident memory.
#
#   bench/compare_fusion.sh BUILD_DIR [--large] [--runs N]
#
# BUILD_DIR holds bench/fusion_bench (a Release build with OL_BUILD_BENCH=ON).
# --large adds 3 and 5 frames of 6000x4000 (run once each: memory and time).
set -euo pipefail

build=${1:?usage: compare_fusion.sh BUILD_DIR [--large] [--runs N]}
shift
bench="$build/bench/fusion_bench"
large=0
runs=3
while [ $# -gt 0 ]; do
  case "$1" in
    --large) large=1 ;;
    --runs) runs=$2; shift ;;
  esac
  shift
done
[ -x "$bench" ] || { echo "missing $bench" >&2; exit 1; }
py=/usr/bin/python3
work=$(mktemp -d /tmp/olcompare-XXXXXX)
trap 'rm -rf "$work"' EXIT

cat > "$work/mertens.py" <<'PY'
import sys, cv2, numpy as np
out = sys.argv[1]
imgs = [cv2.imread(p, cv2.IMREAD_COLOR) for p in sys.argv[2:]]
res = cv2.createMergeMertens().process(imgs)
cv2.imwrite(out, np.clip(res * 255.0, 0, 255).astype(np.uint8))
PY

# Prints "seconds peakKiB" of one run of the command.
measure() {
  /usr/bin/time -f "%e %M" -o "$work/time.txt" "$@" > "$work/cmd.out" 2> "$work/cmd.err" || {
    echo "failed: $*" >&2; cat "$work/cmd.err" >&2; return 1; }
  cat "$work/time.txt"
}

# Median of the first or second column of the lines on stdin.
median() { "$py" -c "import sys,statistics; v=[float(l.split()[$1]) for l in sys.stdin if l.strip()]; print(statistics.median(v))"; }

printf "%-12s %-7s %-10s %10s %10s %12s %12s\n" "size" "frames" "tool" "wall s" "peak MiB" "time/ol_mem" "peak/ol_mem"
cases="3000x2000"
[ "$large" = 1 ] && cases="$cases 6000x4000"
for size in $cases; do
  w=${size%x*}; h=${size#*x}
  r=$runs
  [ "$size" = 6000x4000 ] && r=1
  for n in 3 5; do
    rm -f "$work"/frame*.ppm "$work"/frame*.tif
    "$bench" --write "$w" "$h" "$n" "$work"
    frames=$(ls "$work"/frame*.ppm)
    for f in $frames; do convert "$f" "${f%.ppm}.tif"; done
    tifs=$(ls "$work"/frame*.tif)
    : > "$work/ol_mem.txt"; : > "$work/ol_disk.txt"; : > "$work/enfuse.txt"; : > "$work/mertens.txt"
    for i in $(seq "$r"); do
      # shellcheck disable=SC2086
      measure "$bench" --out "$work/ol.ppm" --case "$w" "$h" "$n" mem 1 $frames >> "$work/ol_mem.txt"
      # shellcheck disable=SC2086
      measure "$bench" --out "$work/ol.ppm" --case "$w" "$h" "$n" disk 1 $frames >> "$work/ol_disk.txt"
      # shellcheck disable=SC2086
      measure enfuse -o "$work/enfuse.tif" $tifs >> "$work/enfuse.txt"
      # shellcheck disable=SC2086
      measure "$py" "$work/mertens.py" "$work/mertens.png" $frames >> "$work/mertens.txt"
    done
    olt=$(median 0 < "$work/ol_mem.txt"); olm=$(median 1 < "$work/ol_mem.txt")
    for tool in ol_mem ol_disk enfuse mertens; do
      t=$(median 0 < "$work/$tool.txt"); m=$(median 1 < "$work/$tool.txt")
      speed=$("$py" -c "print('%.2f' % ($t / $olt))")
      mem=$("$py" -c "print('%.2f' % ($m / $olm))")
      printf "%-12s %-7s %-10s %10.2f %10.1f %12s %12s\n" "$size" "$n" "$tool" "$t" "$("$py" -c "print($m/1024)")" "$speed" "$mem"
    done
  done
done
