#!/usr/bin/python3
"""align beside OpenCV's AlignMTB: speed on synthetic brackets, and the
shifts found on the real bracket sets.

    /usr/bin/python3 bench/compare_align.py [--lib build/release/libOmbrelumen40Lib1.so]
        [--sizes 3000x2000,6000x4000] [--frames 3,5] [--bits 8,16] [--reps 5]
    /usr/bin/python3 bench/compare_align.py --shifts [--lib ...] [--testdata ../shared/testdata]

Speed: both are timed around the call alone, on the same frames, in the same
run: cv2.createAlignMTB().process(frames, out) with OpenCV's default threads
and with cv2.setNumThreads(1), and align through ctypes (one thread; it
rewrites its block in place, so each run gets a fresh copy, made outside the
timing).

Shifts (--shifts): for every set in testdata/brackets, and for handheld
stacks made from them by moving frames by known amounts, the displacement of
every frame relative to the middle one (OpenCV's pivot) as found by align
(read back from the cropped frames it returns) and by AlignMTB's
calculateShift, and for the made stacks the true one.
"""
import argparse
import ctypes
import os
import statistics
import time

import cv2
import numpy as np


def load_lib(path):
    lib = ctypes.CDLL(path)
    lib.align.restype = ctypes.c_int
    lib.align.argtypes = [ctypes.c_int] * 5 + [ctypes.POINTER(ctypes.c_int), ctypes.c_void_p]
    return lib


def run_align(lib, frames, keep=False):
    """frames: list of HxWx3 arrays (RGB order), one dtype. Returns the result,
    the new size and the frames as align left them."""
    n = len(frames)
    h, w, spp = frames[0].shape
    bits = frames[0].dtype.itemsize * 8
    block = np.ascontiguousarray(np.stack(frames))
    dims = (ctypes.c_int * 2)(1 if keep else 0, 0)
    rc = lib.align(n, w, h, spp, bits, dims, block.ctypes.data)
    nw, nh = dims[0], dims[1]
    flat = block.reshape(-1)[: n * nh * nw * spp].reshape(n, nh, nw, spp)
    return rc, (nw, nh), flat


def scene_stack(n, width, height, bits, shifts, seed=7):
    """Random boxes and a soft gradient, seen through windows moved by
    `shifts`, at exposures two stops apart with a 2.2 gamma; RGB."""
    rng = np.random.default_rng(seed)
    m = 64
    H, W = height + 2 * m, width + 2 * m
    y = np.linspace(0, 1, H, dtype=np.float32)[:, None]
    x = np.linspace(0, 1, W, dtype=np.float32)[None, :]
    scene = 0.05 + 0.2 * x + 0.1 * y
    for _ in range(400):
        x0, y0 = rng.integers(0, W), rng.integers(0, H)
        bw, bh = rng.integers(8, W // 8), rng.integers(8, H // 8)
        scene[y0:y0 + bh, x0:x0 + bw] = rng.uniform(0.0, 1.0)
    top = 255.0 if bits == 8 else 65535.0
    dtype = np.uint8 if bits == 8 else np.uint16
    frames = []
    for k in range(n):
        dx, dy = shifts[k]
        win = scene[m + dy:m + dy + height, m + dx:m + dx + width]
        v = np.power(np.clip(win * 2.0 ** (2 * (k - n // 2)), 0, 1), 1 / 2.2)
        rgb = np.stack([v * 0.9, v, v * 0.8], axis=-1)
        frames.append(np.ascontiguousarray((rgb * top).astype(dtype)))
    return frames


SHIFTS = [(0, 0), (7, -9), (-12, 4), (20, 15), (-5, -18), (3, 11), (-9, 2)]


def median_time(fn, reps, prepare=None):
    """Medians of the wall time and of the process's CPU time."""
    wall, cpu = [], []
    for _ in range(reps):
        arg = prepare() if prepare else None
        c0 = time.process_time()
        t0 = time.perf_counter()
        fn(arg)
        wall.append(time.perf_counter() - t0)
        cpu.append(time.process_time() - c0)
    return statistics.median(wall), statistics.median(cpu)


def speed(args, lib):
    print(f"OpenCV {cv2.__version__}, default threads {cv2.getNumThreads()}; medians of {args.reps} runs, ms;")
    print("wall clock, then CPU time of the process (align and MTB 1T run on one thread)")
    print(f"{'size':>10} {'bits':>4} {'n':>2} {'align':>8} {'MTB nT':>8} {'MTB 1T':>8} {'x nT':>6} {'x 1T':>6} |"
          f" {'align cpu':>9} {'MTB 1T cpu':>10} {'x cpu':>6}")
    threads = cv2.getNumThreads()
    for size in args.sizes.split(","):
        w, h = (int(s) for s in size.split("x"))
        for bits in (int(b) for b in args.bits.split(",")):
            for n in (int(f) for f in args.frames.split(",")):
                frames = scene_stack(n, w, h, bits, SHIFTS[:n])
                block = np.ascontiguousarray(np.stack(frames))
                work = np.empty_like(block)
                dims = (ctypes.c_int * 2)(0, 0)

                def prepare():
                    np.copyto(work, block)
                    dims[0] = 0
                    return work

                ours = median_time(lambda b: lib.align(n, w, h, 3, bits, dims, b.ctypes.data), args.reps, prepare)
                bgr = [np.ascontiguousarray(f[:, :, ::-1]) for f in frames]
                mtb = cv2.createAlignMTB()
                out = []
                cv_n = median_time(lambda _: mtb.process(bgr, out), args.reps)
                cv2.setNumThreads(1)
                cv_1 = median_time(lambda _: mtb.process(bgr, out), args.reps)
                cv2.setNumThreads(threads)
                (ours, ours_cpu), (cv_n, _), (cv_1, cv_1_cpu) = ours, cv_n, cv_1
                print(f"{size:>10} {bits:>4} {n:>2} {ours * 1e3:8.1f} {cv_n * 1e3:8.1f} {cv_1 * 1e3:8.1f} "
                      f"{cv_n / ours:6.1f} {cv_1 / ours:6.1f} | {ours_cpu * 1e3:9.1f} {cv_1_cpu * 1e3:10.1f} "
                      f"{cv_1_cpu / ours_cpu:6.1f}", flush=True)
                del frames, block, work, bgr, out


def our_shifts(lib, frames):
    """Displacement of each frame as align applied it: the offset at which
    its cropped output equals its input."""
    rc, (nw, nh), out = run_align(lib, frames)
    h, w = frames[0].shape[:2]
    found = []
    for k, f in enumerate(frames):
        hit = None
        for Y in range(h - nh + 1):
            for X in range(w - nw + 1):
                if np.array_equal(f[Y:Y + nh, X:X + nw], out[k]):
                    hit = (X, Y)
                    break
            if hit:
                break
        found.append(hit)
    return found


def mtb_shifts(frames):
    """AlignMTB's shift of each frame against the middle one, as process()
    computes it (it moves frame i by shift i, so the frame is read from minus
    the shift)."""
    mtb = cv2.createAlignMTB()
    gray = [cv2.cvtColor(np.ascontiguousarray(f[:, :, ::-1]), cv2.COLOR_BGR2GRAY) for f in frames]
    pivot = len(frames) // 2
    return [tuple(-int(v) for v in mtb.calculateShift(gray[pivot], g)) for g in gray]


def relative(shifts, pivot):
    return [(x - shifts[pivot][0], y - shifts[pivot][1]) for x, y in shifts]


def shifts(args, lib):
    root = os.path.join(args.testdata, "brackets")
    if not os.path.isdir(root):
        print("no bracket sets: skipped")
        return
    worst = 0
    for name in sorted(os.listdir(root)):
        files = sorted(f for f in os.listdir(os.path.join(root, name)) if f.lower().endswith((".png", ".jpg")))
        frames = [np.ascontiguousarray(cv2.imread(os.path.join(root, name, f))[:, :, ::-1]) for f in files]
        h, w = frames[0].shape[:2]
        # The set as shot, then a handheld stack made from it: frame k cut
        # from a window moved by a known amount.
        m = 24
        moves = [((k * 7) % (2 * m + 1) - m, (k * 11) % (2 * m + 1) - m) for k in range(len(frames))]
        made = [np.ascontiguousarray(f[m + dy:h - m + dy, m + dx:w - m + dx]) for f, (dx, dy) in zip(frames, moves)]
        for label, stack, truth in ((name, frames, None), (name + " moved", made, moves)):
            pivot = len(stack) // 2
            ours = relative(our_shifts(lib, stack), pivot)
            cv = relative(mtb_shifts(stack), pivot)
            # A frame cut at +d shows the scene moved by -d: it is read from -d.
            true = relative([(-x, -y) for x, y in truth], pivot) if truth else None
            diff = max(max(abs(a - b) for a, b in zip(o, c)) for o, c in zip(ours, cv))
            worst = max(worst, diff)
            print(f"{label}: {len(stack)} frames {stack[0].shape[1]}x{stack[0].shape[0]}, largest difference "
                  f"align/AlignMTB {diff} px" + (f", align/truth {max(max(abs(a - b) for a, b in zip(o, t)) for o, t in zip(ours, true))} px" if true else ""))
            for k in range(len(stack)):
                print(f"  frame {k}: align {ours[k]}  AlignMTB {cv[k]}" + (f"  true {true[k]}" if true else ""))
    print(f"largest difference over all sets: {worst} px")


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--lib", default="build/release/libOmbrelumen40Lib1.so")
    ap.add_argument("--sizes", default="3000x2000,6000x4000")
    ap.add_argument("--frames", default="3,5")
    ap.add_argument("--bits", default="8,16")
    ap.add_argument("--reps", type=int, default=5)
    ap.add_argument("--shifts", action="store_true")
    ap.add_argument("--testdata", default=os.path.join(os.path.dirname(__file__), "..", "..", "shared", "testdata"))
    args = ap.parse_args()
    lib = load_lib(args.lib)
    if args.shifts:
        shifts(args, lib)
    else:
        speed(args, lib)


if __name__ == "__main__":
    main()
