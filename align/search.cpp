// The coarse-to-fine search of one pair on packed bitmaps: a candidate's
// mismatch is the population count of A XOR (B shifted), 64 pixels a step.
#include <bit>

#include "frame/clones.hpp"
#include "align/align_internal.hpp"

namespace ol::alignment {
namespace {

inline std::uint64_t wordAt(const std::uint64_t* row, int words, long i) noexcept {
    return i >= 0 && i < words ? row[i] : 0;
}

// Kept inside this file: a cloned function gets a resolver symbol of its
// own, which must not leave the shared library.
OL_AVX2_CLONES
std::int64_t mismatchClone(const Level& lv, const std::uint64_t* A, const std::uint64_t* B, int ox,
                           int oy) noexcept {
    const int words = lv.words;
    if (words == 0 || lv.h == 0) return 0;
    const int tail = lv.w & 63;
    const std::uint64_t lastMask = tail ? (std::uint64_t(1) << tail) - 1 : ~std::uint64_t(0);
    // Word j of B read at x + ox: (B[j+q] >> r) | (B[j+q+1] << (64-r)), with
    // q the floor of ox / 64 and r its remainder.
    const long q = ox >> 6;  // arithmetic shift: floor
    const int r = ox & 63;
    // Words j whose two source words both lie inside the row.
    long lo = -q, hi = words - 2 - q;
    if (lo < 0) lo = 0;
    if (hi > words - 2) hi = words - 2;  // the last word is masked separately
    std::int64_t count = 0;
    for (int y = 0; y < lv.h; ++y) {
        const std::uint64_t* a = A + static_cast<std::size_t>(y) * words;
        const long v = static_cast<long>(y) + oy;
        if (v < 1 || v >= lv.h) {  // B's first row and rows outside give 0
            for (int j = 0; j < words; ++j) count += std::popcount(a[j]);
            continue;
        }
        const std::uint64_t* brow = B + static_cast<std::size_t>(v) * words;
        // B's first column never counts: read the row with bit 0 cleared.
        auto src = [&](long i) -> std::uint64_t {
            const std::uint64_t w = wordAt(brow, words, i);
            return i == 0 ? (w & ~std::uint64_t(1)) : w;
        };
        auto shifted = [&](long j) -> std::uint64_t {
            if (r == 0) return src(j + q);
            return (src(j + q) >> r) | (src(j + q + 1) << (64 - r));
        };
        long j = 0;
        for (; j < lo && j < words - 1; ++j) count += std::popcount(a[j] ^ shifted(j));
        if (r == 0) {
            for (; j <= hi; ++j) {
                const std::uint64_t w = j + q == 0 ? brow[0] & ~std::uint64_t(1) : brow[j + q];
                count += std::popcount(a[j] ^ w);
            }
        } else {
            for (; j <= hi; ++j) {
                const long i = j + q;
                const std::uint64_t w0 = i == 0 ? brow[0] & ~std::uint64_t(1) : brow[i];
                count += std::popcount(a[j] ^ ((w0 >> r) | (brow[i + 1] << (64 - r))));
            }
        }
        for (; j < words - 1; ++j) count += std::popcount(a[j] ^ shifted(j));
        count += std::popcount(a[words - 1] ^ (shifted(words - 1) & lastMask));
    }
    return count;
}

}  // namespace

std::int64_t mismatch(const Level& lv, const std::uint64_t* A, const std::uint64_t* B, int ox,
                      int oy) noexcept {
    return mismatchClone(lv, A, B, ox, oy);
}

void searchPair(const Geometry& g, const std::uint64_t* A, const std::uint64_t* B, int* dx,
                int* dy) noexcept {
    int sx = 0, sy = 0;
    for (int l = g.levels - 1; l >= 0; --l) {
        const Level& lv = g.level[l];
        std::int64_t best = static_cast<std::int64_t>(lv.w) * lv.h;
        int bx = 0, by = 0, ties = 0;
        for (int cy = -1; cy <= 1; ++cy)
            for (int cx = -1; cx <= 1; ++cx) {
                const std::int64_t n =
                    mismatch(lv, A + lv.bitOffset, B + lv.bitOffset, sx + cx, sy + cy);
                if (n <= best) ++ties;
                if (n < best) {
                    best = n;
                    bx = cx;
                    by = cy;
                }
            }
        // All nine passed: the level adds nothing (a flat pair stays put).
        if (ties > 8) bx = by = 0;
        sx = 2 * (sx + bx);
        sy = 2 * (sy + by);
    }
    *dx = sx / 2;
    *dy = sy / 2;
}

}  // namespace ol::alignment
