#!/usr/bin/env bash
# Exposure fusion side by side: `olhdr fuse` against enfuse on the same 8-bit
# JPEG brackets, whole processes (reading the frames and writing an 8-bit
# TIFF included), in one run. The runs of the programs are interleaved; each
# is timed with GNU time, which gives the wall time, the CPU time (user +
# sys) and the peak resident memory.
#
#   bench/compare_fusion.sh BUILD_DIR [--sizes "6000x4000 3000x2000"] [--frames "3 5"]
#                                     [--runs N] [--profile] [--mertens]
#
# BUILD_DIR holds tools/olhdr (a Release build with OL_BUILD_TOOLS=ON). The
# frames come from `olhdr bracket` (cached in $OL_BENCH_CACHE, default
# /tmp/olbench-brackets). Every olhdr output (memory mode on all cores, one
# thread, three threads, disk mode) must have the same bytes, and those of a
# known case the recorded hash below: any difference fails the script.
# --profile adds a short perf profile of the first case (memory mode).
# --mertens adds OpenCV's Mertens fusion (Python) to the table.
# Lines starting with "RATIO" are the summary that bench/compare_all.sh
# collects.
set -euo pipefail

build=${1:?usage: compare_fusion.sh BUILD_DIR [--sizes LIST] [--frames LIST] [--runs N] [--profile] [--mertens]}
shift
olhdr="$build/tools/olhdr"
sizes="6000x4000"
frameCounts="3 5"
runs=3
profile=0
mertens=0
while [ $# -gt 0 ]; do
  case "$1" in
    --sizes) sizes=$2; shift ;;
    --frames) frameCounts=$2; shift ;;
    --runs) runs=$2; shift ;;
    --profile) profile=1 ;;
    --mertens) mertens=1 ;;
    *) echo "unknown option $1" >&2; exit 1 ;;
  esac
  shift
done
[ -x "$olhdr" ] || { echo "missing $olhdr" >&2; exit 1; }
command -v enfuse >/dev/null || { echo "enfuse is not installed (apt-get install enblend)" >&2; exit 1; }
py=/usr/bin/python3
cache=${OL_BENCH_CACHE:-/tmp/olbench-brackets}
work=$(mktemp -d /tmp/olcompare-XXXXXX)
trap 'rm -rf "$work"' EXIT

# MD5 of the fused 8-bit TIFF of `olhdr bracket --size S --frames N` frames,
# as the fusion gave it before any speed work; a change of the bytes is a
# fault, not a speed-up.
expected_hash() {
  case "$1" in
    6000x4000/3) echo bfb22aa81baa32e9a14871d9a8b35e6b ;;
    6000x4000/5) echo dc7616d813f1ba08fcca4c848e1c6a6b ;;
    3000x2000/3) echo 3eb7863c7624c19aea6d09db1cf613c4 ;;
    3000x2000/5) echo ef55b615d86f6396272f06a2f2843243 ;;
    *) echo "" ;;
  esac
}

cat > "$work/mertens.py" <<'PY'
import sys, cv2, numpy as np
out = sys.argv[1]
imgs = [cv2.imread(p, cv2.IMREAD_COLOR) for p in sys.argv[2:]]
res = cv2.createMergeMertens().process(imgs)
cv2.imwrite(out, np.clip(res * 255.0, 0, 255).astype(np.uint8))
PY

# Appends "wall cpu peakKiB" of one run of the command to file $1.
measure() {
  local into=$1; shift
  /usr/bin/time -f "%e %U %S %M" -o "$work/time.txt" "$@" > "$work/cmd.out" 2> "$work/cmd.err" || {
    echo "failed: $*" >&2; cat "$work/cmd.err" >&2; return 1; }
  read -r wall user sys peak < "$work/time.txt"
  echo "$wall $("$py" -c "print($user + $sys)") $peak" >> "$into"
}

# Median of column $1 (0 wall, 1 cpu, 2 peak) of the lines on stdin.
median() { "$py" -c "import sys,statistics; v=[float(l.split()[$1]) for l in sys.stdin if l.strip()]; print(statistics.median(v))"; }
ratio() { "$py" -c "print('%.2f' % ($1 / $2))"; }

echo "load average at start: $(cut -d' ' -f1-3 /proc/loadavg) ($(nproc) cores)"
status=0
printf "%-10s %-6s %-12s %8s %8s %9s %10s %10s\n" "size" "frames" "tool" "wall s" "cpu s" "peak MiB" "wall/ol" "cpu/ol"
for size in $sizes; do
  for n in $frameCounts; do
    dir="$cache/$size-$n"
    if [ ! -f "$dir/frame-$n.jpg" ]; then
      "$olhdr" bracket -o "$dir" --size "$size" --frames "$n" -q
    fi
    frames=$(ls "$dir"/frame-*.jpg)
    tools="ol_mem ol_disk enfuse"
    [ "$mertens" = 1 ] && tools="$tools mertens"
    for t in $tools; do : > "$work/$t.txt"; done
    for _ in $(seq "$runs"); do
      # shellcheck disable=SC2086
      measure "$work/ol_mem.txt" "$olhdr" fuse $frames -o "$work/mem.tif" -q
      # shellcheck disable=SC2086
      measure "$work/ol_disk.txt" "$olhdr" fuse $frames -o "$work/disk.tif" --disk --scratch "$work" -q
      # shellcheck disable=SC2086
      measure "$work/enfuse.txt" enfuse -o "$work/enfuse.tif" $frames
      if [ "$mertens" = 1 ]; then
        # shellcheck disable=SC2086
        measure "$work/mertens.txt" "$py" "$work/mertens.py" "$work/mertens.png" $frames
      fi
    done
    # shellcheck disable=SC2086
    "$olhdr" fuse $frames -o "$work/j1.tif" -j 1 -q
    # shellcheck disable=SC2086
    "$olhdr" fuse $frames -o "$work/j3.tif" -j 3 -q
    olw=$(median 0 < "$work/ol_mem.txt"); olc=$(median 1 < "$work/ol_mem.txt")
    for t in $tools; do
      w=$(median 0 < "$work/$t.txt"); c=$(median 1 < "$work/$t.txt"); m=$(median 2 < "$work/$t.txt")
      printf "%-10s %-6s %-12s %8.2f %8.2f %9.1f %10s %10s\n" "$size" "$n" "$t" "$w" "$c" \
        "$("$py" -c "print($m/1024)")" "$(ratio "$w" "$olw")" "$(ratio "$c" "$olc")"
    done
    hash=$(md5sum < "$work/mem.tif" | cut -d' ' -f1)
    same=ok
    for f in disk j1 j3; do
      [ "$(md5sum < "$work/$f.tif" | cut -d' ' -f1)" = "$hash" ] || same="differs in $f"
    done
    want=$(expected_hash "$size/$n")
    if [ "$same" != ok ]; then
      echo "HASH FAILURE $size $n frames: memory mode $hash, $same" >&2; status=1
    elif [ -n "$want" ] && [ "$want" != "$hash" ]; then
      echo "HASH FAILURE $size $n frames: $hash, recorded $want" >&2; status=1
    else
      echo "hash $size $n frames: $hash (memory, disk, 1 and 3 threads${want:+, as recorded})"
    fi
    ew=$(median 0 < "$work/enfuse.txt"); dw=$(median 0 < "$work/ol_disk.txt")
    echo "RATIO fusion $size $n frames: enfuse/olhdr $(ratio "$ew" "$olw")x wall (target 8), disk/memory $(ratio "$dw" "$olw") (target at most 1.3)"
  done
done
echo "load average at end: $(cut -d' ' -f1-3 /proc/loadavg)"

if [ "$profile" = 1 ] && command -v perf >/dev/null; then
  size=${sizes%% *}; n=${frameCounts%% *}
  # shellcheck disable=SC2046
  if perf record -q -o "$work/perf.data" "$olhdr" fuse $(ls "$cache/$size-$n"/frame-*.jpg) -o "$work/p.tif" -q \
      > /dev/null 2>&1; then
    echo "profile of olhdr fuse, $size, $n frames (share of samples, by library and function):"
    { perf report -i "$work/perf.data" --no-children --sort dso,symbol -g none 2>/dev/null |
        grep '%' | head -12 | cut -c1-110; } || true  # head closes the pipe early
  fi
fi
exit $status
