#!/usr/bin/python3
"""The two single-pass blends on the real bracket sets, written as PNGs to look at.

    /usr/bin/python3 scripts/combine_brackets.py [--lib build/release/libOmbrelumen40Lib1.so]
        [--sets ../shared/testdata/brackets] [--out /tmp/combine_brackets] [--max-width 1500]
        [--step 2 --radius 8 --power 0 --saturation 0]

Each set's frames (set.json order) are decoded with OpenCV into packed 8-bit
RGB (resized to --max-width with area averaging, so the intensive blend stays
quick). ol_combi_2images takes the darkest and the brightest frame by mean
level; ol_combi_intensive takes the whole stack. Writes <set>_two.png and
<set>_intensive.png (and, when an olhdr binary is given with --olhdr, the
pyramid fusion of the same frames as <set>_pyramid.png) and prints timings.
"""
import argparse
import ctypes
import json
import os
import subprocess
import time

import cv2
import numpy as np

here = os.path.dirname(os.path.abspath(__file__))
ap = argparse.ArgumentParser()
ap.add_argument("--lib", default=os.path.join(here, "..", "build", "release", "libOmbrelumen40Lib1.so"))
ap.add_argument("--sets", default=os.path.join(here, "..", "..", "shared", "testdata", "brackets"))
ap.add_argument("--out", default="/tmp/combine_brackets")
ap.add_argument("--olhdr", default="")
ap.add_argument("--max-width", type=int, default=1500)
ap.add_argument("--step", type=int, default=2)
ap.add_argument("--radius", type=int, default=8)
ap.add_argument("--power", type=float, default=0.0)
ap.add_argument("--saturation", type=float, default=0.0)
args = ap.parse_args()
os.makedirs(args.out, exist_ok=True)
lib = ctypes.CDLL(args.lib)
lib.ol_combi_2images.argtypes = [ctypes.c_int] * 10 + [ctypes.c_void_p] * 2
lib.ol_combi_intensive.argtypes = [ctypes.c_int, ctypes.c_int, ctypes.c_float, ctypes.c_float] + \
    [ctypes.c_int] * 8 + [ctypes.c_void_p] * 2

for name in sorted(os.listdir(args.sets)):
    root = os.path.join(args.sets, name)
    meta = json.load(open(os.path.join(root, "set.json")))["frames"]
    paths = [os.path.join(root, f["file"]) for f in meta]
    frames = [cv2.imread(p)[:, :, ::-1] for p in paths]
    h, w, _ = frames[0].shape
    if w > args.max_width:
        h, w = h * args.max_width // w, args.max_width
        frames = [cv2.resize(f, (w, h), interpolation=cv2.INTER_AREA) for f in frames]
    stack = np.ascontiguousarray(np.stack(frames))
    means = [float(f.mean()) for f in frames]
    dark, bright = int(np.argmin(means)), int(np.argmax(means))
    out = np.zeros((h, w, 3), np.uint8)
    t0 = time.perf_counter()
    r = lib.ol_combi_2images(0, dark, bright, w, h, w * 3, 0, 8, 8, 3, stack.ctypes.data, out.ctypes.data)
    t1 = time.perf_counter()
    cv2.imwrite(os.path.join(args.out, f"{name}_two.png"), out[:, :, ::-1])
    print(f"{name}: {len(frames)} frames {w}x{h}; two images {dark},{bright}: {r} in {(t1 - t0) * 1e3:.0f} ms")
    out[:] = 0
    t0 = time.perf_counter()
    r = lib.ol_combi_intensive(args.step, args.radius, args.power, args.saturation, len(frames), w, h, w * 3, 0, 3,
                               8, 8, stack.ctypes.data, out.ctypes.data)
    t1 = time.perf_counter()
    cv2.imwrite(os.path.join(args.out, f"{name}_intensive.png"), out[:, :, ::-1])
    print(f"  intensive step {args.step} radius {args.radius}: {r} in {(t1 - t0) * 1e3:.0f} ms")
    if args.olhdr:
        tmp = []
        for i, f in enumerate(frames):
            tmp.append(os.path.join(args.out, f".{name}_{i}.png"))
            cv2.imwrite(tmp[-1], f[:, :, ::-1])
        subprocess.run([args.olhdr, "fuse", *tmp, "-o", os.path.join(args.out, f"{name}_pyramid.png")],
                       check=True, stdout=subprocess.DEVNULL)
        for p in tmp:
            os.remove(p)
        print(f"  pyramid fusion: {name}_pyramid.png")
