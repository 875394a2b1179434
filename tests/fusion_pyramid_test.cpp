// Pyramid geometry; the reduce step, the blend of one level and the
// reconstruction of one level against a per-sample reading of their kernels
// on random levels (every depth, border, wrap and band split); the two
// shrinkers on small images computed by hand.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <type_traits>
#include <vector>

#include "Ombrelumen40Lib1.h"
#include "fusion/pyramid.hpp"
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

template <class T>
void checkReduce(int bps) {
    std::mt19937 rng(bps);
    for (const auto& s : kSizes)
        for (int ch : {1, 3, 4})
            for (int wrap : {0, 1})
                for (int threads : {1, 3}) {
                    const int w = s[0], h = s[1], wC = ol::halveUp(w), hC = ol::halveUp(h);
                    auto b = randomPyramid<T>(w, h, ch, rng, bps == 8 ? 255 : 65535);
                    const auto fine = b;
                    if (threads == 1) ol::fusion21a(w, h, wC, hC, ch, bps, wrap, 0, w * h * ch, nullptr, b.data(), "fusion21a");
                    else ol::fusion21aFrom(b.data(), w, h, wC, hC, ch, bps, wrap, 0, w * h * ch, b.data(), "deghost21a", threads);
                    for (int i = 0; i < wC * hC * ch; ++i) {
                        const T want = refReduce(fine.data(), w, h, ch, wrap, (i / ch) % wC, i / ch / wC, i % ch);
                        ASSERT_EQ(b[w * h * ch + i], want) << bps << " bits " << w << "x" << h << " ch " << ch << " wrap " << wrap
                                                           << " threads " << threads << " coarse sample " << i;
                    }
                }
}

TEST(FusionReduce, KernelsMatchTheReadingAtEveryDepth) {
    checkReduce<std::uint8_t>(8);
    checkReduce<std::uint16_t>(16);
    checkReduce<float>(32);
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

TEST(FusionReduce, GaussianPyramidOfAPlane) {
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

// The blend of one level (fusion22et23) and the reconstruction of one level
// (fusion31et32) on random levels, against the expansion read above:
//   blend, 16 bits: fused = clamp(fused + trunc(float(work - up) * mult));
//   blend, 32 bits: fused += (work - up) * mult, mult 1 for float weights;
//   reconstruction: fused = clamp(fused - 32767 + up), or fused += up.
template <class T>
void checkExpansion(int bdf) {
    std::mt19937 rng(bdf);
    for (const auto& s : kSizes)
        for (int ch : {1, 3})
            for (int wrap : {0, 1})
                for (int bdp : {8, 16, 32})
                    for (int threads : {1, 3}) {
                        SCOPED_TRACE(::testing::Message() << bdf << " bits " << s[0] << "x" << s[1] << " ch " << ch << " wrap "
                                                          << wrap << " weights " << bdp << " threads " << threads);
                        const int w = s[0], h = s[1], n = w * h * ch;
                        const auto work = randomPyramid<T>(w, h, ch, rng, 65535);
                        auto fused = randomPyramid<T>(w, h, ch, rng, 65535);
                        std::vector<std::uint8_t> weights = oltest::randomBytes(std::size_t(w) * h * 4 + 8, w * 7 + bdp);
                        for (std::size_t i = 3; bdp == 32 && i < weights.size(); i += 4) weights[i] = 0x3e;  // floats near 0.2
                        const auto before = fused;
                        ASSERT_GE(ol::fusion22et23(w, h, ol::halveUp(w), ol::halveUp(h), ch, bdf, bdp, wrap, 0, nullptr, nullptr, 2, 0,
                                                   n, nullptr, weights.data(), work.data(), fused.data(), threads), 0);
                        for (int f = 0; f < n; ++f) {
                            const int x = (f / ch) % w, y = f / ch / w;
                            const std::size_t at = 2 + f / ch;  // offPoids 2
                            const float mult = bdp == 8    ? weights[at] / 256.0f
                                               : bdp == 16 ? (weights[2 * at] | weights[2 * at + 1] << 8) / 65536.0f
                                                           : 1.0f;
                            const Acc<T> up = refUp(work.data() + n, w, h, ch, wrap, x, y, f % ch);
                            T want;
                            if constexpr (std::is_same_v<T, float>) want = before[f] + (work[f] - up) * mult;
                            else want = static_cast<T>(std::clamp(before[f] + static_cast<int>(static_cast<float>(work[f] - up) * mult), 0, 65535));
                            ASSERT_EQ(fused[f], want) << "blend, sample " << f;
                        }
                        if (bdp != 8) continue;
                        auto level = before;
                        ol::fusion31et32(w, h, ol::halveUp(w), ol::halveUp(h), ch, bdf, wrap, 0, n, nullptr, level.data(), threads);
                        for (int f = 0; f < n; ++f) {
                            const Acc<T> up = refUp(before.data() + n, w, h, ch, wrap, (f / ch) % w, f / ch / w, f % ch);
                            T want;
                            if constexpr (std::is_same_v<T, float>) want = before[f] + up;
                            else want = static_cast<T>(std::clamp(before[f] - 32767 + up, 0, 65535));
                            ASSERT_EQ(level[f], want) << "reconstruction, sample " << f;
                        }
                    }
}

TEST(FusionExpand, BlendAndReconstructionMatchTheReading) {
    checkExpansion<std::uint16_t>(16);
    checkExpansion<float>(32);
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

TEST(FusionDownsample, BilinearBlendsAndCopiesTheLastRowAndColumn) {
    // 4x4 one-sample 8-bit to 3x3: steps of 4/3.
    std::vector<std::uint8_t> src(16);
    for (int i = 0; i < 16; ++i) src[i] = static_cast<std::uint8_t>(10 * (i % 4) + 50 * (i / 4));
    std::vector<std::uint8_t> dst(9, 0);
    EXPECT_EQ(ol_downsample(4, 4, 4, 3, 3, 3, 1, 8, src.data(), dst.data()), 2);
    const float a = 4.0f / 3.0f - 1.0f;  // x = 1: fx = 1.333
    EXPECT_EQ(dst[0], 0);
    EXPECT_EQ(dst[1], static_cast<int>((1 - a) * 10 + a * 20));
    EXPECT_EQ(dst[2], dst[1]);  // last column copies its left neighbour
    EXPECT_EQ(dst[4], static_cast<int>((1 - a) * (1 - a) * 60 + a * (1 - a) * 70 + (1 - a) * a * 110 + a * a * 120));
    EXPECT_EQ(std::vector<int>(dst.begin() + 6, dst.end()), std::vector<int>(dst.begin() + 3, dst.begin() + 6));
    EXPECT_EQ(ol_downsample(4, 4, 4, 3, 3, 3, 1, 12, src.data(), dst.data()), 3);  // unknown depth
}

TEST(FusionDownsample, EnlargingReadsThePixelAfterTheRowEnd) {
    // 2x2 to 8x8: column 6 stands at fx = 1.5, so its +1 tap is pixel 2 of
    // a two-pixel row, the sample that follows the row in the buffer (the
    // next row's first). On the last source row that sample would lie past
    // the buffer: there the last pixel stands in for it.
    const std::vector<std::uint8_t> src{10, 20, 30, 40};
    std::vector<std::uint8_t> dst(64, 0);
    EXPECT_EQ(ol_downsample(2, 2, 2, 8, 8, 8, 1, 8, src.data(), dst.data()), 7);
    EXPECT_EQ(dst[6], 25);          // 0.5 * 20 + 0.5 * 30
    EXPECT_EQ(dst[7], 25);          // last column copies its left neighbour
    EXPECT_EQ(dst[2 * 8 + 6], 32);  // fy = 0.5: 0.25 * (20 + 30 + 40 + 40), row 1's tap held
    EXPECT_EQ(dst[4 * 8 + 6], 40);  // source row 1 alone

    // 16 bits, three samples a pixel: the tap reads the next row's samples.
    const std::vector<std::uint16_t> s16{100, 200, 300, 1000, 2000, 3000, 5000, 6000, 7000, 9000, 9100, 9200};
    std::vector<std::uint16_t> d16(8 * 2 * 3, 0);
    EXPECT_EQ(ol_downsample(2, 2, 6, 8, 2, 24, 3, 16, s16.data(), d16.data()), 1);
    EXPECT_EQ(d16[6 * 3 + 0], 3000);  // 0.5 * 1000 + 0.5 * 5000
    EXPECT_EQ(d16[6 * 3 + 2], 5000);  // 0.5 * 3000 + 0.5 * 7000

    // Packed radiance rows: pixel 2 of run c is the first byte of run c + 1,
    // and its exponent is the first byte of the next row.
    const std::vector<std::uint8_t> rg = {64, 128, 96, 32, 200, 16, 130, 130, 131, 20, 40, 40, 60, 60, 129, 129};
    std::vector<std::uint8_t> dr(8 * 2 * 4, 0);
    EXPECT_EQ(ol_downsample(2, 2, 0, 8, 2, 0, 0, 32, rg.data(), dr.data()), 1);
    // Tap (1,0): 128, 32, 16 at exponent 130; tap (2,0): 96, 200, 130 at
    // exponent 131. Half of each, in units of 2^(e-136).
    const float r = 0.5f * 128 * 0.015625f + 0.5f * 96 * 0.03125f;
    const float g = 0.5f * 32 * 0.015625f + 0.5f * 200 * 0.03125f;
    const float b = 0.5f * 16 * 0.015625f + 0.5f * 130 * 0.03125f;
    int e = 0;
    const float f = std::frexp(g, &e);
    const float scale = static_cast<float>(static_cast<double>(f) * 256.0 / static_cast<double>(g));
    EXPECT_EQ((std::vector<int>{dr[6], dr[8 + 6], dr[16 + 6], dr[24 + 6]}),
              (std::vector<int>{static_cast<int>(r * scale), static_cast<int>(g * scale), static_cast<int>(b * scale), e + 128}));
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

TEST(FusionDownsample, PackedRgbeHalvesAndReencodes) {
    // Packed rgbe rows (four runs of w bytes a row), every pixel mantissa 128
    // at exponent 130: 2.0 each. (The failed table allocation is a row of
    // frame_alloc_sweep_test.cpp.)
    auto twos = [](int w, int h) {
        std::vector<std::uint8_t> b(static_cast<std::size_t>(w) * h * 4, 128);
        for (int y = 0; y < h; ++y) std::fill_n(b.begin() + (y * 4 + 3) * w, w, 130);
        return b;
    };
    std::vector<std::uint8_t> src = twos(2, 2);
    src[3 * 2 + 0] = 0;  // pixel (0,0) is black
    std::vector<std::uint8_t> dst(2 * 2 * 4, 0x77);
    EXPECT_EQ(ol_downsample(2, 2, 0, 2, 2, 0, 0, 32, src.data(), dst.data()), 1);
    // Pixel (0,0) of the destination reads only source (0,0): black. Its
    // right neighbour and the last row are copies.
    EXPECT_EQ(std::vector<int>(dst.begin(), dst.begin() + 8), (std::vector<int>{0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(std::vector<int>(dst.begin() + 8, dst.end()), std::vector<int>(dst.begin(), dst.begin() + 8));
    // 4x2 to 2x2 keeps a non-black value: 2.0 = 0.5 * 2^2 re-encoded as
    // mantissa 128 at exponent 130.
    const auto s4 = twos(4, 2);
    EXPECT_EQ(ol_downsample(4, 2, 0, 2, 2, 0, 0, 32, s4.data(), dst.data()), 1);
    EXPECT_EQ(dst[0], 128);
    EXPECT_EQ(dst[6], 130);
}

}  // namespace
