#!/usr/bin/env bash
# Radiance writing and reading: the library against ImageMagick and vips on
# the same 6000x4000 photo-like picture, measured in one run.
#
#   bench/compare_radiance.sh [radiance_bench binary] [scratch folder]
#
# The library is timed in process by radiance_bench (median of RUNS runs).
# The programs are timed with hyperfine (median of RUNS runs), each write
# going to a new file as the library's does:
#   read:  vips avg in.hdr            (decodes the whole picture)
#          convert in.hdr null:
#   write: vips copy in.v out.hdr     (in.v: vips' own file holding the same
#                                      RGBE bytes, so no float conversion)
#          convert in.miff out.hdr    (in.miff: ImageMagick's own file)
# Baselines (the same programs reading their own files only) are shown too,
# so that the Radiance work can be told from start-up and input costs.
set -euo pipefail

BENCH=${1:-build/radiance-release/bench/radiance_bench}
WORK=${2:-$(mktemp -d /tmp/radiance-compare.XXXXXX)}
RUNS=${RUNS:-7}
mkdir -p "$WORK"
cd "$WORK"

"$BENCH" --make in.hdr
have_vips=0; have_im=0
command -v vips >/dev/null 2>&1 && have_vips=1
command -v convert >/dev/null 2>&1 && have_im=1
[ $have_vips = 1 ] && vips copy in.hdr in.v
[ $have_im = 1 ] && convert in.hdr in.miff

echo "== library (in process)"
"$BENCH" "$WORK" "$RUNS" | tee lib.txt

reads=(); writes=(); bases=()
if [ $have_vips = 1 ]; then
  reads+=(-n "vips read" "vips avg in.hdr")
  writes+=(-n "vips write" "vips copy in.v out_vips.hdr")
  bases+=(-n "vips native read" "vips avg in.v")
fi
if [ $have_im = 1 ]; then
  reads+=(-n "ImageMagick read" "convert in.hdr null:")
  writes+=(-n "ImageMagick write" "convert in.miff out_im.hdr")
  bases+=(-n "ImageMagick native read" "convert in.miff null:")
fi
if [ ${#reads[@]} = 0 ]; then echo "neither vips nor ImageMagick"; exit 0; fi

echo "== programs"
hyperfine -N --warmup 1 --runs "$RUNS" --export-json reads.json "${reads[@]}"
hyperfine -N --warmup 1 --runs "$RUNS" --prepare "rm -f out_vips.hdr out_im.hdr" \
  --export-json writes.json "${writes[@]}"
hyperfine -N --warmup 1 --runs "$RUNS" --export-json bases.json "${bases[@]}"

python3 - <<'PY'
import json, re
lib = {}
for line in open("lib.txt"):
    m = re.match(r"(\S+)\s+median\s+([\d.]+) ms", line)
    if m:
        lib[m.group(1)] = float(m.group(2)) / 1000
def medians(path):
    return {r["command"]: r["median"] for r in json.load(open(path))["results"]}
reads, writes, bases = medians("reads.json"), medians("writes.json"), medians("bases.json")
print("\n== medians (s) and how many times faster the library is")
print(f"library write {lib['ol_io_rgbe_write']:.3f}   decomp_rle {lib['decomp_rle']:.3f}   decomp2 {lib['decomp2']:.3f}")
for name, t in writes.items():
    print(f"{name:24s} {t:.3f}   ratio {t / lib['ol_io_rgbe_write']:.1f}")
for name, t in reads.items():
    print(f"{name:24s} {t:.3f}   ratio vs decomp_rle {t / lib['decomp_rle']:.1f}, vs decomp2 {t / lib['decomp2']:.1f}")
for name, t in bases.items():
    print(f"{name:24s} {t:.3f}")
fw = min(writes.values()); fr = min(reads.values())
print(f"fastest program write {fw:.3f} s: library {fw / lib['ol_io_rgbe_write']:.1f}x as fast")
print(f"fastest program read  {fr:.3f} s: decomp_rle {fr / lib['decomp_rle']:.1f}x, decomp2 {fr / lib['decomp2']:.1f}x as fast")
PY
