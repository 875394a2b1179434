// Pixel positions and the quarter-turn walk shared by the image operations.
//
// Rules for arguments that no well-formed call passes (one set for the whole
// subsystem, so that a host sees the same answer everywhere):
//  - `spp` below 1, or a negative stride, is not an image: the call writes
//    nothing and returns 0.
//  - A destination stride smaller than the row that the call writes, where
//    the text gives no packing rule for it, is a destination the host sized
//    wrongly: nothing is written and the result is 0.
//  - With two samples a pixel, "samples 0, 1 and 2" reach into the next
//    pixel. That reaching is kept where it stays inside the rows; a read or a
//    write that would leave the image's or the destination's last row (or a
//    crop's known row) is skipped.
//  - A quarter turn by any angle other than 90 or 270 writes nothing and
//    returns 0.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace ol::imageops {

// The three colour positions of an `ldr image`: first, middle and last.
struct Positions {
    int p0, p1, p2;
};
inline Positions firstMiddleLast(int spp) noexcept { return {0, (spp - 1) / 2, spp - 1}; }
// Samples 0, 1 and 2, or sample 0 three times over for one-sample images.
inline Positions fixed012(int spp) noexcept { return spp > 1 ? Positions{0, 1, 2} : Positions{0, 0, 0}; }

// Samples one past the last sample a walk of `rows` rows reaches:
// (rows-1)*step + rowLen, 0 for no rows.
inline std::int64_t extentOf(std::int64_t rows, std::int64_t step, std::int64_t rowLen) noexcept {
    return rows < 1 ? 0 : (rows - 1) * step + rowLen;
}

// Copies the three positions of one pixel (same positions in source and
// destination). SPP > 0 fixes the layout at compile time; 0 reads `pos`.
template <class T, int SPP, int P1, int P2>
inline void copyPixel(const T* s, T* d, const Positions& pos) noexcept {
    if constexpr (SPP == 0) {
        d[pos.p0] = s[pos.p0];
        d[pos.p1] = s[pos.p1];
        d[pos.p2] = s[pos.p2];
    } else if constexpr (SPP == 1) {
        d[0] = s[0];
    } else {
        d[0] = s[0];
        d[P1] = s[P1];
        d[P2] = s[P2];
    }
}

// Copies n pixels from s (pixels srcStep samples apart) to d (spp apart),
// the three positions of each. Where the positions cover every sample of a
// packed pixel the run is one block copy.
template <class T>
void copyPixels(const T* s, std::ptrdiff_t srcStep, T* d, int n, int spp, Positions pos) noexcept {
    if (n <= 0) return;
    const bool all = spp == 1 || (spp == 2 && pos.p1 == 0 && pos.p2 == 1) ||
                     (spp == 3 && pos.p1 == 1 && pos.p2 == 2);
    if (all && srcStep == spp) {
        std::memcpy(d, s, sizeof(T) * static_cast<std::size_t>(n) * spp);
    } else if (spp == 3 && pos.p1 == 1 && pos.p2 == 2) {
        for (int x = 0; x < n; ++x, s += srcStep, d += 3) copyPixel<T, 3, 1, 2>(s, d, pos);
    } else if (spp == 1) {
        for (int x = 0; x < n; ++x, s += srcStep) d[x] = s[0];
    } else {
        for (int x = 0; x < n; ++x, s += srcStep, d += spp) copyPixel<T, 0, 0, 0>(s, d, pos);
    }
}

// Quarter turn of a width x height image, tile by tile so that the column
// walk of one side stays in cache. angle 90: destination row x, column j is
// source row height-1-j, column x; angle 270: destination row width-1-x,
// column j is source row j, column x. Every destination pixel is written
// once from one source pixel, so the tile order gives the same bytes as the
// column-by-column walk. Strides count elements of T.
template <class T, int SPP, int P1, int P2>
void quarterTurn(bool clockwise, int width, int height, std::ptrdiff_t srcStride,
                 std::ptrdiff_t dstStride, int spp, Positions pos, const T* src, T* dst) noexcept {
    const std::ptrdiff_t step = SPP > 0 ? SPP : spp;
    constexpr int tile = sizeof(T) * (SPP > 0 ? SPP : 4) <= 2 ? 64 : 32;
    for (int x0 = 0; x0 < width; x0 += tile) {
        const int x1 = std::min(width, x0 + tile);
        for (int j0 = 0; j0 < height; j0 += tile) {
            const int j1 = std::min(height, j0 + tile);
            for (int x = x0; x < x1; ++x) {
                T* drow = dst + (clockwise ? x : width - 1 - x) * dstStride;
                const T* s = src + x * step +
                             (clockwise ? (height - 1 - j0) * srcStride : j0 * srcStride);
                const std::ptrdiff_t ds = clockwise ? -srcStride : srcStride;
                T* d = drow + j0 * step;
                for (int j = j0; j < j1; ++j, s += ds, d += step) copyPixel<T, SPP, P1, P2>(s, d, pos);
            }
        }
    }
}

}  // namespace ol::imageops
