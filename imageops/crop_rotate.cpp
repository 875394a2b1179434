// Crop and quarter turns of `ldr image` and `rgbe planes`: crop_ldr,
// crop_hdr, rot_ldr, rot_hdr, ol_rotate. Argument rules for malformed calls
// are those of imageops/layout.hpp.
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "Ombrelumen40Lib1.h"
#include "imageops/layout.hpp"

namespace ol::imageops {
namespace {

template <class T>
void cropLdr(std::ptrdiff_t srcStride, int cropWidth, int cropHeight, std::ptrdiff_t dstStride,
             int spp, int left, int top, const T* src, T* dst) noexcept {
    // Pixels whose samples lie inside the source row (the stride is the only
    // width this function knows); the rest of the rectangle is not copied.
    const std::int64_t roomPixels = srcStride / spp - left;
    const int valid = static_cast<int>(std::clamp<std::int64_t>(roomPixels, 0, cropWidth));
    for (int r = 0; r < cropHeight; ++r) {
        const T* s = src + (static_cast<std::ptrdiff_t>(top) + r) * srcStride +
                     static_cast<std::ptrdiff_t>(left) * spp;
        T* d = dst + r * dstStride;
        // With two samples a pixel, the literal writes of sample 2 land on
        // the next pixel's first sample with the value it gets anyway.
        if (spp == 2) std::memcpy(d, s, sizeof(T) * 2 * static_cast<std::size_t>(valid));
        else copyPixels(s, spp, d, valid, spp, fixed012(spp));
        if (spp == 2 && valid > 0) {
            // Sample 2 of the last pixel is the next pixel's first: copied when
            // it lies inside the source row and the destination rows.
            const std::int64_t si = static_cast<std::int64_t>(left + valid) * 2;
            const std::int64_t di = static_cast<std::int64_t>(valid) * 2;
            const std::int64_t dLimit = r < cropHeight - 1 ? dstStride : static_cast<std::int64_t>(cropWidth) * 2;
            if (si < srcStride && di < dLimit) d[di] = s[valid * 2];
        }
    }
}

// Turns with the three positions `pos`, choosing a fixed layout when one fits.
template <class T>
void turnLdr(bool clockwise, int width, int height, std::ptrdiff_t srcStride,
             std::ptrdiff_t dstStride, int spp, Positions pos, const T* src, T* dst) noexcept {
    if (spp == 1)
        quarterTurn<T, 1, 0, 0>(clockwise, width, height, srcStride, dstStride, spp, pos, src, dst);
    else if (spp == 3 && pos.p1 == 1 && pos.p2 == 2)
        quarterTurn<T, 3, 1, 2>(clockwise, width, height, srcStride, dstStride, spp, pos, src, dst);
    else if (spp == 4 && pos.p1 == 1 && pos.p2 == 2)
        quarterTurn<T, 4, 1, 2>(clockwise, width, height, srcStride, dstStride, spp, pos, src, dst);
    else if (spp == 4 && pos.p1 == 1 && pos.p2 == 3)
        quarterTurn<T, 4, 1, 3>(clockwise, width, height, srcStride, dstStride, spp, pos, src, dst);
    else
        quarterTurn<T, 0, 0, 0>(clockwise, width, height, srcStride, dstStride, spp, pos, src, dst);
}

// rot_ldr with two samples a pixel: sample 2 is the next pixel's first, so
// writes overlap and the literal column-by-column order decides the bytes.
// Reads and writes past the image's or the destination's extent are skipped.
template <class T>
void turnTwoSamples(bool clockwise, int width, int height, std::ptrdiff_t srcStride,
                    std::ptrdiff_t dstStride, const T* src, T* dst) noexcept {
    const std::int64_t srcEnd = extentOf(height, srcStride, 2 * static_cast<std::int64_t>(width));
    const std::int64_t dstEnd = extentOf(width, dstStride, 2 * static_cast<std::int64_t>(height));
    for (int x = 0; x < width; ++x) {
        const std::int64_t drow = static_cast<std::int64_t>(clockwise ? x : width - 1 - x) * dstStride;
        for (int j = 0; j < height; ++j) {
            const std::int64_t s =
                static_cast<std::int64_t>(clockwise ? height - 1 - j : j) * srcStride + 2 * static_cast<std::int64_t>(x);
            const std::int64_t d = drow + 2 * static_cast<std::int64_t>(j);
            dst[d] = src[s];
            dst[d + 1] = src[s + 1];
            if (s + 2 < srcEnd && d + 2 < dstEnd) dst[d + 2] = src[s + 2];
        }
    }
}

void turnPlanes(bool clockwise, int width, int height, const std::uint8_t* src,
                std::uint8_t* dst) noexcept {
    // Each of the four runs is a byte image whose rows are 4*width apart in
    // the source and 4*height apart in the destination.
    for (int p = 0; p < 4; ++p)
        quarterTurn<std::uint8_t, 1, 0, 0>(clockwise, width, height, 4 * static_cast<std::ptrdiff_t>(width),
                                           4 * static_cast<std::ptrdiff_t>(height), 1, {0, 0, 0},
                                           src + static_cast<std::ptrdiff_t>(p) * width,
                                           dst + static_cast<std::ptrdiff_t>(p) * height);
}

bool knownAngle(int angle) noexcept { return angle == 90 || angle == 270; }

}  // namespace
}  // namespace ol::imageops

using namespace ol::imageops;

extern "C" {

int crop_ldr(int bps, int srcStride, int cropWidth, int cropHeight, int dstStride, int spp,
             int left, int top, const void* src, void* dst) {
    if (cropHeight < 1) return 0;
    if (bps != 8 && bps != 16) return cropWidth;
    if (spp < 1 || srcStride < 0 || dstStride < 0) return 0;
    if (cropWidth < 1) return cropHeight;
    if (cropHeight > 1 && static_cast<std::int64_t>(dstStride) < static_cast<std::int64_t>(cropWidth) * spp)
        return 0;
    // A negative corner counts as 0 and keeps the rectangle's size.
    if (left < 0) left = 0;
    if (top < 0) top = 0;
    if (bps == 8)
        cropLdr(srcStride, cropWidth, cropHeight, dstStride, spp, left, top,
                static_cast<const std::uint8_t*>(src), static_cast<std::uint8_t*>(dst));
    else
        cropLdr(srcStride, cropWidth, cropHeight, dstStride, spp, left, top,
                static_cast<const std::uint16_t*>(src), static_cast<std::uint16_t*>(dst));
    return cropHeight;
}

int crop_hdr(int srcWidth, int cropWidth, int cropHeight, int left, int top,
             const unsigned char* src, unsigned char* dst) {
    if (cropHeight < 1) return 0;
    if (srcWidth < 1 || cropWidth < 1) return srcWidth < 0 ? 0 : cropHeight;
    if (left < 0) left = 0;
    if (top < 0) top = 0;
    // Columns from srcWidth on would read the next run: not copied.
    const int valid = std::clamp(srcWidth - left, 0, cropWidth);
    const std::size_t srcRow = 4u * static_cast<std::size_t>(srcWidth);
    const std::size_t dstRow = 4u * static_cast<std::size_t>(cropWidth);
    for (int r = 0; r < cropHeight && valid > 0; ++r) {
        const unsigned char* s = src + (static_cast<std::size_t>(top) + r) * srcRow + left;
        unsigned char* d = dst + static_cast<std::size_t>(r) * dstRow;
        for (int p = 0; p < 4; ++p)
            std::memcpy(d + static_cast<std::size_t>(p) * cropWidth,
                        s + static_cast<std::size_t>(p) * srcWidth, static_cast<std::size_t>(valid));
    }
    return cropHeight;
}

int rot_ldr(int angle, int bps, int width, int height, int srcStride, int spp, int dstStride,
            const void* src, void* dst) {
    if (width < 1) return 0;
    if (bps != 8 && bps != 16) return height;
    if (!knownAngle(angle) || spp < 1 || srcStride < 0 || dstStride < 0) return 0;
    if (height < 1) return width;
    if ((height > 1 && static_cast<std::int64_t>(srcStride) < static_cast<std::int64_t>(width) * spp) ||
        (width > 1 && static_cast<std::int64_t>(dstStride) < static_cast<std::int64_t>(height) * spp))
        return 0;
    const bool cw = angle == 90;
    const Positions pos = fixed012(spp);
    if (bps == 8) {
        auto* s = static_cast<const std::uint8_t*>(src);
        auto* d = static_cast<std::uint8_t*>(dst);
        if (spp == 2) turnTwoSamples(cw, width, height, srcStride, dstStride, s, d);
        else turnLdr(cw, width, height, srcStride, dstStride, spp, pos, s, d);
    } else {
        auto* s = static_cast<const std::uint16_t*>(src);
        auto* d = static_cast<std::uint16_t*>(dst);
        if (spp == 2) turnTwoSamples(cw, width, height, srcStride, dstStride, s, d);
        else turnLdr(cw, width, height, srcStride, dstStride, spp, pos, s, d);
    }
    return width;
}

int rot_hdr(int angle, int width, int height, const unsigned char* src, unsigned char* dst) {
    if (width < 1) return 0;
    if (!knownAngle(angle)) return 0;
    if (height >= 1) turnPlanes(angle == 90, width, height, src, dst);
    return width;
}

int ol_rotate(int angle, int width, int height, int spp, int bps, const void* src, void* dst) {
    std::fprintf(stderr, "ol_rotate bsp: %d   -  %d x %d  ->  %d x %d\n", bps, width, height, height, width);
    if (width < 1) return 0;
    if (!knownAngle(angle) || (spp < 1 && bps != 32)) return 0;  // rgbe planes have no spp
    if (height < 1) return width;
    const bool cw = angle == 90;
    if (bps == 32) {
        turnPlanes(cw, width, height, static_cast<const std::uint8_t*>(src), static_cast<std::uint8_t*>(dst));
    } else if (bps == 8 || bps == 16) {
        const std::ptrdiff_t ss = static_cast<std::ptrdiff_t>(width) * spp;
        const std::ptrdiff_t ds = static_cast<std::ptrdiff_t>(height) * spp;
        const Positions pos = firstMiddleLast(spp);
        if (bps == 8)
            turnLdr(cw, width, height, ss, ds, spp, pos, static_cast<const std::uint8_t*>(src),
                    static_cast<std::uint8_t*>(dst));
        else
            turnLdr(cw, width, height, ss, ds, spp, pos, static_cast<const std::uint16_t*>(src),
                    static_cast<std::uint16_t*>(dst));
    }
    return width;
}

}  // extern "C"
