#!/usr/bin/python3
"""The camera response exponent that calc_courbe finds on real bracket sets.

    /usr/bin/python3 scripts/response_brackets.py [--lib build/release/libOmbrelumen40Lib1.so]
        [--sets ../shared/testdata/brackets]

Each set's frames (set.json, exposure times from its list) are decoded with
OpenCV into packed 8-bit RGB and passed whole, then three neighbours at a
time. Prints the exponent (calc_courbe / 1000) and the count of agreeing
sample pairs that filled the table. Then merges each whole set with
ol_hdr_merge, with its default 2.2 curve and with the estimated exponent,
and measures both against OpenCV's calibrated Debevec merge of the same
frames (RMS of log2 luminance differences around their median).
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


def merge(frames, times, gamma):
    """ol_hdr_merge of the frames with a gamma response (None: its default
    2.2), decoded to float RGB."""
    h, w, _ = frames[0].shape
    stack = np.concatenate([f.ravel() for f in frames])
    lut = np.zeros(256, dtype=np.float32)
    lut[0] = gamma or 0.0
    dt = np.asarray(times, dtype=np.float32)
    stats = np.zeros(3, dtype=np.float32)
    rgbe = np.zeros(4 * w * h, dtype=np.uint8)
    f32p = ctypes.POINTER(ctypes.c_float)
    lib.ol_hdr_merge.argtypes = [ctypes.c_int] * 7 + [f32p, ctypes.c_float, f32p, ctypes.c_void_p,
                                                      f32p, ctypes.c_void_p]
    rc = lib.ol_hdr_merge(0, len(frames), w, h, 3, 8, 1 if gamma else 0, lut.ctypes.data_as(f32p), -1.0,
                          dt.ctypes.data_as(f32p), stack.ctypes.data, stats.ctypes.data_as(f32p), rgbe.ctypes.data)
    assert rc == h, rc
    planes = rgbe.reshape(h, 4, w).astype(np.float64)
    scale = np.where(planes[:, 3] > 0, np.ldexp(1.0, planes[:, 3].astype(np.int64) - 128), 0.0)
    return np.stack([planes[:, c] * scale for c in range(3)], axis=-1)


def log_luminance_spread(ours, reference):
    """RMS of the difference of log2 luminances, after taking out their
    median (the two merges have different units), over pixels where both
    are positive; and the share of pixels counted."""
    lo = ours @ np.array([0.2126, 0.7152, 0.0722])
    lr = reference @ np.array([0.2126, 0.7152, 0.0722])
    ok = (lo > 0) & (lr > 0)
    d = np.log2(lo[ok]) - np.log2(lr[ok])
    d -= np.median(d)
    return float(np.sqrt(np.mean(d * d))), float(ok.mean())


print("\nMerge against OpenCV's calibrated Debevec merge of the same frames (RMS of log2 luminance"
      " differences after removing the median offset; lower is closer):")
for name in sorted(os.listdir(args.sets)):
    root = os.path.join(args.sets, name)
    meta = json.load(open(os.path.join(root, "set.json")))["frames"]
    bgr = [cv2.imread(os.path.join(root, f["file"])) for f in meta]
    frames = [np.ascontiguousarray(f[:, :, ::-1]) for f in bgr]
    times = np.asarray([f["exposure_time_from_list"]["seconds"] for f in meta], dtype=np.float32)
    response = cv2.createCalibrateDebevec().process(bgr, times)
    reference = cv2.createMergeDebevec().process(bgr, times, response)[:, :, ::-1].astype(np.float64)
    g, _ = exponent(frames, times)
    default = log_luminance_spread(merge(frames, times, None), reference)
    estimated = log_luminance_spread(merge(frames, times, g / 1000.0), reference)
    print(f"{name}: default 2.2: {default[0]:.4f} ({default[1]:.1%} of pixels); "
          f"estimated {g / 1000:.3f}: {estimated[0]:.4f} ({estimated[1]:.1%})")
