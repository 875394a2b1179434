#!/usr/bin/python3
"""Times the image operations beside OpenCV (and vips) on the
same 6000x4000 pictures, each timed around the call alone, and checks that
the results agree where the operation is the same.

    /usr/bin/python3 bench/compare_imageops.py [--lib build/release/libOmbrelumen40Lib1.so]
        [--reps 7] [--no-vips]

OpenCV runs with its default thread count and with one thread; the library
always runs on the calling thread. vips runs as a program on .v files; its
rows take the time of a `vips copy` of the same file (reading and writing
alone) off its resize and rot, in the same round-robin as our call.
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


def round_robin(fns, reps):
    """Times the functions in turn, rep by rep, so that all of them meet the
    same load on a shared machine. For each: (median wall, median CPU time
    of the calling thread, fastest wall), ms."""
    for fn in fns:
        fn()  # warm-up: first touch of the destination
    wall = [[] for _ in fns]
    cpu = [[] for _ in fns]
    for _ in range(reps):
        for k, fn in enumerate(fns):
            c0 = time.thread_time()
            t0 = time.perf_counter()
            fn()
            wall[k].append(time.perf_counter() - t0)
            cpu[k].append(time.thread_time() - c0)
    return [(statistics.median(w) * 1e3, statistics.median(c) * 1e3, min(w) * 1e3) for w, c in zip(wall, cpu)]


def threads(n, fn):
    def run():
        cv2.setNumThreads(n)
        fn()
    return run


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

    def vs(ours_fn, rival_fn, one_thread=True):
        """Ours, the rival with OpenCV's default threads and with one."""
        fns = [ours_fn, threads(-1, rival_fn)] + ([threads(1, rival_fn)] if one_thread else [])
        t = round_robin(fns, a.reps)
        cv2.setNumThreads(-1)
        return t[0], (t[1], t[2] if one_thread else None)

    # Nearest-neighbour resize to 1920 wide: the same grid as cv2's (floor of x*6000/1920).
    small, small2 = np.zeros((OH, OW, 3), np.uint8), np.zeros((OH, OW, 3), np.uint8)
    step = float(np.float32(W) / np.float32(OW))
    resize = lambda: cv2.resize(img, (OW, OH), interpolation=cv2.INTER_NEAREST)
    ours, rival = vs(lambda: lib.zoom2(step, 0, H, W * 3, OW, OH, OW * 3, 3, 8, ptr(img), ptr(small)), resize)
    rows.append(("zoom2 6000x4000 -> 1920x1280", ours, "cv2.resize NEAREST", rival, np.array_equal(small, resize())))
    ours, rival = vs(lambda: lib.retaille(W, H, W * 3, OW, OH, OW * 3, 3, ptr(img), ptr(small2)), resize)
    rows.append(("retaille 6000x4000 -> 1920x1280", ours, "cv2.resize NEAREST", rival, np.array_equal(small2, resize())))

    # Quarter turns.
    turned = np.zeros((W, H, 3), np.uint8)
    for angle, code in ((90, cv2.ROTATE_90_CLOCKWISE), (270, cv2.ROTATE_90_COUNTERCLOCKWISE)):
        ours, rival = vs(lambda: lib.rot_ldr(angle, 8, W, H, W * 3, 3, H * 3, ptr(img), ptr(turned)),
                         lambda: cv2.rotate(img, code))
        rows.append((f"rot_ldr {angle}, 8-bit RGB", ours, "cv2.rotate", rival, np.array_equal(turned, cv2.rotate(img, code))))
    turned16 = np.zeros((W, H, 3), np.uint16)
    ours, rival = vs(lambda: lib.rot_ldr(90, 16, W, H, W * 3, 3, H * 3, ptr(img16), ptr(turned16)),
                     lambda: cv2.rotate(img16, cv2.ROTATE_90_CLOCKWISE))
    rows.append(("rot_ldr 90, 16-bit RGB", ours, "cv2.rotate", rival,
                 np.array_equal(turned16, cv2.rotate(img16, cv2.ROTATE_90_CLOCKWISE))))
    # rgbe planes: the same bytes as a 4-channel picture for OpenCV's turn.
    pturn = np.zeros((W, 4, H), np.uint8)
    rgba = np.ascontiguousarray(planes.transpose(0, 2, 1))
    ours, rival = vs(lambda: lib.rot_hdr(90, W, H, ptr(planes), ptr(pturn)), lambda: cv2.rotate(rgba, cv2.ROTATE_90_CLOCKWISE))
    rows.append(("rot_hdr 90, rgbe planes", ours, "cv2.rotate (4 x 8-bit)", rival,
                 np.array_equal(pturn.transpose(0, 2, 1), cv2.rotate(rgba, cv2.ROTATE_90_CLOCKWISE))))

    # Crops of the middle quarter, beside numpy copying the same slice.
    crop, crop2 = np.zeros((H // 2, W // 2, 3), np.uint8), np.zeros((H // 2, W // 2, 3), np.uint8)
    view = img[H // 4:H // 4 + H // 2, W // 4:W // 4 + W // 2]
    ours, rival = vs(lambda: lib.crop_ldr(8, W * 3, W // 2, H // 2, W // 2 * 3, 3, W // 4, H // 4, ptr(img), ptr(crop)),
                     lambda: np.copyto(crop2, view), one_thread=False)
    rows.append(("crop_ldr 3000x2000 of 8-bit RGB", ours, "numpy copyto", rival, np.array_equal(crop, view)))
    pcrop, pcrop2 = np.zeros((H // 2, 4, W // 2), np.uint8), np.zeros((H // 2, 4, W // 2), np.uint8)
    pview = planes[H // 4:H // 4 + H // 2, :, W // 4:W // 4 + W // 2]
    ours, rival = vs(lambda: lib.crop_hdr(W, W // 2, H // 2, W // 4, H // 4, ptr(planes), ptr(pcrop)),
                     lambda: np.copyto(pcrop2, pview), one_thread=False)
    rows.append(("crop_hdr 3000x2000 of rgbe planes", ours, "numpy copyto", rival, np.array_equal(pcrop, pview)))

    # Histograms.
    h = [np.zeros(256, np.int32) for _ in range(3)]

    def colours():
        for x in h:
            x[:] = 0
        lib.histcolors(W, H, W * 3, 3, 8, ptr(img), ptr(h[2]), ptr(h[1]), ptr(h[0]))
    ours, rival = vs(colours, lambda: [cv2.calcHist([img], [c], None, [256], [0, 256]) for c in range(3)])
    same = all(np.array_equal(h[c], cv2.calcHist([img], [c], None, [256], [0, 256]).ravel().astype(np.int32)) for c in range(3))
    rows.append(("histcolors, 3 channels", ours, "cv2.calcHist x3", rival, same))
    lum = np.zeros(256, np.int32)
    histlum = lambda: lib.histlum(W, H, W * 3, 3, 8, ptr(img), ptr(lum))
    ours, rival = vs(histlum, lambda: cv2.calcHist([cv2.cvtColor(img, cv2.COLOR_BGR2GRAY)], [0], None, [256], [0, 256]))
    rows.append(("histlum (luminance of 3 channels)", ours, "cv2.cvtColor GRAY + calcHist", rival, None))
    ours, rival = vs(histlum, lambda: cv2.calcHist([img], [1], None, [256], [0, 256]))
    rows.append(("histlum (luminance of 3 channels)", ours, "cv2.calcHist, 1 channel", rival, None))
    h16 = np.zeros(512, np.int32)
    rng16 = np.zeros(2, np.float32)
    hist16 = lambda: lib.hist16(W, H, W * 3, 3, ptr(img16), ptr(rng16), ptr(h16))
    ours, rival = vs(hist16, lambda: cv2.calcHist([cv2.cvtColor(img16, cv2.COLOR_BGR2GRAY)], [0], None, [512], [0, 65536]))
    rows.append(("hist16 (luminance, 512 bins)", ours, "cv2.cvtColor GRAY + calcHist", rival, None))
    ours, rival = vs(hist16, lambda: cv2.calcHist([img16], [1], None, [512], [0, 65536]))
    rows.append(("hist16 (luminance, 512 bins)", ours, "cv2.calcHist 16-bit, 1 channel", rival, None))
    h32 = np.zeros(512, np.int32)
    r32 = np.array([1.0, 1.0e6], np.float32)
    ours = round_robin([lambda: lib.getHisto32(W, H, ptr(planes), ptr(r32), ptr(h32))], a.reps)[0]
    rows.append(("getHisto32 (rgbe planes, log axis)", ours, "", None, None))
    prev = np.zeros((H // 4, W // 4, 3), np.uint8)
    ours, rival = vs(lambda: lib.extract_basepreview(8, W, H, 3, W * 3, W // 4, H // 4, 0, ptr(img), None, ptr(prev)),
                     lambda: cv2.resize(img, (W // 4, H // 4), interpolation=cv2.INTER_NEAREST))
    rows.append(("extract_basepreview 1500x1000", ours, "cv2.resize NEAREST 1500x1000", rival, np.array_equal(prev, img[::4, ::4])))

    # vips as a rival in the same run: its resize and rot as whole processes
    # on a .v file, less a `vips copy` of the same file (reading and writing
    # alone), timed round-robin with our call. Its CPU time is the child's
    # (all its threads).
    if not a.no_vips and shutil.which("vips"):
        with tempfile.TemporaryDirectory() as tmp:
            src = os.path.join(tmp, "in.png")
            cv2.imwrite(src, img, [cv2.IMWRITE_PNG_COMPRESSION, 0])
            v, out = os.path.join(tmp, "in.v"), os.path.join(tmp, "out.v")
            subprocess.run(["vips", "copy", src, v], check=True)

            def vips(*args):
                def run():
                    c0 = os.times()
                    subprocess.run(["vips", *args], check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
                    c1 = os.times()
                    run.cpu.append(c1.children_user + c1.children_system - c0.children_user - c0.children_system)
                run.cpu = []
                return run

            def less_copy(what, ours_fn, op_args, name, same):
                op, copy = vips(*op_args), vips("copy", v, out)
                t = round_robin([ours_fn, op, copy], a.reps)
                cpu = (statistics.median(op.cpu) - statistics.median(copy.cpu)) * 1e3
                rival = (t[1][0] - t[2][0], cpu, t[1][2] - t[2][2])
                rows.append((what, t[0], name, (rival, None), same))

            less_copy("zoom2 6000x4000 -> 1920x1280", lambda: lib.zoom2(step, 0, H, W * 3, OW, OH, OW * 3, 3, 8, ptr(img), ptr(small)),
                      ["resize", v, out, "0.32", "--kernel", "nearest"], "vips resize nearest, less copy", None)
            less_copy("rot_ldr 90, 8-bit RGB", lambda: lib.rot_ldr(90, 8, W, H, W * 3, 3, H * 3, ptr(img), ptr(turned)),
                      ["rot", v, out, "d90"], "vips rot d90, less copy", None)

    # Ratios: the rival's time over ours (above 1: the library is faster),
    # from median wall times (fastest rival setting), from the fastest wall
    # times, and from the calling thread's CPU time (one-thread rival). On a
    # loaded machine the wall time is mostly waiting for a core.
    print(f"{'operation':36s} {'ours wall/best/cpu ms':>24s}   {'rival':30s} {'default thr wall/best/cpu':>26s} "
          f"{'1 thread wall/best/cpu':>24s}   wall  best   cpu same")
    fmt = lambda t: f"{t[0]:8.2f}/{t[2]:7.2f}/{t[1]:7.2f}"
    for what, ours, name, rival, same in rows:
        line = f"{what:36s} {fmt(ours)}   {name:30s}"
        if rival:
            d, one = rival
            both = [d] + ([one] if one else [])
            wall = min(t[0] for t in both) / ours[0]
            best = min(t[2] for t in both) / ours[2]
            cpu = (one or d)[1] / ours[1]
            line += f"  {fmt(d)}  {fmt(one) if one else ' ' * 24}  {wall:5.2f} {best:5.2f} {cpu:5.2f}"
        print(line + ("" if same is None else f"  {'yes' if same else 'NO'}"))


if __name__ == "__main__":
    main()
