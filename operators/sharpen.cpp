// Sharpening with a 3 x 3 Laplacian scaled by a float amount: out = c -
// trunc((float)k * amount), clamped, where k is the sum of the neighbours
// minus their weight times the centre c.
//
// The two functions differ at the rim. sharpen (8 bits) changes the kernel
// there so that its weights still sum to zero: a corner gives 2 (two edge
// neighbours) + diagonal - 5c, an edge 2 (two neighbours along it) + three
// others - 7c. That is the full kernel on the image extended by repeating its
// rim, which is how it is computed here, and so a flat area stays flat.
// sharp16 (16 bits) adds only the neighbours inside the image but always
// subtracts 8c, so a flat image gets a brighter rim.
//
// The subtraction c - t wraps as on the machine (unsigned arithmetic): a NaN
// or out-of-range product truncates to 0x80000000, and c - 0x80000000 is
// negative, so it clamps to 0.
#include <cstdint>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "Ombrelumen40Lib1.h"
#include "frame/numeric.hpp"
#include "operators/geometry.hpp"

namespace ol {
namespace {

template <int Top>
inline int sharpened(int c, int k, float amount) noexcept {
    const std::int32_t t = truncToInt(static_cast<float>(k) * amount);
    const auto v = static_cast<std::int32_t>(static_cast<std::uint32_t>(c) - static_cast<std::uint32_t>(t));
    return v < 0 ? 0 : (v > Top ? Top : v);
}

// The full kernel at a run of centre indices [j0, j1) whose 8 neighbours all
// lie inside the buffer: dst[j] from src[j], src[j +- step], src[j +- row].
template <class T, int Top>
void interiorRun(const T* src, T* dst, std::ptrdiff_t j0, std::ptrdiff_t j1, std::ptrdiff_t step,
                 std::ptrdiff_t row, float amount) noexcept {
    std::ptrdiff_t j = j0;
#if defined(__SSE2__)
    const __m128 am = _mm_set1_ps(amount);
    const __m128i zero = _mm_setzero_si128();
    if constexpr (sizeof(T) == 1) {
        auto load16 = [&](std::ptrdiff_t at) {
            return _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + at));
        };
        for (; j + 16 <= j1; j += 16) {
            const __m128i n[8] = {load16(j - row - step), load16(j - row), load16(j - row + step), load16(j - step),
                                  load16(j + step),       load16(j + row - step), load16(j + row),
                                  load16(j + row + step)};
            const __m128i c = load16(j);
            __m128i lo = _mm_slli_epi16(_mm_unpacklo_epi8(c, zero), 3);
            __m128i hi = _mm_slli_epi16(_mm_unpackhi_epi8(c, zero), 3);
            __m128i klo = _mm_sub_epi16(zero, lo), khi = _mm_sub_epi16(zero, hi);
            for (const __m128i& v : n) {
                klo = _mm_add_epi16(klo, _mm_unpacklo_epi8(v, zero));
                khi = _mm_add_epi16(khi, _mm_unpackhi_epi8(v, zero));
            }
            const __m128i c16lo = _mm_unpacklo_epi8(c, zero), c16hi = _mm_unpackhi_epi8(c, zero);
            __m128i r[4];
            const __m128i k16[2] = {klo, khi};
            const __m128i c16[2] = {c16lo, c16hi};
            for (int h = 0; h < 2; ++h) {
                // Sign-extend k to 32 bits, convert, scale, truncate (NaN and
                // out of range give 0x80000000, as truncToInt), subtract.
                const __m128i ks = _mm_srai_epi16(k16[h], 15);
                const __m128i k0 = _mm_unpacklo_epi16(k16[h], ks), k1 = _mm_unpackhi_epi16(k16[h], ks);
                const __m128i t0 = _mm_cvttps_epi32(_mm_mul_ps(_mm_cvtepi32_ps(k0), am));
                const __m128i t1 = _mm_cvttps_epi32(_mm_mul_ps(_mm_cvtepi32_ps(k1), am));
                r[2 * h] = _mm_sub_epi32(_mm_unpacklo_epi16(c16[h], zero), t0);
                r[2 * h + 1] = _mm_sub_epi32(_mm_unpackhi_epi16(c16[h], zero), t1);
            }
            // Signed saturation to 16 bits, then unsigned to 8: the clamp to 0..255.
            const __m128i out = _mm_packus_epi16(_mm_packs_epi32(r[0], r[1]), _mm_packs_epi32(r[2], r[3]));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + j), out);
        }
    } else {
        auto load8 = [&](std::ptrdiff_t at) {
            return _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + at));
        };
        const __m128i top = _mm_set1_epi32(65535), bias32 = _mm_set1_epi32(32768),
                      bias16 = _mm_set1_epi16(static_cast<short>(0x8000));
        for (; j + 8 <= j1; j += 8) {
            const __m128i n[8] = {load8(j - row - step), load8(j - row), load8(j - row + step), load8(j - step),
                                  load8(j + step),       load8(j + row - step), load8(j + row),
                                  load8(j + row + step)};
            const __m128i c = load8(j);
            const __m128i c0 = _mm_unpacklo_epi16(c, zero), c1 = _mm_unpackhi_epi16(c, zero);
            __m128i k0 = _mm_sub_epi32(zero, _mm_slli_epi32(c0, 3)), k1 = _mm_sub_epi32(zero, _mm_slli_epi32(c1, 3));
            for (const __m128i& v : n) {
                k0 = _mm_add_epi32(k0, _mm_unpacklo_epi16(v, zero));
                k1 = _mm_add_epi32(k1, _mm_unpackhi_epi16(v, zero));
            }
            const __m128i t0 = _mm_cvttps_epi32(_mm_mul_ps(_mm_cvtepi32_ps(k0), am));
            const __m128i t1 = _mm_cvttps_epi32(_mm_mul_ps(_mm_cvtepi32_ps(k1), am));
            __m128i r[2] = {_mm_sub_epi32(c0, t0), _mm_sub_epi32(c1, t1)};
            for (__m128i& v : r) {
                v = _mm_and_si128(v, _mm_cmpgt_epi32(v, _mm_set1_epi32(-1)));  // below 0 -> 0
                const __m128i over = _mm_cmpgt_epi32(v, top);
                v = _mm_or_si128(_mm_andnot_si128(over, v), _mm_and_si128(over, top));
                v = _mm_sub_epi32(v, bias32);  // 0..65535 -> -32768..32767 for the signed pack
            }
            const __m128i out = _mm_xor_si128(_mm_packs_epi32(r[0], r[1]), bias16);
            _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + j), out);
        }
    }
#endif
    for (; j < j1; ++j) {
        const int c = src[j];
        const int k = src[j - row - step] + src[j - row] + src[j - row + step] + src[j - step] + src[j + step] +
                      src[j + row - step] + src[j + row] + src[j + row + step] - 8 * c;
        dst[j] = static_cast<T>(sharpened<Top>(c, k, amount));
    }
}

// sharpen at one centre index j of pixel (x, y): the kernel over the image
// extended by its rim. With more than 3 samples a pixel the centre drifts
// (it advances by 3 samples a pixel) while the neighbours stand spp samples
// away, so near the start of the buffer a neighbour index can fall before it:
// such a sample reads as 0.
int sharpenAt(const std::uint8_t* src, std::ptrdiff_t j, long x, long y, long w, long h, std::ptrdiff_t step,
              std::ptrdiff_t row, float amount) noexcept {
    const int c = src[j];
    int k = -8 * c;
    for (int dy = -1; dy <= 1; ++dy)
        for (int dx = -1; dx <= 1; ++dx) {
            if (dx == 0 && dy == 0) continue;
            const long ny = y + dy < 0 ? 0 : (y + dy > h - 1 ? h - 1 : y + dy);
            const long nx = x + dx < 0 ? 0 : (x + dx > w - 1 ? w - 1 : x + dx);
            const std::ptrdiff_t at = j + (ny - y) * row + (nx - x) * step;
            k += at < 0 ? 0 : src[at];
        }
    return sharpened<255>(c, k, amount);
}

// sharp16 at sample j of pixel (x, y): only the neighbours inside the image.
int sharp16At(const std::uint16_t* src, std::ptrdiff_t j, long x, long y, long w, long h, std::ptrdiff_t step,
              std::ptrdiff_t row, float amount) noexcept {
    const int c = src[j];
    int k = 0;
    for (int dy = -1; dy <= 1; ++dy)
        for (int dx = -1; dx <= 1; ++dx) {
            if (dx == 0 && dy == 0) continue;
            if (y + dy < 0 || y + dy >= h || x + dx < 0 || x + dx >= w) continue;
            k += src[j + dy * row + dx * step];
        }
    k -= 8 * c;
    return sharpened<65535>(c, k, amount);
}

}  // namespace
}  // namespace ol

extern "C" {

OL_API int sharpen(float amount, int width, int height, int rowStride, int spp, const std::uint8_t* src,
                   std::uint8_t* dst) {
    if (spp == 1) return 1;
    if (height < 1) return 0;
    // The centre advances by 3 samples a pixel, so a pixel needs at least 3.
    if (spp < 3 || !ol::rowsFit(width, spp, rowStride) || src == nullptr || dst == nullptr) return 0;
    const long w = width, h = height;
    const std::ptrdiff_t step = spp, row = rowStride;
    for (long y = 0; y < h; ++y) {
        const std::ptrdiff_t rowAt = y * row;
        // The full kernel needs a row above and below, a pixel left and right,
        // and (with the drift) its upper-left neighbour inside the buffer.
        const bool inner = y >= 1 && y <= h - 2 && rowAt - row + 3 - step >= 0;
        if (inner && w >= 3) {
            ol::interiorRun<std::uint8_t, 255>(src, dst, rowAt + 3, rowAt + 3 * (w - 1), step, row, amount);
            for (int c = 0; c < 3; ++c) {
                dst[rowAt + c] = static_cast<std::uint8_t>(ol::sharpenAt(src, rowAt + c, 0, y, w, h, step, row, amount));
                const std::ptrdiff_t j = rowAt + 3 * (w - 1) + c;
                dst[j] = static_cast<std::uint8_t>(ol::sharpenAt(src, j, w - 1, y, w, h, step, row, amount));
            }
            continue;
        }
        for (long x = 0; x < w; ++x)
            for (int c = 0; c < 3; ++c) {
                const std::ptrdiff_t j = rowAt + 3 * x + c;
                dst[j] = static_cast<std::uint8_t>(ol::sharpenAt(src, j, x, y, w, h, step, row, amount));
            }
    }
    return height;
}

OL_API int sharp16(float amount, int width, int height, int rowStride, int spp, const std::uint16_t* src,
                   std::uint16_t* dst) {
    if (height < 1) return 0;
    // Red, green and blue are samples 0, 1, 2 (all sample 0 at spp 1): two
    // samples a pixel can't hold them.
    if (spp == 2 || !ol::rowsFit(width, spp, rowStride) || src == nullptr || dst == nullptr) return 0;
    const long w = width, h = height;
    const std::ptrdiff_t step = spp, row = rowStride;
    const int nc = spp == 1 ? 1 : 3;
    // With 1 or 3 samples a pixel the colour samples of a row's inner pixels
    // are one contiguous run.
    const bool contiguous = spp == 1 || spp == 3;
    for (long y = 0; y < h; ++y) {
        const std::ptrdiff_t rowAt = y * row;
        const bool inner = y >= 1 && y <= h - 2 && w >= 3;
        for (long x = 0; x < w; ++x) {
            if (inner && contiguous && x == 1) {
                ol::interiorRun<std::uint16_t, 65535>(src, dst, rowAt + step, rowAt + step * (w - 1), step, row,
                                                      amount);
                x = w - 2;
                continue;
            }
            const bool inside = inner && x >= 1 && x <= w - 2;
            for (int c = 0; c < nc; ++c) {
                const std::ptrdiff_t j = rowAt + x * step + c;
                if (inside) {
                    ol::interiorRun<std::uint16_t, 65535>(src, dst, j, j + 1, step, row, amount);
                } else {
                    dst[j] = static_cast<std::uint16_t>(ol::sharp16At(src, j, x, y, w, h, step, row, amount));
                }
            }
        }
    }
    return height;
}

}  // extern "C"
