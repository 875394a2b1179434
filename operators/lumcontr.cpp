// Contrast curve: brightness and an S-curve of three straight segments,
// applied in place through one table.
#include <cstdint>

#include "Ombrelumen40Lib1.h"
#include "frame/alloc.hpp"
#include "frame/numeric.hpp"
#include "operators/geometry.hpp"

namespace ol {
namespace {

// A knot coordinate truncated to an integer of the sample's width: the low 8
// or 16 bits of the truncated value (a NaN or out-of-range contrast gives
// 0x80000000, whose low bits are 0). In range for |contrast| < 1.
int knotCoordinate(double v, std::uint32_t top) noexcept {
    return static_cast<int>(static_cast<std::uint32_t>(truncToInt(v)) & top);
}

// Fills table[0..top] from the knots (0,0), (S(c+1), S(1-c)), (S(3-c), S(3+c)),
// (top, top). Entries that no segment reaches (knots out of order, only with
// a degenerate contrast) stay 0.
template <class T>
void buildCurve(double c, double S, std::uint32_t top, T* table) noexcept {
    const int kx[4] = {0, knotCoordinate(S * (c + 1.0), top), knotCoordinate(S * (3.0 - c), top),
                       static_cast<int>(top)};
    const int ky[4] = {0, knotCoordinate(S * (1.0 - c), top), knotCoordinate(S * (3.0 + c), top),
                       static_cast<int>(top)};
    for (int s = 0; s < 3; ++s) {
        const int x0 = kx[s], x1 = kx[s + 1], y0 = ky[s], y1 = ky[s + 1];
        if (x0 >= x1) continue;
        const float slope = static_cast<float>(y1 - y0) / static_cast<float>(x1 - x0);
        const float intercept = static_cast<float>(y0) - static_cast<float>(x0) * slope;
        for (int x = x0; x < x1; ++x)
            table[x] = static_cast<T>(static_cast<std::uint32_t>(
                                          truncToInt(static_cast<float>(x) * slope + intercept)) &
                                      top);
    }
    table[top] = static_cast<T>(top);
}

// Folds the brightness into the table: entry s becomes the curve's entry at
// s + brightness (clamped to 0..top), so each sample costs one load. In
// place: upward for a positive shift (each entry reads one not yet
// rewritten above it), downward for a negative one.
template <class T>
void shiftCurve(int brightness, std::int64_t top, T* table) noexcept {
    const std::int64_t add = sizeof(T) == 1 ? std::int64_t{brightness} : std::int64_t{brightness} * 256;
    auto from = [&](std::int64_t s) {
        const std::int64_t v = s + add;
        return v < 0 ? 0 : (v > top ? top : v);
    };
    if (add > 0)
        for (std::int64_t s = 0; s <= top; ++s) table[s] = table[from(s)];
    else if (add < 0)
        for (std::int64_t s = top; s >= 0; --s) table[s] = table[from(s)];
}

template <class T>
void applyCurve(int width, int height, long rowStride, int spp, const T* table, T* pixels) noexcept {
    // Three samples at every pixel: with spp below 3 the last pixel of the
    // last row reaches past the image's last sample; those samples are left
    // out, as nothing of the caller's lies there.
    const std::size_t extent = sizeOf(height - 1) * sizeOf(rowStride) + sizeOf(width) * sizeOf(spp);
    for (long y = 0; y < height; ++y) {
        const std::size_t rowAt = sizeOf(y) * sizeOf(rowStride);
        T* p = pixels + rowAt;
        if (spp == 3) {
            // Every sample of the row's pixels: one run.
            for (long j = 0; j < 3 * width; ++j) p[j] = table[p[j]];
            continue;
        }
        for (long x = 0; x < width; ++x, p += spp) {
            const std::size_t at = rowAt + sizeOf(x) * sizeOf(spp);
            if (at + 2 < extent) {
                p[0] = table[p[0]];
                p[1] = table[p[1]];
                p[2] = table[p[2]];
            } else {
                for (std::size_t c = 0; at + c < extent; ++c) p[c] = table[p[c]];
            }
        }
    }
}

}  // namespace
}  // namespace ol

extern "C" OL_API int lumcontr(float contrast, int brightness, int bps, int width, int height,
                               int rowStride, int spp, void* pixels) {
    if (height < 1) return 0;
    if (bps != 8 && bps != 16) return height;
    if (!ol::rowsFit(width, spp, rowStride) || pixels == nullptr) return 0;
    const double c = contrast;
    if (bps == 8) {
        std::uint8_t table[256] = {};
        ol::buildCurve<std::uint8_t>(c, 64.0, 255, table);
        ol::shiftCurve<std::uint8_t>(brightness, 255, table);
        ol::applyCurve(width, height, rowStride, spp, table, static_cast<std::uint8_t*>(pixels));
        return height;
    }
    // The 16-bit table (128 KiB) is working memory; without it the image is
    // left as it was and the code of every image operator comes back.
    ol::Owned<std::uint16_t> table = ol::makeOwnedZeroed<std::uint16_t>(65536);
    if (!table) return -4;
    ol::buildCurve<std::uint16_t>(c, 16384.0, 65535, table.get());
    ol::shiftCurve<std::uint16_t>(brightness, 65535, table.get());
    ol::applyCurve(width, height, rowStride, spp, table.get(), static_cast<std::uint16_t*>(pixels));
    return height;
}
