// Pyramid geometry, the reduce kernel, the expansion borders and the two
// shrinkers, on small levels computed by hand.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "Ombrelumen40Lib1.h"
#include "fusion/pyramid.hpp"
#include "fusion/stages.hpp"
#include "support/testsupport.hpp"

namespace {

TEST(FusionPyramid, LengthAtTinyOddAndLargeSizes) {
    EXPECT_EQ(pyram_len(1, 1), 1);     // n = -1
    EXPECT_EQ(pyram_len(4, 4), 20);    // n = 1: 16 + 4
    EXPECT_EQ(pyram_len(5, 3), 15);    // log2(3) truncates to 1: n = 0
    EXPECT_EQ(pyram_len(2, 9), 18);    // n = 0
    EXPECT_EQ(pyram_len(8, 8), 84);    // 64 + 16 + 4
    EXPECT_EQ(pyram_len(7, 5), 35 + 12);  // 7x5, then 4x3
    EXPECT_EQ(pyram_len(9, 8), 72 + 20 + 6);  // 9x8, 5x4, 3x2
    EXPECT_EQ(pyram_len(0, 5), 0);
    // 3000 x 2000: log2(2000) = 10.97, n = 9.
    long expect = 0;
    int w = 3000, h = 2000;
    for (int k = 0; k <= 9; ++k, w = (w >> 1) + (w & 1), h = (h >> 1) + (h & 1)) expect += long(w) * h;
    EXPECT_EQ(pyram_len(3000, 2000), expect);
    EXPECT_EQ(ol::pyramidReductions(3000, 2000), 9);
    EXPECT_EQ(ol::pyramidReductions(4, 100), 1);
    EXPECT_EQ(ol::pyramidReductions(3, 3), 0);
    EXPECT_EQ(ol::pyramidReductions(0, 0), -1);
}

TEST(FusionPyramid, OddSidesRoundUp) {
    int w = 5;
    std::vector<int> seq;
    for (int k = 0; k < 4; ++k) seq.push_back(w = ol::halveUp(w));
    EXPECT_EQ(seq, (std::vector<int>{3, 2, 1, 1}));
    EXPECT_EQ(ol::pyramidPixels(5, 5, 3), 25 + 9 + 4);
}

// A smooth test level with a little texture.
int F(int x, int y) { return 1000 + 37 * x + 211 * y + ((x * y) % 3) * 5; }

// A one-channel 16-bit level of F, followed by zeroed room for the coarse level.
std::vector<std::uint16_t> levelOfF(int w, int h) {
    std::vector<std::uint16_t> b(w * h + ol::halveUp(w) * ol::halveUp(h), 0);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) b[y * w + x] = static_cast<std::uint16_t>(F(x, y));
    return b;
}

// The integer kernels of a coarse pixel over fine (x, y): full 5x5 inside
// (w: the column taken as the west neighbour), the six-tap edge kernel (three
// sides, the centre, two diagonals) and the corner kernel.
int interiorKernel(int x, int y, int w = -1) {
    if (w < 0) w = x - 1;
    return ((F(w, y - 1) + F(x + 1, y - 1) + F(w, y + 1) + F(x + 1, y + 1)) >> 4) +
           ((F(x, y - 1) + F(x, y + 1) + F(x + 1, y) + F(w, y)) >> 3) + (F(x, y) >> 2);
}
int edgeKernel(int a, int b, int d, int c, int p, int q) {
    return static_cast<int>((a + b + d) * 0.1667 + c * 0.333 + (p + q) / 12.0);
}
int cornerKernel(int x, int y, int vx, int vy, int hx, int hy) { return ((F(vx, vy) + F(hx, hy)) >> 2) + (F(x, y) >> 1); }

// The reduce step of one-channel 16-bit levels of F, a coarse pixel a row:
// level size, wrap, the coarse pixel's index and its value by the kernels.
TEST(FusionReduce, KernelsAsRows) {
    struct Row {
        int w, h, wrap, at, want;
    };
    const Row rows[] = {
        // 2 x 2 is one corner: SE is never read.
        {2, 2, 0, 0, cornerKernel(0, 0, 0, 1, 1, 0)},
        // 3 x 3 gives four corners; the centre is never read.
        {3, 3, 0, 0, cornerKernel(0, 0, 0, 1, 1, 0)},
        {3, 3, 0, 1, cornerKernel(2, 0, 2, 1, 1, 0)},
        {3, 3, 0, 2, cornerKernel(0, 2, 0, 1, 1, 2)},
        {3, 3, 0, 3, cornerKernel(2, 2, 2, 1, 1, 2)},
        // 5 x 5: the interior at fine (2,2), the four edges, the corners.
        {5, 5, 0, 4, interiorKernel(2, 2)},
        {5, 5, 0, 1, edgeKernel(F(2, 1), F(1, 0), F(3, 0), F(2, 0), F(1, 1), F(3, 1))},  // top: S, W, E, C, SW, SE
        {5, 5, 0, 7, edgeKernel(F(2, 3), F(1, 4), F(3, 4), F(2, 4), F(1, 3), F(3, 3))},  // bottom: N, W, E, C, NW, NE
        {5, 5, 0, 3, edgeKernel(F(0, 1), F(0, 3), F(1, 2), F(0, 2), F(1, 1), F(1, 3))},  // left: N, S, E, C, NE, SE
        {5, 5, 0, 5, edgeKernel(F(4, 1), F(4, 3), F(3, 2), F(4, 2), F(3, 1), F(3, 3))},  // right: N, S, W, C, NW, SW
        {5, 5, 0, 0, cornerKernel(0, 0, 0, 1, 1, 0)},
        {5, 5, 0, 2, cornerKernel(4, 0, 4, 1, 3, 0)},
        {5, 5, 0, 6, cornerKernel(0, 4, 0, 3, 1, 4)},
        {5, 5, 0, 8, cornerKernel(4, 4, 4, 3, 3, 4)},
        // 4 x 5: the last coarse column sits at fine x = 2, an inner pixel;
        // the top row's last pixel takes the top kernel, not a corner.
        {4, 5, 0, 3, interiorKernel(2, 2)},
        {4, 5, 0, 1, edgeKernel(F(2, 1), F(1, 0), F(3, 0), F(2, 0), F(1, 1), F(3, 1))},
        // Wrap takes the other end of the row: the left column is interior,
        // the left corners take the top and bottom kernels, wrapped.
        {4, 5, 1, 2, interiorKernel(0, 2, 3)},
        {4, 5, 1, 0, edgeKernel(F(0, 1), F(3, 0), F(1, 0), F(0, 0), F(3, 1), F(1, 1))},
        {4, 5, 1, 4, edgeKernel(F(0, 3), F(3, 4), F(1, 4), F(0, 4), F(3, 3), F(1, 3))},
        // Wrap on width 2: W and E of column 0 are both column 1.
        {2, 3, 1, 0, edgeKernel(F(0, 1), F(1, 0), F(1, 0), F(0, 0), F(1, 1), F(1, 1))},
        {2, 3, 1, 1, edgeKernel(F(0, 1), F(1, 2), F(1, 2), F(0, 2), F(1, 1), F(1, 1))},
    };
    for (const Row& r : rows) {
        auto b = levelOfF(r.w, r.h);
        ol::fusion21a(r.w, r.h, ol::halveUp(r.w), ol::halveUp(r.h), 1, 16, r.wrap, 0, r.w * r.h, nullptr, b.data(),
                      "fusion21a");
        EXPECT_EQ(b[r.w * r.h + r.at], r.want) << r.w << "x" << r.h << " wrap " << r.wrap << " at " << r.at;
    }
    // 8-bit levels take the same kernels.
    std::vector<std::uint8_t> b8 = {100, 40, 60, 200, 0};
    ol::fusion21a(2, 2, 1, 1, 1, 8, 0, 0, 4, nullptr, b8.data(), "deghost21a");
    EXPECT_EQ(b8[4], 75);
}

TEST(FusionReduce, FlatLevelDarkensAtTheEdgesOnly) {
    // The edge constants 0.1667 and 0.333 sum to slightly below one, and the
    // integer kernel truncates three terms.
    std::vector<std::uint16_t> b(25 + 9, 1000);
    ol::fusion21a(5, 5, 3, 3, 1, 16, 0, 0, 25, nullptr, b.data(), "fusion21a");
    EXPECT_EQ(b[25 + 4], 1000);  // interior
    EXPECT_EQ(b[25 + 0], 1000);  // corner
    EXPECT_EQ(b[25 + 1], 999);   // 1000 * (3 * 0.1667 + 0.333 + 2 / 12) = 999.77
    std::fill(b.begin(), b.begin() + 25, 1001);
    ol::fusion21a(5, 5, 3, 3, 1, 16, 0, 0, 25, nullptr, b.data(), "fusion21a");
    EXPECT_EQ(b[25 + 4], 1000);  // 250 + 500 + 250
}

TEST(FusionReduce, FloatKernelsAndTheWrapTruncation) {
    std::vector<float> b(5 * 5 + 9, 0.0f);
    for (int y = 0; y < 5; ++y)
        for (int x = 0; x < 5; ++x) b[y * 5 + x] = 0.25f * F(x, y) + 0.75f;
    auto V = [&](int x, int y) { return b[y * 5 + x]; };
    std::vector<float> plain = b;
    ol::fusion21a(5, 5, 3, 3, 1, 32, 0, 0, 25, nullptr, plain.data(), "fusion21a");
    const float full = (V(2, 1) + V(2, 3) + V(3, 2) + V(1, 2)) * 0.125f + V(2, 2) * 0.25f +
                       (V(1, 1) + V(3, 1) + V(1, 3) + V(3, 3)) * 0.0625f;
    EXPECT_EQ(plain[25 + 4], full);
    EXPECT_EQ(plain[25 + 0], (V(0, 1) + V(1, 0)) * 0.25f + V(0, 0) * 0.5f);
    // With wrapX the left column's W is x 4, fetched as an integer.
    std::vector<float> wrapped = b;
    ol::fusion21a(5, 5, 3, 3, 1, 32, 1, 0, 25, nullptr, wrapped.data(), "fusion21a");
    auto T = [&](int x, int y) { return static_cast<float>(static_cast<int>(V(x, y))); };
    const float left = (V(0, 1) + V(0, 3) + V(1, 2) + T(4, 2)) * 0.125f + V(0, 2) * 0.25f +
                       (T(4, 1) + V(1, 1) + T(4, 3) + V(1, 3)) * 0.0625f;
    EXPECT_EQ(wrapped[25 + 3], left);
    EXPECT_NE(wrapped[25 + 3], plain[25 + 3]);
}

TEST(FusionReduce, ChannelsAreFilteredIndependently) {
    // Three channels: channel c holds c * 100 + the one-channel level.
    std::vector<std::uint16_t> one(25 + 9), three((25 + 9) * 3);
    for (int i = 0; i < 25; ++i) {
        one[i] = static_cast<std::uint16_t>(F(i % 5, i / 5));
        for (int c = 0; c < 3; ++c) three[i * 3 + c] = static_cast<std::uint16_t>(one[i] + c * 100);
    }
    ol::fusion21a(5, 5, 3, 3, 1, 16, 0, 0, 25, nullptr, one.data(), "fusion21a");
    ol::fusion21a(5, 5, 3, 3, 3, 16, 0, 0, 75, nullptr, three.data(), "fusion21a");
    for (int i = 0; i < 9; ++i) {
        EXPECT_EQ(three[75 + i * 3], one[25 + i]) << i;
        EXPECT_NEAR(three[75 + i * 3 + 2], one[25 + i] + 200, 1) << i;
    }
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

// The expansion, seen through the reconstruction: a fine level at the bias
// 32767 holds a zero Laplacian, so it becomes the expanded coarse level.
std::vector<int> expand16(int wF, int hF, std::vector<int> coarse, bool wrap) {
    const int wC = ol::halveUp(wF), hC = ol::halveUp(hF);
    EXPECT_EQ(coarse.size(), static_cast<std::size_t>(wC * hC));
    std::vector<std::uint16_t> f(wF * hF, 32767);
    for (int v : coarse) f.push_back(static_cast<std::uint16_t>(v));
    ol::fusion31et32(wF, hF, wC, hC, 1, 16, wrap, 0, wF * hF, nullptr, f.data());
    return std::vector<int>(f.begin(), f.begin() + wF * hF);
}

TEST(FusionExpand, OddSizesAreCoveredByTheMainLoops) {
    const int a = 100, b = 201, c = 300, d = 403;
    EXPECT_EQ(expand16(3, 3, {a, b, c, d}, false),
              (std::vector<int>{a, (a + b) >> 1, b, (a + c) >> 1, (a + b + c + d) >> 2, (b + d) >> 1, c,
                                (c + d) >> 1, d}));
    // wrapX changes nothing when the last column is even.
    EXPECT_EQ(expand16(3, 3, {a, b, c, d}, true), expand16(3, 3, {a, b, c, d}, false));
}

TEST(FusionExpand, EvenSizesRepeatTheLastCoarseColumnAndRow) {
    const int a = 100, b = 201, c = 300, d = 403;
    const std::vector<int> got = expand16(4, 4, {a, b, c, d}, false);
    const std::vector<int> want = {a, (a + b) >> 1, b, b,
                                   (a + c) >> 1, (a + b + c + d) >> 2, (b + d) >> 1, (b + d) >> 1,
                                   c, (c + d) >> 1, d, d,
                                   c, (c + d) >> 1, d, d};
    EXPECT_EQ(got, want);
}

TEST(FusionExpand, EvenWidthWrapsToTheFirstCoarsePixel) {
    const int a = 100, b = 201, c = 300, d = 403;
    const std::vector<int> got = expand16(4, 4, {a, b, c, d}, true);
    const std::vector<int> want = {a, (a + b) >> 1, b, (b + a) >> 1,
                                   (a + c) >> 1, (a + b + c + d) >> 2, (b + d) >> 1, (b + a + d + c) >> 2,
                                   c, (c + d) >> 1, d, (d + c) >> 1,
                                   c, (c + d) >> 1, d, (d + c) >> 1};
    EXPECT_EQ(got, want);
}

TEST(FusionExpand, FloatWrappedTapIsTruncated) {
    std::vector<float> f(4 * 2, 0.0f);
    f.push_back(1.5f);
    f.push_back(2.75f);
    ol::fusion31et32(4, 2, 2, 1, 1, 32, 1, 0, 8, nullptr, f.data());
    EXPECT_EQ(f[0], 1.5f);
    EXPECT_EQ(f[1], (1.5f + 2.75f) * 0.5f);
    EXPECT_EQ(f[3], (2.75f + 1.0f) * 0.5f);
    EXPECT_EQ(f[7], (2.75f + 1.0f) * 0.5f);
}

TEST(FusionExpand, ReconstructionClampsAndRemovesTheBias) {
    // Fine samples below and above the bias: up + (v - 32767), clamped.
    std::vector<std::uint16_t> f = {0, 65535, 32767 + 5, 32767 - 5, 100};
    ol::fusion31et32(2, 2, 1, 1, 1, 16, 0, 0, 4, nullptr, f.data());
    EXPECT_EQ(f[0], 0);
    EXPECT_EQ(f[1], 100 + 32768);
    EXPECT_EQ(f[2], 105);
    EXPECT_EQ(f[3], 95);
}

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
    EXPECT_EQ(std::vector<int>(dst.begin(), dst.begin() + 8), (std::vector<int>{0, 1, 0xee, 2, 6, 7, 0xee, 8}));
    EXPECT_EQ(dst[8], 24);  // pixel (0,2)
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
    const float s = 4.0f / 3.0f;
    const float a = s - 1.0f;  // x = 1: fx = 1.333
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
    std::vector<std::uint8_t> rg(2 * 2 * 4);
    const std::uint8_t row0[8] = {64, 128, 96, 32, 200, 16, 130, 130};
    const std::uint8_t row1[8] = {131, 20, 40, 40, 60, 60, 129, 129};
    std::memcpy(rg.data(), row0, 8);
    std::memcpy(rg.data() + 8, row1, 8);
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
    EXPECT_EQ(dr[6], static_cast<int>(r * scale));
    EXPECT_EQ(dr[8 + 6], static_cast<int>(g * scale));
    EXPECT_EQ(dr[16 + 6], static_cast<int>(b * scale));
    EXPECT_EQ(dr[24 + 6], e + 128);
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
    EXPECT_EQ(dst[0], 10);
    EXPECT_EQ(dst[1], 17);
    EXPECT_EQ(dst[4], dst[2]);
    EXPECT_EQ(dst[5], dst[3]);
    EXPECT_EQ(std::vector<int>(dst.begin() + 6, dst.end()), std::vector<int>(dst.begin(), dst.begin() + 6));
}

// Packed rgbe rows (four runs of w bytes a row), every pixel mantissa 128
// at exponent 130: 2.0 each.
std::vector<std::uint8_t> rgbeOfTwos(int w, int h) {
    std::vector<std::uint8_t> b(static_cast<std::size_t>(w) * h * 4, 128);
    for (int y = 0; y < h; ++y) std::fill_n(b.begin() + (y * 4 + 3) * w, w, 130);
    return b;
}

TEST(FusionDownsample, PackedRgbeHalvesAndReencodes) {
    std::vector<std::uint8_t> src = rgbeOfTwos(2, 2);
    src[3 * 2 + 0] = 0;  // pixel (0,0) is black
    std::vector<std::uint8_t> dst(2 * 2 * 4, 0x77);
    EXPECT_EQ(ol_downsample(2, 2, 0, 2, 2, 0, 0, 32, src.data(), dst.data()), 1);
    // Pixel (0,0) of the destination reads only source (0,0): black.
    EXPECT_EQ(dst[0], 0);
    EXPECT_EQ(dst[6], 0);
    // Its right neighbour and the last row are copies.
    EXPECT_EQ(dst[1], dst[0]);
    EXPECT_EQ(std::vector<int>(dst.begin() + 8, dst.end()), std::vector<int>(dst.begin(), dst.begin() + 8));
    {
        oltest::FailAllocation fail(1);
        EXPECT_EQ(ol_downsample(2, 2, 0, 2, 2, 0, 0, 32, src.data(), dst.data()), -4);
    }
    // A larger source: 4x2 to 2x2 keeps a non-black value: 2.0 re-encoded.
    const auto s4 = rgbeOfTwos(4, 2);
    EXPECT_EQ(ol_downsample(4, 2, 0, 2, 2, 0, 0, 32, s4.data(), dst.data()), 1);
    // 128 * 2^(130-136) = 2.0 = 0.5 * 2^2: mantissa 128, exponent 130.
    EXPECT_EQ(dst[0], 128);
    EXPECT_EQ(dst[6], 130);
}

}  // namespace
