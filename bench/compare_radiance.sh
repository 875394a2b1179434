#!/usr/bin/env bash
# Radiance writing and reading: the library against ImageMagick and vips on
# the same 6000x4000 photo-like picture, measured in one run, with a hash of
# every output checked against the library's earlier outputs.
#
#   bench/compare_radiance.sh [radiance_bench binary] [scratch folder]
#
# Environment: RUNS (default 7); LIB, the shared library beside the bench
# (default BENCH/../../libOmbrelumen40Lib1.so); BASE_BENCH and BASE_LIB, an
# earlier build to time in process and to hash beside this one.
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

BENCH=$(realpath "${1:-build/release/bench/radiance_bench}")
WORK=${2:-$(mktemp -d /tmp/radiance-compare.XXXXXX)}
RUNS=${RUNS:-7}
LIB=$(realpath "${LIB:-$(dirname "$BENCH")/../libOmbrelumen40Lib1.so}")
BASE_LIB=${BASE_LIB:+$(realpath "$BASE_LIB")}
BASE_BENCH=${BASE_BENCH:+$(realpath "$BASE_BENCH")}
mkdir -p "$WORK"
cd "$WORK"
echo "load average at the start: $(cut -d' ' -f1-3 /proc/loadavg)"

"$BENCH" --make in.hdr

# Outputs of the reading calls by hash (SHA-256 of the result code and the
# planes), for this library and the base one, against the hashes of the
# library's outputs before the reading was made faster: the picture that
# --make writes, decomp_rle and decomp2 of it, and its 600x400 preview.
echo "== output hashes"
hashes_ok=0
python3 - "$LIB" "${BASE_LIB:-}" <<'PY' || hashes_ok=1
import ctypes, hashlib, sys
expected = {
    "file": "afb81a1d4faf613c",
    "decomp_rle": "55fe1cdc9e3e085c",
    "decomp2": "55fe1cdc9e3e085c",
    "preview": "a0eb3188024d30cb",
}
def digests(path):
    lib = ctypes.CDLL(path)
    dims = (ctypes.c_int * 7)()
    prim = (ctypes.c_float * 8)()
    assert lib.rgbe_dim(b"in.hdr", prim, dims) >= 0
    w, h = dims[0], dims[1]
    out = {"file": hashlib.sha256(open("in.hdr", "rb").read()).hexdigest()[:16]}
    for name in ("decomp_rle", "decomp2", "preview"):
        buf = (ctypes.c_ubyte * (4 * w * h))()
        if name == "decomp_rle":
            rc = lib.decomp_rle(b"in.hdr", dims, buf)
        elif name == "decomp2":
            rc = lib.decomp2(b"in.hdr", dims, buf, None)
        else:
            rc = lib.ol_io_read_preview_rgbe(w, h, 600, 400, b"in.hdr", buf)
            buf = bytes(buf)[: 4 * 600 * 400]
        out[name] = hashlib.sha256(str(rc).encode() + bytes(buf)).hexdigest()[:16]
    return out
libs = [("library", sys.argv[1])] + ([("base", sys.argv[2])] if sys.argv[2] else [])
results = {name: digests(path) for name, path in libs}
bad = False
for step, want in expected.items():
    got = [results[name][step] for name, _ in libs]
    same = all(g == want for g in got)
    bad |= not same
    print(f"{step:12s} expected {want}  " + "  ".join(f"{n} {g}" for (n, _), g in zip(libs, got)) +
          ("  same" if same else "  DIFFERENT"))
sys.exit(1 if bad else 0)
PY
have_vips=0; have_im=0
command -v vips >/dev/null 2>&1 && have_vips=1
command -v convert >/dev/null 2>&1 && have_im=1
[ $have_vips = 1 ] && vips copy in.hdr in.v
[ $have_im = 1 ] && convert in.hdr in.miff

echo "== library (in process)"
"$BENCH" "$WORK" "$RUNS" | tee lib.txt
if [ -n "${BASE_BENCH:-}" ]; then
  echo "== base library (in process)"
  "$BASE_BENCH" "$WORK" "$RUNS" | tee base.txt
fi

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
if [ ${#writes[@]} = 0 ]; then echo "neither vips nor ImageMagick"; exit $hashes_ok; fi

echo "== programs"
hyperfine -N --warmup 1 --runs "$RUNS" --export-json reads.json "${reads[@]}"
hyperfine -N --warmup 1 --runs "$RUNS" --prepare "rm -f out_vips.hdr out_im.hdr" \
  --export-json writes.json "${writes[@]}"
hyperfine -N --warmup 1 --runs "$RUNS" --export-json bases.json "${bases[@]}"
hyperfine -N --warmup 1 --runs "$RUNS" --prepare "rm -f out_lib.hdr out_vips.hdr out_im.hdr" \
  --export-json copies.json "${copies[@]}"

python3 - <<'PY'
import json, os, re
def parse(path):
    out = {}
    if os.path.exists(path):
        for line in open(path):
            m = re.match(r"(\S+)\s+median\s+([\d.]+) ms.*cpu\s+([\d.]+) ms", line) or \
                re.match(r"(\S+)\s+median\s+([\d.]+) ms", line)
            if m:
                out[m.group(1)] = (float(m.group(2)) / 1000,
                                   float(m.group(3)) / 1000 if m.lastindex >= 3 else float("nan"))
    return out
lib, base = parse("lib.txt"), parse("base.txt")
def medians(path):
    return {r["command"]: (r["median"], r["user"] + r["system"]) for r in json.load(open(path))["results"]}
reads, writes, bases = medians("reads.json"), medians("writes.json"), medians("bases.json")
copies = medians("copies.json")
libread = reads.pop("library read (process)")
libcopy = copies.pop("library copy (process)")
print("\n== medians (s; cpu: user and system) and how many times faster the library is")
for step in ("ol_io_rgbe_write", "decomp_rle", "decomp2"):
    line = f"library {step:18s} {lib[step][0]:.4f}  cpu {lib[step][1]:.4f}"
    if step in base:
        line += f"   base {base[step][0]:.4f}  cpu {base[step][1]:.4f}  (base / now {base[step][0] / lib[step][0]:.2f})"
    print(line)
for name, (t, c) in writes.items():
    print(f"{name:24s} {t:.3f}  cpu {c:.3f}   ratio {t / lib['ol_io_rgbe_write'][0]:.1f}, cpu {c / lib['ol_io_rgbe_write'][1]:.1f}")
for name, (t, c) in reads.items():
    print(f"{name:24s} {t:.3f}  cpu {c:.3f}   ratio vs decomp_rle {t / lib['decomp_rle'][0]:.1f} (cpu {c / lib['decomp_rle'][1]:.1f}), "
          f"vs decomp2 {t / lib['decomp2'][0]:.1f} (cpu {c / lib['decomp2'][1]:.1f})")
for name, (t, c) in bases.items():
    print(f"{name:24s} {t:.3f}  cpu {c:.3f}")
print(f"library read (process)   {libread[0]:.3f}  cpu {libread[1]:.3f}")
for name, (t, c) in reads.items():
    print(f"{name:24s} {t:.3f}   ratio vs library process {t / libread[0]:.1f}")
print(f"library copy (process)   {libcopy[0]:.3f}  cpu {libcopy[1]:.3f}")
for name, (t, c) in copies.items():
    print(f"{name:24s} {t:.3f}   ratio vs library process {t / libcopy[0]:.1f}")
fw = min(t for t, _ in writes.values()); fr = min(t for t, _ in reads.values())
print(f"fastest program write {fw:.3f} s: library {fw / lib['ol_io_rgbe_write'][0]:.1f}x as fast")
print(f"fastest program read  {fr:.3f} s: decomp_rle {fr / lib['decomp_rle'][0]:.1f}x, decomp2 {fr / lib['decomp2'][0]:.1f}x as fast")
PY
echo "load average at the end: $(cut -d' ' -f1-3 /proc/loadavg)"
if [ $hashes_ok != 0 ]; then echo "outputs differ from the library's earlier outputs"; exit 1; fi
