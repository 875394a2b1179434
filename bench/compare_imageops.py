#!/usr/bin/python3
"""Times the image operations beside OpenCV (and vips, whole process) on the
same 6000x4000 pictures, each timed around the call alone, and checks that
the results agree where the operation is the same.

    /usr/bin/python3 bench/compare_imageops.py [--lib build/release/libOmbrelumen40Lib1.so]
        [--reps 7] [--no-vips]

OpenCV runs with its default thread count and with one thread; the library
always runs on the calling thread. vips runs as a program on .v files
(reading and writing them included), so its times are whole processes.
"""
import argparse
import ctypes as C
import os
import shutil
import statistics
import subprocess
import tempfile
import time

import cv2
import numpy as np

W, H, OW, OH = 6000, 4000, 1920, 1280


def median_time(fn, reps):
    """Medians of the wall time and of the calling thread's CPU time, ms."""
    wall, cpu = [], []
    fn()  # warm-up: first touch of the destination
    for _ in range(reps):
        c0 = time.thread_time()
        t0 = time.perf_counter()
        fn()
        wall.append(time.perf_counter() - t0)
        cpu.append(time.thread_time() - c0)
    return statistics.median(wall) * 1e3, statistics.median(cpu) * 1e3


def load(lib_path):
    lib = C.CDLL(lib_path)
    i, f, p = C.c_int, C.c_float, C.c_void_p
    sig = {
        "zoom2": [f, i, i, i, i, i, i, i, i, p, p],
        "retaille": [i, i, i, i, i, i, i, p, p],
        "rot_ldr": [i, i, i, i, i, i, i, p, p],
        "rot_hdr": [i, i, i, p, p],
        "crop_ldr": [i, i, i, i, i, i, i, i, p, p],
        "crop_hdr": [i, i, i, i, i, p, p],
        "histcolors": [i, i, i, i, i, p, p, p, p],
        "histlum": [i, i, i, i, i, p, p],
        "hist16": [C.c_uint32, C.c_uint32, C.c_uint32, i, p, p, p],
        "getHisto32": [i, i, p, p, p],
        "extract_basepreview": [i, i, i, i, i, i, i, i, p, p, p],
    }
    for name, args in sig.items():
        getattr(lib, name).argtypes = args
        getattr(lib, name).restype = C.c_int
    return lib


def ptr(a):
    return a.ctypes.data_as(C.c_void_p)


def pictures():
    """A photo-like 8-bit picture (gradients with noise), its 16-bit form and
    rgbe planes spanning about 16 stops."""
    rng = np.random.default_rng(7)
    x = np.arange(W, dtype=np.int32)[None, :, None]
    y = np.arange(H, dtype=np.int32)[:, None, None]
    c = np.arange(3, dtype=np.int32)[None, None, :]
    img = ((x * 255 // W + y * 128 // H + c * 40 + rng.integers(0, 16, (H, W, 3))) & 255).astype(np.uint8)
    img16 = (img.astype(np.uint16) * 257 + (np.arange(img.size, dtype=np.uint32) & 255).reshape(img.shape)).astype(np.uint16)
    planes = np.empty((H, 4, W), np.uint8)
    planes[:, :3, :] = 128 + rng.integers(0, 128, (H, 3, W), dtype=np.uint8)
    planes[:, 3, :] = (120 + np.arange(W) * 16 // W).astype(np.uint8)[None, :]
    return np.ascontiguousarray(img), np.ascontiguousarray(img16), planes


def vips_time(args, reps):
    wall = []
    for _ in range(reps):
        t0 = time.perf_counter()
        subprocess.run(["vips"] + args, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        wall.append(time.perf_counter() - t0)
    return statistics.median(wall) * 1e3


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--lib", default="build/release/libOmbrelumen40Lib1.so")
    ap.add_argument("--reps", type=int, default=7)
    ap.add_argument("--no-vips", action="store_true")
    a = ap.parse_args()
    lib = load(a.lib)
    img, img16, planes = pictures()
    rows = []  # (what, ours (wall, cpu), rival name, rival (wall, cpu) or None, same result)

    def cv(fn):
        cv2.setNumThreads(-1)
        dflt = median_time(fn, a.reps)
        cv2.setNumThreads(1)
        one = median_time(fn, a.reps)
        cv2.setNumThreads(-1)
        return dflt, one

    # Nearest-neighbour resize to 1920 wide: the same grid as cv2's (floor of x*6000/1920).
    small = np.zeros((OH, OW, 3), np.uint8)
    step = float(np.float32(W) / np.float32(OW))
    ours_z = median_time(lambda: lib.zoom2(step, 0, H, W * 3, OW, OH, OW * 3, 3, 8, ptr(img), ptr(small)), a.reps)
    z = small.copy()
    ours_r = median_time(lambda: lib.retaille(W, H, W * 3, OW, OH, OW * 3, 3, ptr(img), ptr(small)), a.reps)
    ref = cv2.resize(img, (OW, OH), interpolation=cv2.INTER_NEAREST)
    rival = cv(lambda: cv2.resize(img, (OW, OH), interpolation=cv2.INTER_NEAREST))
    rows.append(("resize 6000x4000 -> 1920x1280, zoom2", ours_z, "cv2.resize NEAREST", rival, np.array_equal(z, ref)))
    rows.append(("resize 6000x4000 -> 1920x1280, retaille", ours_r, "cv2.resize NEAREST", rival, np.array_equal(small, ref)))

    # Quarter turns.
    turned = np.zeros((W, H, 3), np.uint8)
    for angle, code in ((90, cv2.ROTATE_90_CLOCKWISE), (270, cv2.ROTATE_90_COUNTERCLOCKWISE)):
        ours = median_time(lambda: lib.rot_ldr(angle, 8, W, H, W * 3, 3, H * 3, ptr(img), ptr(turned)), a.reps)
        rival = cv(lambda: cv2.rotate(img, code))
        rows.append((f"rot_ldr {angle}, 8-bit RGB", ours, "cv2.rotate", rival, np.array_equal(turned, cv2.rotate(img, code))))
    turned16 = np.zeros((W, H, 3), np.uint16)
    ours = median_time(lambda: lib.rot_ldr(90, 16, W, H, W * 3, 3, H * 3, ptr(img16), ptr(turned16)), a.reps)
    rival = cv(lambda: cv2.rotate(img16, cv2.ROTATE_90_CLOCKWISE))
    rows.append(("rot_ldr 90, 16-bit RGB", ours, "cv2.rotate", rival,
                 np.array_equal(turned16, cv2.rotate(img16, cv2.ROTATE_90_CLOCKWISE))))
    # rgbe planes: the same bytes as a 4-channel picture for OpenCV's turn.
    pturn = np.zeros((W, 4, H), np.uint8)
    rgba = np.ascontiguousarray(planes.transpose(0, 2, 1))
    ours = median_time(lambda: lib.rot_hdr(90, W, H, ptr(planes), ptr(pturn)), a.reps)
    rival = cv(lambda: cv2.rotate(rgba, cv2.ROTATE_90_CLOCKWISE))
    rows.append(("rot_hdr 90, rgbe planes", ours, "cv2.rotate (4 x 8-bit)", rival,
                 np.array_equal(pturn.transpose(0, 2, 1), cv2.rotate(rgba, cv2.ROTATE_90_CLOCKWISE))))

    # Crops of the middle quarter.
    crop = np.zeros((H // 2, W // 2, 3), np.uint8)
    ours = median_time(lambda: lib.crop_ldr(8, W * 3, W // 2, H // 2, W // 2 * 3, 3, W // 4, H // 4, ptr(img), ptr(crop)), a.reps)
    view = img[H // 4:H // 4 + H // 2, W // 4:W // 4 + W // 2]
    rival = median_time(lambda: np.copyto(crop, view), a.reps)
    rows.append(("crop_ldr 3000x2000 of 8-bit RGB", ours, "numpy copyto", (rival, None), np.array_equal(crop, view)))
    pcrop = np.zeros((H // 2, 4, W // 2), np.uint8)
    ours = median_time(lambda: lib.crop_hdr(W, W // 2, H // 2, W // 4, H // 4, ptr(planes), ptr(pcrop)), a.reps)
    pview = planes[H // 4:H // 4 + H // 2, :, W // 4:W // 4 + W // 2]
    rival = median_time(lambda: np.copyto(pcrop, pview), a.reps)
    rows.append(("crop_hdr 3000x2000 of rgbe planes", ours, "numpy copyto", (rival, None), np.array_equal(pcrop, pview)))

    # Histograms.
    h = [np.zeros(256, np.int32) for _ in range(3)]

    def colours():
        for x in h:
            x[:] = 0
        lib.histcolors(W, H, W * 3, 3, 8, ptr(img), ptr(h[2]), ptr(h[1]), ptr(h[0]))
    ours = median_time(colours, a.reps)
    rival = cv(lambda: [cv2.calcHist([img], [c], None, [256], [0, 256]) for c in range(3)])
    same = all(np.array_equal(h[c], cv2.calcHist([img], [c], None, [256], [0, 256]).ravel().astype(np.int32)) for c in range(3))
    rows.append(("histcolors, 3 channels", ours, "cv2.calcHist x3", rival, same))
    lum = np.zeros(256, np.int32)
    ours = median_time(lambda: lib.histlum(W, H, W * 3, 3, 8, ptr(img), ptr(lum)), a.reps)
    rival = cv(lambda: cv2.calcHist([img], [1], None, [256], [0, 256]))
    rows.append(("histlum (luminance of 3 channels)", ours, "cv2.calcHist, 1 channel", rival, None))
    rival = cv(lambda: cv2.calcHist([cv2.cvtColor(img, cv2.COLOR_BGR2GRAY)], [0], None, [256], [0, 256]))
    rows.append(("histlum (luminance of 3 channels)", ours, "cv2.cvtColor GRAY + calcHist", rival, None))
    h16 = np.zeros(512, np.int32)
    rng16 = np.zeros(2, np.float32)
    ours = median_time(lambda: lib.hist16(W, H, W * 3, 3, ptr(img16), ptr(rng16), ptr(h16)), a.reps)
    rival = cv(lambda: cv2.calcHist([img16], [1], None, [512], [0, 65536]))
    rows.append(("hist16 (luminance, 512 bins)", ours, "cv2.calcHist 16-bit, 1 channel", rival, None))
    rival = cv(lambda: cv2.calcHist([cv2.cvtColor(img16, cv2.COLOR_BGR2GRAY)], [0], None, [512], [0, 65536]))
    rows.append(("hist16 (luminance, 512 bins)", ours, "cv2.cvtColor GRAY + calcHist", rival, None))
    h32 = np.zeros(512, np.int32)
    r32 = np.array([1.0, 1.0e6], np.float32)
    ours = median_time(lambda: lib.getHisto32(W, H, ptr(planes), ptr(r32), ptr(h32)), a.reps)
    rows.append(("getHisto32 (rgbe planes, log axis)", ours, "", None, None))
    prev = np.zeros((H // 4, W // 4, 3), np.uint8)
    ours = median_time(lambda: lib.extract_basepreview(8, W, H, 3, W * 3, W // 4, H // 4, 0, ptr(img), None, ptr(prev)), a.reps)
    rows.append(("extract_basepreview 1500x1000", ours, "cv2.resize NEAREST 1500x1000", 
                 cv(lambda: cv2.resize(img, (W // 4, H // 4), interpolation=cv2.INTER_NEAREST)),
                 np.array_equal(prev, img[::4, ::4])))

    # Ratios: the rival's time over ours, from wall times (fastest rival
    # setting) and from the calling thread's CPU time (one-thread rival; on a
    # loaded machine the wall time is mostly waiting for a core).
    print(f"{'operation':42s} {'ours wall/cpu ms':>18s}   {'rival':32s} {'default thr wall/cpu':>21s} "
          f"{'1 thread wall/cpu':>18s}  wall-ratio cpu-ratio same")
    for what, ours, name, rival, same in rows:
        line = f"{what:42s} {ours[0]:8.2f} /{ours[1]:7.2f}   {name:32s}"
        if rival:
            d, one = rival
            one_s = f"{one[0]:8.2f} /{one[1]:7.2f}" if one else " " * 17
            fastest = min(d[0], one[0]) if one else d[0]
            cpu = (one or d)[1]
            line += f" {d[0]:9.2f} /{d[1]:7.2f}  {one_s}  {fastest / ours[0]:8.2f}x {cpu / ours[1]:8.2f}x"
        print(line + ("" if same is None else f"  {'yes' if same else 'NO'}"))

    if a.no_vips or not shutil.which("vips"):
        return
    with tempfile.TemporaryDirectory() as tmp:
        src = os.path.join(tmp, "in.png")
        cv2.imwrite(src, img, [cv2.IMWRITE_PNG_COMPRESSION, 0])
        v = os.path.join(tmp, "in.v")
        subprocess.run(["vips", "copy", src, v], check=True)
        out = os.path.join(tmp, "out.v")
        print("\nvips, whole process on .v files (read, operate, write):")
        print(f"  vips resize --kernel nearest 0.32: {vips_time(['resize', v, out, '0.32', '--kernel', 'nearest'], a.reps):8.1f} ms")
        print(f"  vips rot d90:                      {vips_time(['rot', v, out, 'd90'], a.reps):8.1f} ms")
        print(f"  vips copy (read and write only):   {vips_time(['copy', v, out], a.reps):8.1f} ms")


if __name__ == "__main__":
    main()
