// The vector kernel of the merge against the plain one, on tables that reach
// the corners: zero and tiny weights, huge, negative and infinite inverse
// exposures, sums that overflow, every sample layout.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "merge/merge_kernel.hpp"
#include "merge/merge_tables.hpp"
#include "support/testsupport.hpp"

namespace {

struct KernelCase {
    int n, width, height, spp, bps;
    std::vector<std::uint8_t> photos;
    std::vector<float> weights, lut;
    std::vector<ol::FrameVisit> visits;
    bool curve;
};

// curve: the tables are the merge's weight curves, which the vector kernel
// then computes instead of reading (MergeJob::weightCurve).
KernelCase makeSetup(int n, int width, int height, int spp, int bps, std::uint32_t seed, bool wild, bool curve = false) {
    KernelCase s{n, width, height, spp, bps, {}, {}, {}, {}, curve};
    std::mt19937 rng(seed);
    const std::size_t frameBytes = static_cast<std::size_t>(width) * height * spp * (bps / 8);
    s.photos = oltest::randomBytes(frameBytes * n, seed);
    // Runs of black and white so that resets and saturation happen in blocks.
    for (std::size_t i = 0; i + 40 < s.photos.size(); i += 97) {
        const std::uint8_t v = (i / 97) % 3 == 0 ? 0 : ((i / 97) % 3 == 1 ? 255 : s.photos[i]);
        std::memset(&s.photos[i], v, 40);
    }
    s.weights.resize(static_cast<std::size_t>(n) * 65536);
    std::uniform_real_distribution<float> u(0.0f, 1.0f);
    for (float& w : s.weights) {
        const float r = u(rng);
        w = r < 0.1f ? 0.0f : (r < 0.15f ? 1e-38f * u(rng) : u(rng));
    }
    s.lut.resize(static_cast<std::size_t>(1) << bps);
    for (float& v : s.lut) v = wild && u(rng) < 0.01f ? 3e38f : u(rng);
    s.visits.resize(n);
    for (int j = 0; j < n; ++j) {
        ol::FrameVisit& f = s.visits[j];
        f.samples = s.photos.data() + frameBytes * j;
        f.weight = s.weights.data() + static_cast<std::size_t>(j) * 65536;
        const float wildInvT[3] = {1.0f, -3.0f, INFINITY};
        f.invT = wild ? (j < 3 ? wildInvT[j] : std::ldexp(1.0f, 40 * j)) : std::exp2(-2.0f * j);
        f.saturation = 60000 + 1000 * j;
        f.darkLevel = j == n - 1 ? 1280 : 2560;
        f.frame = j;
        if (curve) {
            f.saturation = j == 0 ? 65535 : 65535 - 7001 * j;
            f.beta = ol::weightBeta(f.saturation);
            ol::fillWeightTable(f.saturation, f.beta, s.weights.data() + static_cast<std::size_t>(j) * 65536);
        }
    }
    return s;
}

struct Output {
    std::vector<std::uint8_t> rgbe;
    ol::MergeStats stats;
};

Output run(const KernelCase& s, bool vector, bool* ran = nullptr) {
    Output o;
    o.rgbe.assign(4 * static_cast<std::size_t>(s.width) * s.height, 0xCD);
    ol::MergeJob job{s.n, s.width, s.height, s.spp, s.visits.data(), s.lut.data(), o.rgbe.data()};
    job.weightCurve = vector && s.curve;
    if (vector) {
        const bool ok = ol::mergeRowsAvx2(job, s.bps, 0, s.height, o.stats);
        if (ran) *ran = ok;
    } else if (s.bps == 8) {
        ol::mergeRowsPlain<std::uint8_t>(job, 0, s.height, o.stats);
    } else {
        ol::mergeRowsPlain<std::uint16_t>(job, 0, s.height, o.stats);
    }
    return o;
}

TEST(MergeKernel, VectorMatchesPlainBitForBit) {
    std::uint32_t seed = 40;
    int dark = 0, burnt = 0, negativeChannel = 0;  // encoding branches the wild tables reach
    for (int bps : {8, 16})
        for (int spp : {1, 2, 3, 4, 5})
            for (int n : {1, 3, 6})
                for (int variant : {0, 1, 2}) {
                    const bool wild = variant == 1, curve = variant == 2;
                    // Widths below, at and beyond one vector step, with tails.
                    const int width = 3 + (seed % 4) * 7, height = 5;
                    const KernelCase s = makeSetup(n, width, height, spp, bps, seed++, wild, curve);
                    const Output p = run(s, false);
                    for (int y = 0; y < height; ++y)
                        for (int x = 0; x < width; ++x) {
                            const std::uint8_t* row = p.rgbe.data() + 4 * width * y;
                            const std::uint8_t e = row[3 * width + x];
                            dark += e == 0;
                            burnt += e == 255;
                            negativeChannel += wild && e != 0 && e != 255 && row[x] == 0;
                        }
                    bool ran = false;
                    const Output v = run(s, true, &ran);
                    if (!ran) continue;  // no AVX2 on this processor
                    const std::string what = "bps " + std::to_string(bps) + " spp " + std::to_string(spp) +
                                             " n " + std::to_string(n) + (wild ? " wild" : curve ? " curve" : "");
                    ASSERT_EQ(v.rgbe, p.rgbe) << what;
                    EXPECT_EQ(std::memcmp(&v.stats.minLum, &p.stats.minLum, sizeof(float)), 0) << what;
                    EXPECT_EQ(std::memcmp(&v.stats.maxLum, &p.stats.maxLum, sizeof(float)), 0) << what;
                    EXPECT_EQ(std::memcmp(&v.stats.sum, &p.stats.sum, sizeof(double)), 0) << what;
                    EXPECT_EQ(v.stats.count, p.stats.count) << what;
                }
    EXPECT_GT(dark, 0);
    EXPECT_GT(burnt, 0);
    EXPECT_GT(negativeChannel, 0);
}

TEST(MergeKernel, ValueAtTheDarknessThresholdIsEncoded) {
    // 1e-32f lies just above the threshold 1e-32, so a pixel of that value
    // is encoded, not marked dark; the float just below it is dark.
    const float below = std::nextafter(1e-32f, 0.0f);
    const ol::RgbePixel at = ol::encodeMergePixel(1e-32f, 0.0f, 0.0f);
    const ol::RgbePixel want = ol::encodeRgbe(1e-32f, 0.0f, 0.0f, ol::RgbeForm::Clamped);
    EXPECT_NE(at.e, 0);
    EXPECT_EQ(std::memcmp(&at, &want, 4), 0);
    const ol::RgbePixel dark = ol::encodeMergePixel(below, below, below);
    EXPECT_EQ(std::memcmp(&dark, &ol::kRgbeDark, 4), 0);

    // The same through both kernels: one frame of weight 1 and exposure 1,
    // 8 pixels of level 1 (lut 1e-32f) and 8 of level 2 (the float below).
    KernelCase s = makeSetup(1, 16, 1, 1, 8, 3, false);
    for (int x = 0; x < 16; ++x) s.photos[x] = x < 8 ? 1 : 2;
    std::fill(s.weights.begin(), s.weights.end(), 1.0f);
    s.lut[1] = 1e-32f;
    s.lut[2] = below;
    s.visits[0].invT = 1.0f;
    s.visits[0].darkLevel = 0;
    const ol::RgbePixel grey = ol::encodeRgbe(1e-32f, 1e-32f, 1e-32f, ol::RgbeForm::Clamped);
    ASSERT_NE(grey.e, 0);
    bool ran = false;
    const Output v = run(s, true, &ran);
    const Output p = run(s, false);
    for (const Output* o : {&p, &v}) {
        if (o == &v && !ran) continue;
        for (int x = 0; x < 16; ++x) {
            const ol::RgbePixel px{o->rgbe[x], o->rgbe[16 + x], o->rgbe[32 + x], o->rgbe[48 + x]};
            const ol::RgbePixel expect = x < 8 ? grey : ol::kRgbeDark;
            EXPECT_EQ(std::memcmp(&px, &expect, 4), 0) << x << (o == &v ? " vector" : " plain");
        }
    }
}

}  // namespace
