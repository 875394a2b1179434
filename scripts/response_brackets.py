#!/usr/bin/python3
"""The camera response exponent that calc_courbe finds on real bracket sets.

    /usr/bin/python3 scripts/response_brackets.py [--lib build/release/libOmbrelumen40Lib1.so]
        [--sets ../shared/testdata/brackets]

Each set's frames (set.json, exposure times from its list) are decoded with
OpenCV into packed 8-bit RGB and passed whole, then three neighbours at a
time. Prints the exponent (calc_courbe / 1000) and the count of agreeing
sample pairs that filled the table.
"""
import argparse
import ctypes
import json
import os

import cv2
import numpy as np

here = os.path.dirname(os.path.abspath(__file__))
ap = argparse.ArgumentParser()
ap.add_argument("--lib", default=os.path.join(here, "..", "build", "release", "libOmbrelumen40Lib1.so"))
ap.add_argument("--sets", default=os.path.join(here, "..", "..", "shared", "testdata", "brackets"))
args = ap.parse_args()
lib = ctypes.CDLL(args.lib)
lib.calc_courbe.argtypes = [ctypes.c_int] * 5 + [ctypes.c_void_p] * 3


def exponent(frames, times):
    h, w, _ = frames[0].shape
    stack = np.concatenate([f.ravel() for f in frames])
    expo = np.asarray(times, dtype=np.float32)
    curve = np.zeros(256, dtype=np.float32)
    g = lib.calc_courbe(len(frames), w, h, 8, 3, expo.ctypes.data, stack.ctypes.data, curve.ctypes.data)
    return g, int(curve[2])


for name in sorted(os.listdir(args.sets)):
    root = os.path.join(args.sets, name)
    meta = json.load(open(os.path.join(root, "set.json")))["frames"]
    frames = [np.ascontiguousarray(cv2.imread(os.path.join(root, f["file"]))[:, :, ::-1]) for f in meta]
    times = [f["exposure_time_from_list"]["seconds"] for f in meta]
    g, pairs = exponent(frames, times)
    print(f"{name}: {len(frames)} frames {frames[0].shape[1]}x{frames[0].shape[0]}: exponent {g / 1000:.3f} ({pairs} pairs)")
    for i in range(len(frames) - 2):
        g, pairs = exponent(frames[i:i + 3], times[i:i + 3])
        print(f"  frames {i}-{i + 2}: exponent {g / 1000:.3f} ({pairs} pairs)")
