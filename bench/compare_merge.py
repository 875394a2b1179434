#!/usr/bin/python3
"""Times ol_hdr_merge beside OpenCV's Debevec merge on the same 8-bit frames
and exposure times, each timed around the call alone.

    /usr/bin/python3 bench/compare_merge.py [--lib build/merge-release/libOmbrelumen40Lib1.so]
        [--width 3000] [--height 2000] [--frames 3,5] [--reps 5]

OpenCV runs once on one thread (cv2.setNumThreads(1)) and once with its
default thread count; our merge always runs on the calling thread.
"""
import argparse
import ctypes
import statistics
import time

import cv2
import numpy as np


def make_stack(n, width, height, dt, seed=1234):
    """A 14-stop horizontal ramp with a vertical modulation and noise,
    photographed with a 2.2 gamma at each exposure; 8-bit, 3 samples."""
    rng = np.random.default_rng(seed)
    x = np.arange(width, dtype=np.float64)[None, :]
    y = np.arange(height, dtype=np.float64)[:, None]
    stops = -10.0 + 14.0 * x / width + 2.0 * np.sin(y * 0.01 + x * 0.003)
    base = np.exp2(stops)
    scene = np.stack([base * 0.8, base, base * 1.2], axis=-1)
    frames = []
    for k in range(n):
        v = 255.0 * (np.power(scene * dt[k], 1.0 / 2.2) + rng.uniform(-0.01, 0.01, scene.shape))
        frames.append(np.ascontiguousarray(np.clip(v, 0, 255).astype(np.uint8)))
    return frames


def median_time(fn, reps):
    """Medians of the wall time and of the calling thread's CPU time."""
    wall, cpu = [], []
    for _ in range(reps):
        c0 = time.thread_time()
        t0 = time.perf_counter()
        fn()
        wall.append(time.perf_counter() - t0)
        cpu.append(time.thread_time() - c0)
    return statistics.median(wall), statistics.median(cpu)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--lib", default="build/merge-release/libOmbrelumen40Lib1.so")
    ap.add_argument("--width", type=int, default=3000)
    ap.add_argument("--height", type=int, default=2000)
    ap.add_argument("--frames", default="3,5")
    ap.add_argument("--reps", type=int, default=5)
    args = ap.parse_args()

    lib = ctypes.CDLL(args.lib)
    f32p = ctypes.POINTER(ctypes.c_float)
    lib.ol_hdr_merge.restype = ctypes.c_int
    lib.ol_hdr_merge.argtypes = [ctypes.c_int] * 7 + [f32p, ctypes.c_float, f32p, ctypes.c_void_p,
                                                      f32p, ctypes.c_void_p]

    w, h = args.width, args.height
    pixels = w * h
    print(f"{w}x{h}, 8 bits, 3 samples, median of {args.reps} runs; OpenCV {cv2.__version__}")
    print("wall-clock medians (cpu: medians of the calling thread's CPU time, one-thread runs)")
    print(f"{'frames':>6} {'cv 1T ms':>9} {'cv nT ms':>9} {'ours ms':>8} {'ns/px/fr':>9} "
          f"{'x 1T':>6} {'x nT':>6} | {'cv 1T cpu':>9} {'ours cpu':>9} {'ns/px/fr':>9} {'x cpu':>6}")
    for n in [int(s) for s in args.frames.split(",")]:
        dt = [2.0 ** (2 * (k - n // 2)) for k in range(n)]
        frames = make_stack(n, w, h, dt)
        times = np.array(dt, dtype=np.float32)

        merge = cv2.createMergeDebevec()
        default_threads = cv2.getNumThreads()
        cv2.setNumThreads(1)
        cv_1t, cv_1t_cpu = median_time(lambda: merge.process(frames, times), args.reps)
        cv2.setNumThreads(default_threads)
        cv_nt, _ = median_time(lambda: merge.process(frames, times), args.reps)

        block = np.ascontiguousarray(np.stack(frames))
        lut = np.zeros(256, dtype=np.float32)
        stats = np.zeros(3, dtype=np.float32)
        rgbe = np.zeros(4 * pixels, dtype=np.uint8)

        def ours():
            d = np.array(dt, dtype=np.float32)
            rc = lib.ol_hdr_merge(0, n, w, h, 3, 8, 0, lut.ctypes.data_as(f32p), -1.0,
                                  d.ctypes.data_as(f32p), block.ctypes.data, stats.ctypes.data_as(f32p),
                                  rgbe.ctypes.data)
            assert rc == h, rc

        ours_t, ours_cpu = median_time(ours, args.reps)
        print(f"{n:>6} {cv_1t * 1e3:>9.1f} {cv_nt * 1e3:>9.1f} {ours_t * 1e3:>8.1f} "
              f"{ours_t * 1e9 / (pixels * n):>9.2f} {cv_1t / ours_t:>6.1f} {cv_nt / ours_t:>6.1f} | "
              f"{cv_1t_cpu * 1e3:>9.1f} {ours_cpu * 1e3:>9.1f} {ours_cpu * 1e9 / (pixels * n):>9.2f} "
              f"{cv_1t_cpu / ours_cpu:>6.1f}")


if __name__ == "__main__":
    main()
