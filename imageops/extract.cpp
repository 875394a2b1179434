// Small versions of a picture for trying expensive work first:
// extract_basepreview (decimation to a size that repeated halving gives) and
// extract_crop (one rectangle of every frame). Both take the four buffer
// kinds: bit masks (bps 1), 8 and 16-bit `ldr image`, `rgbe planes` (32).
//
// Beyond the written codes: spp below 1 or a row stride shorter than a row
// of a bit, 8 or 16-bit source is refused geometry (-1). The part of a crop
// past the source's right or bottom edge is not copied: the output keeps
// what it had there.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <algorithm>

#include "Ombrelumen40Lib1.h"
#include "frame/numeric.hpp"
#include "frame/trace.hpp"
#include "fusion/pyramid.hpp"
#include "imageops/layout.hpp"

namespace ol::imageops {
namespace {

// Bit i of a mask lies in byte i >> 3 under 0x80 >> (i & 7).
inline bool getBit(const std::uint8_t* m, std::int64_t i) noexcept { return (m[i >> 3] & (0x80 >> (i & 7))) != 0; }
inline void setBit(std::uint8_t* m, std::int64_t i) noexcept {
    m[i >> 3] = static_cast<std::uint8_t>(m[i >> 3] | (0x80 >> (i & 7)));
}

// One rectangle of sampled pixels: output row r, column x is source row
// y0 + r*pas, column x0 + x*pas; `rows` x `cols` of the outWidth-wide
// output are filled.
struct Grid {
    int x0, y0, pas, cols, rows, outWidth;
};

// Bit masks: the three positions of each pixel, bits only set.
void gridBits(const Grid& g, std::int64_t rowStride, int spp, const std::uint8_t* src, std::uint8_t* dst) noexcept {
    const Positions pos = firstMiddleLast(spp);
    const int p[3] = {pos.p0, pos.p1, pos.p2};
    for (int r = 0; r < g.rows; ++r) {
        const std::int64_t srow = static_cast<std::int64_t>(g.y0 + static_cast<std::int64_t>(r) * g.pas) * rowStride;
        const std::int64_t drow = static_cast<std::int64_t>(r) * g.outWidth * spp;
        for (int x = 0; x < g.cols; ++x) {
            const std::int64_t s = srow + (g.x0 + static_cast<std::int64_t>(x) * g.pas) * spp;
            const std::int64_t d = drow + static_cast<std::int64_t>(x) * spp;
            for (int k = 0; k < 3; ++k)
                if (getBit(src, s + p[k])) setBit(dst, d + p[k]);
        }
    }
}

// 8 and 16-bit images: the three positions, to the same depth.
template <class T>
void gridSamples(const Grid& g, std::int64_t rowStride, int spp, const T* src, T* dst) noexcept {
    const Positions pos = firstMiddleLast(spp);
    for (int r = 0; r < g.rows; ++r) {
        const T* s = src + static_cast<std::int64_t>(g.y0 + static_cast<std::int64_t>(r) * g.pas) * rowStride +
                     static_cast<std::int64_t>(g.x0) * spp;
        T* d = dst + static_cast<std::int64_t>(r) * g.outWidth * spp;
        copyPixels(s, static_cast<std::ptrdiff_t>(g.pas) * spp, d, g.cols, spp, pos);
    }
}

// 16-bit samples to 8 bits: the high byte of each position.
void gridHighBytes(const Grid& g, std::int64_t rowStride, int spp, const std::uint16_t* src, std::uint8_t* dst) noexcept {
    const Positions pos = firstMiddleLast(spp);
    for (int r = 0; r < g.rows; ++r) {
        const std::uint16_t* s = src + static_cast<std::int64_t>(g.y0 + static_cast<std::int64_t>(r) * g.pas) * rowStride +
                                 static_cast<std::int64_t>(g.x0) * spp;
        std::uint8_t* d = dst + static_cast<std::int64_t>(r) * g.outWidth * spp;
        const std::ptrdiff_t step = static_cast<std::ptrdiff_t>(g.pas) * spp;
        for (int x = 0; x < g.cols; ++x, s += step, d += spp) {
            d[pos.p0] = static_cast<std::uint8_t>(s[pos.p0] >> 8);
            d[pos.p1] = static_cast<std::uint8_t>(s[pos.p1] >> 8);
            d[pos.p2] = static_cast<std::uint8_t>(s[pos.p2] >> 8);
        }
    }
}

// rgbe planes: the four runs of a row sampled at the same column.
void gridPlanes(const Grid& g, int width, const std::uint8_t* src, std::uint8_t* dst) noexcept {
    const std::int64_t srcRow = 4 * static_cast<std::int64_t>(width);
    const std::int64_t dstRow = 4 * static_cast<std::int64_t>(g.outWidth);
    for (int r = 0; r < g.rows; ++r) {
        const std::uint8_t* s = src + (g.y0 + static_cast<std::int64_t>(r) * g.pas) * srcRow + g.x0;
        std::uint8_t* d = dst + r * dstRow;
        for (int p = 0; p < 4; ++p) {
            const std::uint8_t* sp = s + static_cast<std::int64_t>(p) * width;
            std::uint8_t* dp = d + static_cast<std::int64_t>(p) * g.outWidth;
            if (g.pas == 1) std::memcpy(dp, sp, static_cast<std::size_t>(g.cols));
            else
                for (int x = 0; x < g.cols; ++x) dp[x] = sp[static_cast<std::int64_t>(x) * g.pas];
        }
    }
}

// Copies a grid by buffer kind; any other bps copies nothing.
void copyGrid(int bps, bool to8, const Grid& g, int width, std::int64_t rowStride, int spp, const void* src,
              void* dst) noexcept {
    switch (bps) {
        case 1:
            gridBits(g, rowStride, spp, static_cast<const std::uint8_t*>(src), static_cast<std::uint8_t*>(dst));
            break;
        case 8:
            gridSamples(g, rowStride, spp, static_cast<const std::uint8_t*>(src), static_cast<std::uint8_t*>(dst));
            break;
        case 16:
            if (to8)
                gridHighBytes(g, rowStride, spp, static_cast<const std::uint16_t*>(src), static_cast<std::uint8_t*>(dst));
            else
                gridSamples(g, rowStride, spp, static_cast<const std::uint16_t*>(src), static_cast<std::uint16_t*>(dst));
            break;
        case 32:
            gridPlanes(g, width, static_cast<const std::uint8_t*>(src), static_cast<std::uint8_t*>(dst));
            break;
        default:
            break;
    }
}

// Refused geometry shared by both functions.
bool badLayout(int bps, int width, int spp, int rowStride) noexcept {
    if (spp < 1) return true;
    if (bps == 32) return false;  // rgbe planes have no stride
    return static_cast<std::int64_t>(rowStride) < static_cast<std::int64_t>(width) * spp;
}

}  // namespace
}  // namespace ol::imageops

using namespace ol::imageops;

extern "C" {

int extract_basepreview(int bps, int width, int height, int spp, int rowStride, int outWidth, int outHeight,
                        int to8, const void* src, void* unused, void* dst) {
    if (height < 1) return 0;
    if (width < 5 || height < 5 || outWidth < 5 || outHeight < 5) return -1;
    if (badLayout(bps, width, spp, rowStride)) return -1;
    int pas = 1;
    if (width != outWidth || height != outHeight) {
        const int levels = ol::truncToInt(std::log((static_cast<double>(width) + height) * 0.5) / std::log(2.0));
        int w = width, h = height, k = 0;
        for (; k < levels; ++k) {
            if (w > 3 && h > 3) {
                w = ol::halveUp(w);
                h = ol::halveUp(h);
            }
            if constexpr (ol::tracePreview) std::printf("extract_qv  k: %d     %d x %d  \n", k, w, h);
            if (w <= outWidth) break;
        }
        if (w != outWidth || h != outHeight) return -5;
        pas = ol::truncToInt(std::pow(2.0, k + 1));
    }
    if constexpr (ol::tracePreview)
        std::printf("extract_basepreview  bps: %d  In: %d x %d    out:  %d x %d   pas: %d\n ", bps, width, height,
                    outWidth, outHeight, pas);
    const Grid g{0, 0, pas, outWidth, outHeight, outWidth};
    copyGrid(bps, to8 != 0, g, width, rowStride, spp, src, dst);
    return outHeight;
}

int extract_crop(int nbPhotos, int width, int height, int spp, int rowStride, int bps, int outWidth,
                 int outHeight, int posX, int posY, const void* src, void* dst) {
    if (outHeight < 1) return 0;
    if (width < 5 || height < 5 || outWidth < 5 || outHeight < 5) return -1;
    if (posX < 0 || posY < 0 || posX >= width || posY >= height) return -2;
    if (badLayout(bps, width, spp, rowStride)) return -1;
    if constexpr (ol::tracePreview && ol::traceCrop)
        std::printf("== extract_crop  %d photos  from %d x %d  to  %d x %d  - rowStride: %d  spp=%d  c1=%d  c2=%d   "
                    "bps=%d  posit %d %d\n",
                    nbPhotos, width, height, outWidth, outHeight, rowStride, spp, (spp - 1) / 2, spp - 1, bps, posX,
                    posY);
    const Grid g{posX, posY, 1, std::min(outWidth, width - posX), std::min(outHeight, height - posY), outWidth};
    if (nbPhotos > 1) {
        if (bps != 8 && bps != 16) return outHeight;  // a block holds 8 or 16-bit frames only
        const std::int64_t frameIn = static_cast<std::int64_t>(height) * rowStride;
        const std::int64_t frameOut = static_cast<std::int64_t>(outWidth) * outHeight * spp;
        for (int f = 0; f < nbPhotos; ++f) {
            if (bps == 8)
                gridSamples(g, rowStride, spp, static_cast<const std::uint8_t*>(src) + f * frameIn,
                            static_cast<std::uint8_t*>(dst) + f * frameOut);
            else
                gridSamples(g, rowStride, spp, static_cast<const std::uint16_t*>(src) + f * frameIn,
                            static_cast<std::uint16_t*>(dst) + f * frameOut);
        }
        return outHeight;
    }
    copyGrid(bps, false, g, width, rowStride, spp, src, dst);
    return outHeight;
}

}  // extern "C"
