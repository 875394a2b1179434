# Reads and writes float pictures through OpenCV and tifffile for
# radiance_interop_test.cpp: raw little-endian float32 RGB in and out.
#   cv2read FILE OUT | tiffread FILE OUT | cv2write|tiffwrite RAW W H FILE
import sys
import numpy as np
cmd = sys.argv[1]
if cmd == "cv2read":
    import cv2
    a = cv2.imread(sys.argv[2], cv2.IMREAD_ANYDEPTH | cv2.IMREAD_ANYCOLOR)
    if a is None:
        sys.exit(2)
    np.ascontiguousarray(a[:, :, ::-1]).astype("<f4").tofile(sys.argv[3])
elif cmd == "tiffread":
    import tifffile
    tifffile.imread(sys.argv[2]).astype("<f4").tofile(sys.argv[3])
elif cmd in ("cv2write", "tiffwrite"):
    w, h = int(sys.argv[3]), int(sys.argv[4])
    a = np.fromfile(sys.argv[2], "<f4").reshape(h, w, 3)
    if cmd == "cv2write":
        import cv2
        cv2.imwrite(sys.argv[5], np.ascontiguousarray(a[:, :, ::-1]))
    else:
        import tifffile
        tifffile.imwrite(sys.argv[5], a, photometric="rgb")
