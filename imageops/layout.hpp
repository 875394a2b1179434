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
#include <type_traits>
#if defined(__SSE2__) || defined(_M_X64)
#include <emmintrin.h>
#endif

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
    } else if (spp == 3 && pos.p1 == 1 && pos.p2 == 2 && srcStep >= 3) {
        // A wider word for all but the last pixel: its extra bytes come from
        // inside the next source pixel's span and land on the next
        // destination pixel, written right after.
        using Wide = std::conditional_t<sizeof(T) == 1, std::uint32_t, std::uint64_t>;
        int x = 0;
        for (; x < n - 1; ++x, s += srcStep, d += 3) {
            Wide v;
            std::memcpy(&v, s, sizeof v);
            std::memcpy(d, &v, sizeof v);
        }
        copyPixel<T, 3, 1, 2>(s, d, pos);
    } else if (spp == 1) {
        for (int x = 0; x < n; ++x, s += srcStep) d[x] = s[0];
    } else {
        for (int x = 0; x < n; ++x, s += srcStep, d += spp) copyPixel<T, 0, 0, 0>(s, d, pos);
    }
}

// Copies n pixels of one destination row segment: pixel k from s + k*ds to
// d + k*SPP. With three samples a pixel the copy moves one wider word (4 or 8
// bytes) whose extra bytes land on the next pixel's first sample, written
// again right after; the segment's last pixel, and a source pixel that ends
// its row (`lastColumn`), are copied exactly. With four samples the word
// is merged under a mask so that the unwritten sample keeps its bytes.
template <class T, int SPP, int P1, int P2>
inline void turnSegment(const T* s, std::ptrdiff_t ds, T* d, int n, bool lastColumn, Positions pos) noexcept {
    if constexpr (SPP == 3 && P1 == 1 && P2 == 2) {
        using Wide = std::conditional_t<sizeof(T) == 1, std::uint32_t, std::uint64_t>;
        int k = 0;
        if (!lastColumn)
            for (; k < n - 1; ++k, s += ds, d += 3) {
                Wide v;
                std::memcpy(&v, s, sizeof v);
                std::memcpy(d, &v, sizeof v);
            }
        for (; k < n; ++k, s += ds, d += 3) copyPixel<T, 3, 1, 2>(s, d, pos);
    } else if constexpr (SPP == 4) {
        using Wide = std::conditional_t<sizeof(T) == 1, std::uint32_t, std::uint64_t>;
        constexpr int bits = 8 * sizeof(T);
        constexpr Wide one = sizeof(T) == 1 ? Wide(0xFF) : Wide(0xFFFF);
        // Little-endian words: sample i occupies bits i*bits upward.
        constexpr Wide mask = one | (one << (P1 * bits)) | (one << (P2 * bits));
        for (int k = 0; k < n; ++k, s += ds, d += 4) {
            Wide a, b;
            std::memcpy(&a, s, sizeof a);
            std::memcpy(&b, d, sizeof b);
            b = (b & ~mask) | (a & mask);
            std::memcpy(d, &b, sizeof b);
        }
    } else {
        static_assert(SPP > 0, "a runtime layout has no segment copy");
        for (int k = 0; k < n; ++k, s += ds, d += SPP) copyPixel<T, SPP, P1, P2>(s, d, pos);
    }
}

#if defined(__SSE2__) || defined(_M_X64)
// Sixteen source rows of sixteen bytes (row k at s + k*ds) become sixteen
// destination runs of sixteen bytes (run c at d + c*dd): a 16x16 transpose
// in four rounds of interleaving bytes, pairs, quads and halves.
inline void transpose16x16(const std::uint8_t* s, std::ptrdiff_t ds, std::uint8_t* d, std::ptrdiff_t dd) noexcept {
    __m128i r[16], a[16], b[16], c[16];
    for (int k = 0; k < 16; ++k) r[k] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + k * ds));
    for (int i = 0; i < 8; ++i) {  // a[8h+i]: columns 8h..8h+7 of rows 2i, 2i+1
        a[i] = _mm_unpacklo_epi8(r[2 * i], r[2 * i + 1]);
        a[8 + i] = _mm_unpackhi_epi8(r[2 * i], r[2 * i + 1]);
    }
    for (int h = 0; h < 2; ++h)
        for (int i = 0; i < 4; ++i) {  // b[4q+i]: columns 4q..4q+3 of rows 4i..4i+3
            b[8 * h + i] = _mm_unpacklo_epi16(a[8 * h + 2 * i], a[8 * h + 2 * i + 1]);
            b[8 * h + 4 + i] = _mm_unpackhi_epi16(a[8 * h + 2 * i], a[8 * h + 2 * i + 1]);
        }
    for (int q = 0; q < 4; ++q)
        for (int i = 0; i < 2; ++i) {  // c[2p+i]: columns 2p, 2p+1 of rows 8i..8i+7
            c[4 * q + i] = _mm_unpacklo_epi32(b[4 * q + 2 * i], b[4 * q + 2 * i + 1]);
            c[4 * q + 2 + i] = _mm_unpackhi_epi32(b[4 * q + 2 * i], b[4 * q + 2 * i + 1]);
        }
    for (int p = 0; p < 8; ++p) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d + (2 * p) * dd), _mm_unpacklo_epi64(c[2 * p], c[2 * p + 1]));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d + (2 * p + 1) * dd), _mm_unpackhi_epi64(c[2 * p], c[2 * p + 1]));
    }
}
#endif

// Quarter turn of a width x height image. angle 90: destination row x,
// column j is source row height-1-j, column x; angle 270: destination row
// width-1-x, column j is source row j, column x. Every destination pixel is
// written from one source pixel, so walking in tiles (the column walk of one
// side stays in cache) gives the same bytes as the column-by-column walk.
// Strides count elements of T.
template <class T, int SPP, int P1, int P2>
void quarterTurn(bool clockwise, int width, int height, std::ptrdiff_t srcStride,
                 std::ptrdiff_t dstStride, int spp, Positions pos, const T* src, T* dst) noexcept {
    const std::ptrdiff_t step = SPP > 0 ? SPP : spp;
    // Source pixel (x, j) of the walk and its destination (x, j).
    const std::ptrdiff_t ds = clockwise ? -srcStride : srcStride;
    auto srcAt = [&](int x, int j) { return src + x * step + (clockwise ? height - 1 - j : j) * srcStride; };
    auto dstAt = [&](int x, int j) { return dst + (clockwise ? x : width - 1 - x) * dstStride + j * step; };
    int w8 = 0, h8 = 0;  // the part done in SIMD blocks
#if defined(__SSE2__) || defined(_M_X64)
    if constexpr (SPP == 1 && sizeof(T) == 1) {
        // Whole 16x16 blocks, grouped 64x64 for the cache; the rest below.
        w8 = width & ~15;
        h8 = height & ~15;
        const std::ptrdiff_t dd = clockwise ? dstStride : -dstStride;
        for (int x0 = 0; x0 < w8; x0 += 64)
            for (int j0 = 0; j0 < h8; j0 += 64)
                for (int x = x0; x < std::min(w8, x0 + 64); x += 16)
                    for (int j = j0; j < std::min(h8, j0 + 64); j += 16)
                        transpose16x16(srcAt(x, j), ds, dstAt(x, j), dd);
    }
#endif
    if constexpr (SPP == 0) {
        // Runtime layout: one pixel at a time.
        for (int x = 0; x < width; ++x)
            for (int j = 0; j < height; ++j) copyPixel<T, SPP, P1, P2>(srcAt(x, j), dstAt(x, j), pos);
    } else {
        constexpr int tile = 32;
        auto walk = [&](int xa, int xb, int ja, int jb) {
            for (int x0 = xa; x0 < xb; x0 += tile)
                for (int j0 = ja; j0 < jb; j0 += tile) {
                    const int x1 = std::min(xb, x0 + tile), j1 = std::min(jb, j0 + tile);
                    // Destination rows in rising addresses either way.
                    for (int i = x0; i < x1; ++i) {
                        const int x = clockwise ? i : x1 - 1 - (i - x0);
                        turnSegment<T, SPP, P1, P2>(srcAt(x, j0), ds, dstAt(x, j0), j1 - j0, x == width - 1, pos);
                    }
                }
        };
        walk(0, w8, h8, height);     // rows below the blocks
        walk(w8, width, 0, height);  // columns right of the blocks
    }
}

}  // namespace ol::imageops
