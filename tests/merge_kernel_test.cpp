// The vector kernel of the merge against the plain one, on tables that reach
// the corners: zero and tiny weights, huge, negative and infinite inverse
// exposures, sums that overflow, every sample layout.
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "merge/merge_kernel.hpp"
#include "support/testsupport.hpp"

namespace {

struct KernelCase {
    int n, width, height, spp, bps;
    std::vector<std::uint8_t> photos;
    std::vector<float> weights, lut;
    std::vector<ol::FrameVisit> visits;
};

KernelCase makeSetup(int n, int width, int height, int spp, int bps, std::uint32_t seed, bool wild) {
    KernelCase s{n, width, height, spp, bps, {}, {}, {}, {}};
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
    const ol::MergeJob job{s.n, s.width, s.height, s.spp, s.visits.data(), s.lut.data(), o.rgbe.data()};
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
    for (int bps : {8, 16})
        for (int spp : {1, 2, 3, 4, 5})
            for (int n : {1, 3, 6})
                for (bool wild : {false, true}) {
                    // Widths below, at and beyond one vector step, with tails.
                    const int width = 3 + (seed % 4) * 7, height = 5;
                    const KernelCase s = makeSetup(n, width, height, spp, bps, seed++, wild);
                    bool ran = false;
                    const Output v = run(s, true, &ran);
                    if (!ran) GTEST_SKIP() << "no AVX2 on this processor";
                    const Output p = run(s, false);
                    const std::string what = "bps " + std::to_string(bps) + " spp " + std::to_string(spp) +
                                             " n " + std::to_string(n) + (wild ? " wild" : "");
                    ASSERT_EQ(v.rgbe, p.rgbe) << what;
                    EXPECT_EQ(std::memcmp(&v.stats.minLum, &p.stats.minLum, sizeof(float)), 0) << what;
                    EXPECT_EQ(std::memcmp(&v.stats.maxLum, &p.stats.maxLum, sizeof(float)), 0) << what;
                    EXPECT_EQ(std::memcmp(&v.stats.sum, &p.stats.sum, sizeof(double)), 0) << what;
                    EXPECT_EQ(v.stats.count, p.stats.count) << what;
                }
}

TEST(MergeKernel, WildTablesReachEveryEncodingBranch) {
    const KernelCase s = makeSetup(2, 64, 16, 3, 8, 7, true);
    const Output p = run(s, false);
    int dark = 0, burnt = 0, negativeChannel = 0;
    for (int y = 0; y < 16; ++y)
        for (int x = 0; x < 64; ++x) {
            const std::uint8_t* row = p.rgbe.data() + 4 * 64 * y;
            dark += row[192 + x] == 0;
            burnt += row[192 + x] == 255;
            negativeChannel += row[192 + x] != 0 && row[192 + x] != 255 && row[x] == 0;
        }
    EXPECT_GT(dark, 0);
    EXPECT_GT(burnt, 0);
    EXPECT_GT(negativeChannel, 0);
}

}  // namespace
