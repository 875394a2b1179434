// Pyramid geometry, pyram_len and the reduce step (fusion21a, adjust21).
#include "fusion/pyramid.hpp"

#include <cmath>
#include <cstdio>

#include "Ombrelumen40Lib1.h"
#include "frame/clones.hpp"
#include "frame/numeric.hpp"
#include "frame/trace.hpp"
#include "fusion/bands.hpp"

namespace ol {

int pyramidReductions(int width, int height) noexcept {
    const int m = width < height ? width : height;
    if (m < 1) return -1;  // log of 0 or a negative side: no level at all
    const float q = static_cast<float>(std::log(static_cast<double>(static_cast<float>(m))) /
                                       std::log(2.0));
    return truncToInt(q) - 1;
}

std::int64_t pyramidPixels(int width, int height, int levels) noexcept {
    std::int64_t total = 0;
    int w = width, h = height;
    for (int k = 0; k < levels; ++k) {
        total += static_cast<std::int64_t>(w) * h;
        w = halveUp(w);
        h = halveUp(h);
    }
    return total;
}

namespace {

// Arithmetic of the three kernels, one specialisation per sample depth.
template <class T>
struct Kernel {
    // 8 and 16 bits: each term truncated by itself, sums in 32-bit integers.
    static T full(int nw, int ne, int sw, int se, int n, int s, int e, int w, int c) noexcept {
        return static_cast<T>(((nw + ne + sw + se) >> 4) + ((n + s + e + w) >> 3) + (c >> 2));
    }
    static T edge(int a, int b, int d, int c, int p, int q) noexcept {
        const double v = static_cast<double>(a + b + d) * 0.1667 + static_cast<double>(c) * 0.333 +
                         static_cast<double>(p + q) / 12.0;
        return static_cast<T>(truncToInt(v));
    }
    static T corner(int v, int h, int c) noexcept {
        return static_cast<T>(((v + h) >> 2) + (c >> 1));
    }
    static T wrapped(T v) noexcept { return v; }
};

template <>
struct Kernel<float> {
    static float full(float nw, float ne, float sw, float se, float n, float s, float e, float w,
                      float c) noexcept {
        const float t1 = (n + s + e + w) * 0.125f;
        const float t2 = c * 0.25f;
        const float t3 = (nw + ne + sw + se) * 0.0625f;
        return t1 + t2 + t3;
    }
    static float edge(float a, float b, float d, float c, float p, float q) noexcept {
        const double v = (static_cast<double>(a) + static_cast<double>(b) + static_cast<double>(d)) *
                             0.1667 +
                         static_cast<double>(c) * 0.333 +
                         (static_cast<double>(p) + static_cast<double>(q)) / 12.0;
        return static_cast<float>(v);
    }
    static float corner(float v, float h, float c) noexcept { return (v + h) * 0.25f + c * 0.5f; }
    // A float tap fetched across the horizontal wrap goes through an integer.
    static float wrapped(float v) noexcept { return static_cast<float>(truncToInt(v)); }
};

// The full kernel over columns [cx0, cx1] of one coarse row, from the fine
// rows above (r0), on (r1) and below (r2) its centre.
template <int CH, class T>
inline void innerLoop(const T* __restrict r0, const T* __restrict r1, const T* __restrict r2,
                      T* __restrict out, int cx0, int cx1, int chRuntime) noexcept {
    const int chn = CH > 0 ? CH : chRuntime;
    for (int cx = cx0; cx <= cx1; ++cx) {
        for (int c = 0; c < chn; ++c) {
            const std::size_t i = static_cast<std::size_t>(2 * cx) * chn + c;
            out[static_cast<std::size_t>(cx) * chn + c] =
                Kernel<T>::full(r0[i - chn], r0[i + chn], r2[i - chn], r2[i + chn], r0[i], r2[i],
                                r1[i + chn], r1[i - chn], r1[i]);
        }
    }
}

template <class T>
inline void innerChannels(const T* r0, const T* r1, const T* r2, T* out, int cx0, int cx1, int ch) noexcept {
    if (ch == 3)
        innerLoop<3>(r0, r1, r2, out, cx0, cx1, 3);
    else if (ch == 1)
        innerLoop<1>(r0, r1, r2, out, cx0, cx1, 1);
    else if (ch == 4)
        innerLoop<4>(r0, r1, r2, out, cx0, cx1, 4);
    else
        innerLoop<0>(r0, r1, r2, out, cx0, cx1, ch);
}

// The integer kernels get a vector variant chosen at load time (the same
// values on every instruction set); the float one keeps its scalar order.
OL_AVX2_CLONES
void innerRow(const std::uint16_t* r0, const std::uint16_t* r1, const std::uint16_t* r2, std::uint16_t* out,
              int cx0, int cx1, int ch) noexcept {
    innerChannels(r0, r1, r2, out, cx0, cx1, ch);
}
OL_AVX2_CLONES
void innerRow(const std::uint8_t* r0, const std::uint8_t* r1, const std::uint8_t* r2, std::uint8_t* out,
              int cx0, int cx1, int ch) noexcept {
    innerChannels(r0, r1, r2, out, cx0, cx1, ch);
}
void innerRow(const float* r0, const float* r1, const float* r2, float* out, int cx0, int cx1, int ch) noexcept {
    innerChannels(r0, r1, r2, out, cx0, cx1, ch);
}

template <class T>
struct Reducer {
    const T* fine;
    T* coarse;
    int wF, hF, wC, hC, ch;
    bool wrap, oddW, oddH;

    // Tap at fine (x, y), channel c. x may lie one step outside the row: with
    // wrapX it wraps (and a float tap is truncated). A fine side of 1 is never
    // reached by the fusion; coordinates are clamped so that it stays defined.
    T tap(int x, int y, int c) const noexcept {
        bool across = false;
        if (x < 0) {
            x = wrap ? wF - 1 : 0;
            across = wrap;
        } else if (x >= wF) {
            x = wrap ? 0 : wF - 1;
            across = wrap;
        }
        if (y < 0) y = 0;
        if (y >= hF) y = hF - 1;
        const T v = fine[(static_cast<std::size_t>(y) * wF + x) * ch + c];
        return across ? Kernel<T>::wrapped(v) : v;
    }

    // One coarse pixel by the general rule (borders, corners, wrap).
    void pixel(int cx, int cy) const noexcept {
        const int x = 2 * cx, y = 2 * cy;
        const bool top = cy == 0;
        const bool bottom = !top && oddH && cy == hC - 1;
        bool left = cx == 0;
        bool right = oddW && cx == wC - 1 && !left;
        if (wrap) left = right = false;
        T* out = coarse + (static_cast<std::size_t>(cy) * wC + cx) * ch;
        for (int c = 0; c < ch; ++c) {
            const T C = tap(x, y, c);
            T v;
            if (top || bottom) {
                const int yy = top ? y + 1 : y - 1;
                if (left)
                    v = Kernel<T>::corner(tap(x, yy, c), tap(x + 1, y, c), C);
                else if (right)
                    v = Kernel<T>::corner(tap(x, yy, c), tap(x - 1, y, c), C);
                else
                    v = Kernel<T>::edge(tap(x, yy, c), tap(x - 1, y, c), tap(x + 1, y, c), C,
                                        tap(x - 1, yy, c), tap(x + 1, yy, c));
            } else if (left) {
                v = Kernel<T>::edge(tap(x, y - 1, c), tap(x, y + 1, c), tap(x + 1, y, c), C,
                                    tap(x + 1, y - 1, c), tap(x + 1, y + 1, c));
            } else if (right) {
                v = Kernel<T>::edge(tap(x, y - 1, c), tap(x, y + 1, c), tap(x - 1, y, c), C,
                                    tap(x - 1, y - 1, c), tap(x - 1, y + 1, c));
            } else {
                v = Kernel<T>::full(tap(x - 1, y - 1, c), tap(x + 1, y - 1, c), tap(x - 1, y + 1, c),
                                    tap(x + 1, y + 1, c), tap(x, y - 1, c), tap(x, y + 1, c),
                                    tap(x + 1, y, c), tap(x - 1, y, c), C);
            }
            out[c] = v;
        }
    }

    // Interior columns [cx0, cx1] of inner row cy: the full kernel without
    // any border test.
    void inner(int cy, int cx0, int cx1) const noexcept {
        const std::size_t rowF = static_cast<std::size_t>(wF) * ch;
        const T* r1 = fine + static_cast<std::size_t>(2 * cy) * rowF;
        T* out = coarse + static_cast<std::size_t>(cy) * wC * ch;
        innerRow(r1 - rowF, r1, r1 + rowF, out, cx0, cx1, ch);
    }

    // Coarse rows [cy0, cy1): the top row, inner rows (first column, inner
    // columns, last column when the width is odd) and, with an odd height,
    // the bottom row, which lies on the fine border. Rows are independent,
    // so any split into bands gives the same level.
    void runRows(int cy0, int cy1) const noexcept {
        const int lastFast = oddW ? wC - 2 : wC - 1;
        for (int cy = cy0; cy < cy1; ++cy) {
            if (cy == 0 || (oddH && cy == hC - 1)) {
                for (int cx = 0; cx < wC; ++cx) pixel(cx, cy);
                continue;
            }
            pixel(0, cy);
            // With an even width the last coarse column has its E tap inside
            // the row, wrapX or not, so it takes the plain interior loop.
            if (lastFast >= 1) inner(cy, 1, lastFast);
            if (oddW && wC - 1 >= 1) pixel(wC - 1, cy);
        }
    }
};

// One sample of a pyramid for the diagnostic lines, as an integer.
[[maybe_unused]] int sampleValue(const void* buffer, int bps, int off) noexcept {
    if (bps == 8) return static_cast<const std::uint8_t*>(buffer)[off];
    if (bps == 16) return static_cast<const std::uint16_t*>(buffer)[off];
    if (bps == 32) return truncToInt(static_cast<const float*>(buffer)[off]);
    return 0;
}

// `source` is the fine level's own buffer, or null for the level at
// initFine of `buffer`.
template <class T>
void reduceLevel(int wF, int hF, int wC, int hC, int ch, int wrapX, int initFine, int initCoarse,
                 const void* source, void* buffer, int threads) noexcept {
    T* base = static_cast<T*>(buffer);
    const T* fine = source ? static_cast<const T*>(source) : base + initFine;
    const Reducer<T> r{fine, base + initCoarse, wF, hF, wC, hC, ch, wrapX != 0,
                       (wF & 1) != 0, (hF & 1) != 0};
    runBands(threads, hC, static_cast<std::size_t>(wC) * ch * 4,
             [&r](int first, int count) { r.runRows(first, first + count); });
}

}  // namespace

void fusion21a(int wFine, int hFine, int wCoarse, int hCoarse, int channels, int bps, int wrapX,
               int initFine, int initCoarse, void* scratch, void* buffer,
               const char* label) noexcept {
    fusion21aFrom(nullptr, wFine, hFine, wCoarse, hCoarse, channels, bps, wrapX, initFine,
                  initCoarse, buffer, label, 1);
}

void fusion21aFrom(const void* source, int wFine, int hFine, int wCoarse, int hCoarse,
                   int channels, int bps, int wrapX, int initFine, int initCoarse, void* buffer,
                   const char* label, int threads) noexcept {
    if constexpr (traceProbe)
        std::fprintf(stderr, "%s  %d x %d  ->  %d x %d    bps: %d     initFine: %d  coarse: %d\n",
                     label, wFine, hFine, wCoarse, hCoarse, bps, initFine, initCoarse);
    if (wFine < 1 || hFine < 1 || wCoarse < 1 || hCoarse < 1 || channels < 1) return;
    if (bps == 8)
        reduceLevel<std::uint8_t>(wFine, hFine, wCoarse, hCoarse, channels, wrapX, initFine,
                                  initCoarse, source, buffer, threads);
    else if (bps == 16)
        reduceLevel<std::uint16_t>(wFine, hFine, wCoarse, hCoarse, channels, wrapX, initFine,
                                   initCoarse, source, buffer, threads);
    else if (bps == 32)
        reduceLevel<float>(wFine, hFine, wCoarse, hCoarse, channels, wrapX, initFine, initCoarse,
                           source, buffer, threads);
    if constexpr (traceStats) {
        // One sampled coarse pixel per level: the centre, channel 0.
        const int cx = wCoarse / 2, cy = hCoarse / 2;
        const int off = initCoarse + (cy * wCoarse + cx) * channels;
        const int fine = (2 * cy * wFine + 2 * cx) * channels;
        std::fprintf(stderr, "%d,%d %d   Fine: %d   Coarse: %d\n", cx, cy, channels,
                     source ? sampleValue(source, bps, fine) : sampleValue(buffer, bps, initFine + fine),
                     sampleValue(buffer, bps, off));
        std::fprintf(stderr, "Down %d,%d %d   Fine: %d   Coarse: %d\n", cx, cy, channels,
                     initFine, sampleValue(buffer, bps, off));
    }
}

int adjust21(int nivo, int width, int height, int bps, int wrapX, void* buffer, int threads) noexcept {
    if constexpr (traceFlow) std::fprintf(stderr, "adjust21  - rangMax: %d\n", nivo);
    int w = width, h = height;
    int initFine = 0;
    for (int k = 0; k < nivo; ++k) {
        const int wc = halveUp(w), hc = halveUp(h);
        if constexpr (traceFlow)
            std::fprintf(stderr, "gauss_pyram nivo%d  nivFine %d x %d   nivCoarse %d x %d\n", k, w,
                         h, wc, hc);
        const int initCoarse = initFine + w * h;
        fusion21aFrom(nullptr, w, h, wc, hc, 1, bps, wrapX, initFine, initCoarse, buffer,
                      "fusion21a", threads);
        if constexpr (traceFlow) {
            // The centre of the new level beside the fine pixel it stands on.
            const int cx = wc / 2, cy = hc / 2;
            std::fprintf(stderr, "adjust21a %dx%d    %d  ->  %d       %d,%d\n", w, h,
                         sampleValue(buffer, bps, initFine + 2 * cy * w + 2 * cx),
                         sampleValue(buffer, bps, initCoarse + cy * wc + cx), cx, cy);
        }
        initFine = initCoarse;
        w = wc;
        h = hc;
    }
    return nivo;
}

}  // namespace ol

extern "C" {

int pyram_len(int width, int height) {
    const int n = ol::pyramidReductions(width, height);
    // Reductions 1..n on top of level 0; the 32-bit result wraps as the
    // integer product would.
    const std::int64_t total =
        n <= 0 ? static_cast<std::int64_t>(width) * height : ol::pyramidPixels(width, height, n + 1);
    return static_cast<int>(static_cast<std::uint32_t>(total));
}

}  // extern "C"
