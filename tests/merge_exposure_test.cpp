// Exposures from Exif values, from a fixed step or from mean levels, and the
// ordering of frames by exposure.
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "merge/exposure.hpp"
#include "support/testsupport.hpp"

namespace {

// The first n values of an array, to compare in one go.
template <class T>
std::vector<T> firstOf(const T* p, int n) {
    return std::vector<T>(p, p + n);
}
using Floats = std::vector<float>;
using Ints = std::vector<int>;

std::vector<float> record(float num, float den, float fnum, float fden, float ovr, float iso) {
    return {num, den, fnum, fden, ovr, iso, 0.0f};
}

TEST(GetEv, ExifFormulaDefaultsAndOverride) {
    std::vector<float> d;
    for (auto r : {record(1, 100, 8, 1, 0, 100),     // 1/100 f/8 ISO 100
                   record(0, 0, 8, 1, 1000, 100),    // no time: 2^(1000/1000)
                   record(5, 0, 8, 1, 0, 100),       // den 0: t is 0
                   record(1, 100, 0, 1, 0, 0),       // f-number and ISO missing
                   record(1.9f, 100.7f, 8, 1, 0, 100),  // read truncated: 1/100
                   record(0, 0, 0, 0, -2000, 0)})
        d.insert(d.end(), r.begin(), r.end());
    const std::vector<float> before = d;
    ASSERT_EQ(get_ev(6, d.data()), 1);

    const float t = 1.0f / 100.0f;
    const float expected = t * 100.0f * 20.64516f / 64.0f;
    EXPECT_EQ(d[0], expected);
    EXPECT_NEAR(d[0], 0.3226f, 1e-4f);
    EXPECT_EQ(d[1], 2.0f);
    EXPECT_EQ(d[2], 0.0f);
    EXPECT_EQ(d[3], expected);  // defaults are f/8 and ISO 100
    EXPECT_EQ(d[4], expected);
    EXPECT_EQ(d[5], 0.25f);
    // Only the first n floats change.
    for (std::size_t i = 6; i < d.size(); ++i) EXPECT_EQ(d[i], before[i]) << i;

    // Float throughout: at 1/60 s a double constant or division gives the
    // neighbouring float 0x3f09a268.
    std::vector<float> sixtieth = record(1, 60, 0, 0, 0, 0);
    ASSERT_EQ(get_ev(1, sixtieth.data()), 1);
    EXPECT_EQ(std::bit_cast<std::uint32_t>(sixtieth[0]), 0x3f09a269u);
}

TEST(GetEv, ManyFramesInPlace) {
    // With more than seven frames the results overwrite records of frames
    // that are already read; every frame must still see its own record.
    const int n = 20;
    std::vector<float> d;
    for (int k = 0; k < n; ++k) {
        auto r = record(1, static_cast<float>(1 << (k % 10)), 4, 1, 0, 200);
        d.insert(d.end(), r.begin(), r.end());
    }
    ASSERT_EQ(get_ev(n, d.data()), 1);
    for (int k = 0; k < n; ++k) {
        const float t = 1.0f / static_cast<float>(1 << (k % 10));
        EXPECT_EQ(d[k], t * 200.0f * 20.64516f / 16.0f) << k;
    }
}

TEST(GuessEv, FactorTableKnotsAndInterpolation) {
    EXPECT_EQ(ol::guessEvFactor(0), 1.1f);
    EXPECT_FLOAT_EQ(ol::guessEvFactor(8 * 256), 1.2f);
    EXPECT_FLOAT_EQ(ol::guessEvFactor(90 * 256), 1.8f);
    EXPECT_FLOAT_EQ(ol::guessEvFactor(190 * 256), 4.7f);
    EXPECT_EQ(ol::guessEvFactor(65280), 6.0f);
    EXPECT_EQ(ol::guessEvFactor(65281), 0.0f);
    EXPECT_EQ(ol::guessEvFactor(65535), 0.0f);
    EXPECT_EQ(ol::guessEvFactor(-1), 0.0f);
    EXPECT_NEAR(ol::guessEvFactor(1024), 1.15f, 1e-6f);
    EXPECT_NEAR(ol::guessEvFactor(19200), 1.65f, 1e-6f);
    // The entry is i*a + b in float, with a and b of the segment.
    const float a = (1.8f - 1.5f) / 7680.0f;
    const float b = 1.5f - 15360.0f * a;
    EXPECT_EQ(ol::guessEvFactor(20001), 20001.0f * a + b);
    // Monotonic between the first and the last knot.
    for (long i = 1; i <= 65280; ++i) ASSERT_GE(ol::guessEvFactor(i), ol::guessEvFactor(i - 1)) << i;
}

float stopStep(float brighter, float darker) {
    const float ratio = brighter / darker;
    const long level = static_cast<long>((darker + brighter) / 2.0f);
    return static_cast<float>(std::log(static_cast<double>(ratio)) * (1.0 / std::log(2.0)) *
                              static_cast<double>(ol::guessEvFactor(level)));
}

// guess_ev as rows: mode, mean levels, step, and the exposures and means
// after the call (empty: the means unchanged).
TEST(GuessEv, ModesStepsAndMeansAsRows) {
    auto pow2 = [](float e) { return static_cast<float>(std::pow(2.0, static_cast<double>(e))); };
    // Inference, frame 1 brightest, frame 0 middle, frame 2 darkest; and
    // walking further out accumulates: four frames, half is 2.
    const float eDark = static_cast<float>(0.0 - static_cast<double>(stopStep(6400, 1600)));
    const float eBright = static_cast<float>(0.0 + static_cast<double>(stopStep(25600, 6400)));
    EXPECT_NEAR(eBright, 2.0f * 1.525f, 1e-5f);  // factor at level 16000
    EXPECT_NEAR(eDark, -2.0f * (1.3f + 416.0f * 0.2f / 11776.0f), 1e-5f);
    const float e1 = static_cast<float>(0.0 + static_cast<double>(stopStep(20000, 10000)));
    const float e0 = static_cast<float>(static_cast<double>(e1) + static_cast<double>(stopStep(40000, 20000)));
    const float e3 = static_cast<float>(0.0 - static_cast<double>(stopStep(10000, 5000)));
    const float wide = stopStep(64000, 1000);
    struct Row {
        int mode;
        Ints means;
        float step;
        Floats dt;
        Ints meansAfter;
    };
    const Row rows[] = {
        // A fixed step leaves the means alone.
        {0, {0, 0, 0}, 2.0f, {4.0f, 1.0f, 0.25f}, {}},
        {0, {0, 0, 0, 0}, 1.5f, {8.0f, pow2(1.5f), 1.0f, pow2(-1.5f)}, {}},  // half is 2: 2, 1, 0, -1 steps
        // With means the step follows the brightness rank, not the frame
        // number (a mode other than 0 changes nothing on this path); ties rank
        // by frame number.
        {1, {100, 900, 500}, 1.0f, {0.5f, 2.0f, 1.0f}, {}},
        {0, {7, 7, 7}, 1.0f, {2.0f, 1.0f, 0.5f}, {}},
        {0, {6400, 25600, 1600}, 0.0f, {1.0f, pow2(eBright), pow2(eDark)}, {}},
        {0, {40000, 20000, 10000, 5000}, -3.0f, {pow2(e0), pow2(e1), 1.0f, pow2(e3)}, {}},
        // Means below one are raised.
        {0, {0, -5, 0}, 0.0f, {1.0f, 1.0f, 1.0f}, {1, 1, 1}},
        // Another mode rounds half away from zero (3.05 and -2.61 to 3 and -3)
        // and rewrites the means by rank. A mean of -1 or below never wins the
        // ranking: its frame comes in through the repair of the ranks, last.
        {1, {1600, 25600, 6400}, 0.0f, {3.0f, 0.0f, -3.0f}, {1, 2, 0}},
        {3, {0, -5, 0}, 0.0f, {}, {0, 2, 1}},
        // A step below half a stop rounds to 0: half is 1, so E[1] is 0 and
        // E[0] is log2(4000/3500) * 1.30 = 0.25.
        {-1, {4000, 3500}, 0.0f, {0.0f, 0.0f}, {0, 1}},
        {-1, {64000, 1000}, 0.0f, {std::fabs(wide - std::trunc(wide)) < 0.5f ? std::trunc(wide) : std::trunc(wide) + 1.0f}, {0, 1}},
    };
    for (const Row& r : rows) {
        const int n = static_cast<int>(r.means.size());
        Ints means = r.means;
        Floats dt(n, 9.0f);
        ASSERT_EQ(guess_ev(r.mode, n, r.step, means.data(), dt.data()), n);
        EXPECT_EQ(firstOf(dt.data(), static_cast<int>(r.dt.size())), r.dt) << "row " << &r - rows;
        EXPECT_EQ(means, r.meansAfter.empty() ? r.means : r.meansAfter) << "row " << &r - rows;
    }
    int none[1] = {7};
    float dt[1];
    EXPECT_EQ(guess_ev(0, 0, 1.0f, none, dt), 0);
}

// fClassementCroissant as rows: values and the order (ascending; equal
// values: higher frame first). Values of -99999999 and below (and NaN) never
// win: they come in through the repair of the ranks. -99999992 is the float
// just above -1e8: above -99999999 in double, so it takes part and ranks
// above the value that cannot.
TEST(FClassementCroissant, OrderTiesAndRepairAsRows) {
    const std::vector<std::pair<Floats, Ints>> rows = {
        {{1, 1, 1}, {2, 1, 0}},
        {{3, 1, 2, 1, 0.5f}, {4, 3, 1, 2, 0}},
        {{5, -1e8f, 3}, {1, 2, 0}},  // list 0,2,(2->1) reversed
        {{-1e9f, -1e8f, NAN, -3e8f}, {3, 2, 1, 0}},
        {{-2e8f, -99999992.0f}, {0, 1}},
    };
    for (const auto& [values, want] : rows) {
        const int n = static_cast<int>(values.size());
        const Floats v = values;
        Ints ordre(n);
        ASSERT_EQ(fClassementCroissant(n, v.data(), ordre.data()), n);
        EXPECT_EQ(ordre, want);
        EXPECT_EQ(std::memcmp(v.data(), values.data(), n * sizeof(float)), 0);  // values unchanged
    }
    int ordre[1];
    const float v[1] = {1};
    EXPECT_EQ(fClassementCroissant(0, v, ordre), 0);
    EXPECT_EQ(fClassementCroissant(-2, v, ordre), 0);
}

TEST(FClassementCroissant, LargeCountsUseHeapScratch) {
    std::vector<float> v(1000);
    for (int i = 0; i < 1000; ++i) v[i] = static_cast<float>((i * 7919) % 1000);
    std::vector<int> ordre(1000);
    ASSERT_EQ(fClassementCroissant(1000, v.data(), ordre.data()), 1000);
    for (int i = 1; i < 1000; ++i) ASSERT_LT(v[ordre[i - 1]], v[ordre[i]]);
}

TEST(RepairDuplicateRanks, RepeatsTakeMissingNumbersInOrder) {
    int list[5] = {3, 3, 3, 1, 1};
    int seen[5];
    ol::repairDuplicateRanks(5, list, seen);
    EXPECT_EQ(firstOf(list, 5), (Ints{3, 0, 2, 1, 4}));
}

}  // namespace
