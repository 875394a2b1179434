// Nearest-neighbour resizing to 8 bits for screen previews: zoom_cm (with an
// optional colour matrix), zoom2 and retaille.
//
// Each call builds the source offsets of its output columns once (in chunks
// on the stack, as nothing is allocated), then copies row by row. Columns
// are not clamped: a column past the source row reads on into the rows that
// follow, as the caller's sizes say. Only a read past the source buffer's
// end or a write past the destination's last row is skipped, sample by
// sample; every other sample is copied as written.
#include <cmath>
#include <cstdint>
#include <cstring>

#include "Ombrelumen40Lib1.h"
#include "frame/numeric.hpp"
#include "imageops/layout.hpp"

namespace ol::imageops {
namespace {

constexpr int kChunk = 2048;  // output columns whose offsets are tabled at once

inline std::uint8_t high8(std::uint8_t v) noexcept { return v; }
inline std::uint8_t high8(std::uint16_t v) noexcept { return static_cast<std::uint8_t>(v >> 8); }

// Integer colour matrix: c[i] = trunc(float(matrix[i] * 10000.0)).
struct Matrix {
    std::int32_t c[9];
};

// clamp((ka*a + kb*b + kc*c) / 10000) with the sum wrapping in 32 bits.
inline std::uint8_t mix(std::int32_t ka, std::int32_t kb, std::int32_t kc, int a, int b, int c) noexcept {
    const std::uint32_t s = static_cast<std::uint32_t>(ka) * static_cast<std::uint32_t>(a) +
                            static_cast<std::uint32_t>(kb) * static_cast<std::uint32_t>(b) +
                            static_cast<std::uint32_t>(kc) * static_cast<std::uint32_t>(c);
    return clampToByte(static_cast<std::int32_t>(s) / 10000);
}

// Copies n pixels of one output row: pixel x from srow + off[x].
// With three 8-bit samples and no matrix the first `wide` pixels (all but
// the run's last) move one 4-byte word whose extra byte lands on the next
// pixel's first sample, written again right after.
template <class T, int SPP, int P1, int P2, bool MATRIX>
void copyRun(const T* srow, const std::int64_t* off, std::uint8_t* d, int n, int wide, int spp, Positions pos,
             const Matrix* m) noexcept {
    const int step = SPP > 0 ? SPP : spp;
    int x = 0;
    if constexpr (SPP == 3 && sizeof(T) == 1 && !MATRIX)
        for (const int end = std::min(wide, n - 1); x < end; ++x, d += 3) {
            std::uint32_t v;
            std::memcpy(&v, srow + off[x], 4);
            std::memcpy(d, &v, 4);
        }
    const int q1 = SPP > 0 ? P1 : pos.p1;
    const int q2 = SPP > 0 ? P2 : pos.p2;
    const int q0 = SPP > 0 ? 0 : pos.p0;
    for (; x < n; ++x, d += step) {
        const T* s = srow + off[x];
        if constexpr (MATRIX) {
            const int a = s[q0], b = s[q1], c = s[q2];
            const std::int32_t* k = m->c;
            const std::uint8_t first = mix(k[8], k[7], k[6], a, b, c);
            const std::uint8_t middle = mix(k[5], k[4], k[3], a, b, c);
            const std::uint8_t last = mix(k[2], k[1], k[0], a, b, c);
            d[q0] = first;
            d[q1] = middle;
            d[q2] = last;
        } else if constexpr (SPP == 1) {
            d[0] = high8(s[0]);
        } else {
            d[q0] = high8(s[q0]);
            d[q1] = high8(s[q1]);
            d[q2] = high8(s[q2]);
        }
    }
}

template <class T, bool MATRIX>
void copyRunAny(const T* srow, const std::int64_t* off, std::uint8_t* d, int n, int wide, int spp, Positions pos,
                const Matrix* m) noexcept {
    if (spp == 1 && !MATRIX) copyRun<T, 1, 0, 0, MATRIX>(srow, off, d, n, wide, spp, pos, m);
    else if (spp == 3 && pos.p1 == 1 && pos.p2 == 2) copyRun<T, 3, 1, 2, MATRIX>(srow, off, d, n, wide, spp, pos, m);
    else if (spp == 4 && pos.p1 == 1 && pos.p2 == 3) copyRun<T, 4, 1, 3, MATRIX>(srow, off, d, n, wide, spp, pos, m);
    else if (spp == 4 && pos.p1 == 1 && pos.p2 == 2) copyRun<T, 4, 1, 2, MATRIX>(srow, off, d, n, wide, spp, pos, m);
    else copyRun<T, 0, 0, 0, MATRIX>(srow, off, d, n, wide, spp, pos, m);
}

// One resize: output row y comes from source row rowOf(y) (or none when that
// is negative), output column x from source column trunc(x * colScale).
struct Walk {
    int outWidth, outHeight, spp;
    Positions pos;
    float colScale;
    std::int64_t srcStride;
    std::int64_t srcEnd;     // samples of the source buffer
    std::int64_t dstStep;    // bytes between output rows
    std::int64_t dstEnd;     // bytes of the output buffer
};

template <class T, bool MATRIX, class RowOf>
void resize(const Walk& w, RowOf rowOf, const T* src, std::uint8_t* dst, const Matrix* m) noexcept {
    std::int64_t off[kChunk];
    const int spp = w.spp;
    const int maxPos = std::max({w.pos.p0, w.pos.p1, w.pos.p2});
    const bool oneChunk = w.outWidth <= kChunk;
    auto fill = [&](int c0, int n) {
        for (int i = 0; i < n; ++i) {
            const std::int32_t col = truncToInt(static_cast<float>(c0 + i) * w.colScale);
            off[i] = col < 0 ? -1 : static_cast<std::int64_t>(col) * spp;
        }
    };
    if (oneChunk) fill(0, w.outWidth);
    for (int y = 0; y < w.outHeight; ++y) {
        const std::int64_t row = rowOf(y);
        if (row < 0 || row * w.srcStride >= w.srcEnd) continue;
        const std::int64_t srow = row * w.srcStride;
        const std::int64_t drow = y * w.dstStep;
        // Pixels whose every read and write stays inside the buffers.
        const std::int64_t srcRoom = w.srcEnd - srow - maxPos;        // off[x] < srcRoom
        const std::int64_t dstRoom = w.dstEnd - drow - maxPos;        // x*spp < dstRoom
        for (int c0 = 0; c0 < w.outWidth; c0 += kChunk) {
            const int n = std::min(kChunk, w.outWidth - c0);
            if (!oneChunk) fill(c0, n);
            // The offsets rise with x until they overflow (marked -1), so
            // the pixels that fit are a prefix: found by bisection.
            int lo = 0, hi = n;
            while (lo < hi) {
                const int mid = (lo + hi) / 2;
                const bool fits = off[mid] >= 0 && off[mid] < srcRoom &&
                                  static_cast<std::int64_t>(c0 + mid) * spp < dstRoom;
                if (fits) lo = mid + 1;
                else hi = mid;
            }
            std::uint8_t* d = dst + drow + static_cast<std::int64_t>(c0) * spp;
            // Pixels whose source also has a fourth byte inside the buffer.
            int wide = lo;
            while (wide > 0 && off[wide - 1] + 4 > w.srcEnd - srow) --wide;
            copyRunAny<T, MATRIX>(src + srow, off, d, lo, wide, spp, w.pos, m);
            // The rest sample by sample, each read and write checked.
            // With the matrix a pixel needs all three reads, else it is skipped.
            const int p[3] = {w.pos.p0, w.pos.p1, w.pos.p2};
            for (int i = lo; i < n; ++i) {
                if (off[i] < 0) continue;
                const std::int64_t s = srow + off[i];
                const std::int64_t di = drow + static_cast<std::int64_t>(c0 + i) * spp;
                std::uint8_t v[3];
                bool have[3];
                if constexpr (MATRIX) {
                    if (s + maxPos >= w.srcEnd) continue;
                    const int a = src[s + p[0]], b = src[s + p[1]], c = src[s + p[2]];
                    const std::int32_t* k = m->c;
                    v[0] = mix(k[8], k[7], k[6], a, b, c);
                    v[1] = mix(k[5], k[4], k[3], a, b, c);
                    v[2] = mix(k[2], k[1], k[0], a, b, c);
                    have[0] = have[1] = have[2] = true;
                } else {
                    for (int k = 0; k < 3; ++k) {
                        have[k] = s + p[k] < w.srcEnd;
                        v[k] = have[k] ? high8(src[s + p[k]]) : 0;
                    }
                }
                for (int k = 0; k < 3; ++k)
                    if (have[k] && di + p[k] < w.dstEnd) dst[di + p[k]] = v[k];
            }
        }
    }
}

template <bool MATRIX>
int zoom(float step, int srcHeight, int srcStride, int outWidth, int outHeight, int outStride, int spp,
         int bps, const Matrix* m, const void* src, unsigned char* dst) noexcept {
    // A negative or NaN step has no source position; a source without rows
    // has none either.
    if (spp < 1 || srcStride < 0 || srcHeight < 1 || !(step >= 0.0f)) return 0;
    if (outWidth < 0) outWidth = 0;
    if (outHeight > 1 && static_cast<std::int64_t>(outStride) < static_cast<std::int64_t>(outWidth) * spp) return 0;
    Walk w{outWidth, outHeight, spp, firstMiddleLast(spp), step, srcStride,
           static_cast<std::int64_t>(srcHeight) * srcStride, outStride,
           extentOf(outHeight, outStride, static_cast<std::int64_t>(outWidth) * spp)};
    // min(trunc(y*step), srcHeight-1); an overflowing product truncates to
    // 0x80000000, a row before the buffer, and that output row is skipped.
    auto rowOf = [&](int y) -> std::int64_t {
        const std::int32_t r = truncToInt(static_cast<float>(y) * step);
        return r < srcHeight - 1 ? r : srcHeight - 1;
    };
    if (bps == 16) resize<std::uint16_t, false>(w, rowOf, static_cast<const std::uint16_t*>(src), dst, nullptr);
    else resize<std::uint8_t, MATRIX>(w, rowOf, static_cast<const std::uint8_t*>(src), dst, m);
    return outHeight;
}

}  // namespace
}  // namespace ol::imageops

using namespace ol::imageops;

extern "C" {

int zoom_cm(float step, int unused, int srcHeight, int srcStride, int outWidth, int outHeight,
            int outStride, int spp, int bps, const float* matrix, const void* src, unsigned char* dst) {
    if (bps != 8 && bps != 16) return spp;
    if (outHeight < 1) return 0;
    // The matrix is in use with 8-bit sources when its first entry is above
    // 0 (a null matrix counts as not in use).
    if (bps == 8 && matrix != nullptr && matrix[0] > 0.0f) {
        Matrix m;
        for (int i = 0; i < 9; ++i)
            m.c[i] = ol::truncToInt(static_cast<float>(static_cast<double>(matrix[i]) * 10000.0));
        return zoom<true>(step, srcHeight, srcStride, outWidth, outHeight, outStride, spp, bps, &m, src, dst);
    }
    return zoom<false>(step, srcHeight, srcStride, outWidth, outHeight, outStride, spp, bps, nullptr, src, dst);
}

int zoom2(float step, int unused, int srcHeight, int srcStride, int outWidth, int outHeight,
          int outStride, int spp, int bps, const void* src, unsigned char* dst) {
    if (bps != 8 && bps != 16) return outWidth;
    if (outHeight < 1) return 0;
    return zoom<false>(step, srcHeight, srcStride, outWidth, outHeight, outStride, spp, bps, nullptr, src, dst);
}

int retaille(int srcWidth, int srcHeight, int srcStride, int outWidth, int outHeight, int outStride,
             int spp, const unsigned char* src, unsigned char* dst) {
    if (outHeight < 1) return 0;
    if (spp < 1 || srcStride < 0 || outStride < 0 || srcWidth < 1 || srcHeight < 1) return 0;
    if (outWidth < 1) return outHeight;
    const float scaleX = static_cast<float>(srcWidth) / static_cast<float>(outWidth);
    const float scaleY = static_cast<float>(srcHeight) / static_cast<float>(outHeight);
    const std::int64_t rowLen = static_cast<std::int64_t>(outWidth) * spp;
    // Spare bytes at a row's end are skipped only when the stride is longer.
    const std::int64_t step = outStride > rowLen ? outStride : rowLen;
    Walk w{outWidth, outHeight, spp, fixed012(spp), scaleX, srcStride,
           extentOf(srcHeight, srcStride, static_cast<std::int64_t>(srcWidth) * spp), step,
           extentOf(outHeight, step, rowLen)};
    auto rowOf = [&](int y) -> std::int64_t {
        const float sy = static_cast<float>(y) * scaleY;
        return sy < static_cast<float>(srcHeight - 1) ? ol::truncToInt(sy) : srcHeight - 1;
    };
    resize<std::uint8_t, false>(w, rowOf, src, dst, nullptr);
    return outHeight;
}

}  // extern "C"
