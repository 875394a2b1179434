#!/usr/bin/python3
"""Operators beside OpenCV and numpy on the same image, in one run.

    /usr/bin/python3 bench/compare_operators.py [--lib build/release/libOmbrelumen40Lib1.so]
                                               [--reps 7] [--large]

- sharpen against cv2.filter2D with the same 3x3 kernel (1 + 8a at the
  centre, -a around it) and a replicated border, which is the rim rule of
  sharpen; the bytes differ by the rounding (truncation of the scaled
  Laplacian here, round-to-nearest there).
- remap_ldr (mode 1, bilinear; mode 0, nearest) against cv2.remap with a
  precomputed map (INTER_LINEAR, INTER_NEAREST): the map is not timed on
  OpenCV's side, while remap_ldr computes its projection inside the call.
- moyenne of a 3-frame stack against numpy.mean over the stack axis.

The library runs on one thread; OpenCV is timed with its default threads and
with one. Medians of --reps runs: the wall clock, and the calling thread's CPU
time for the one-thread runs (steadier on a loaded machine); ratio = other /
ours.
"""
import argparse
import ctypes
import math
import os
import statistics
import time

import cv2
import numpy as np

HERE = os.path.dirname(os.path.abspath(__file__))


def median_ms(fn, reps):
    """Medians of the wall clock and of the calling thread's CPU time, in ms."""
    fn()
    wall, cpu = [], []
    for _ in range(reps):
        t0, c0 = time.perf_counter(), time.thread_time()
        fn()
        cpu.append((time.thread_time() - c0) * 1e3)
        wall.append((time.perf_counter() - t0) * 1e3)
    return statistics.median(wall), statistics.median(cpu)


def ptr(a):
    return a.ctypes.data_as(ctypes.c_void_p)


def scene(w, h):
    y, x = np.mgrid[0:h, 0:w].astype(np.float64)
    base = 0.5 + 0.45 * np.sin(x * 0.004 + 0.002 * y) * np.cos(y * 0.003)
    rng = np.random.default_rng(5)
    img = np.stack([base * (0.8 + 0.1 * c) for c in range(3)], axis=-1) * 255 + rng.normal(0, 2.5, (h, w, 3))
    return np.clip(img, 0, 255).astype(np.uint8)


def ball_map(w, h):
    """The mirror-ball projection of remap_ldr as a float map for cv2.remap."""
    W = 2 * w
    th = np.arange(h, dtype=np.float64)[:, None] * math.pi / (h - 1)
    ph = (np.arange(W, dtype=np.float64)[None, :] - W * 0.25) * 2 * math.pi / (W - 1)
    a = np.arccos(np.sin(ph) * np.sin(th))
    b = np.arctan2(np.cos(th) * np.ones_like(ph), -(np.cos(ph) * np.sin(th)))
    s = np.sin(a * 0.5)
    sx = (np.cos(b) * s + 1.0) * (w * 0.5)
    sy = (1.0 - np.sin(b) * s) * (h * 0.5)
    return sx.astype(np.float32), sy.astype(np.float32)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--lib", default=os.path.join(HERE, "..", "build", "release", "libOmbrelumen40Lib1.so"))
    ap.add_argument("--reps", type=int, default=7)
    ap.add_argument("--large", action="store_true", help="6000x4000 instead of 3000x2000")
    args = ap.parse_args()
    lib = ctypes.CDLL(args.lib)
    lib.sharpen.argtypes = [ctypes.c_float] + [ctypes.c_int] * 4 + [ctypes.c_void_p] * 2
    lib.remap_ldr.argtypes = [ctypes.c_int] * 7 + [ctypes.c_void_p] * 2
    lib.remap_ldr.restype = None
    lib.moyenne.argtypes = [ctypes.c_int] * 8 + [ctypes.c_void_p] * 2

    w, h = (6000, 4000) if args.large else (3000, 2000)
    img = scene(w, h)
    print(f"image {w}x{h}x3, {args.reps} runs, OpenCV {cv2.__version__}, numpy {np.__version__}, "
          f"OpenCV threads {cv2.getNumThreads()}")
    rows = []

    def compare(what, ours, other_default, other_one):
        t_ours = median_ms(ours, args.reps)
        cv2.setNumThreads(-1)
        t_def = median_ms(other_default, args.reps)
        t_one = None
        if other_one is not None:
            cv2.setNumThreads(1)
            t_one = median_ms(other_one, args.reps)
            cv2.setNumThreads(-1)
        rows.append((what, t_ours, t_def, t_one))

    # sharpen / filter2D
    amount = 0.6
    kernel = np.full((3, 3), -amount, np.float32)
    kernel[1, 1] = 1 + 8 * amount
    out = np.empty_like(img)
    ours = lambda: lib.sharpen(amount, w, h, w * 3, 3, ptr(img), ptr(out))
    cvf = lambda: cv2.filter2D(img, -1, kernel, borderType=cv2.BORDER_REPLICATE)
    compare("sharpen vs cv2.filter2D", ours, cvf, cvf)
    diff = np.abs(out.astype(int) - cvf().astype(int))
    print(f"sharpen vs filter2D bytes: max difference {diff.max()}, {np.mean(diff > 0) * 100:.1f} % differ")

    # remap_ldr / cv2.remap
    pano = np.empty((h, 2 * w, 3), np.uint8)
    mx, my = ball_map(w, h)
    ours = lambda: lib.remap_ldr(1, 8, w, h, w * 3, 2 * w * 3, 3, ptr(img), ptr(pano))
    cvr = lambda: cv2.remap(img, mx, my, cv2.INTER_LINEAR, borderMode=cv2.BORDER_REPLICATE)
    compare("remap_ldr mode 1 vs cv2.remap", ours, cvr, cvr)
    ours0 = lambda: lib.remap_ldr(0, 8, w, h, w * 3, 2 * w * 3, 3, ptr(img), ptr(pano))
    cvn = lambda: cv2.remap(img, mx, my, cv2.INTER_NEAREST, borderMode=cv2.BORDER_REPLICATE)
    compare("remap_ldr mode 0 vs cv2.remap NEAREST", ours0, cvn, cvn)
    ours()
    t_map = median_ms(lambda: ball_map(w, h), max(1, args.reps // 3))[0]
    diff = np.abs(pano.astype(int) - cvr().astype(int))
    print(f"remap bytes: median difference {np.median(diff)}, {np.mean(diff > 1) * 100:.1f} % differ by more than 1"
          f" (clamped cells and truncation); the map in numpy takes {t_map:.0f} ms")

    # moyenne / numpy.mean
    stack = np.stack([img, (img // 2), np.clip(img.astype(int) * 2, 0, 255).astype(np.uint8)])
    mean = np.empty_like(img)
    ours = lambda: lib.moyenne(3, w, h, w * 3, 0, 3, 8, 8, ptr(stack), ptr(mean))
    npm = lambda: np.mean(stack, axis=0)
    compare("moyenne vs numpy.mean", ours, npm, None)
    ours()
    assert np.array_equal(mean, (stack.astype(np.uint32).sum(axis=0) // 3).astype(np.uint8))

    print("wall clock: ours, other with its default threads; CPU: ours, other on one thread (ms)")
    print(f"{'operation':32s} {'ours':>8s} {'other':>8s} {'ratio':>7s} | {'ours CPU':>8s} {'1t CPU':>8s} {'ratio':>7s}")
    for what, (w_ours, c_ours), (w_def, c_def), one in rows:
        w_one, c_one = one if one is not None else (w_def, c_def)
        print(f"{what:32s} {w_ours:8.1f} {w_def:8.1f} {w_def / w_ours:6.2f}x | {c_ours:8.1f} {c_one:8.1f} {c_one / c_ours:6.2f}x")


if __name__ == "__main__":
    main()
