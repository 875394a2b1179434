// Pyramid geometry; the reduce step, the blend of one level and the
// reconstruction of one level against a per-sample reading of their kernels
// on random levels (every depth, border, wrap and band split); the bilinear
// shrinker against a reading of its description, the decimator by hand.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <tuple>
#include <type_traits>
#include <vector>

#include "Ombrelumen40Lib1.h"
#include "fusion/pyramid.hpp"
#include "frame/rgbe.hpp"
#include "fusion/stages.hpp"
#include "support/testsupport.hpp"

namespace {

// pyram_len against the rule: n = trunc(float(ln(float(min)) / ln 2)) - 1
// reductions, levels halving and rounding up, on every size up to 40 and a
// large one, with hand pins for a single pixel (n = -1), 4 x 4 (n = 1: 16 +
// 4) and 5 x 3 (log2(3) truncates to 1: n = 0).
TEST(FusionPyramid, LengthAtTinyOddAndLargeSizes) {
    EXPECT_EQ(pyram_len(1, 1), 1);
    EXPECT_EQ(pyram_len(4, 4), 20);
    EXPECT_EQ(pyram_len(5, 3), 15);
    EXPECT_EQ(pyram_len(0, 5), 0);
    for (int w = 1; w <= 3000; w += w < 40 ? 1 : 2960)
        for (int h = 1; h <= 2000; h += h < 40 ? 1 : 1960) {
            const int n = static_cast<int>(static_cast<float>(std::log(static_cast<float>(std::min(w, h))) / std::log(2.0))) - 1;
            long want = long(w) * h;
            for (int k = 1, lw = w, lh = h; k <= n; ++k) want += long(lw = ol::halveUp(lw)) * (lh = ol::halveUp(lh));
            ASSERT_EQ(pyram_len(w, h), want) << w << "x" << h;
            ASSERT_EQ(ol::pyramidReductions(w, h), n) << w << "x" << h;
        }
}

// ---------------------------------------------------------------------------
// Readings of the kernels, one sample at a time. A level is a run of w x h
// pixels of ch interleaved samples.

template <class T>
using Acc = std::conditional_t<std::is_same_v<T, float>, float, int>;

// The coarse sample (cx, cy, c) of the reduce step.
template <class T>
T refReduce(const T* f, int w, int h, int ch, bool wrap, int cx, int cy, int c) {
    const int x = 2 * cx, y = 2 * cy;
    auto F = [&](int dx, int dy) -> Acc<T> {
        const int xx = (x + dx + w) % w;
        const T v = f[((y + dy) * w + xx) * ch + c];
        if constexpr (std::is_same_v<T, float>)
            if (xx != x + dx) return static_cast<float>(static_cast<int>(v));  // fetched across the wrap
        return v;
    };
    const bool top = cy == 0, bottom = !top && (h & 1) && cy == ol::halveUp(h) - 1;
    const bool left = !wrap && cx == 0, right = !wrap && (w & 1) && cx == ol::halveUp(w) - 1;
    if ((top || bottom) && (left || right)) {
        const Acc<T> v = F(0, top ? 1 : -1), hz = F(left ? 1 : -1, 0), ctr = F(0, 0);
        if constexpr (std::is_same_v<T, float>) return (v + hz) * 0.25f + ctr * 0.5f;
        else return static_cast<T>(((v + hz) >> 2) + (ctr >> 1));
    }
    auto edge = [&](Acc<T> a, Acc<T> b, Acc<T> d, Acc<T> p, Acc<T> q) -> T {
        const double s3 = std::is_same_v<T, float> ? double(a) + double(b) + double(d) : double(a + b + d);
        const double s2 = std::is_same_v<T, float> ? double(p) + double(q) : double(p + q);
        const double v = s3 * 0.1667 + double(F(0, 0)) * 0.333 + s2 / 12.0;
        return std::is_same_v<T, float> ? static_cast<T>(v) : static_cast<T>(static_cast<int>(v));
    };
    if (top) return edge(F(0, 1), F(-1, 0), F(1, 0), F(-1, 1), F(1, 1));
    if (bottom) return edge(F(0, -1), F(-1, 0), F(1, 0), F(-1, -1), F(1, -1));
    if (left) return edge(F(0, -1), F(0, 1), F(1, 0), F(1, -1), F(1, 1));
    if (right) return edge(F(0, -1), F(0, 1), F(-1, 0), F(-1, -1), F(-1, 1));
    const Acc<T> nsew = F(0, -1) + F(0, 1) + F(1, 0) + F(-1, 0), diag = F(-1, -1) + F(1, -1) + F(-1, 1) + F(1, 1);
    if constexpr (std::is_same_v<T, float>) return nsew * 0.125f + F(0, 0) * 0.25f + diag * 0.0625f;
    else return static_cast<T>((diag >> 4) + (nsew >> 3) + (F(0, 0) >> 2));
}

// The expansion of a coarse level at fine sample (x, y, c) of a wF x hF level.
template <class T>
Acc<T> refUp(const T* C, int wF, int hF, int ch, bool wrap, int x, int y, int c) {
    const int wC = ol::halveUp(wF), row = wC * ch, i = ((y >> 1) * wC + (x >> 1)) * ch + c;
    const bool lastCol = !(wF & 1) && x == wF - 1, lastRow = !(hF & 1) && y == hF - 1;
    auto tap = [&](int at, bool wrapped) -> Acc<T> {
        if constexpr (std::is_same_v<T, float>)
            if (wrapped) return static_cast<float>(static_cast<int>(C[at]));
        return C[at];
    };
    const bool right = (x & 1) && (!lastCol || wrap), down = (y & 1) && !lastRow;
    const int r = lastCol ? i + ch - row : i + ch;  // the right-hand neighbour, wrapped on the last column
    Acc<T> sum = C[i];
    if (right) sum += tap(r, lastCol);
    if (down) sum += C[i + row];
    if (right && down) sum += tap(r + row, lastCol);
    const int taps = 1 + right + down + (right && down);
    if constexpr (std::is_same_v<T, float>) return taps == 1 ? sum : sum * (taps == 2 ? 0.5f : 0.25f);
    else return taps == 1 ? sum : sum >> (taps == 2 ? 1 : 2);
}

// A random level of w x h pixels, followed by room (or a random level) for
// the coarse one. Floats are whole-ish values of 1 to 65535, so that sums of
// three are exact in double.
template <class T>
std::vector<T> randomPyramid(int w, int h, int ch, std::mt19937& rng, int top) {
    std::vector<T> b(static_cast<std::size_t>(w * h + ol::halveUp(w) * ol::halveUp(h)) * ch);
    std::uniform_real_distribution<float> u(1.0f, 65535.0f);
    for (T& v : b) v = std::is_same_v<T, float> ? static_cast<T>(u(rng) * 0.25f) : static_cast<T>(rng() % (top + 1));
    return b;
}

// Sizes that reach every border: one coarse pixel (2 x 2), two coarse
// columns and no inner one (3), W and E the same pixel under wrap (2), odd
// and even sides, and levels large enough to be split into bands.
const int kSizes[][2] = {{2, 2}, {3, 3}, {2, 3}, {4, 5}, {5, 4}, {5, 5}, {8, 6}, {9, 7}, {37, 23}, {64, 41}};

// The reduce step at every depth and, for the fused depths 16 and 32, the
// blend of one level (fusion22et23) and the reconstruction of one level
// (fusion31et32) on random levels, against the readings above:
//   blend, 16 bits: fused = clamp(fused + trunc(float(work - up) * mult));
//   blend, 32 bits: fused += (work - up) * mult, mult 1 for float weights;
//   reconstruction: fused = clamp(fused - 32767 + up), or fused += up.
template <class T>
void checkLevels(int bits) {
    std::mt19937 rng(bits);
    for (const auto& s : kSizes)
        for (int ch : {1, 3, 4})
            for (int wrap : {0, 1})
                for (int threads : {1, 3}) {
                    SCOPED_TRACE(::testing::Message() << bits << " bits " << s[0] << "x" << s[1] << " ch " << ch << " wrap " << wrap
                                                      << " threads " << threads);
                    const int w = s[0], h = s[1], n = w * h * ch, wC = ol::halveUp(w), hC = ol::halveUp(h);
                    auto work = randomPyramid<T>(w, h, ch, rng, bits == 8 ? 255 : 65535);
                    const auto fine = work;
                    if (threads == 1) ol::fusion21a(w, h, wC, hC, ch, bits, wrap, 0, n, nullptr, work.data(), "fusion21a");
                    else ol::fusion21aFrom(work.data(), w, h, wC, hC, ch, bits, wrap, 0, n, work.data(), "deghost21a", threads);
                    for (int i = 0; i < wC * hC * ch; ++i)
                        ASSERT_EQ(work[n + i], refReduce(fine.data(), w, h, ch, wrap, (i / ch) % wC, i / ch / wC, i % ch)) << "reduce, sample " << i;
                    for (int bdp : {8, 16, 32}) {
                        if (bits == 8) break;
                        auto fused = randomPyramid<T>(w, h, ch, rng, 65535);
                        std::vector<std::uint8_t> weights = oltest::randomBytes(std::size_t(w) * h * 4 + 8, w * 7 + bdp);
                        for (std::size_t i = 3; bdp == 32 && i < weights.size(); i += 4) weights[i] = 0x3e;  // floats near 0.2
                        const auto before = fused;
                        ASSERT_GE(ol::fusion22et23(w, h, wC, hC, ch, bits, bdp, wrap, 0, nullptr, nullptr, 2, 0, n, nullptr, weights.data(),
                                                   work.data(), fused.data(), threads), 0);
                        for (int f = 0; f < n; ++f) {
                            const std::size_t at = 2 + f / ch;  // offPoids 2
                            const float mult = bdp == 8    ? weights[at] / 256.0f
                                               : bdp == 16 ? (weights[2 * at] | weights[2 * at + 1] << 8) / 65536.0f
                                                           : 1.0f;
                            const Acc<T> up = refUp(work.data() + n, w, h, ch, wrap, (f / ch) % w, f / ch / w, f % ch);
                            T want;
                            if constexpr (std::is_same_v<T, float>) want = before[f] + (work[f] - up) * mult;
                            else want = static_cast<T>(std::clamp(before[f] + static_cast<int>(static_cast<float>(work[f] - up) * mult), 0, 65535));
                            ASSERT_EQ(fused[f], want) << "blend, weights " << bdp << ", sample " << f;
                        }
                        if (bdp != 8) continue;
                        auto level = before;
                        ol::fusion31et32(w, h, wC, hC, ch, bits, wrap, 0, n, nullptr, level.data(), threads);
                        for (int f = 0; f < n; ++f) {
                            const Acc<T> up = refUp(before.data() + n, w, h, ch, wrap, (f / ch) % w, f / ch / w, f % ch);
                            T want;
                            if constexpr (std::is_same_v<T, float>) want = before[f] + up;
                            else want = static_cast<T>(std::clamp(before[f] - 32767 + up, 0, 65535));
                            ASSERT_EQ(level[f], want) << "reconstruction, sample " << f;
                        }
                    }
                }
}

TEST(FusionLevels, ReduceBlendAndReconstructionMatchTheReadings) {
    checkLevels<std::uint8_t>(8);
    checkLevels<std::uint16_t>(16);
    checkLevels<float>(32);
    // The edge constants 0.1667 and 0.333 sum to slightly below one, and the
    // integer kernel truncates three terms: a flat level darkens at the edges.
    std::vector<std::uint16_t> b(25 + 9, 1000);
    ol::fusion21a(5, 5, 3, 3, 1, 16, 0, 0, 25, nullptr, b.data(), "fusion21a");
    EXPECT_EQ(std::vector<int>(b.begin() + 25, b.end()), (std::vector<int>{1000, 999, 1000, 999, 1000, 999, 1000, 999, 1000}));
    // Any other depth does nothing.
    const auto kept = b;
    ol::fusion21a(5, 5, 3, 3, 1, 12, 0, 0, 25, nullptr, b.data(), "fusion21a");
    EXPECT_EQ(b, kept);
}

TEST(FusionLevels, GaussianPyramidOfAPlane) {
    // adjust21 chains the reduce step over the levels, in one buffer.
    const int w = 9, h = 8;
    std::vector<std::uint8_t> b(pyram_len(w, h), 0);
    for (int i = 0; i < w * h; ++i) b[i] = static_cast<std::uint8_t>(i * 3);
    std::vector<std::uint8_t> manual = b;
    EXPECT_EQ(ol::adjust21(2, w, h, 8, 0, b.data()), 2);
    ol::fusion21a(9, 8, 5, 4, 1, 8, 0, 0, 72, nullptr, manual.data(), "fusion21a");
    ol::fusion21a(5, 4, 3, 2, 1, 8, 0, 72, 92, nullptr, manual.data(), "fusion21a");
    EXPECT_EQ(b, manual);
}

// ---------------------------------------------------------------------------
// The shrinkers

TEST(FusionDownsample, DecimateRefusesOtherDepthsAndTakesHighBytes) {
    std::vector<std::uint8_t> dst(16, 0xee);
    std::vector<std::uint8_t> src8(16 * 3);
    for (std::size_t i = 0; i < src8.size(); ++i) src8[i] = static_cast<std::uint8_t>(i);
    EXPECT_EQ(downsample_decimate(4, 4, 2, 2, 3, 3, 8, 16, src8.data(), dst.data()), -1);
    EXPECT_EQ(downsample_decimate(4, 4, 2, 2, 3, 3, 32, 8, src8.data(), dst.data()), -1);
    EXPECT_EQ(dst, std::vector<std::uint8_t>(16, 0xee));
    // 4x4 to 2x2 picks pixels (0,0), (2,0), (0,2), (2,2); a 4-sample
    // destination gets 0, 1, 3 and keeps its sample 2.
    EXPECT_EQ(downsample_decimate(4, 4, 2, 2, 3, 4, 8, 8, src8.data(), dst.data()), 2);
    EXPECT_EQ(std::vector<int>(dst.begin(), dst.begin() + 9), (std::vector<int>{0, 1, 0xee, 2, 6, 7, 0xee, 8, 24}));
    std::vector<std::uint16_t> src16(4 * 4);
    for (int i = 0; i < 16; ++i) src16[i] = static_cast<std::uint16_t>(i * 0x1000 + 0xff);
    std::vector<std::uint8_t> g(4);
    EXPECT_EQ(downsample_decimate(4, 4, 2, 2, 1, 1, 16, 8, src16.data(), g.data()), 2);
    EXPECT_EQ(g, (std::vector<std::uint8_t>{0x00, 0x20, 0x80, 0xa0}));
}

// ol_downsample at destination pixel (x, y), read from its description:
// source position trunc(x * sw / dw), trunc(y * sh / dh) in float, four taps
// weighted (1-a)(1-b), a(1-b), (1-a)b and ab. The last column and row copy
// their neighbour. Enlarging reaches one past the source through the +1
// taps: a row there is held at the last one; a column is whatever follows
// the row in memory (the next row's first pixel; in packed rgbe the next
// run's first byte, and for the exponent the next row's first byte), but on
// the last row, where that memory is not the caller's, the last pixel stands
// in. `at(row, col)` is a source value.
template <class At>
float bilinearAt(int sw, int sh, int dw, int dh, int x, int y, At at) {
    x = std::min(x, dw - 2), y = std::min(y, dh - 2);
    const float fx = static_cast<float>(x) * (static_cast<float>(sw) / static_cast<float>(dw));
    const float fy = static_cast<float>(y) * (static_cast<float>(sh) / static_cast<float>(dh));
    const int x0 = static_cast<int>(fx), y0 = static_cast<int>(fy), y1 = std::min(y0 + 1, sh - 1);
    const float a = fx - static_cast<float>(x0), b = fy - static_cast<float>(y0);
    const auto x1 = [&](int row) { return x0 + 1 < sw || row < sh - 1 ? x0 + 1 : sw - 1; };
    return (1 - a) * (1 - b) * at(y0, x0) + a * (1 - b) * at(y0, x1(y0)) + (1 - a) * b * at(y1, x0) + a * b * at(y1, x1(y1));
}

// Shrinking, enlarging twofold and more, equal sizes; one, three and four
// samples a pixel (the fourth untouched), padded rows; and packed rgbe with
// black pixels (exponent 0).
TEST(FusionDownsample, BilinearMatchesTheReading) {
    const struct { int sw, sh, dw, dh; } sizes[] = {{4, 4, 3, 3}, {7, 5, 3, 2}, {2, 2, 8, 8}, {3, 5, 7, 11}, {9, 6, 9, 6}};
    for (const auto& s : sizes)
        for (int bits : {8, 16, 32})
            for (int spp : {1, 3, 4}) {
                if (bits == 32 && spp > 1) continue;
                const int bytes = bits == 16 ? 2 : 1, stride = bits == 32 ? 4 * s.sw : s.sw * spp + (spp == 4 ? 3 : 0);
                const int dstStride = bits == 32 ? 4 * s.dw : s.dw * spp + 1;
                std::vector<std::uint8_t> src = oltest::randomBytes(std::size_t(s.sh) * stride * bytes, s.sw * 31 + bits + spp);
                for (int r = 0; bits == 32 && r < s.sh; ++r) src[std::size_t(r) * stride + 3 * s.sw + r % s.sw] = 0;
                std::vector<std::uint8_t> dst(std::size_t(s.dh) * dstStride * bytes, 0xee), want = dst;
                ASSERT_EQ(ol_downsample(s.sw, s.sh, stride, s.dw, s.dh, dstStride, spp, bits, src.data(), dst.data()), s.dh - 1);
                for (int y = 0; y < s.dh; ++y)
                    for (int x = 0; x < s.dw; ++x) {
                        std::uint8_t* out = want.data() + std::size_t(y) * dstStride * bytes;
                        if (bits == 32) {
                            float v[3];
                            for (int c = 0; c < 3; ++c)
                                v[c] = bilinearAt(s.sw, s.sh, s.dw, s.dh, x, y, [&](int row, int col) {
                                    const std::uint8_t* r = src.data() + std::size_t(row) * stride;
                                    return r[3 * s.sw + col] == 0 ? 0.0f : r[c * s.sw + col] * std::ldexp(1.0f, r[3 * s.sw + col] - 136);
                                });
                            const ol::RgbePixel p = ol::encodeRgbe(v[0], v[1], v[2], ol::RgbeForm::Wrapped);
                            std::tie(out[x], out[s.dw + x], out[2 * s.dw + x], out[3 * s.dw + x]) = std::tie(p.r, p.g, p.b, p.e);
                        }
                        for (int k = 0; bits != 32 && k < (spp > 1 ? 3 : 1); ++k) {
                            const int v = static_cast<int>(bilinearAt(s.sw, s.sh, s.dw, s.dh, x, y, [&](int row, int col) {
                                const std::size_t i = (std::size_t(row) * stride + std::size_t(col) * spp + k) * bytes;
                                return static_cast<float>(bits == 8 ? src[i] : src[i] | src[i + 1] << 8);
                            }));
                            std::memcpy(out + (std::size_t(x) * spp + k) * bytes, &v, bytes);  // little-endian
                        }
                    }
                EXPECT_EQ(dst, want) << s.sw << "x" << s.sh << " to " << s.dw << "x" << s.dh << " bits " << bits << " spp " << spp;
            }
    // The quirk by hand: 2x2 to 8x8, column 6 stands at fx = 1.5 and takes
    // half of the next row's first pixel; on the last source row, of the last
    // pixel. An unknown depth writes nothing.
    const std::vector<std::uint8_t> two{10, 20, 30, 40};
    std::vector<std::uint8_t> big(64, 0xee);
    EXPECT_EQ(ol_downsample(2, 2, 2, 8, 8, 8, 1, 12, two.data(), big.data()), 8);
    EXPECT_EQ(big, std::vector<std::uint8_t>(64, 0xee));
    EXPECT_EQ(ol_downsample(2, 2, 2, 8, 8, 8, 1, 8, two.data(), big.data()), 7);
    EXPECT_EQ((std::vector<int>{big[6], big[2 * 8 + 6], big[4 * 8 + 6]}), (std::vector<int>{25, 32, 40}));
}

TEST(FusionDownsample, TwoSamplesAPixelStayInsideTheBuffers) {
    // With two samples a pixel the third blended sample is the next pixel's
    // first; after the last pixel it would lie past both buffers. Buffers of
    // exactly the image's size (the sanitizer builds see any access beyond).
    std::vector<std::uint8_t> src(4 * 3 * 2);
    for (std::size_t i = 0; i < src.size(); ++i) src[i] = static_cast<std::uint8_t>(10 + 7 * i);
    std::vector<std::uint8_t> dst(3 * 2 * 2, 0);
    EXPECT_EQ(ol_downsample(4, 3, 8, 3, 2, 6, 2, 8, src.data(), dst.data()), 1);
    // Row 0 from source row 0 at columns 0 and 4/3; the last column and the
    // last row are copies.
    EXPECT_EQ(std::vector<int>(dst.begin(), dst.begin() + 2), (std::vector<int>{10, 17}));
    EXPECT_EQ(std::vector<int>(dst.begin() + 4, dst.begin() + 6), std::vector<int>(dst.begin() + 2, dst.begin() + 4));
    EXPECT_EQ(std::vector<int>(dst.begin() + 6, dst.end()), std::vector<int>(dst.begin(), dst.begin() + 6));
}

}  // namespace
