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

using Floats = std::vector<float>;
using Ints = std::vector<int>;

// get_ev as rows: a record of seven floats (time, f-number, override, ISO,
// unused) and the exposure. The rows run as one call three times over, so
// that results overwrite records of frames already read (more than seven
// frames) and every frame must still see its own record.
TEST(GetEv, RecordsAsRows) {
    const float ref = 0.01f * 100.0f * 20.64516f / 64.0f;  // 1/100 s, f/8, ISO 100
    const struct Row {
        Floats record;
        float want;
    } rows[] = {
        {{1, 100, 8, 1, 0, 100, 0}, ref},
        {{0, 0, 8, 1, 1000, 100, 0}, 2.0f},          // no time: 2^(override/1000)
        {{0, 0, 0, 0, -2000, 0, 0}, 0.25f},
        {{5, 0, 8, 1, 0, 100, 0}, 0.0f},             // den 0: t is 0
        {{1, 100, 0, 1, 0, 0, 0}, ref},              // f-number and ISO missing: f/8, ISO 100
        {{1.9f, 100.7f, 8, 1, 0, 100, 0}, ref},      // read truncated
        {{1, 60, 0, 0, 0, 0, 0}, std::bit_cast<float>(0x3f09a269u)},  // float throughout: double gives 0x3f09a268
        {{1, 8, 4, 1, 0, 200, 0}, 0.125f * 200.0f * 20.64516f / 16.0f},
    };
    Floats d;
    for (int rep = 0; rep < 3; ++rep)
        for (const Row& r : rows) d.insert(d.end(), r.record.begin(), r.record.end());
    const Floats before = d;
    const int n = 3 * static_cast<int>(std::size(rows));
    ASSERT_EQ(get_ev(n, d.data()), 1);
    for (int k = 0; k < n; ++k) EXPECT_EQ(d[k], rows[k % std::size(rows)].want) << "frame " << k;
    EXPECT_EQ(Floats(d.begin() + n, d.end()), Floats(before.begin() + n, before.end()));  // the rest unchanged
}

// The factor table of guess_ev, every level against the knots expanded as
// written: i*a + b in float per segment, 6.0 at 65280, 0 above and below.
TEST(GuessEv, FactorTableFromTheKnots) {
    const int L[9] = {0, 8, 14, 60, 90, 125, 160, 190, 255};
    const float V[9] = {1.1f, 1.2f, 1.3f, 1.5f, 1.8f, 2.3f, 3.3f, 4.7f, 6.0f};
    for (long i = -1; i <= 65535; ++i) {
        float want = i == 65280 ? 6.0f : 0.0f;
        for (int j = 0; j < 8 && i >= 0; ++j)
            if (i >= L[j] * 256 && i < L[j + 1] * 256) {
                const float a = (V[j + 1] - V[j]) / static_cast<float>((L[j + 1] - L[j]) * 256);
                want = static_cast<float>(i) * a + (V[j] - static_cast<float>(L[j] * 256) * a);
            }
        ASSERT_EQ(ol::guessEvFactor(i), want) << i;
    }
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
    const float eDark = -stopStep(6400, 1600), eBright = stopStep(25600, 6400);
    EXPECT_NEAR(eBright, 2.0f * 1.525f, 1e-5f);  // factor at level 16000
    const float e1 = stopStep(20000, 10000), e3 = -stopStep(10000, 5000);
    const float e0 = static_cast<float>(static_cast<double>(e1) + static_cast<double>(stopStep(40000, 20000)));
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
        EXPECT_EQ(Floats(dt.begin(), dt.begin() + static_cast<long>(r.dt.size())), r.dt) << "row " << &r - rows;
        EXPECT_EQ(means, r.meansAfter.empty() ? r.means : r.meansAfter) << "row " << &r - rows;
    }
    int none[1] = {7};
    float dt[1];
    EXPECT_EQ(guess_ev(0, 0, 1.0f, none, dt), 0);
}

// fClassementCroissant as rows: values and the order (ascending; equal
// values: higher frame first). Values of -99999999 and below (and NaN) never
// win: they come in through the repair of the ranks, missing numbers in
// ascending order. -99999992 is the float just above -1e8: above -99999999 in
// double, so it takes part and ranks above the value that cannot. 1000
// values take their scratch from the heap.
TEST(FClassementCroissant, OrderTiesAndRepairAsRows) {
    Floats many(1000);
    Ints manyOrder(1000);
    for (int i = 0; i < 1000; ++i) {
        many[i] = static_cast<float>((i * 7919) % 1000);
        manyOrder[(i * 7919) % 1000] = i;
    }
    const std::vector<std::pair<Floats, Ints>> rows = {
        {{1, 1, 1}, {2, 1, 0}},
        {{3, 1, 2, 1, 0.5f}, {4, 3, 1, 2, 0}},
        {{5, -1e8f, 3}, {1, 2, 0}},  // list 0,2,(2->1) reversed
        {{-1e9f, -1e8f, NAN, -3e8f}, {3, 2, 1, 0}},
        {{-2e8f, -99999992.0f}, {0, 1}},
        {many, manyOrder},
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

}  // namespace
