// Reduced grey levels and threshold-bitmap pyramids of a frame (bitmap_pyram).
#include <cmath>
#include <cstring>

#include "frame/clones.hpp"
#include "align/align_internal.hpp"
#include "frame/histogram.hpp"
#include "frame/numeric.hpp"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace ol::alignment {
namespace {

// Interior output pixels of one row: centre weight 4, edges 2, corners 1, >> 4.
OL_AVX2_CLONES
void reduceInterior(const std::uint8_t* r0, const std::uint8_t* r1, const std::uint8_t* r2, int n,
                    std::uint8_t* out) noexcept {
    for (int x = 0; x < n; ++x) {
        const int a = 2 * x;
        const unsigned corners = 0u + r0[a] + r0[a + 2] + r2[a] + r2[a + 2];
        const unsigned edges = 0u + r1[a] + r1[a + 2] + r0[a + 1] + r2[a + 1];
        out[x] = static_cast<std::uint8_t>((4u * r1[a + 1] + 2u * edges + corners) >> 4);
    }
}

// Threshold bits of one row: pixels [0, usable) compared with T, the rest 0.
void thresholdRow(const std::uint8_t* g, int usable, int words, int T, std::uint64_t* out) noexcept {
    std::memset(out, 0, static_cast<std::size_t>(words) * sizeof(std::uint64_t));
    if (T >= 255) return;  // no grey value is greater
    int x = 0;
#if defined(__SSE2__)
    const __m128i flip = _mm_set1_epi8(static_cast<char>(0x80));
    const __m128i t = _mm_set1_epi8(static_cast<char>(T ^ 0x80));
    for (; x + 64 <= usable; x += 64) {
        std::uint64_t w = 0;
        for (int q = 0; q < 4; ++q) {
            const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(g + x + 16 * q));
            const __m128i gt = _mm_cmpgt_epi8(_mm_xor_si128(v, flip), t);
            w |= static_cast<std::uint64_t>(static_cast<unsigned>(_mm_movemask_epi8(gt)) & 0xFFFFu) << (16 * q);
        }
        out[x >> 6] = w;
    }
#endif
    for (; x < usable; ++x)
        if (g[x] > T) out[x >> 6] |= std::uint64_t(1) << (x & 63);
}

}  // namespace

int levelCount(int width) noexcept {
    return truncToInt(std::log(0.08 * static_cast<double>(width)) / std::log(2.0));
}

Geometry geometry(int width, int height, int levels) noexcept {
    Geometry g;
    if (levels > kMaxLevels) levels = kMaxLevels;  // beyond any int width
    g.levels = levels > 0 ? levels : 0;
    int w = width, h = height;
    for (int l = 0; l < g.levels; ++l) {
        Level& lv = g.level[l];
        lv.w = w;
        lv.h = h;
        lv.words = static_cast<int>((static_cast<unsigned>(w) + 63u) / 64u);
        lv.greyOffset = g.greyBytes;
        lv.bitOffset = g.bitWords;
        if (l > 0) g.greyBytes += static_cast<std::size_t>(w) * static_cast<std::size_t>(h);
        g.bitWords += static_cast<std::size_t>(lv.words) * static_cast<std::size_t>(h);
        w /= 2;
        h /= 2;
    }
    return g;
}

void reduceLevel(const std::uint8_t* src, int w, int h, std::uint8_t* dst) noexcept {
    const int w2 = w / 2, h2 = h / 2;
    if (w2 < 1 || h2 < 1) return;
    const std::size_t sw = static_cast<std::size_t>(w);
    for (int y = 0; y < h2; ++y) {
        const std::uint8_t* r0 = src + static_cast<std::size_t>(2 * y) * sw;  // above
        const std::uint8_t* r1 = r0 + sw;                                     // centre row
        std::uint8_t* out = dst + static_cast<std::size_t>(y) * static_cast<std::size_t>(w2);
        const int c = 2 * (w2 - 1) + 1;  // centre column of the last output column
        if (y < h2 - 1) {
            const std::uint8_t* r2 = r1 + sw;  // below
            reduceInterior(r0, r1, r2, w2 - 1, out);
            // Last column: no right-hand neighbours.
            out[w2 - 1] = static_cast<std::uint8_t>(
                (85u * r1[c] + 43u * (0u + r1[c - 1] + r0[c] + r2[c]) + 21u * (0u + r0[c - 1] + r2[c - 1])) >> 8);
        } else {
            // Last row: no lower neighbours.
            for (int x = 0; x < w2 - 1; ++x) {
                const int a = 2 * x + 1;
                out[x] = static_cast<std::uint8_t>(
                    (83u * r1[a] + 43u * (0u + r1[a - 1] + r1[a + 1] + r0[a]) + 21u * (0u + r0[a - 1] + r0[a + 1])) >> 8);
            }
            out[w2 - 1] = static_cast<std::uint8_t>((113u * r1[c] + 57u * (0u + r1[c - 1] + r0[c]) + 16u * r0[c - 1]) >> 8);
        }
    }
}

void reducePyramid(const std::uint8_t* plane, const Geometry& g, std::uint8_t* reduced) noexcept {
    for (int l = 1; l < g.levels; ++l) {
        const Level& from = g.level[l - 1];
        const std::uint8_t* src = l == 1 ? plane : reduced + from.greyOffset;
        reduceLevel(src, from.w, from.h, reduced + g.level[l].greyOffset);
    }
}

void thresholdPyramid(const std::uint8_t* plane, const std::uint8_t* reduced, const Geometry& g, int T,
                      std::uint64_t* bits) noexcept {
    for (int l = 0; l < g.levels; ++l) {
        const Level& lv = g.level[l];
        const std::uint8_t* grey = l == 0 ? plane : reduced + lv.greyOffset;
        const int usable = lv.w / 8 * 8;  // whole bytes of the bitmap only
        for (int y = 0; y < lv.h; ++y)
            thresholdRow(grey + static_cast<std::size_t>(y) * lv.w, usable, lv.words, T,
                         bits + lv.bitOffset + static_cast<std::size_t>(y) * lv.words);
    }
}

void bitmap_pyram(const std::uint8_t* plane, const std::int64_t* hist, const Geometry& g,
                  std::uint8_t* reduced, std::uint64_t* bits, std::int64_t count) noexcept {
    // One threshold, from the full-size histogram, for every level.
    const int T = levelPassing(hist, count);
    reducePyramid(plane, g, reduced);
    thresholdPyramid(plane, reduced, g, T, bits);
}

}  // namespace ol::alignment
