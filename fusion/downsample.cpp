// Whole-image shrinkers for the host: nearest-sample decimation to 8 bits and
// bilinear resampling that keeps the depth (8, 16 bits or packed RGBE).
#include <cmath>
#include <cstdint>
#include <cstring>

#include "Ombrelumen40Lib1.h"
#include "frame/alloc.hpp"
#include "frame/numeric.hpp"
#include "frame/rgbe.hpp"

namespace ol {
namespace {

template <class S>
void decimate(int srcW, int srcH, int dstW, int dstH, int srcSpp, int dstSpp, const S* src,
              std::uint8_t* dst) noexcept {
    const float ry = static_cast<float>(srcH) / static_cast<float>(dstH);
    const float rx = static_cast<float>(srcW) / static_cast<float>(dstW);
    const int so1 = (srcSpp - 1) / 2, so2 = srcSpp - 1;
    const int do1 = (dstSpp - 1) / 2, do2 = dstSpp - 1;
    for (int y = 0; y < dstH; ++y) {
        int sy = truncToInt(static_cast<float>(y) * ry);
        if (sy > srcH - 1) sy = srcH - 1;
        const S* srow = src + static_cast<std::size_t>(sy) * srcW * srcSpp;
        std::uint8_t* drow = dst + static_cast<std::size_t>(y) * dstW * dstSpp;
        for (int x = 0; x < dstW; ++x) {
            int sx = truncToInt(static_cast<float>(x) * rx);
            if (sx > srcW - 1) sx = srcW - 1;
            const S* p = srow + static_cast<std::size_t>(sx) * srcSpp;
            std::uint8_t* q = drow + static_cast<std::size_t>(x) * dstSpp;
            if constexpr (sizeof(S) == 1) {
                q[0] = p[0];
                q[do1] = p[so1];
                q[do2] = p[so2];
            } else {
                q[0] = static_cast<std::uint8_t>(p[0] >> 8);
                q[do1] = static_cast<std::uint8_t>(p[so1] >> 8);
                q[do2] = static_cast<std::uint8_t>(p[so2] >> 8);
            }
        }
    }
}

struct Tap {
    int i0, i1;  // source index and the +1 neighbour
    float frac;
};

// Source position of destination index d: trunc(d * ratio) and its fraction.
// A call that enlarges twofold or more reaches one past the last source
// pixel through the +1 tap. A row tap there would lie past the buffer: it is
// held on the last row. A column tap is the pixel that follows the row in
// memory, which the caller's buffer holds on every row but the last (see
// columnTap).
inline Tap tapFor(int d, float ratio, int srcSize, bool holdLast) noexcept {
    const float f = static_cast<float>(d) * ratio;
    const int i = truncToInt(f);
    Tap t{i, i + 1, f - static_cast<float>(i)};
    if (holdLast && t.i1 > srcSize - 1) t.i1 = srcSize - 1;
    if (t.i0 > srcSize - 1) t.i0 = srcSize - 1;
    return t;
}

// The +1 column tap on source row `row`: one past the row's end reads on
// into the memory after it, except on the last row, where that memory is not
// the caller's and the last pixel stands in.
inline int columnTap(int i1, int row, int srcW, int srcH) noexcept {
    return i1 > srcW - 1 && row >= srcH - 1 ? srcW - 1 : i1;
}

template <class T>
void bilinear(int srcW, int srcH, int srcStride, int dstW, int dstH, int dstStride, int spp,
              const T* src, T* dst) noexcept {
    const float sx = static_cast<float>(srcW) / static_cast<float>(dstW);
    const float sy = static_cast<float>(srcH) / static_cast<float>(dstH);
    const int nSamples = spp > 1 ? 3 : 1;
    // With two samples a pixel the third blended sample is the next pixel's
    // first, which after the last pixel of the last row lies past either
    // buffer: such a read counts as 0 and such a write is dropped. Every
    // other access is as written.
    const bool guard = spp == 2;
    const std::size_t srcLimit =
        static_cast<std::size_t>(srcH - 1) * srcStride + static_cast<std::size_t>(srcW) * spp;
    const std::size_t dstLimit =
        static_cast<std::size_t>(dstH - 1) * dstStride + static_cast<std::size_t>(dstW) * spp;
    auto rd = [&](std::size_t i) -> float {
        return guard && i >= srcLimit ? 0.0f : static_cast<float>(src[i]);
    };
    auto wr = [&](std::size_t i, T v) {
        if (!(guard && i >= dstLimit)) dst[i] = v;
    };
    for (int y = 0; y < dstH - 1; ++y) {
        const Tap ty = tapFor(y, sy, srcH, true);
        const float b = ty.frac;
        const std::size_t r0 = static_cast<std::size_t>(ty.i0) * srcStride;
        const std::size_t r1 = static_cast<std::size_t>(ty.i1) * srcStride;
        const std::size_t out = static_cast<std::size_t>(y) * dstStride;
        for (int x = 0; x < dstW - 1; ++x) {
            const Tap tx = tapFor(x, sx, srcW, false);
            const float a = tx.frac;
            const float w00 = (1.0f - a) * (1.0f - b), w10 = a * (1.0f - b);
            const float w01 = (1.0f - a) * b, w11 = a * b;
            const std::size_t p0 = static_cast<std::size_t>(tx.i0) * spp;
            const std::size_t p1r0 = static_cast<std::size_t>(columnTap(tx.i1, ty.i0, srcW, srcH)) * spp;
            const std::size_t p1r1 = static_cast<std::size_t>(columnTap(tx.i1, ty.i1, srcW, srcH)) * spp;
            for (int s = 0; s < nSamples; ++s) {
                const float v = w00 * rd(r0 + p0 + s) + w10 * rd(r0 + p1r0 + s) +
                                w01 * rd(r1 + p0 + s) + w11 * rd(r1 + p1r1 + s);
                wr(out + static_cast<std::size_t>(x) * spp + s, static_cast<T>(truncToInt(v)));
            }
        }
        // The last column repeats its left neighbour. A destination width of 1
        // has no left neighbour: nothing is copied then.
        if (dstW >= 2)
            for (int s = 0; s < nSamples; ++s)
                wr(out + static_cast<std::size_t>(dstW - 1) * spp + s,
                   dst[out + static_cast<std::size_t>(dstW - 2) * spp + s]);
    }
    if (dstH >= 2) {
        const std::size_t last = static_cast<std::size_t>(dstH - 1) * dstStride;
        const std::size_t above = last - dstStride;
        for (int x = 0; x < dstW; ++x)
            for (int s = 0; s < nSamples; ++s)
                wr(last + static_cast<std::size_t>(x) * spp + s, dst[above + static_cast<std::size_t>(x) * spp + s]);
    }
}

int bilinearRgbe(int srcW, int srcH, int dstW, int dstH, const std::uint8_t* src,
                 std::uint8_t* dst) noexcept {
    Owned<float> table = makeOwned<float>(256);
    Owned<Tap> cols = makeOwned<Tap>(dstW > 0 ? static_cast<std::size_t>(dstW) : 1);
    if (!table || !cols) return -4;
    // The exponent scale with the mantissa's divide by 256 folded in.
    fillRgbeExpTable(table.get(), 136);
    const float sx = static_cast<float>(srcW) / static_cast<float>(dstW);
    const float sy = static_cast<float>(srcH) / static_cast<float>(dstH);
    for (int x = 0; x < dstW; ++x) cols[x] = tapFor(x, sx, srcW, false);
    const std::size_t srcRow = 4u * static_cast<std::size_t>(srcW);
    const std::size_t dstRow = 4u * static_cast<std::size_t>(dstW);
    auto decode = [&](const std::uint8_t* row, int x, float* rgb) {
        const std::uint8_t e = row[3 * static_cast<std::size_t>(srcW) + x];
        for (int c = 0; c < 3; ++c)
            rgb[c] = e == 0 ? 0.0f
                            : static_cast<float>(row[c * static_cast<std::size_t>(srcW) + x]) * table[e];
    };
    for (int y = 0; y < dstH - 1; ++y) {
        const Tap ty = tapFor(y, sy, srcH, true);
        const float b = ty.frac;
        const std::uint8_t* r0 = src + static_cast<std::size_t>(ty.i0) * srcRow;
        const std::uint8_t* r1 = src + static_cast<std::size_t>(ty.i1) * srcRow;
        std::uint8_t* out = dst + static_cast<std::size_t>(y) * dstRow;
        const RgbeRow orow{out, out + dstW, out + 2 * static_cast<std::size_t>(dstW),
                           out + 3 * static_cast<std::size_t>(dstW)};
        for (int x = 0; x < dstW - 1; ++x) {
            const Tap& tx = cols[x];
            const float a = tx.frac;
            const float w00 = (1.0f - a) * (1.0f - b), w10 = a * (1.0f - b);
            const float w01 = (1.0f - a) * b, w11 = a * b;
            float p00[3], p10[3], p01[3], p11[3], v[3];
            // Pixel srcW of a row is read through the runs as they lie:
            // run c + 1's first byte, and the next row's first for the
            // exponent.
            decode(r0, tx.i0, p00);
            decode(r0, columnTap(tx.i1, ty.i0, srcW, srcH), p10);
            decode(r1, tx.i0, p01);
            decode(r1, columnTap(tx.i1, ty.i1, srcW, srcH), p11);
            for (int c = 0; c < 3; ++c) v[c] = w00 * p00[c] + w10 * p10[c] + w01 * p01[c] + w11 * p11[c];
            storeRgbe(orow, x, encodeRgbe(v[0], v[1], v[2], RgbeForm::Wrapped));
        }
        if (dstW >= 2)
            for (int run = 0; run < 4; ++run)
                out[run * static_cast<std::size_t>(dstW) + dstW - 1] =
                    out[run * static_cast<std::size_t>(dstW) + dstW - 2];
    }
    if (dstH >= 2)
        std::memcpy(dst + static_cast<std::size_t>(dstH - 1) * dstRow,
                    dst + static_cast<std::size_t>(dstH - 2) * dstRow, dstRow);
    return 0;
}

}  // namespace
}  // namespace ol

extern "C" {

int downsample_decimate(int srcWidth, int srcHeight, int dstWidth, int dstHeight, int srcSpp,
                        int dstSpp, int srcBits, int dstBits, const void* src, void* dst) {
    if (dstBits != 8 || (srcBits != 8 && srcBits != 16)) return -1;
    auto* out = static_cast<std::uint8_t*>(dst);
    if (srcBits == 8)
        ol::decimate(srcWidth, srcHeight, dstWidth, dstHeight, srcSpp, dstSpp,
                     static_cast<const std::uint8_t*>(src), out);
    else
        ol::decimate(srcWidth, srcHeight, dstWidth, dstHeight, srcSpp, dstSpp,
                     static_cast<const std::uint16_t*>(src), out);
    return dstHeight;
}

int ol_downsample(int srcWidth, int srcHeight, int srcStride, int dstWidth, int dstHeight,
                  int dstStride, int spp, int bits, const void* src, void* dst) {
    if (bits == 8)
        ol::bilinear(srcWidth, srcHeight, srcStride, dstWidth, dstHeight, dstStride, spp,
                     static_cast<const std::uint8_t*>(src), static_cast<std::uint8_t*>(dst));
    else if (bits == 16)
        ol::bilinear(srcWidth, srcHeight, srcStride, dstWidth, dstHeight, dstStride, spp,
                     static_cast<const std::uint16_t*>(src), static_cast<std::uint16_t*>(dst));
    else if (bits == 32) {
        const int r = ol::bilinearRgbe(srcWidth, srcHeight, dstWidth, dstHeight,
                                       static_cast<const std::uint8_t*>(src),
                                       static_cast<std::uint8_t*>(dst));
        if (r < 0) return r;
    } else
        return dstWidth;
    return dstHeight - 1;
}

}  // extern "C"
