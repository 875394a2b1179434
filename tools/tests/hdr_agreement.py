#!/usr/bin/env python3
"""How well olhdr's merge agrees with OpenCV's calibrated Debevec merge.

    hdr_agreement.py OLHDR FRAME... --times T1,T2,... [other olhdr merge options]

Merges the frames with `olhdr merge --times`, merges them with OpenCV
(CalibrateDebevec for the response, then MergeDebevec) with the same times,
and prints the correlation of the two pictures' log luminance over the
pixels where both are positive. Needs python3-opencv and numpy.
"""
import argparse
import os
import subprocess
import sys
import tempfile

import cv2
import numpy as np


def seconds(text):
    num, _, den = text.partition("/")
    return float(num) / float(den) if den else float(num)


def luminance(bgr):
    return 0.0722 * bgr[..., 0] + 0.7152 * bgr[..., 1] + 0.2126 * bgr[..., 2]


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("olhdr")
    ap.add_argument("frames", nargs="+")
    ap.add_argument("--times", required=True)
    a, extra = ap.parse_known_args()
    times = np.array([seconds(t) for t in a.times.split(",")], dtype=np.float32)
    with tempfile.TemporaryDirectory() as tmp:
        out = os.path.join(tmp, "merged.hdr")
        subprocess.run([a.olhdr, "merge", "-q", *a.frames, "--times", a.times, *extra, "-o", out], check=True)
        ours = cv2.imread(out, cv2.IMREAD_ANYDEPTH | cv2.IMREAD_COLOR)
    images = [cv2.imread(f, cv2.IMREAD_COLOR) for f in a.frames]
    response = cv2.createCalibrateDebevec().process(images, times)
    theirs = cv2.createMergeDebevec().process(images, times, response)
    if ours.shape != theirs.shape:
        sys.exit("sizes differ: %s and %s (orientation?)" % (ours.shape, theirs.shape))
    y1, y2 = luminance(ours), luminance(theirs)
    keep = (y1 > 0) & (y2 > 0) & np.isfinite(y1) & np.isfinite(y2)
    r = np.corrcoef(np.log(y1[keep]), np.log(y2[keep]))[0, 1]
    print("%.4f" % r)


if __name__ == "__main__":
    main()
