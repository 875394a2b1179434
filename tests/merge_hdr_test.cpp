// The weighted exposure merge: byte-exact agreement with a direct reading of
// the algorithm on random stacks, and its rules at their boundaries as rows
// run through the same reading.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <numeric>
#include <random>
#include <vector>

#include "frame/rgbe.hpp"
#include "merge/merge_encode.hpp"
#include "support/testsupport.hpp"

namespace {

// A photo block: n frames of width x height pixels of spp samples, values
// kept as numbers, bytes made for the call.
struct Stack {
    int n, width, height, spp, bps;
    std::vector<unsigned> v;
    Stack(int n_, int w, int h, int spp_, int bps_)
        : n(n_), width(w), height(h), spp(spp_), bps(bps_), v(static_cast<std::size_t>(n_) * w * h * spp_, 0) {}
    unsigned& at(int k, std::size_t i) { return v[k * v.size() / n + i]; }
    unsigned at(int k, std::size_t i) const { return v[k * v.size() / n + i]; }
    std::vector<std::uint8_t> bytes() const {
        std::vector<std::uint8_t> b;
        for (unsigned s : v) {
            b.push_back(static_cast<std::uint8_t>(s));
            if (bps == 16) b.push_back(static_cast<std::uint8_t>(s >> 8));
        }
        return b;
    }
};

struct Result {
    std::vector<std::uint8_t> rgbe;
    float stats[3] = {0, 0, 0};
    int rc = 0;
    std::vector<float> dt, lut;  // the exposures and the lut after the call
};

// ---------------------------------------------------------------------------
// Reference: the algorithm written out per pixel, with no tables besides the
// lut, frexp and a double division for the encoding, and a sort for the order.

ol::RgbePixel refEncode(float r, float g, float b, bool guard) {
    const float m = std::max(r, std::max(g, b));
    if (guard && !(static_cast<double>(m) > 1e-32)) return {0, 0, 0, 0};
    if (guard && m >= 1e9f) return {255, 255, 255, 255};
    int e = 0;
    const float f = std::frexp(m, &e);
    const float s = static_cast<float>(static_cast<double>(f) * 256.0 / static_cast<double>(m));
    auto byte = [](float v) -> std::uint8_t {
        if (std::isnan(v)) return 0;  // integer indefinite is negative
        return static_cast<std::uint8_t>(std::clamp(std::trunc(static_cast<double>(v)), 0.0, 255.0));
    };
    return {byte(r * s), byte(g * s), byte(b * s), static_cast<std::uint8_t>(std::clamp(e + 128, 0, 255))};
}

float refWeight(int i, int sat) {
    if (i > sat) return 0.0f;
    const float q = static_cast<float>(sat) / 65535.0f;
    const float d = static_cast<float>(0.5 - q);
    const float a = i <= 32768 ? 4.0f : static_cast<float>(1.0 / (d * d));
    const float t = i / 65536.0f;
    const float v = 1.0f - a * ((t - 0.5f) * (t - 0.5f));
    return v * v;
}

Result refMerge(int mode, const Stack& s, float gamma, const std::vector<float>& dt) {
    Result out;
    const int n = s.n, levels = 1 << s.bps;
    std::vector<float> lut(levels);
    for (int i = 1; i < levels; ++i)
        lut[i] = static_cast<float>(std::pow(static_cast<double>(static_cast<float>(i) / levels), static_cast<double>(gamma)));
    lut[0] = lut[1];
    out.lut = lut;
    std::vector<int> order(n);
    std::iota(order.begin(), order.end(), 0);
    std::sort(order.begin(), order.end(), [&](int a, int b) { return dt[a] != dt[b] ? dt[a] < dt[b] : a > b; });
    auto log2f = [](float v) { return static_cast<float>(std::log(static_cast<double>(v)) / std::log(2.0)); };
    const float minT = log2f(dt[order[0]]), maxT = log2f(dt[order[n - 1]]);
    std::vector<int> sat(n, 64000);
    for (int k = 0; k < n; ++k)
        if (maxT > minT) sat[k] = static_cast<int>(64000.0f - 3840.0f * ((log2f(dt[k]) - minT) / (maxT - minT)));
    const int shift = s.bps == 16 ? 8 : 0;
    const std::size_t npix = static_cast<std::size_t>(s.width) * s.height;
    float mn = 1e9f, mx = 0.0f;
    double sum = 0.0;
    long long count = 0;
    out.rgbe.assign(4 * npix, 0);
    auto put = [&](std::size_t p, ol::RgbePixel px) {
        std::uint8_t* row = out.rgbe.data() + 4 * (p / s.width) * s.width + p % s.width;
        row[0] = px.r, row[s.width] = px.g, row[2 * s.width] = px.b, row[3 * s.width] = px.e;
    };
    for (std::size_t p = 0; p < npix; ++p) {
        float sw = 0, sr = 0, sg = 0, sb = 0;
        int nSat = 0;
        for (int j = 0; j < n; ++j) {
            const int k = order[j];
            const unsigned a = s.at(k, p * s.spp), b = s.at(k, p * s.spp + (s.spp - 1) / 2), c = s.at(k, p * s.spp + s.spp - 1);
            const int ival = 54 * (a >> shift) + 183 * (b >> shift) + 19 * (c >> shift);
            if (ival > sat[k]) nSat++;
            if (ival < (j == n - 1 ? 1280 : 2560)) sw = sr = sg = sb = 0;
            const float w = refWeight(ival, sat[k]);
            sw += w;
            const float wt = w * (1.0f / dt[k]);
            sr += wt * lut[a];
            sg += wt * lut[b];
            sb += wt * lut[c];
        }
        float r = 0, g = 0, b = 0;
        if (nSat == n) r = g = b = 1e9f;
        else if (sw > 0) r = sr / sw, g = sg / sw, b = sb / sw;
        const float lum = static_cast<float>(0.2 * r + 0.7 * g + 0.1 * b);
        if (lum < 1e9f) mx = std::max(mx, lum), sum += lum, count++;
        if (lum > 0 && lum < mn) mn = lum;
        put(p, refEncode(r, g, b, true));
    }
    out.stats[0] = 256 * mn;
    out.stats[1] = 256 * mx;
    out.stats[2] = 256 * (count > 0 ? static_cast<float>(sum / count) : 0.0f);
    out.rc = s.height;
    if (mode == 2) return out;
    for (std::size_t p = 0; p < npix; ++p) {
        const std::uint8_t e = out.rgbe[4 * (p / s.width) * s.width + 3 * s.width + p % s.width];
        if (e == 255) put(p, refEncode(mx, mx, mx, false));
        if (e == 0) put(p, refEncode(mn, mn, mn, false));
    }
    return out;
}

// ---------------------------------------------------------------------------

// ol_hdr_merge on the stack; lut[0] holds `gamma` on the way in.
Result runMerge(int mode, const Stack& s, std::vector<float> dt, float evStep = -1.0f, int gammaGiven = 0,
                float gamma = 0.0f) {
    Result r;
    r.rgbe.assign(4 * static_cast<std::size_t>(s.width) * s.height, 0xAB);
    r.lut.assign(static_cast<std::size_t>(1) << s.bps, 0.0f);
    r.lut[0] = gamma;
    r.dt = std::move(dt);
    const auto photos = s.bytes();
    r.rc = ol_hdr_merge(mode, s.n, s.width, s.height, s.spp, s.bps, gammaGiven, r.lut.data(), evStep, r.dt.data(),
                        photos.data(), r.stats, r.rgbe.data());
    return r;
}

// The merge against the reference, with the exposures guess_ev gives when
// the step asks for them.
Result expectReference(int mode, const Stack& s, const std::vector<float>& dt, float evStep = -1.0f, int gammaGiven = 0) {
    Result got = runMerge(mode, s, dt, evStep, gammaGiven, 1.8f);
    std::vector<float> dtRef = dt;
    if (evStep > -0.5f) {
        std::vector<int> zeros(s.n, 0);
        guess_ev(0, s.n, evStep, zeros.data(), dtRef.data());
    }
    EXPECT_EQ(got.dt, dtRef);
    const Result want = refMerge(mode, s, gammaGiven == 1 ? 1.8f : 2.2f, dtRef);
    EXPECT_EQ(got.rc, want.rc);
    EXPECT_EQ(got.lut, want.lut);  // left filled for the caller
    EXPECT_EQ(std::memcmp(got.stats, want.stats, sizeof got.stats), 0)
        << "stats " << got.stats[0] << " " << got.stats[1] << " " << got.stats[2] << " want " << want.stats[0]
        << " " << want.stats[1] << " " << want.stats[2];
    const auto diff = std::mismatch(got.rgbe.begin(), got.rgbe.end(), want.rgbe.begin()).first - got.rgbe.begin();
    EXPECT_EQ(diff, static_cast<long>(got.rgbe.size())) << "first differing byte";
    return got;
}

TEST(MergeEncode, FastEncoderMatchesReference) {
    // 1e-32f lies just above the double threshold 1e-32: encoded; the float
    // below it is dark. NaN is dark, infinity burnt, a negative channel 0.
    // Then values over 142 binary orders of magnitude.
    std::vector<std::array<float, 3>> rows = {{0, 0, 0}, {1e-32f, 0, 0}, {std::nextafter(1e-32f, 0.0f), 0, 0},
                                              {NAN, NAN, NAN}, {1e9f, 0, 0}, {INFINITY, 1, 1}, {-3.0f, 0.5f, 0.25f}};
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> expo(-110.0f, 32.0f), frac(0.0f, 1.0f);
    for (int i = 0; i < 200000; ++i) {
        const float m = std::exp2(expo(rng));
        rows.push_back({m * frac(rng) * frac(rng), m * frac(rng), m});
    }
    for (const auto& [r, g, b] : rows) {
        const ol::RgbePixel got = ol::encodeMergePixel(r, g, b), want = refEncode(r, g, b, true);
        ASSERT_EQ(std::memcmp(&got, &want, 4), 0) << r << " " << g << " " << b;
    }
    EXPECT_NE(ol::encodeMergePixel(1e-32f, 0, 0).e, 0);
}

// A scene of smooth radiance with noise, photographed at each exposure with a
// 2.2 gamma and clipped, so that every frame has dark and burnt-out areas.
Stack randomStack(int n, int width, int height, int spp, int bps, const std::vector<float>& dt, std::uint32_t seed) {
    Stack s(n, width, height, spp, bps);
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    const double top = bps == 8 ? 255.0 : 65535.0;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const double base = std::exp(-7.0 + 10.0 * (x + y * 0.7) / (width + height * 0.7));
            const bool black = u(rng) > 0.97;  // some pixels black in every frame
            for (int c = 0; c < spp; ++c) {
                const double radiance = base * (0.3 + 1.4 * u(rng));
                const bool wild = u(rng) < 0.05;  // some samples of pure noise
                for (int k = 0; k < n; ++k) {
                    const double v = black ? 0.0
                                     : wild ? u(rng) * (top + 1)
                                            : top * std::pow(radiance * dt[k], 1.0 / 2.2) + (u(rng) - 0.5) * top / 40;
                    s.at(k, (static_cast<std::size_t>(y) * width + x) * spp + c) = static_cast<unsigned>(std::clamp(v, 0.0, top));
                }
            }
        }
    return s;
}

TEST(HdrMerge, RandomStacksMatchReference) {
    const struct Case {
        int n, spp, bps, mode;
        float evStep;
        int gammaGiven;
    } cases[] = {
        {3, 3, 8, 0, -1.0f, 0},  {3, 3, 8, 2, -1.0f, 0},  {5, 3, 8, 0, 1.0f, 0},  {2, 4, 8, 1, -1.0f, 1},
        {1, 3, 8, 0, -1.0f, 0},  {4, 1, 8, 0, 2.0f, 0},   {3, 3, 16, 0, -1.0f, 0}, {5, 4, 16, 2, -1.0f, 0},
        {2, 1, 16, 0, 0.7f, 1},  {3, 3, 8, 0, 0.0f, 0},   {6, 5, 8, 0, -1.0f, 0},  {3, 2, 16, 0, -2.0f, 0},
        {20, 3, 8, 0, -1.0f, 0},  // many frames take their visit list from the heap
        // gammaGiven other than 1 means 2.2 whatever lut[0] holds; -0.5 is
        // not above -0.5 and keeps the exposures, -0.4 infers them (all 1).
        {3, 3, 8, 0, -0.5f, 2},  {3, 3, 16, 0, -0.4f, 1},
    };
    std::uint32_t seed = 1;
    long burnt = 0, dead = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << "n " << c.n << " spp " << c.spp << " bps " << c.bps << " mode " << c.mode);
        std::vector<float> dt(c.n);
        for (int k = 0; k < c.n; ++k) dt[k] = std::exp2(1.7f * (k - c.n / 2) + 0.1f * (seed % 3));
        const Stack s = randomStack(c.n, 61, 37, c.spp, c.bps, dt, seed++);
        const Result got = expectReference(c.mode, s, dt, c.evStep, c.gammaGiven);
        for (int i = 0; i < 61 * 37 && c.mode == 2; ++i) {
            const std::uint8_t e = got.rgbe[(i / 61) * 4 * 61 + 3 * 61 + i % 61];
            burnt += e == 255;
            dead += e == 0;
        }
    }
    // The stacks reach both markers, so pass 2 is exercised too.
    EXPECT_GT(burnt, 0);
    EXPECT_GT(dead, 0);
    // Uniformly random samples hit every rule at once, ties of exposure included.
    for (int bps : {8, 16}) {
        Stack s(4, 53, 29, 3, bps);
        const auto raw = oltest::randomBytes(s.v.size() * (bps / 8), 99 + bps);
        for (std::size_t i = 0; i < s.v.size(); ++i) s.v[i] = bps == 8 ? raw[i] : raw[2 * i] | raw[2 * i + 1] << 8;
        expectReference(0, s, {0.5f, 2.0f, 0.5f, 8.0f});
    }
}

// The rules at their boundaries, as rows of one-channel frames (8-bit: ival
// is 256 times the level; 16-bit: the high byte counts and the lut takes the
// whole word), each compared byte for byte with the reference. `want` is what
// mode 2 leaves at each pixel: 'B' burnt out, 'D' dead dark, '.' merged.
TEST(HdrMerge, RulesAtTheirBoundariesAsRows) {
    struct Row {
        const char* what;
        std::vector<std::vector<unsigned>> pixels;  // per pixel, the level of each frame
        std::vector<float> dt;
        const char* want;
        int bps = 8;
        float evStep = -1.0f;
    };
    const Row rows[] = {
        // Exposures 1, 2, 4. The middle frame at 9 (below 10) throws away the
        // shortest frame, at 10 it keeps it; the longest frame at 5 and 7
        // keeps the others (its band is 5), at 4 it resets them.
        {"dark bands", {{100, 9, 200}, {100, 10, 200}, {60, 120, 7}, {60, 120, 5}, {60, 120, 4}}, {1.0f, 2.0f, 4.0f}, "....."},
        // Burnt out in both frames; black in the short frame and burnt out in
        // the long one (sum of weights 0: dark, not burnt); two ordinary ones.
        {"markers", {{255, 255}, {0, 255}, {40, 120}, {90, 200}}, {1.0f, 4.0f}, "BD.."},
        {"all black", {{0, 0, 0}, {0, 0, 0}}, {0.25f, 1.0f, 4.0f}, "DD"},
        {"all white", {{255, 255, 255}, {255, 255, 255}}, {0.25f, 1.0f, 4.0f}, "BB"},
        // One frame: 7 (1792) lies in the last frame's band of 5 and is kept;
        // 250 (64000) is not above 64000; 251 is.
        {"one frame", {{7}, {250}, {251}}, {2.0f}, "..B"},
        // Equal exposures all keep 64000, so only frame 0 (251) is saturated;
        // spread exposures lower the longer two frames' levels: all three are.
        {"equal exposures", {{251, 250, 250}}, {1.0f, 1.0f, 1.0f}, "."},
        {"spread exposures", {{251, 250, 250}}, {1.0f, 2.0f, 4.0f}, "B"},
        // Exposures 4, 2, 1, 0.5 from a step: frame 2 has x = 1/3 and level
        // 62720 in float (62719 in double), so its 245 grey is not saturated
        // and is the only frame the pixel keeps.
        {"regular bracket", {{255, 255, 245, 255}}, {0, 0, 0, 0}, ".", 8, 1.0f},
        // Pixels 0 and 1 differ only in the low byte of the long frame: same
        // weights, different lut entries. The middle frame at 0x09FF (high
        // byte 9) resets the sums, at 0x0A00 it does not.
        {"16-bit", {{0x3000, 0x8000}, {0x3000, 0x80FF}, {0x5000, 0x5000}}, {1.0f, 4.0f}, "...", 16},
        {"16-bit dark band", {{0x6000, 0x09FF, 0x2000}, {0x6000, 0x0A00, 0x2000}}, {1.0f, 2.0f, 4.0f}, "..", 16},
        // Whatever the exposures, the shortest frame has level 64000 and the
        // longest 60160 (log2 of each exposure is rounded to float as minT
        // and maxT are, so x is exactly 0 and 1 at the ends): pixel 0 at 250
        // in the shortest frame, pixel 1 at 235 in the longest.
        {"shortest and longest", {{250, 255}, {255, 235}}, {1.0f, 3.0f}, ".."},
        {"shortest and longest", {{250, 255}, {255, 235}}, {0.3f, 1.0f}, ".."},
        {"shortest and longest", {{255, 250}, {235, 255}}, {10.0f, 0.01f}, ".."},
        {"shortest and longest", {{255, 255, 250}, {235, 255, 255}}, {3.0f, 0.3f, 0.0322580636f}, ".."},
        {"shortest and longest", {{255, 250, 255, 255}, {255, 255, 235, 255}}, {5.0f, 0.7f, 6.0f, 3.0f}, ".."},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(::testing::Message() << row.what << ", first exposure " << row.dt[0]);
        const int n = static_cast<int>(row.dt.size()), w = static_cast<int>(row.pixels.size());
        Stack s(n, w, 1, 1, row.bps);
        for (int x = 0; x < w; ++x)
            for (int k = 0; k < n; ++k) s.at(k, x) = row.pixels[x][k];
        const Result marked = runMerge(2, s, row.dt, row.evStep);
        for (int x = 0; x < w; ++x) {
            EXPECT_EQ(marked.rgbe[3 * w + x] == 255, row.want[x] == 'B') << "pixel " << x;
            EXPECT_EQ(marked.rgbe[3 * w + x] == 0, row.want[x] == 'D') << "pixel " << x;
        }
        for (int mode : {2, 0}) expectReference(mode, s, row.dt, row.evStep);
    }
}

TEST(HdrMerge, NothingToDoAndFailedAllocation) {
    Stack s(3, 8, 4, 3, 8);
    const auto photos = oltest::randomBytes(s.v.size(), 3);
    std::vector<float> dt = {1.0f, 2.0f, 4.0f}, lut(256);
    float stats[3] = {-1, -1, -1};
    std::vector<std::uint8_t> out(4 * 8 * 4, 0xAB);
    auto merge = [&](int n, int h, int bps) {
        return ol_hdr_merge(0, n, 8, h, 3, bps, 0, lut.data(), -1, dt.data(), photos.data(), stats, out.data());
    };
    // No rows, no frames, an unknown depth.
    EXPECT_EQ(merge(3, 0, 8), 0);
    EXPECT_EQ(merge(0, 4, 8), 0);
    EXPECT_EQ(merge(3, 4, 12), 0);
    // Every allocation that fails gives -4 with nothing written.
    const long allocations = oltest::countAllocations([&] { merge(3, 4, 8); });
    ASSERT_GE(allocations, 2);
    std::fill(out.begin(), out.end(), 0xAB);
    stats[0] = -1;
    for (long n = 1; n <= allocations; ++n) {
        oltest::FailAllocation fail(n);
        EXPECT_EQ(merge(3, 4, 8), -4) << n;
        EXPECT_TRUE(std::all_of(out.begin(), out.end(), [](std::uint8_t b) { return b == 0xAB; }));
        EXPECT_EQ(stats[0], -1.0f);
    }
}

}  // namespace
