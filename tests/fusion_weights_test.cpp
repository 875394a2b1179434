// Weight maps: photo statistics, full-scale sums, the brightness bias, ghost
// masks, equal planes on every thread count and the slicing of the mask among
// worker threads. (The failed allocations are checked through ol_fusion in
// fusion_driver_test.cpp; the curve values at a probe pixel, the running
// saturated count and zero-weight pixels are pinned by the fusion transcript
// of trace_test.cpp.)
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "fusion/photo_stats.hpp"
#include "fusion/stages.hpp"
#include "support/stacks.hpp"
#include "support/testsupport.hpp"

namespace {

struct Stats {
    std::vector<int> noisy, sat, surex, median, order;
    int result;
};

Stats statsOf(int n, int w, int h, int ch, int bps, const void* images) {
    Stats s{std::vector<int>(n), std::vector<int>(n), std::vector<int>(n), std::vector<int>(n), std::vector<int>(n), 0};
    s.result = ol::photo_stats(n, w, h, ch, bps, images, s.noisy.data(), s.sat.data(), s.surex.data(), s.median.data(),
                               s.order.data());
    return s;
}

TEST(FusionPhotoStats, LevelsSaturationOrderAndFallbacks) {
    // Four 4x4 photos: mid grey 100, black, blown white but for one pixel at
    // the limit 250, mid grey 100 again.
    std::vector<std::uint8_t> img = fustest::flatStack(4, 4, {100, 0, 255, 100});
    img[2 * 48] = 250;
    Stats s = statsOf(4, 4, 4, 3, 8, img.data());
    EXPECT_EQ(s.result, 4);
    EXPECT_EQ(s.median, (std::vector<int>{100 << 8, 0, 255 << 8, 100 << 8}));
    EXPECT_EQ(s.noisy, (std::vector<int>{0, 100, 0, 0}));
    EXPECT_EQ(s.sat, (std::vector<int>{0, 0, 100, 0}));
    EXPECT_EQ(s.surex, (std::vector<int>{0, 0, 15, 15}));  // the saturated count runs on along the stack
    EXPECT_EQ(s.order, (std::vector<int>{2, 0, 3, 1}));    // falling median, ties in index order
    // 18 pixels at level 2, 2 at 40: the median 2 is below 5, so the level
    // passing 95% (19 pixels) is used, unshifted.
    std::vector<std::uint8_t> dark(20, 2);
    dark[3] = dark[7] = 40;
    EXPECT_EQ(statsOf(1, 20, 1, 1, 8, dark.data()).median[0], 40);
    // 16-bit samples count by their high byte, saturation above 64000.
    const std::vector<std::uint16_t> img16 = {0x6400, 64001, 64001, 64001};
    s = statsOf(1, 4, 1, 1, 16, img16.data());
    EXPECT_EQ(s.surex[0], 3);
    EXPECT_EQ(s.median[0], 0xfa << 8);
    oltest::FailAllocation fail(1);
    EXPECT_EQ(statsOf(1, 20, 1, 1, 8, dark.data()).result, -4);
}

// Weight planes of a stack through adjust1, as the driver calls it.
struct Weights {
    int n = 3, w = 29, h = 13, ch = 3, bspIn = 8, bdp = 16, nbProc = 0, outIsFloat = 0;
    float params[7] = {0, 0, 0, 0, 0, 0, 0};
    std::vector<int> fixed;
    std::vector<unsigned char> mask;
    int result = 0;
    std::vector<std::uint8_t> poids;

    Weights& run(const std::vector<std::uint8_t>& images) {
        poids.assign(static_cast<std::size_t>(n) * w * h * (bdp / 8), 0xcc);
        std::vector<int> fx = fixed;
        fx.resize(n, -1);
        result = ol::adjust1(nbProc, params, n, w, h, ch, bspIn, bdp, outIsFloat, 1.0f, nullptr, 0, nullptr, nullptr,
                             images.data(), fx.data(), mask.empty() ? nullptr : mask.data(), nullptr, poids.data());
        return *this;
    }
    double at(int p, std::size_t pix) const {
        const std::size_t i = static_cast<std::size_t>(p) * w * h + pix;
        std::uint16_t v = poids[i * (bdp / 8)];
        float f = 0;
        if (bdp == 16) std::memcpy(&v, &poids[2 * i], 2);
        if (bdp == 32) std::memcpy(&f, &poids[4 * i], 4);
        return bdp == 32 ? f : v;
    }
};

Weights sized(int w, int h, int bdp = 16) {
    Weights wt;
    wt.w = w;
    wt.h = h;
    wt.bdp = bdp;
    return wt;
}

TEST(FusionWeights, PlanesSumToFullScaleAtEveryDepth) {
    for (int bspIn : {8, 16}) {
        const auto images = fustest::makeStack(3, 29, 13, 3, bspIn);
        for (int bdp : {8, 16, 32})
            for (float highlight : {0.0f, 2.0f}) {
                Weights wt = sized(29, 13, bdp);
                wt.bspIn = bspIn;
                wt.params[2] = highlight;
                wt.params[1] = 3.0f;  // brightness bias on
                ASSERT_EQ(wt.run(images).result, 0);
                const double full = bdp == 32 ? 1.0 : double(1 << bdp);
                for (std::size_t pix = 0; pix < std::size_t(wt.w * wt.h); ++pix) {
                    const double sum = wt.at(0, pix) + wt.at(1, pix) + wt.at(2, pix);
                    // Each value is rounded on its own; 8 and 16 bits stop
                    // one below full scale. A pixel no photo weighs sums to 0.
                    EXPECT_TRUE(sum == 0 || std::abs(sum - full) <= (bdp == 32 ? 1e-5 : 2.0)) << bspIn << " " << bdp << " at " << pix;
                }
            }
    }
    // One photo takes all but the step above the top value.
    Weights one = sized(4, 2, 16);
    one.n = 1;
    EXPECT_EQ(one.run(fustest::flatStack(4, 2, {128})).at(0, 0), 65535);
    one.bdp = 8;
    EXPECT_EQ(one.run(fustest::flatStack(4, 2, {128})).at(0, 7), 255);
    // With the steep curve of integer output a blown pixel splits evenly:
    // fval 0 still has the weight sharpen[0] = 1.000001^-power.
    Weights blown = sized(4, 2);
    blown.params[2] = 1.5f;
    blown.run(fustest::flatStack(4, 2, {240, 240, 240}));
    EXPECT_EQ(blown.at(0, 5), blown.at(1, 5));
    EXPECT_NEAR(blown.at(0, 5) + blown.at(1, 5) + blown.at(2, 5), 65536, 2);
}

TEST(FusionWeights, PhotoBiasFavoursByBrightnessRank) {
    // Three nearly equal photos, 120 < 128 < 136: ranks by brightness 2, 1, 0.
    // With half = 1 a bias b multiplies the weights by 4^(b/4 * (1 - rank)).
    Weights wt = sized(4, 2, 32);
    const auto img = fustest::flatStack(4, 2, {120, 128, 136});
    const Weights plain = wt.run(img);
    wt.params[1] = 4.0f;
    const Weights bright = wt.run(img);
    wt.params[1] = -4.0f;
    const Weights dark = wt.run(img);
    auto ratio = [](const Weights& p, int a, int b) { return p.at(a, 0) / p.at(b, 0); };
    EXPECT_NEAR(ratio(bright, 2, 1) / ratio(plain, 2, 1), 4.0, 1e-4);
    EXPECT_NEAR(ratio(bright, 1, 0) / ratio(plain, 1, 0), 4.0, 1e-4);
    EXPECT_NEAR(ratio(dark, 0, 1) / ratio(plain, 0, 1), 4.0, 1e-4);
    // A bias whose integer part is 0 is off.
    wt.params[1] = 0.9f;
    EXPECT_EQ(wt.run(img).poids, plain.poids);
}

TEST(FusionWeights, GhostMaskForcesOnePhotoAndTheFirstPhotoWins) {
    Weights wt = sized(8, 4);
    const auto images = fustest::makeStack(3, wt.w, wt.h, 3, 8);
    const Weights plain = wt.run(images);
    // Plane 0 fixes photo 2 at pixels 5 and 9; plane 1 fixes photo 0 at
    // pixels 9 and 20. At 9 both are set: photo 0 comes first and wins.
    for (auto [plane, pix] : {std::pair{0, 5}, std::pair{0, 9}, std::pair{1, 9}, std::pair{1, 20}})
        fustest::setMaskBit(wt.mask, wt.w, wt.h, plane, pix);
    wt.fixed = {2, 0, -1};
    wt.run(images);
    for (std::size_t pix : {0u, 4u, 5u, 6u, 9u, 10u, 20u, 31u}) {
        const int photo = pix == 5 ? 2 : pix == 9 || pix == 20 ? 0 : -1;
        for (int p = 0; p < 3; ++p)
            EXPECT_EQ(wt.at(p, pix), photo < 0 ? plain.at(p, pix) : p == photo ? 65535 : 0) << pix;
    }
    // A negative first entry switches ghost handling off, whatever the mask.
    wt.fixed = {-1, 0, 2};
    std::fill(wt.mask.begin(), wt.mask.end(), 0xff);
    EXPECT_EQ(wt.run(images).poids, plain.poids);
    // Float weights: the forced photo gets 1.0.
    wt.fixed = {1, -1, -1};
    wt.bdp = 32;
    wt.run(images);
    EXPECT_EQ(wt.at(1, 3), 1.0);
    EXPECT_EQ(wt.at(0, 3), 0.0);
}

TEST(FusionWeights, ThreadCountsGiveIdenticalPlanes) {
    // Down to slices of one row (23 threads) and of none (40: every row goes
    // to the last thread).
    const auto images = fustest::makeStack(3, 37, 23, 3, 8, 7);
    for (int bdp : {8, 16, 32}) {
        Weights wt = sized(37, 23, bdp);
        wt.params[0] = 4.0f;
        const auto one = wt.run(images).poids;
        for (int t : {2, 3, 7, 23, 40}) {
            wt.nbProc = t;
            EXPECT_EQ(wt.run(images).poids, one) << "nbProc " << t << " bdp " << bdp;
        }
    }
}

TEST(FusionWeights, SliceStartingInsideAMaskByteReadsTheMaskDisplaced) {
    // 5 x 8 pixels on 3 threads: 2 rows each, the last thread 4. Thread 1
    // starts at pixel 10, its mask view at byte 10 >> 3 = 1, i.e. at pixel 8:
    // its pixel 10 + i reads the bit of pixel 8 + i. Thread 2 starts at pixel
    // 20 = byte 2 + 4 bits, so it reads the bit of pixel 16 + i. Slices on
    // byte boundaries (2 threads: pixel 20 again) and rows of 8 pixels are
    // not displaced.
    const struct Row {
        int w, h, nbProc;
        std::vector<int> bits, want;  // mask bits set in plane 0 (photo 1), pixels where photo 1 is forced
    } rows[] = {
        {5, 8, 1, {12, 30}, {12, 30}},
        {5, 8, 3, {12, 30}, {14, 34}},
        {5, 8, 2, {12, 30}, {12, 34}},
        {8, 6, 3, {19}, {19}},
    };
    for (const Row& r : rows) {
        Weights wt = sized(r.w, r.h);
        wt.nbProc = r.nbProc;
        const auto images = fustest::makeStack(3, r.w, r.h, 3, 8, 3);
        const Weights plain = wt.run(images);
        for (int pix : r.bits) fustest::setMaskBit(wt.mask, r.w, r.h, 0, pix);
        wt.fixed = {1, -1, -1};
        wt.run(images);
        std::vector<int> forced;
        for (int pix = 0; pix < r.w * r.h; ++pix)
            if (wt.at(1, pix) != plain.at(1, pix)) {
                EXPECT_EQ(wt.at(1, pix), 65535);
                forced.push_back(pix);
            }
        EXPECT_EQ(forced, r.want) << r.w << "x" << r.h << " on " << r.nbProc << " threads";
    }
}

}  // namespace
