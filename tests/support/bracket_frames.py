"""Decodes a bracket set of the shared test data into one raw stack.

bracket_frames.py SETDIR OUT writes the frames of SETDIR/set.json, in its
order, as packed 8-bit RGB one after the other into OUT, and prints
"width height count" and then the exposure times in seconds, one a line.
"""
import json
import sys

import cv2
import numpy as np

root, out = sys.argv[1], sys.argv[2]
frames = json.load(open(root + "/set.json"))["frames"]
images = [cv2.imread(root + "/" + f["file"], cv2.IMREAD_COLOR)[:, :, ::-1] for f in frames]
np.concatenate([np.ascontiguousarray(i).ravel() for i in images]).tofile(out)
h, w, _ = images[0].shape
print(w, h, len(images))
for f in frames:
    print(f["exposure_time_from_list"]["seconds"])
