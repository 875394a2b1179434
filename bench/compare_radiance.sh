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
#   whole processes, read and read-then-write, for the library too:
#          radiance_bench --read in.hdr / --copy in.hdr out.hdr
#          vips copy in.hdr out.hdr,  convert in.hdr out.hdr
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

reads=(-n "library read (process)" "$BENCH --read in.hdr")
copies=(-n "library copy (process)" "$BENCH --copy in.hdr out_lib.hdr")
writes=(); bases=()
if [ $have_vips = 1 ]; then
  reads+=(-n "vips read" "vips avg in.hdr")
  writes+=(-n "vips write" "vips copy in.v out_vips.hdr")
  bases+=(-n "vips native read" "vips avg in.v")
  copies+=(-n "vips copy" "vips copy in.hdr out_vips.hdr")
fi
if [ $have_im = 1 ]; then
  reads+=(-n "ImageMagick read" "convert in.hdr null:")
  writes+=(-n "ImageMagick write" "convert in.miff out_im.hdr")
  bases+=(-n "ImageMagick native read" "convert in.miff null:")
  copies+=(-n "ImageMagick copy" "convert in.hdr out_im.hdr")
fi
if [ ${#writes[@]} = 0 ]; then echo "neither vips nor ImageMagick"; exit 0; fi

echo "== programs"
hyperfine -N --warmup 1 --runs "$RUNS" --export-json reads.json "${reads[@]}"
hyperfine -N --warmup 1 --runs "$RUNS" --prepare "rm -f out_vips.hdr out_im.hdr" \
  --export-json writes.json "${writes[@]}"
hyperfine -N --warmup 1 --runs "$RUNS" --export-json bases.json "${bases[@]}"
hyperfine -N --warmup 1 --runs "$RUNS" --prepare "rm -f out_lib.hdr out_vips.hdr out_im.hdr" \
  --export-json copies.json "${copies[@]}"

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
copies = medians("copies.json")
libread = reads.pop("library read (process)")
libcopy = copies.pop("library copy (process)")
print("\n== medians (s) and how many times faster the library is")
print(f"library write {lib['ol_io_rgbe_write']:.3f}   decomp_rle {lib['decomp_rle']:.3f}   decomp2 {lib['decomp2']:.3f}")
for name, t in writes.items():
    print(f"{name:24s} {t:.3f}   ratio {t / lib['ol_io_rgbe_write']:.1f}")
for name, t in reads.items():
    print(f"{name:24s} {t:.3f}   ratio vs decomp_rle {t / lib['decomp_rle']:.1f}, vs decomp2 {t / lib['decomp2']:.1f}")
for name, t in bases.items():
    print(f"{name:24s} {t:.3f}")
print(f"library read (process)   {libread:.3f}")
for name, t in reads.items():
    print(f"{name:24s} {t:.3f}   ratio vs library process {t / libread:.1f}")
print(f"library copy (process)   {libcopy:.3f}")
for name, t in copies.items():
    print(f"{name:24s} {t:.3f}   ratio vs library process {t / libcopy:.1f}")
fw = min(writes.values()); fr = min(reads.values())
print(f"fastest program write {fw:.3f} s: library {fw / lib['ol_io_rgbe_write']:.1f}x as fast")
print(f"fastest program read  {fr:.3f} s: decomp_rle {fr / lib['decomp_rle']:.1f}x, decomp2 {fr / lib['decomp2']:.1f}x as fast")
PY
