// Weight maps: photo statistics, full-scale sums, zero-weight pixels, ghost
// masks, and the slicing of the rows among worker threads.
#include <gtest/gtest.h>

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
    Stats s{std::vector<int>(n), std::vector<int>(n), std::vector<int>(n), std::vector<int>(n),
            std::vector<int>(n), 0};
    s.result = ol::photo_stats(n, w, h, ch, bps, images, s.noisy.data(), s.sat.data(), s.surex.data(),
                               s.median.data(), s.order.data());
    return s;
}

TEST(FusionPhotoStats, LevelsSaturationAndOrder) {
    // Four 4x4 photos: mid grey 100, black, blown white, mid grey 100 again.
    const int w = 4, h = 4, ch = 3;
    std::vector<std::uint8_t> img(4 * w * h * ch);
    const int fill[4] = {100, 0, 255, 100};
    for (int p = 0; p < 4; ++p) std::fill_n(img.begin() + p * w * h * ch, w * h * ch, fill[p]);
    img[2 * w * h * ch] = 250;  // one pixel of the white photo is not saturated (250 is the limit)
    const Stats s = statsOf(4, w, h, ch, 8, img.data());
    EXPECT_EQ(s.result, 4);
    EXPECT_EQ(s.median, (std::vector<int>{100 << 8, 0, 255 << 8, 100 << 8}));
    EXPECT_EQ(s.noisy, (std::vector<int>{0, 100, 0, 0}));
    EXPECT_EQ(s.sat, (std::vector<int>{0, 0, 100, 0}));
    // The saturated count runs on along the stack.
    EXPECT_EQ(s.surex, (std::vector<int>{0, 0, 15, 15}));
    // Falling median, ties in index order.
    EXPECT_EQ(s.order, (std::vector<int>{2, 0, 3, 1}));
}

TEST(FusionPhotoStats, DarkMedianFallsBackToThe95thPercentile) {
    // 20 pixels: 18 at level 2, 2 at level 40: median 2 < 5, so the level
    // passing 95% (19 pixels) is used, unshifted.
    const int w = 20, h = 1;
    std::vector<std::uint8_t> img(w, 2);
    img[3] = img[7] = 40;
    Stats s = statsOf(1, w, h, 1, 8, img.data());
    EXPECT_EQ(s.median[0], 40);
    // 16-bit samples count by their high byte, saturation above 64000.
    std::vector<std::uint16_t> img16(4, 64001);
    img16[0] = 0x6400;
    s = statsOf(1, 4, 1, 1, 16, img16.data());
    EXPECT_EQ(s.surex[0], 3);
    EXPECT_EQ(s.median[0], 0xfa << 8);
}

TEST(FusionPhotoStats, NoMemory) {
    std::vector<std::uint8_t> img(16, 9);
    oltest::FailAllocation fail(1);
    EXPECT_EQ(statsOf(1, 4, 4, 1, 8, img.data()).result, -4);
}

// Weight planes of a stack through adjust1, as the driver calls it.
struct Weights {
    int n = 3, w = 29, h = 13, ch = 3, bspIn = 8, bdp = 16, nbProc = 0, outIsFloat = 0;
    float params[7] = {0, 0, 0, 0, 0, 0, 0};
    std::vector<int> fixed;
    std::vector<unsigned char> mask;
    int result = 0;

    std::vector<std::uint8_t> run(const std::vector<std::uint8_t>& images) {
        std::vector<std::uint8_t> poids(static_cast<std::size_t>(n) * w * h * (bdp / 8) + 8, 0xcc);
        std::vector<int> fx = fixed;
        fx.resize(n, -1);
        if (fixed.empty()) fx.assign(n, -1);
        result = ol::adjust1(nbProc, params, n, w, h, ch, bspIn, bdp, outIsFloat, 1.0f, nullptr, 0, nullptr,
                             nullptr, images.data(), fx.data(), mask.empty() ? nullptr : mask.data(), nullptr,
                             poids.data());
        poids.resize(static_cast<std::size_t>(n) * w * h * (bdp / 8));
        return poids;
    }
    double at(const std::vector<std::uint8_t>& poids, int p, std::size_t pix) const {
        const std::size_t i = static_cast<std::size_t>(p) * w * h + pix;
        if (bdp == 8) return poids[i];
        if (bdp == 16) {
            std::uint16_t v;
            std::memcpy(&v, &poids[2 * i], 2);
            return v;
        }
        float f;
        std::memcpy(&f, &poids[4 * i], 4);
        return f;
    }
};

Weights sizedWeights(int w, int h) {
    Weights wt;
    wt.w = w;
    wt.h = h;
    return wt;
}

TEST(FusionWeights, PlanesSumToFullScaleAtEveryDepth) {
    for (int bspIn : {8, 16}) {
        const auto images = fustest::makeStack(3, 29, 13, 3, bspIn);
        for (int bdp : {8, 16, 32}) {
            for (float highlight : {0.0f, 2.0f}) {
                Weights wt;
                wt.bspIn = bspIn;
                wt.bdp = bdp;
                wt.params[2] = highlight;
                wt.params[1] = 3.0f;  // brightness bias on
                const auto poids = wt.run(images);
                ASSERT_EQ(wt.result, 0);
                const double full = bdp == 32 ? 1.0 : double(1 << bdp);
                for (std::size_t pix = 0; pix < std::size_t(wt.w * wt.h); ++pix) {
                    double sum = 0;
                    for (int p = 0; p < 3; ++p) sum += wt.at(poids, p, pix);
                    if (sum == 0) continue;  // a pixel no photo weighs
                    // Each value is rounded on its own; 8 and 16 bits stop
                    // one below full scale.
                    EXPECT_NEAR(sum, full, bdp == 32 ? 1e-5 : 2.0) << bspIn << " " << bdp << " at " << pix;
                }
            }
        }
    }
}

TEST(FusionWeights, OnePhotoTakesAllButOneStep) {
    Weights wt;
    wt.n = 1;
    std::vector<std::uint8_t> img(wt.w * wt.h * 3, 128);
    auto poids = wt.run(img);
    EXPECT_EQ(wt.at(poids, 0, 0), 65535);  // 65536 clamps to the top value
    wt.bdp = 8;
    poids = wt.run(img);
    EXPECT_EQ(wt.at(poids, 0, 17), 255);
}

TEST(FusionWeights, PhotoBiasFavoursByBrightnessRank) {
    // Three nearly equal photos, 120 < 128 < 136: ranks by brightness 2, 1, 0.
    // With half = 1 a bias b multiplies the weights by 4^(b/4 * (1 - rank)).
    Weights wt = sizedWeights(4, 2);
    wt.bdp = 32;
    const auto img = fustest::flatStack(4, 2, {120, 128, 136});
    const auto plain = wt.run(img);
    wt.params[1] = 4.0f;
    const auto bright = wt.run(img);
    wt.params[1] = -4.0f;
    const auto dark = wt.run(img);
    auto ratio = [&](const std::vector<std::uint8_t>& p, int a, int b) { return wt.at(p, a, 0) / wt.at(p, b, 0); };
    EXPECT_NEAR(ratio(bright, 2, 1) / ratio(plain, 2, 1), 4.0, 1e-4);
    EXPECT_NEAR(ratio(bright, 1, 0) / ratio(plain, 1, 0), 4.0, 1e-4);
    EXPECT_NEAR(ratio(dark, 0, 1) / ratio(plain, 0, 1), 4.0, 1e-4);
    // A bias whose integer part is 0 is off.
    wt.params[1] = 0.9f;
    EXPECT_EQ(wt.run(img), plain);
}

TEST(FusionWeights, MidGreyWinsOverClippedPhotos) {
    Weights wt = sizedWeights(4, 2);
    const auto poids = wt.run(fustest::flatStack(4, 2, {5, 130, 252}));  // nearly black, mid grey, nearly white
    EXPECT_GT(wt.at(poids, 1, 0), 65000);
    EXPECT_LT(wt.at(poids, 0, 0) + wt.at(poids, 2, 0), 536);
}

TEST(FusionWeights, BlownPixelsWeighNothingWithLinearSharpening) {
    // highlightCut puts every curve at 0 from 0.8203 of the range on. With
    // the linear curve of a float output, sharpen[0] is 0: no photo weighs
    // the pixel and all planes hold 0 there.
    Weights wt = sizedWeights(4, 2);
    wt.outIsFloat = 1;
    wt.params[2] = 1.5f;
    auto img = fustest::flatStack(4, 2, {240, 240, 240});
    img[0] = img[1] = img[2] = 128;  // pixel 0 of photo 0 is fine
    const auto poids = wt.run(img);
    EXPECT_EQ(wt.at(poids, 0, 0), 65535);
    for (int p = 0; p < 3; ++p)
        for (int pix = 1; pix < 8; ++pix) EXPECT_EQ(wt.at(poids, p, pix), 0) << p << " " << pix;
    // With the steep curve of integer output the blown pixel splits evenly:
    // fval 0 still has the weight sharpen[0] = 1.000001^-power.
    wt.outIsFloat = 0;
    const auto steep = wt.run(img);
    EXPECT_EQ(wt.at(steep, 0, 5), wt.at(steep, 1, 5));
    EXPECT_NEAR(wt.at(steep, 0, 5) + wt.at(steep, 1, 5) + wt.at(steep, 2, 5), 65536, 2);
}

TEST(FusionWeights, GhostMaskForcesOnePhotoAndTheFirstPhotoWins) {
    Weights wt = sizedWeights(8, 4);
    const auto images = fustest::makeStack(3, wt.w, wt.h, 3, 8);
    const auto plain = wt.run(images);
    // Plane 0 fixes photo 2 at pixels 5 and 9; plane 1 fixes photo 0 at
    // pixels 9 and 20. At 9 both are set: photo 0 comes first and wins.
    for (auto [plane, pix] : {std::pair{0, 5}, std::pair{0, 9}, std::pair{1, 9}, std::pair{1, 20}})
        fustest::setMaskBit(wt.mask, wt.w, wt.h, plane, pix);
    wt.fixed = {2, 0, -1};
    const auto masked = wt.run(images);
    auto expectOneHot = [&](std::size_t pix, int photo) {
        for (int p = 0; p < 3; ++p) EXPECT_EQ(wt.at(masked, p, pix), p == photo ? 65535 : 0) << pix;
    };
    expectOneHot(5, 2);
    expectOneHot(9, 0);
    expectOneHot(20, 0);
    for (std::size_t pix : {0u, 4u, 6u, 10u, 31u})
        for (int p = 0; p < 3; ++p) EXPECT_EQ(wt.at(masked, p, pix), wt.at(plain, p, pix));
    // A negative first entry switches ghost handling off, whatever the mask.
    wt.fixed = {-1, 0, 2};
    std::fill(wt.mask.begin(), wt.mask.end(), 0xff);
    EXPECT_EQ(wt.run(images), plain);
    // Float weights: the forced photo gets 1.0.
    wt.fixed = {1, -1, -1};
    wt.bdp = 32;
    const auto f = wt.run(images);
    EXPECT_EQ(wt.at(f, 1, 3), 1.0);
    EXPECT_EQ(wt.at(f, 0, 3), 0.0);
}

TEST(FusionWeights, ThreadCountsGiveIdenticalPlanes) {
    for (int bdp : {8, 16, 32}) {
        Weights wt = sizedWeights(37, 23);
        wt.bdp = bdp;
        wt.params[0] = 4.0f;
        const auto images = fustest::makeStack(3, wt.w, wt.h, 3, 8, 7);
        const auto one = wt.run(images);
        for (int t : {0, 2, 3, 7, 23, 40}) {
            wt.nbProc = t;
            EXPECT_EQ(wt.run(images), one) << "nbProc " << t << " bdp " << bdp;
            EXPECT_EQ(wt.result, 0);
        }
    }
}

TEST(FusionWeights, SliceStartingInsideAMaskByteReadsTheMaskDisplaced) {
    // 5 x 8 pixels on 3 threads: 2 rows each, the last thread 4. Thread 1
    // starts at pixel 10, its mask view at byte 10 >> 3 = 1, i.e. at pixel 8:
    // its pixel 10 + i reads the bit of pixel 8 + i. Thread 2 starts at pixel
    // 20 = byte 2 + 4 bits, so it reads the bit of pixel 16 + i.
    Weights wt = sizedWeights(5, 8);
    const auto images = fustest::makeStack(3, wt.w, wt.h, 3, 8, 3);
    const auto images8 = fustest::makeStack(3, 8, 6, 3, 8, 3);
    fustest::setMaskBit(wt.mask, wt.w, wt.h, 0, 12);
    fustest::setMaskBit(wt.mask, wt.w, wt.h, 0, 30);
    wt.fixed = {1, -1, -1};
    // Pixels whose weights the mask changed, against a run without mask.
    auto fixedPixels = [&](const std::vector<std::uint8_t>& poids) {
        Weights free = wt;
        free.mask.clear();
        free.fixed.clear();
        const std::vector<std::uint8_t> plain = free.run(wt.w == 5 ? images : images8);
        std::vector<int> out;
        for (int pix = 0; pix < wt.w * wt.h; ++pix)
            if (wt.at(poids, 1, pix) != wt.at(plain, 1, pix)) {
                EXPECT_EQ(wt.at(poids, 1, pix), 65535);
                out.push_back(pix);
            }
        return out;
    };
    wt.nbProc = 1;
    EXPECT_EQ(fixedPixels(wt.run(images)), (std::vector<int>{12, 30}));
    wt.nbProc = 3;
    EXPECT_EQ(fixedPixels(wt.run(images)), (std::vector<int>{14, 34}));
    // Slices on byte boundaries (8 rows of 5 on 2 threads: pixel 20 = byte
    // 2 + 4 bits again) and rows of 8 pixels are not displaced.
    wt.nbProc = 2;
    EXPECT_EQ(fixedPixels(wt.run(images)), (std::vector<int>{12, 34}));
    wt.w = 8;
    wt.h = 6;
    wt.mask.clear();
    fustest::setMaskBit(wt.mask, wt.w, wt.h, 0, 19);
    wt.nbProc = 3;
    EXPECT_EQ(fixedPixels(wt.run(images8)), (std::vector<int>{19}));
}

TEST(FusionWeights, NoMemoryForTheTables) {
    Weights wt;
    const auto images = fustest::makeStack(3, wt.w, wt.h, 3, 8);
    const auto good = wt.run(images);
    const long count = oltest::countAllocations([&] { wt.run(images); });
    ASSERT_GT(count, 0);
    for (long n = 1; n <= count; ++n) {
        std::vector<std::uint8_t> got;
        {
            oltest::FailAllocation fail(n);
            got = wt.run(images);
        }
        // The statistics may fail without harm (their bias is off); every
        // other allocation is reported.
        if (wt.result == 0)
            EXPECT_EQ(got, good) << n;
        else
            EXPECT_EQ(wt.result, -4) << n;
    }
}

TEST(FusionColour, HslRoundTripAndGrey) {
    const float rgb[3] = {0.5f, 0.25f, 0.25f};
    float hsl[3], back[3];
    EXPECT_EQ(ol::rgb_to_hsl(rgb, hsl), 1);
    EXPECT_FLOAT_EQ(hsl[0], 0.0f);
    EXPECT_FLOAT_EQ(hsl[1], 1.0f / 3.0f);
    EXPECT_FLOAT_EQ(hsl[2], 0.375f);
    EXPECT_EQ(ol::hsl_to_rgb(hsl, back), 1);
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(back[c], rgb[c], 1e-6);
    const float grey[3] = {0.4f, 0.4f, 0.4f};
    ol::rgb_to_hsl(grey, hsl);
    EXPECT_EQ(hsl[0], 0.0f);
    EXPECT_EQ(hsl[1], 0.0f);
    const float blue[3] = {0.1f, 0.2f, 0.9f};
    ol::rgb_to_hsl(blue, hsl);
    ol::hsl_to_rgb(hsl, back);
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(back[c], blue[c], 1e-6);
}

}  // namespace
