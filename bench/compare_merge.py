#!/usr/bin/python3
"""Times ol_hdr_merge beside OpenCV's Debevec merge on the same frames and
exposure times, each timed around the call alone, and hashes every output.

    /usr/bin/python3 bench/compare_merge.py [--lib build/release/libOmbrelumen40Lib1.so]
        [--base-lib OLD.so] [--sizes 3000x2000,6000x4000] [--frames 3,5] [--bps 8,16] [--reps 3]

For each case the calls run in turn within each repetition (OpenCV with its
default threads, OpenCV on one thread, ours, and the base library when
given), so that all meet the same load. Our merge runs on the calling
thread. OpenCV's merge takes 8-bit frames only, so 16-bit cases time ours
alone. Each case prints a SHA-256 of our output (the rgbe planes and the
three statistics); with --base-lib the base library's output must hash the
same, and the script exits with 1 when a case differs. Cases of the default
sizes are also checked against the hashes of the outputs the library gave
before its merge loop was made faster (EXPECTED).
"""
import argparse
import ctypes
import hashlib
import os
import statistics
import sys
import time

import cv2
import numpy as np


# (size, bps, frames): hash of the output of the library before the weight
# was computed in the vector loop and the marker pass was vectorised.
EXPECTED = {
    ("3000x2000", 8, 3): "c604067c4499d942",
    ("3000x2000", 8, 5): "37a78252535d327d",
    ("3000x2000", 16, 3): "8bfa2575752c05e4",
    ("3000x2000", 16, 5): "82ed86b3b7b5fe87",
    ("6000x4000", 8, 3): "384ab2a8768a9582",
    ("6000x4000", 8, 5): "0b0f904eef709e05",
    ("6000x4000", 16, 3): "648de3e0ffdb1f1e",
    ("6000x4000", 16, 5): "b5d114a7a3942fc1",
}


def make_stack(n, width, height, bps, dt, seed=1234):
    """A 14-stop horizontal ramp with a vertical modulation and noise,
    photographed with a 2.2 gamma at each exposure; 3 samples. Made in
    bands of rows so that large frames need little memory."""
    top = 255.0 if bps == 8 else 65535.0
    dtype = np.uint8 if bps == 8 else np.uint16
    frames = [np.empty((height, width, 3), dtype=dtype) for _ in range(n)]
    x = np.arange(width, dtype=np.float32)[None, :]
    band = 250
    for y0 in range(0, height, band):
        rng = np.random.default_rng(seed + y0)
        y = np.arange(y0, min(y0 + band, height), dtype=np.float32)[:, None]
        stops = -10.0 + 14.0 * x / width + 2.0 * np.sin(y * 0.01 + x * 0.003)
        base = np.exp2(stops)
        scene = np.stack([base * 0.8, base, base * 1.2], axis=-1)
        for k in range(n):
            v = top * (np.power(scene * np.float32(dt[k]), np.float32(1.0 / 2.2))
                       + rng.uniform(-0.01, 0.01, scene.shape).astype(np.float32))
            frames[k][y0:y0 + band] = np.clip(v, 0, top).astype(dtype)
    return frames


def load(path):
    lib = ctypes.CDLL(path)
    f32p = ctypes.POINTER(ctypes.c_float)
    lib.ol_hdr_merge.restype = ctypes.c_int
    lib.ol_hdr_merge.argtypes = [ctypes.c_int] * 7 + [f32p, ctypes.c_float, f32p, ctypes.c_void_p,
                                                      f32p, ctypes.c_void_p]
    return lib


def merger(lib, block, n, w, h, bps, dt):
    """A call of ol_hdr_merge on the block; returns it and a hash of its output."""
    f32p = ctypes.POINTER(ctypes.c_float)
    lut = np.zeros(1 << bps, dtype=np.float32)
    stats = np.zeros(3, dtype=np.float32)
    rgbe = np.zeros(4 * w * h, dtype=np.uint8)

    def call():
        d = np.array(dt, dtype=np.float32)
        rc = lib.ol_hdr_merge(0, n, w, h, 3, bps, 0, lut.ctypes.data_as(f32p), -1.0,
                              d.ctypes.data_as(f32p), block.ctypes.data, stats.ctypes.data_as(f32p),
                              rgbe.ctypes.data)
        assert rc == h, rc

    def digest():
        return hashlib.sha256(rgbe.tobytes() + stats.tobytes()).hexdigest()[:16]

    return call, digest


def timed(fn, wall, cpu):
    c0 = time.thread_time()
    t0 = time.perf_counter()
    fn()
    wall.append(time.perf_counter() - t0)
    cpu.append(time.thread_time() - c0)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--lib", default="build/release/libOmbrelumen40Lib1.so")
    ap.add_argument("--base-lib", default=None)
    ap.add_argument("--sizes", default="3000x2000,6000x4000")
    ap.add_argument("--frames", default="3,5")
    ap.add_argument("--bps", default="8,16")
    ap.add_argument("--reps", type=int, default=3)
    args = ap.parse_args()

    ours_lib = load(args.lib)
    base_lib = load(args.base_lib) if args.base_lib else None
    default_threads = cv2.getNumThreads()
    print(f"3 samples, frames two stops apart, medians of {args.reps} runs; OpenCV {cv2.__version__} "
          f"({default_threads} threads by default); load average {os.getloadavg()[0]:.1f} at the start")
    print("ratios: OpenCV's time over ours (nT: its default threads, 1T: one thread; cpu: CPU time of the "
          "calling thread, OpenCV on one thread); ns: our wall and CPU time per pixel and frame")
    print(f"{'size':>9} {'bps':>3} {'fr':>2} {'cv nT ms':>9} {'cv 1T ms':>9} {'ours ms':>8} {'cpu ms':>7} "
          f"{'ns':>5} {'cpu ns':>6} {'x nT':>5} {'x 1T':>5} {'x cpu':>5} {'base ms':>8} {'base cpu':>8} "
          f"{'hash':>16} same")
    differ = False
    for size in args.sizes.split(","):
        w, h = (int(v) for v in size.split("x"))
        for bps in (int(v) for v in args.bps.split(",")):
            for n in (int(v) for v in args.frames.split(",")):
                dt = [2.0 ** (2 * (k - n // 2)) for k in range(n)]
                frames = make_stack(n, w, h, bps, dt)
                block = np.ascontiguousarray(np.stack(frames))
                times = np.array(dt, dtype=np.float32)
                ours, ours_hash = merger(ours_lib, block, n, w, h, bps, dt)
                base, base_hash = merger(base_lib, block, n, w, h, bps, dt) if base_lib else (None, None)
                merge = cv2.createMergeDebevec()
                t = {k: ([], []) for k in ("nT", "1T", "ours", "base")}
                for _ in range(args.reps):
                    if bps == 8:
                        cv2.setNumThreads(default_threads)
                        timed(lambda: merge.process(frames, times), *t["nT"])
                        cv2.setNumThreads(1)
                        timed(lambda: merge.process(frames, times), *t["1T"])
                        cv2.setNumThreads(default_threads)
                    timed(ours, *t["ours"])
                    if base:
                        timed(base, *t["base"])
                med = {k: (statistics.median(v[0]) if v[0] else float("nan"),
                           statistics.median(v[1]) if v[1] else float("nan")) for k, v in t.items()}
                digest = ours_hash()
                checks = [h for h in (base_hash() if base else None, EXPECTED.get((size, bps, n))) if h]
                same = "-" if not checks else ("yes" if all(h == digest for h in checks) else "NO")
                differ |= same == "NO"
                per = 1e9 / (w * h * n)
                o_wall, o_cpu = med["ours"]
                print(f"{size:>9} {bps:>3} {n:>2} {med['nT'][0] * 1e3:>9.1f} {med['1T'][0] * 1e3:>9.1f} "
                      f"{o_wall * 1e3:>8.1f} {o_cpu * 1e3:>7.1f} {o_wall * per:>5.2f} {o_cpu * per:>6.2f} "
                      f"{med['nT'][0] / o_wall:>5.1f} {med['1T'][0] / o_wall:>5.1f} {med['1T'][1] / o_cpu:>5.1f} "
                      f"{med['base'][0] * 1e3:>8.1f} {med['base'][1] * 1e3:>8.1f} {digest:>16} {same}", flush=True)
                del frames, block
    print(f"load average {os.getloadavg()[0]:.1f} at the end")
    if differ:
        print("outputs differ from the base library or the expected hashes")
        sys.exit(1)


if __name__ == "__main__":
    main()
