// The weighted exposure merge: its rules on hand-made pixels, and byte-exact
// agreement with a direct reading of the algorithm on random stacks.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <numeric>
#include <tuple>
#include <random>
#include <vector>

#include "frame/rgbe.hpp"
#include "merge/merge_encode.hpp"
#include "support/testsupport.hpp"

namespace {

// ---------------------------------------------------------------------------
// Reference: the algorithm written out per pixel, with no tables besides the
// lut, frexp and a double division for the encoding, and a sort for the order.

struct Stack {
    int n = 0, width = 0, height = 0, spp = 0, bps = 8;
    std::vector<std::uint8_t> bytes;  // the photo block
    std::size_t frameSamples() const { return static_cast<std::size_t>(width) * height * spp; }
    unsigned sample(int k, std::size_t i) const {
        const std::size_t at = k * frameSamples() + i;
        if (bps == 8) return bytes[at];
        return bytes[2 * at] | (bytes[2 * at + 1] << 8);
    }
    void set(int k, std::size_t i, unsigned v) {
        const std::size_t at = k * frameSamples() + i;
        if (bps == 8) {
            bytes[at] = static_cast<std::uint8_t>(v);
        } else {
            bytes[2 * at] = static_cast<std::uint8_t>(v & 0xFF);
            bytes[2 * at + 1] = static_cast<std::uint8_t>(v >> 8);
        }
    }
};

Stack makeStack(int n, int width, int height, int spp, int bps) {
    Stack s;
    s.n = n;
    s.width = width;
    s.height = height;
    s.spp = spp;
    s.bps = bps;
    s.bytes.assign(s.frameSamples() * n * (bps / 8), 0);
    return s;
}

struct Result {
    std::vector<std::uint8_t> rgbe;
    float stats[3] = {0, 0, 0};
    int rc = 0;
    std::vector<float> dt, lut;  // the exposures and the lut after the call
};

ol::RgbePixel refEncode(float r, float g, float b, bool guard) {
    const float m = std::max(r, std::max(g, b));
    if (guard && !(m > 1e-32f)) return {0, 0, 0, 0};
    if (guard && m >= 1e9f) return {255, 255, 255, 255};
    int e = 0;
    const float f = std::frexp(m, &e);
    const float s = static_cast<float>(static_cast<double>(f) * 256.0 / static_cast<double>(m));
    auto byte = [](float v) -> std::uint8_t {
        if (std::isnan(v)) return 0;  // integer indefinite is negative
        const double t = std::trunc(static_cast<double>(v));
        return static_cast<std::uint8_t>(std::clamp(t, 0.0, 255.0));
    };
    return {byte(r * s), byte(g * s), byte(b * s),
            static_cast<std::uint8_t>(std::clamp(e + 128, 0, 255))};
}

float refWeight(int i, int sat) {
    if (i > sat) return 0.0f;
    const float q = static_cast<float>(sat) / 65535.0f;
    const float d = static_cast<float>(0.5 - q);
    const float beta = static_cast<float>(1.0 / (d * d));
    const float a = i <= 32768 ? 4.0f : beta;
    const float t = i / 65536.0f;
    const float v = 1.0f - a * ((t - 0.5f) * (t - 0.5f));
    return v * v;
}

Result refMerge(int mode, const Stack& s, float gamma, const std::vector<float>& dt) {
    Result out;
    const int n = s.n;
    const int levels = 1 << s.bps;
    std::vector<float> lut(levels);
    for (int i = 1; i < levels; ++i)
        lut[i] = static_cast<float>(std::pow(static_cast<double>(static_cast<float>(i) / levels),
                                             static_cast<double>(gamma)));
    lut[0] = lut[1];

    std::vector<int> order(n);
    std::iota(order.begin(), order.end(), 0);
    std::sort(order.begin(), order.end(), [&](int a, int b) {
        return dt[a] != dt[b] ? dt[a] < dt[b] : a > b;
    });
    auto log2d = [](float v) { return std::log(static_cast<double>(v)) / std::log(2.0); };
    const float minT = static_cast<float>(log2d(dt[order[0]]));
    const float maxT = static_cast<float>(log2d(dt[order[n - 1]]));
    std::vector<int> sat(n, 64000);
    std::vector<float> inv(n);
    for (int k = 0; k < n; ++k) {
        inv[k] = 1.0f / dt[k];
        if (maxT > minT) {
            const float curT = static_cast<float>(log2d(dt[k]));
            const float x = (curT - minT) / (maxT - minT);
            sat[k] = static_cast<int>(64000.0f - 3840.0f * x);
        }
    }
    const int first = 0, middle = (s.spp - 1) / 2, last = s.spp - 1;
    const int shift = s.bps == 16 ? 8 : 0;
    const std::size_t npix = static_cast<std::size_t>(s.width) * s.height;
    std::vector<float> R(npix), G(npix), B(npix);
    float mn = 1e9f, mx = 0.0f;
    double sum = 0.0;
    long long count = 0;
    out.rgbe.assign(4 * npix, 0);
    for (std::size_t p = 0; p < npix; ++p) {
        float sw = 0, sr = 0, sg = 0, sb = 0;
        int nSat = 0;
        for (int j = 0; j < n; ++j) {
            const int k = order[j];
            const unsigned a = s.sample(k, p * s.spp + first);
            const unsigned b = s.sample(k, p * s.spp + middle);
            const unsigned c = s.sample(k, p * s.spp + last);
            const int ival = 54 * (a >> shift) + 183 * (b >> shift) + 19 * (c >> shift);
            if (ival > sat[k]) nSat++;
            const bool lastFrame = j == n - 1;
            if ((!lastFrame && ival < 2560) || (lastFrame && ival < 1280)) sw = sr = sg = sb = 0;
            const float w = refWeight(ival, sat[k]);
            sw += w;
            const float wt = w * inv[k];
            sr += wt * lut[a];
            sg += wt * lut[b];
            sb += wt * lut[c];
        }
        float r = 0, g = 0, b = 0;
        if (nSat == n) r = g = b = 1e9f;
        else if (sw > 0) { r = sr / sw; g = sg / sw; b = sb / sw; }
        const float lum = static_cast<float>(0.2 * r + 0.7 * g + 0.1 * b);
        if (lum < 1e9f) {
            mx = std::max(mx, lum);
            sum += lum;
            count++;
        }
        if (lum > 0 && lum < mn) mn = lum;
        const ol::RgbePixel px = refEncode(r, g, b, true);
        const std::size_t y = p / s.width, x = p % s.width;
        std::uint8_t* row = out.rgbe.data() + 4 * y * s.width;
        row[x] = px.r;
        row[s.width + x] = px.g;
        row[2 * s.width + x] = px.b;
        row[3 * s.width + x] = px.e;
    }
    const float mean = count > 0 ? static_cast<float>(sum / count) : 0.0f;
    out.stats[0] = 256 * mn;
    out.stats[1] = 256 * mx;
    out.stats[2] = 256 * mean;
    out.rc = s.height;
    if (mode == 2) return out;
    const ol::RgbePixel hi = refEncode(mx, mx, mx, false), lo = refEncode(mn, mn, mn, false);
    for (std::size_t y = 0; y < static_cast<std::size_t>(s.height); ++y)
        for (int x = 0; x < s.width; ++x) {
            std::uint8_t* row = out.rgbe.data() + 4 * y * s.width;
            const std::uint8_t e = row[3 * s.width + x];
            if (e != 0 && e != 255) continue;
            const ol::RgbePixel px = e == 255 ? hi : lo;
            row[x] = px.r;
            row[s.width + x] = px.g;
            row[2 * s.width + x] = px.b;
            row[3 * s.width + x] = px.e;
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
    r.rc = ol_hdr_merge(mode, s.n, s.width, s.height, s.spp, s.bps, gammaGiven, r.lut.data(), evStep,
                        r.dt.data(), s.bytes.data(), r.stats, r.rgbe.data());
    return r;
}

ol::RgbePixel pixelAt(const Result& r, int width, int x, int y) {
    const std::uint8_t* row = r.rgbe.data() + 4 * static_cast<std::size_t>(y) * width;
    return {row[x], row[width + x], row[2 * width + x], row[3 * width + x]};
}

bool samePixel(ol::RgbePixel a, ol::RgbePixel b) {
    return a.r == b.r && a.g == b.g && a.b == b.b && a.e == b.e;
}

void expectSameResult(const Result& got, const Result& want, const char* what) {
    ASSERT_EQ(got.rc, want.rc) << what;
    EXPECT_EQ(std::memcmp(got.stats, want.stats, sizeof got.stats), 0)
        << what << ": stats " << got.stats[0] << " " << got.stats[1] << " " << got.stats[2]
        << " want " << want.stats[0] << " " << want.stats[1] << " " << want.stats[2];
    ASSERT_EQ(got.rgbe.size(), want.rgbe.size());
    std::size_t diff = 0;
    while (diff < got.rgbe.size() && got.rgbe[diff] == want.rgbe[diff]) ++diff;
    EXPECT_EQ(diff, got.rgbe.size()) << what << ": first differing byte";
}

// A scene of smooth radiance with noise, photographed at each exposure with a
// 2.2 gamma and clipped, so that every frame has dark and burnt-out areas.
Stack randomStack(int n, int width, int height, int spp, int bps, const std::vector<float>& dt,
                  std::uint32_t seed) {
    Stack s = makeStack(n, width, height, spp, bps);
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
                    double v = black ? 0.0
                             : wild  ? u(rng) * (top + 1)
                                    : top * std::pow(radiance * dt[k], 1.0 / 2.2) + (u(rng) - 0.5) * top / 40;
                    v = std::clamp(v, 0.0, top);
                    s.set(k, (static_cast<std::size_t>(y) * width + x) * spp + c, static_cast<unsigned>(v));
                }
            }
        }
    return s;
}

TEST(MergeEncode, FastEncoderMatchesGeneralEncoder) {
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> expo(-110.0f, 32.0f), frac(0.0f, 1.0f);
    for (int i = 0; i < 200000; ++i) {
        const float m = std::exp2(expo(rng));
        const float r = m * frac(rng), g = m, b = m * frac(rng) * frac(rng);
        const ol::RgbePixel want = m >= 1e9f ? ol::kRgbeBurnt
                                             : ol::encodeRgbe(r, g, b, ol::RgbeForm::Clamped);
        ASSERT_TRUE(samePixel(ol::encodeMergePixel(r, g, b), want)) << r << " " << g << " " << b;
        ASSERT_TRUE(samePixel(ol::encodeMergePixel(b, r, g), refEncode(b, r, g, true)));
    }
    EXPECT_TRUE(samePixel(ol::encodeMergePixel(0, 0, 0), ol::kRgbeDark));
    EXPECT_TRUE(samePixel(ol::encodeMergePixel(NAN, NAN, NAN), ol::kRgbeDark));
    EXPECT_TRUE(samePixel(ol::encodeMergePixel(1e9f, 0, 0), ol::kRgbeBurnt));
    EXPECT_TRUE(samePixel(ol::encodeMergePixel(INFINITY, 1, 1), ol::kRgbeBurnt));
    const ol::RgbePixel neg = ol::encodeMergePixel(-3.0f, 0.5f, 0.25f);
    EXPECT_TRUE(samePixel(neg, ol::encodeRgbe(-3.0f, 0.5f, 0.25f, ol::RgbeForm::Clamped)));
    EXPECT_EQ(neg.r, 0);
}

TEST(HdrMerge, RandomStacksMatchReference) {
    struct Case {
        int n, spp, bps, mode;
        float evStep;
        int gammaGiven;
    };
    const Case cases[] = {
        {3, 3, 8, 0, -1.0f, 0},  {3, 3, 8, 2, -1.0f, 0},  {5, 3, 8, 0, 1.0f, 0},
        {2, 4, 8, 1, -1.0f, 1},  {1, 3, 8, 0, -1.0f, 0},  {4, 1, 8, 0, 2.0f, 0},
        {3, 3, 16, 0, -1.0f, 0}, {5, 4, 16, 2, -1.0f, 0}, {2, 1, 16, 0, 0.7f, 1},
        {3, 3, 8, 0, 0.0f, 0},   {6, 5, 8, 0, -1.0f, 0},  {3, 2, 16, 0, -2.0f, 0},
    };
    std::uint32_t seed = 1;
    long burnt = 0, dead = 0;
    for (const Case& c : cases) {
        const int width = 61, height = 37;
        std::vector<float> dt(c.n);
        for (int k = 0; k < c.n; ++k) dt[k] = std::exp2(1.7f * (k - c.n / 2) + 0.1f * (seed % 3));
        const Stack s = randomStack(c.n, width, height, c.spp, c.bps, dt, seed++);
        const float gamma = c.gammaGiven ? 1.8f : 2.2f;
        Result got = runMerge(c.mode, s, dt, c.evStep, c.gammaGiven, 1.8f);
        std::vector<float> dtRef = dt;
        if (c.evStep > -0.5f) {
            int zeros[8] = {};
            guess_ev(0, c.n, c.evStep, zeros, dtRef.data());
        }
        EXPECT_EQ(got.dt, dtRef);
        const Result want = refMerge(c.mode, s, gamma, dtRef);
        if (c.mode == 2)
            for (int i = 0; i < width * height; ++i) {
                const std::uint8_t e = got.rgbe[(i / width) * 4 * width + 3 * width + i % width];
                burnt += e == 255;
                dead += e == 0;
            }
        expectSameResult(got, want, ("n=" + std::to_string(c.n) + " spp=" + std::to_string(c.spp) +
                                     " bps=" + std::to_string(c.bps) + " mode=" +
                                     std::to_string(c.mode)).c_str());
    }
    // The stacks reach both markers, so pass 2 is exercised too.
    EXPECT_GT(burnt, 0);
    EXPECT_GT(dead, 0);
}

TEST(HdrMerge, RandomBytesMatchReference) {
    // Uniformly random samples hit every rule at once, ties of exposure included.
    for (int bps : {8, 16}) {
        Stack s = makeStack(4, 53, 29, 3, bps);
        s.bytes = oltest::randomBytes(s.bytes.size(), 99 + bps);
        const std::vector<float> dt = {0.5f, 2.0f, 0.5f, 8.0f};
        expectSameResult(runMerge(0, s, dt), refMerge(0, s, 2.2f, dt), "random bytes");
    }
}

// The rules at their boundaries, as rows of one-channel frames (8-bit: ival
// is 256 times the level; 16-bit: the high byte counts and the lut takes the
// whole word), each compared byte for byte with the reference. `want` is what
// mode 2 leaves at each pixel: 'B' burnt out, 'D' dead dark, '.' merged.
TEST(HdrMerge, RulesAtTheirBoundariesAsRows) {
    struct Row {
        const char* what;
        std::vector<std::vector<int>> pixels;  // per pixel, the level of each frame
        std::vector<float> dt;
        const char* want;
        int bps = 8;
        float evStep = -1.0f;
    };
    std::vector<Row> rows = {
        // Exposures 1, 2, 4. The middle frame at 9 (below 10) throws away the
        // shortest frame, at 10 it keeps it; the longest frame at 7 keeps the
        // others (its band is 5), at 4 it resets them.
        {"dark bands", {{100, 9, 200}, {100, 10, 200}, {60, 120, 7}, {60, 120, 4}}, {1.0f, 2.0f, 4.0f}, "...."},
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
    };
    // Whatever the exposures, the shortest frame has level 64000 and the
    // longest 60160 (log2 of each exposure is rounded to float as minT and
    // maxT are, so x is exactly 0 and 1 at the ends): pixel 0 at 250 in the
    // shortest frame, pixel 1 at 235 in the longest, every other sample 255.
    for (const std::vector<float>& dt : std::vector<std::vector<float>>{
             {1.0f, 3.0f}, {0.3f, 1.0f}, {10.0f, 0.01f}, {3.0f, 0.3f, 0.0322580636f}, {5.0f, 0.7f, 6.0f, 3.0f}}) {
        const auto shortest = std::min_element(dt.begin(), dt.end()) - dt.begin();
        const auto longest = std::max_element(dt.begin(), dt.end()) - dt.begin();
        Row r{"shortest and longest", {{}, {}}, dt, ".."};
        for (int k = 0; k < static_cast<int>(dt.size()); ++k) {
            r.pixels[0].push_back(k == shortest ? 250 : 255);
            r.pixels[1].push_back(k == longest ? 235 : 255);
        }
        rows.push_back(r);
    }
    for (const Row& row : rows) {
        SCOPED_TRACE(::testing::Message() << row.what << ", first exposure " << row.dt[0]);
        const int n = static_cast<int>(row.dt.size()), w = static_cast<int>(row.pixels.size());
        Stack s = makeStack(n, w, 1, 1, row.bps);
        for (int x = 0; x < w; ++x)
            for (int k = 0; k < n; ++k) s.set(k, x, row.pixels[x][k]);
        std::vector<float> dt = row.dt;
        if (row.evStep > -0.5f) {
            std::vector<int> zeros(n, 0);
            guess_ev(0, n, row.evStep, zeros.data(), dt.data());
        }
        const Result marked = runMerge(2, s, row.dt, row.evStep);
        for (int x = 0; x < w; ++x) {
            EXPECT_EQ(pixelAt(marked, w, x, 0).e == 255, row.want[x] == 'B') << "pixel " << x;
            EXPECT_EQ(pixelAt(marked, w, x, 0).e == 0, row.want[x] == 'D') << "pixel " << x;
        }
        expectSameResult(marked, refMerge(2, s, 2.2f, dt), row.what);
        expectSameResult(runMerge(0, s, row.dt, row.evStep), refMerge(0, s, 2.2f, dt), row.what);
    }
}

TEST(HdrMerge, LutGammaAndExposureArguments) {
    Stack p = makeStack(3, 2, 1, 1, 8);
    for (int k = 0; k < 3; ++k) {
        p.set(k, 0, 60 + 50 * k);
        p.set(k, 1, 30 + 40 * k);
    }
    const std::vector<float> sevens = {7.0f, 7.0f, 7.0f};
    // gammaGiven 1 takes the gamma from lut[0]; top level is 255/256.
    Result r = runMerge(0, p, sevens, -1.0f, 1, 1.0f);
    EXPECT_EQ(r.lut[255], 255.0f / 256.0f);
    EXPECT_EQ(r.lut[128], 0.5f);
    EXPECT_EQ(r.lut[0], r.lut[1]);
    EXPECT_EQ(r.lut[1], 1.0f / 256.0f);
    EXPECT_EQ(r.dt, sevens);  // -1: kept
    // Any other value of gammaGiven means 2.2, whatever lut[0] holds.
    r = runMerge(0, p, sevens, -0.5f, 2, 1.0f);
    EXPECT_EQ(r.lut[128], static_cast<float>(std::pow(0.5, static_cast<double>(2.2f))));
    EXPECT_EQ(r.dt, sevens);  // -0.5 is not above -0.5

    // Above -0.5 the exposures are computed here: a step, or all 1 from
    // inference on zero means.
    EXPECT_EQ(runMerge(0, p, sevens, 1.0f).dt, (std::vector<float>{2.0f, 1.0f, 0.5f}));
    EXPECT_EQ(runMerge(0, p, sevens, -0.4f).dt, (std::vector<float>{1.0f, 1.0f, 1.0f}));
}

TEST(HdrMerge, NothingToDoAndFailedAllocation) {
    Stack s = makeStack(3, 8, 4, 3, 8);
    s.bytes = oltest::randomBytes(s.bytes.size(), 3);
    std::vector<float> dt = {1.0f, 2.0f, 4.0f};
    float stats[3] = {-1, -1, -1};
    std::vector<std::uint8_t> out(4 * 8 * 4, 0xAB);
    std::vector<float> lut(256);
    // No rows, no frames, an unknown depth.
    for (auto [n, h, bps] : {std::tuple{3, 0, 8}, std::tuple{0, 4, 8}, std::tuple{3, 4, 12}})
        EXPECT_EQ(ol_hdr_merge(0, n, 8, h, 3, bps, 0, lut.data(), -1, dt.data(), s.bytes.data(), stats, out.data()), 0);

    const long allocations = oltest::countAllocations([&] {
        ol_hdr_merge(0, 3, 8, 4, 3, 8, 0, lut.data(), -1, dt.data(), s.bytes.data(), stats, out.data());
    });
    ASSERT_GE(allocations, 2);
    std::fill(out.begin(), out.end(), 0xAB);
    stats[0] = stats[1] = stats[2] = -1;
    for (long n = 1; n <= allocations; ++n) {
        oltest::FailAllocation fail(n);
        EXPECT_EQ(ol_hdr_merge(0, 3, 8, 4, 3, 8, 0, lut.data(), -1, dt.data(), s.bytes.data(), stats,
                               out.data()),
                  -4)
            << n;
        EXPECT_TRUE(std::all_of(out.begin(), out.end(), [](std::uint8_t b) { return b == 0xAB; }));
        EXPECT_EQ(stats[0], -1.0f);
    }
    // Many frames take their visit list from the heap too.
    Stack big = makeStack(20, 4, 2, 3, 8);
    big.bytes = oltest::randomBytes(big.bytes.size(), 4);
    std::vector<float> dt20(20);
    for (int k = 0; k < 20; ++k) dt20[k] = std::exp2(0.5f * k);
    expectSameResult(runMerge(0, big, dt20), refMerge(0, big, 2.2f, dt20), "20 frames");
}

}  // namespace
