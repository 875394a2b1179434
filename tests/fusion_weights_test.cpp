// Weight maps: photo statistics, full-scale sums on every thread count, the
// brightness bias, ghost masks and the slicing of the mask among worker
// threads. (The failed allocations are checked through ol_fusion in
// fusion_driver_test.cpp; the curve values at a probe pixel, the running
// saturated count and zero-weight pixels are pinned by the fusion transcript
// of trace_test.cpp.)
#include <gtest/gtest.h>

#include <algorithm>
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
    std::vector<int> fixed = {};
    std::vector<unsigned char> mask = {};
    int result = 0;
    std::vector<std::uint8_t> poids = {};

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

// Every depth and curve, with the brightness bias on: the planes sum to full
// scale, and every thread count gives identical planes, down to slices of one
// row (13 threads) and of none (40: every row goes to the last thread).
TEST(FusionWeights, PlanesSumToFullScaleOnEveryThreadCount) {
    for (int bspIn : {8, 16}) {
        const auto images = fustest::makeStack(3, 29, 13, 3, bspIn);
        for (int bdp : {8, 16, 32})
            for (float highlight : {0.0f, 2.0f}) {
                Weights wt{.bspIn = bspIn, .bdp = bdp};
                wt.params[0] = 4.0f;
                wt.params[1] = 3.0f;
                wt.params[2] = highlight;
                ASSERT_EQ(wt.run(images).result, 0);
                const double full = bdp == 32 ? 1.0 : double(1 << bdp);
                for (std::size_t pix = 0; pix < std::size_t(wt.w * wt.h); ++pix) {
                    const double sum = wt.at(0, pix) + wt.at(1, pix) + wt.at(2, pix);
                    // Each value is rounded on its own; 8 and 16 bits stop
                    // one below full scale. A pixel no photo weighs sums to 0.
                    EXPECT_TRUE(sum == 0 || std::abs(sum - full) <= (bdp == 32 ? 1e-5 : 2.0)) << bspIn << " " << bdp << " at " << pix;
                }
                const auto one = wt.poids;
                for (int t : {3, 13, 40}) {
                    wt.nbProc = t;
                    EXPECT_EQ(wt.run(images).poids, one) << bspIn << " " << bdp << " on " << t << " threads";
                }
            }
    }
    // One photo takes all but the step above the top value.
    Weights one{.n = 1, .w = 4, .h = 2};
    EXPECT_EQ(one.run(fustest::flatStack(4, 2, {128})).at(0, 0), 65535);
    one.bdp = 8;
    EXPECT_EQ(one.run(fustest::flatStack(4, 2, {128})).at(0, 7), 255);
    // With the steep curve of integer output a blown pixel splits evenly:
    // fval 0 still has the weight sharpen[0] = 1.000001^-power.
    Weights blown{.w = 4, .h = 2};
    blown.params[2] = 1.5f;
    blown.run(fustest::flatStack(4, 2, {240, 240, 240}));
    EXPECT_EQ(blown.at(0, 5), blown.at(1, 5));
    EXPECT_NEAR(blown.at(0, 5) + blown.at(1, 5) + blown.at(2, 5), 65536, 2);
}

TEST(FusionWeights, PhotoBiasFavoursByBrightnessRank) {
    // Three nearly equal photos, 120 < 128 < 136: ranks by brightness 2, 1, 0.
    // With half = 1 a bias b multiplies the weights by 4^(b/4 * (1 - rank)),
    // so photo a against photo b gains the factor of a row over no bias. A
    // bias whose integer part is 0 is off.
    const struct { float bias; int a, b; double factor; } rows[] = {{4, 2, 1, 4}, {4, 1, 0, 4}, {-4, 0, 1, 4}, {0.9f, 2, 0, 1}};
    Weights wt{.w = 4, .h = 2, .bdp = 32};
    const auto img = fustest::flatStack(4, 2, {120, 128, 136});
    const Weights plain = wt.run(img);
    for (const auto& r : rows) {
        wt.params[1] = r.bias;
        wt.run(img);
        EXPECT_NEAR(wt.at(r.a, 0) / wt.at(r.b, 0) / (plain.at(r.a, 0) / plain.at(r.b, 0)), r.factor, 1e-4) << r.bias;
    }
}

// Ghost masks: a set bit in plane j forces photo fixed[j] at that pixel (full
// weight, the others 0); where two planes are set the first photo in index
// order wins; a negative first entry switches masks off whatever they hold.
// Among threads, a slice whose first pixel is inside a mask byte reads the
// mask displaced: 5 x 8 pixels on 3 threads are slices of 2 rows, the last
// 4. Thread 1 starts at pixel 10, its mask view at byte 10 >> 3 = 1, i.e. at
// pixel 8: its pixel 10 + i reads the bit of pixel 8 + i. Thread 2 starts at
// pixel 20 = byte 2 + 4 bits, so it reads the bit of pixel 16 + i. Slices on
// byte boundaries (2 threads: pixel 20 again) and rows of 8 pixels are not
// displaced.
TEST(FusionWeights, GhostMaskForcesOnePhotoAndSlicesReadItDisplaced) {
    using Bits = std::vector<std::pair<int, int>>;  // (plane, pixel) set; (pixel, photo) forced
    const struct Row {
        int w, h, nbProc, bdp;
        std::vector<int> fixed;
        Bits bits, forced;
    } rows[] = {
        {8, 4, 0, 16, {2, 0, -1}, {{0, 5}, {0, 9}, {1, 9}, {1, 20}}, {{5, 2}, {9, 0}, {20, 0}}},
        {8, 4, 0, 16, {-1, 0, 2}, {{0, 5}, {1, 9}, {2, 20}}, {}},
        {8, 4, 0, 32, {1, -1, -1}, {{0, 3}}, {{3, 1}}},
        {5, 8, 1, 16, {1, -1, -1}, {{0, 12}, {0, 30}}, {{12, 1}, {30, 1}}},
        {5, 8, 3, 16, {1, -1, -1}, {{0, 12}, {0, 30}}, {{14, 1}, {34, 1}}},
        {5, 8, 2, 16, {1, -1, -1}, {{0, 12}, {0, 30}}, {{12, 1}, {34, 1}}},
        {8, 6, 3, 16, {1, -1, -1}, {{0, 19}}, {{19, 1}}},
    };
    for (const Row& r : rows) {
        Weights wt{.w = r.w, .h = r.h, .bdp = r.bdp, .nbProc = r.nbProc};
        const auto images = fustest::makeStack(3, r.w, r.h, 3, 8, 3);
        const Weights plain = wt.run(images);
        for (auto [plane, pix] : r.bits) fustest::setMaskBit(wt.mask, r.w, r.h, plane, pix);
        wt.fixed = r.fixed;
        wt.run(images);
        for (int pix = 0; pix < r.w * r.h; ++pix) {
            const auto f = std::find_if(r.forced.begin(), r.forced.end(), [&](auto& e) { return e.first == pix; });
            for (int p = 0; p < 3; ++p)
                ASSERT_EQ(wt.at(p, pix), f == r.forced.end() ? plain.at(p, pix) : p == f->second ? (r.bdp == 32 ? 1.0 : 65535) : 0)
                    << "row " << &r - rows << ", photo " << p << " at " << pix;
        }
    }
}

}  // namespace
