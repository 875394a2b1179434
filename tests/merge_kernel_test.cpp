// The vector kernel of the merge against the plain one, on tables that reach
// the corners: zero and tiny weights, huge, negative and infinite inverse
// exposures, sums that overflow, every sample layout, values at the darkness
// threshold (the plain kernel's encoding is pinned at the threshold in
// merge_hdr_test.cpp).
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
    bool curve;  // the tables are the merge's weight curves, which the vector kernel computes instead
};

// Variants: 0 plain tables, 1 wild tables, 2 the merge's weight curves, 3 one
// frame of weight 1 and exposure 1 whose lut alternates 1e-32f (just above
// the darkness threshold 1e-32, so encoded) and the float below it (dark).
KernelCase makeSetup(int n, int width, int height, int spp, int bps, std::uint32_t seed, int variant) {
    const bool wild = variant == 1, curve = variant == 2;
    KernelCase s{n, width, height, spp, bps, {}, {}, {}, {}, curve};
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(0.0f, 1.0f);
    const std::size_t frameBytes = static_cast<std::size_t>(width) * height * spp * (bps / 8);
    s.photos = oltest::randomBytes(frameBytes * n, seed);
    // Runs of black and white so that resets and saturation happen in blocks.
    for (std::size_t i = 0; i + 40 < s.photos.size(); i += 97)
        std::memset(&s.photos[i], (i / 97) % 3 == 0 ? 0 : ((i / 97) % 3 == 1 ? 255 : s.photos[i]), 40);
    s.weights.resize(static_cast<std::size_t>(n) * 65536);
    for (float& w : s.weights) {
        const float r = u(rng);
        w = r < 0.1f ? 0.0f : (r < 0.15f ? 1e-38f * u(rng) : u(rng));
    }
    s.lut.resize(static_cast<std::size_t>(1) << bps);
    for (float& v : s.lut) v = wild && u(rng) < 0.01f ? 3e38f : u(rng);
    const float wildInvT[3] = {1.0f, -3.0f, INFINITY};
    for (int j = 0; j < n; ++j) {
        ol::FrameVisit f{s.photos.data() + frameBytes * j, s.weights.data() + static_cast<std::size_t>(j) * 65536,
                         wild ? (j < 3 ? wildInvT[j] : std::ldexp(1.0f, 40 * j)) : std::exp2(-2.0f * j),
                         60000 + 1000 * j, j == n - 1 ? 1280 : 2560, j};
        if (curve) {
            f.saturation = j == 0 ? 65535 : 65535 - 7001 * j;
            f.beta = ol::weightBeta(f.saturation);
            ol::fillWeightTable(f.saturation, f.beta, s.weights.data() + static_cast<std::size_t>(j) * 65536);
        }
        if (variant == 3) f.invT = 1.0f, f.darkLevel = 0;
        s.visits.push_back(f);
    }
    if (variant == 3) {
        std::fill(s.weights.begin(), s.weights.end(), 1.0f);
        for (std::size_t i = 0; i < s.lut.size(); ++i) s.lut[i] = i % 2 ? 1e-32f : std::nextafter(1e-32f, 0.0f);
    }
    return s;
}

struct Output {
    std::vector<std::uint8_t> rgbe;
    ol::MergeStats stats;
    bool ran = true;  // false: no AVX2 on this processor
};

Output run(const KernelCase& s, bool vector) {
    Output o;
    o.rgbe.assign(4 * static_cast<std::size_t>(s.width) * s.height, 0xCD);
    ol::MergeJob job{s.n, s.width, s.height, s.spp, s.visits.data(), s.lut.data(), o.rgbe.data()};
    job.weightCurve = vector && s.curve;
    if (vector) o.ran = ol::mergeRowsAvx2(job, s.bps, 0, s.height, o.stats);
    else if (s.bps == 8) ol::mergeRowsPlain<std::uint8_t>(job, 0, s.height, o.stats);
    else ol::mergeRowsPlain<std::uint16_t>(job, 0, s.height, o.stats);
    return o;
}

TEST(MergeKernel, VectorMatchesPlainBitForBit) {
    std::uint32_t seed = 40;
    // Encoding branches the tables reach: dark, burnt, a negative channel, and
    // both sides of the darkness threshold.
    int dark = 0, burnt = 0, negativeChannel = 0, threshold[2] = {0, 0};
    for (int bps : {8, 16})
        for (int spp : {1, 2, 3, 4, 5})
            for (int n : {1, 3, 6})
                for (int variant = 0; variant < (n == 1 ? 4 : 3); ++variant) {
                    // Widths below, at and beyond one vector step, with tails.
                    const int width = 3 + (seed % 4) * 7, height = 5;
                    const KernelCase s = makeSetup(n, width, height, spp, bps, seed++, variant);
                    const Output p = run(s, false), v = run(s, true);
                    for (int i = 0; i < width * height; ++i) {
                        const std::uint8_t* row = p.rgbe.data() + 4 * width * (i / width);
                        const std::uint8_t e = row[3 * width + i % width];
                        dark += e == 0;
                        burnt += e == 255;
                        negativeChannel += variant == 1 && e != 0 && e != 255 && row[i % width] == 0;
                        threshold[e != 0] += variant == 3;
                    }
                    if (!v.ran) continue;
                    SCOPED_TRACE(::testing::Message() << "bps " << bps << " spp " << spp << " n " << n << " variant " << variant);
                    ASSERT_EQ(v.rgbe, p.rgbe);
                    static_assert(sizeof(ol::MergeStats) == 2 * sizeof(float) + sizeof(double) + sizeof(long long));
                    EXPECT_EQ(std::memcmp(&v.stats, &p.stats, sizeof p.stats), 0);  // every bit, no padding
                }
    EXPECT_GT(dark, 0);
    EXPECT_GT(burnt, 0);
    EXPECT_GT(negativeChannel, 0);
    EXPECT_GT(threshold[0], 0);
    EXPECT_GT(threshold[1], 0);
}

}  // namespace
