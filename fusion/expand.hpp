// The expansion of a coarse pyramid level to the next finer one (bilinear
// doubling), shared by the Laplacian blend and the reconstruction.
//
// Fine pixel (x, y) reads coarse pixel (x >> 1, y >> 1) and, for an odd
// coordinate, its right and/or lower neighbour, as a mean (integer >> 1 or
// >> 2, float * 0.5 or * 0.25). An even fine size leaves a last column or row
// without a coarse neighbour beyond it: there the coarse column or row is
// used alone, except that with wrapX the right-hand neighbour of the last
// column is the first pixel of the same coarse row (a float tap taken there
// is truncated to an integer first).
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "frame/clones.hpp"
#include "frame/numeric.hpp"

// The span expansion is inlined into its callers, so that a caller built
// with a vector variant (frame/clones.hpp) gets the same variant of it.
#if defined(__GNUC__)
#define OL_EXPAND_INLINE [[gnu::always_inline]] inline
#else
#define OL_EXPAND_INLINE inline
#endif

namespace ol {

template <class T>
struct Expand {
    using Acc = std::conditional_t<std::is_floating_point_v<T>, float, std::int32_t>;
    static Acc one(T a) noexcept { return static_cast<Acc>(a); }
    static Acc mean2(Acc a, Acc b) noexcept {
        if constexpr (std::is_floating_point_v<T>) return (a + b) * 0.5f;
        else return (a + b) >> 1;
    }
    static Acc mean4(Acc a, Acc b, Acc c, Acc d) noexcept {
        if constexpr (std::is_floating_point_v<T>) return (a + b + c + d) * 0.25f;
        else return (a + b + c + d) >> 2;
    }
    static Acc wrapped(T v) noexcept {
        if constexpr (std::is_floating_point_v<T>) return static_cast<float>(truncToInt(v));
        else return static_cast<Acc>(v);
    }
    // Channel c of the last column (odd x) of an even width: `a` and `b` the
    // coarse pixels of the column in the row pair (b null without a second
    // row), `A` and `B` the rows' first pixels, which wrapX takes as the
    // right neighbours.
    static Acc lastColumn(const T* A, const T* B, const T* a, const T* b, int c, bool wrap) noexcept {
        if (!wrap) return b ? mean2(one(a[c]), one(b[c])) : one(a[c]);
        if (b) return mean4(one(a[c]), wrapped(A[c]), one(b[c]), wrapped(B[c]));
        return mean2(one(a[c]), wrapped(A[c]));
    }
};

// Calls op(x, c, up) for every sample of fine row y, x rising. `coarse`
// points at the coarse level.
template <class T, class Op>
inline void expandRow(const T* coarse, int y, int wF, int hF, int wC, int ch, bool wrap,
                      Op&& op) noexcept {
    using E = Expand<T>;
    const std::size_t row = static_cast<std::size_t>(wC) * ch;
    const T* A = coarse + static_cast<std::size_t>(y >> 1) * row;
    const int yMain = hF + (hF & 1) - 1;
    // The lower coarse row takes part only for an odd y inside the main rows.
    const T* B = ((y & 1) && y < yMain) ? A + row : nullptr;
    const int xMain = wF + (wF & 1) - 1;
    if (B) {
        int x = 0;
        for (; x + 1 < xMain; x += 2) {
            const T* a = A + static_cast<std::size_t>(x >> 1) * ch;
            const T* b = B + static_cast<std::size_t>(x >> 1) * ch;
            for (int c = 0; c < ch; ++c) op(x, c, E::mean2(E::one(a[c]), E::one(b[c])));
            for (int c = 0; c < ch; ++c)
                op(x + 1, c,
                   E::mean4(E::one(a[c]), E::one(a[c + ch]), E::one(b[c]), E::one(b[c + ch])));
        }
        if (x < xMain) {  // odd width: the last column is even
            const T* a = A + static_cast<std::size_t>(x >> 1) * ch;
            const T* b = B + static_cast<std::size_t>(x >> 1) * ch;
            for (int c = 0; c < ch; ++c) op(x, c, E::mean2(E::one(a[c]), E::one(b[c])));
        }
    } else {
        int x = 0;
        for (; x + 1 < xMain; x += 2) {
            const T* a = A + static_cast<std::size_t>(x >> 1) * ch;
            for (int c = 0; c < ch; ++c) op(x, c, E::one(a[c]));
            for (int c = 0; c < ch; ++c) op(x + 1, c, E::mean2(E::one(a[c]), E::one(a[c + ch])));
        }
        if (x < xMain) {
            const T* a = A + static_cast<std::size_t>(x >> 1) * ch;
            for (int c = 0; c < ch; ++c) op(x, c, E::one(a[c]));
        }
    }
    if (!(wF & 1)) {  // even width: last column, odd x
        const int x = wF - 1;
        const T* a = A + static_cast<std::size_t>(x >> 1) * ch;
        const T* b = B ? B + static_cast<std::size_t>(x >> 1) * ch : nullptr;
        for (int c = 0; c < ch; ++c) op(x, c, E::lastColumn(A, B, a, b, c, wrap));
    }
}

}  // namespace ol

namespace ol {

// The same expansion for the fine pixels [x0, x0 + n) of row y, written
// channel-interleaved into `up` (n * ch values). x0 is even. CH is the
// channel count when known at compile time, else 0.
template <int CH, class T>
OL_EXPAND_INLINE void expandSpan(const T* coarse, int y, int wF, int hF, int wC, int chRuntime, bool wrap, int x0,
                       int n, typename Expand<T>::Acc* up) noexcept {
    using E = Expand<T>;
    using Acc = typename E::Acc;
    const int ch = CH > 0 ? CH : chRuntime;
    const std::size_t row = static_cast<std::size_t>(wC) * ch;
    const T* A = coarse + static_cast<std::size_t>(y >> 1) * row;
    const int yMain = hF + (hF & 1) - 1;
    const T* B = ((y & 1) && y < yMain) ? A + row : nullptr;
    const int xMain = wF + (wF & 1) - 1;
    const int xEnd = x0 + n;
    const int pairEnd = xEnd < xMain ? xEnd : xMain;
    int x = x0;
    Acc* out = up;
    if (B) {
        for (; x + 1 < pairEnd; x += 2, out += 2 * ch) {
            const T* a = A + static_cast<std::size_t>(x >> 1) * ch;
            const T* b = B + static_cast<std::size_t>(x >> 1) * ch;
            for (int c = 0; c < ch; ++c) {
                const Acc a0 = E::one(a[c]), a1 = E::one(a[c + ch]), b0 = E::one(b[c]), b1 = E::one(b[c + ch]);
                out[c] = E::mean2(a0, b0);
                out[ch + c] = E::mean4(a0, a1, b0, b1);
            }
        }
        if (x < pairEnd) {
            const T* a = A + static_cast<std::size_t>(x >> 1) * ch;
            const T* b = B + static_cast<std::size_t>(x >> 1) * ch;
            for (int c = 0; c < ch; ++c) out[c] = E::mean2(E::one(a[c]), E::one(b[c]));
            ++x;
            out += ch;
        }
    } else {
        for (; x + 1 < pairEnd; x += 2, out += 2 * ch) {
            const T* a = A + static_cast<std::size_t>(x >> 1) * ch;
            for (int c = 0; c < ch; ++c) {
                const Acc a0 = E::one(a[c]);
                out[c] = a0;
                out[ch + c] = E::mean2(a0, E::one(a[c + ch]));
            }
        }
        if (x < pairEnd) {
            const T* a = A + static_cast<std::size_t>(x >> 1) * ch;
            for (int c = 0; c < ch; ++c) out[c] = E::one(a[c]);
            ++x;
            out += ch;
        }
    }
    if (x < xEnd) {  // x == wF - 1 of an even width
        const T* a = A + static_cast<std::size_t>(x >> 1) * ch;
        const T* b = B ? B + static_cast<std::size_t>(x >> 1) * ch : nullptr;
        for (int c = 0; c < ch; ++c) out[c] = E::lastColumn(A, B, a, b, c, wrap);
    }
}

// expandSpan with the common channel counts (3, 1, 4) compiled in, any
// other count at run time.
template <class T>
OL_EXPAND_INLINE void expandSpanChannels(const T* coarse, int y, int wF, int hF, int wC, int ch, bool wrap, int x0, int n,
                               typename Expand<T>::Acc* up) noexcept {
    if (ch == 3)
        expandSpan<3>(coarse, y, wF, hF, wC, 3, wrap, x0, n, up);
    else if (ch == 1)
        expandSpan<1>(coarse, y, wF, hF, wC, 1, wrap, x0, n, up);
    else if (ch == 4)
        expandSpan<4>(coarse, y, wF, hF, wC, 4, wrap, x0, n, up);
    else
        expandSpan<0>(coarse, y, wF, hF, wC, ch, wrap, x0, n, up);
}

// expandSpanChannels on 16-bit levels, with a vector variant chosen at load
// time (integer arithmetic: the same values on every one). Internal to each
// file that uses it: a cloned function with external linkage would export
// its resolver from the shared library.
[[maybe_unused]] OL_AVX2_CLONES static void expandSpan16(const std::uint16_t* coarse, int y, int wF, int hF,
                                                         int wC, int ch, bool wrap, int x0, int n,
                                                         std::int32_t* up) noexcept {
    expandSpanChannels(coarse, y, wF, hF, wC, ch, wrap, x0, n, up);
}

// Pixels per span, so that the values of a span fit a small stack table.
inline constexpr int kSpanSamples = 3072;
inline int spanPixels(int ch) noexcept { return ch > 0 ? (kSpanSamples / ch) & ~1 : 0; }

}  // namespace ol
