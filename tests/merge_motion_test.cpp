// The two merges that resist movement, calc_hdr and hdr_unghost: byte-exact
// agreement with a direct per-pixel reading of their rules on random stacks,
// and the cases that matter by hand.
#include <algorithm>
#include <array>
#include <cmath>
#include <numeric>
#include <random>

#include "frame/rgbe.hpp"
#include "support/testsupport.hpp"

namespace {

// A photo block: samples of frame k at k*w*h*spp, 16-bit ones little-endian.
struct Stack {
    int n, w, h, spp, bps;
    std::vector<std::uint8_t> bytes;
    std::size_t px() const { return static_cast<std::size_t>(w) * h; }
    std::size_t at(int k, std::size_t i) const { return (k * px() * spp + i) * (bps / 8); }
    unsigned get(int k, std::size_t i) const { return bps == 16 ? bytes[at(k, i)] | bytes[at(k, i) + 1] << 8 : bytes[at(k, i)]; }
    void set(int k, std::size_t i, unsigned v) {
        for (int b = 0; b < bps / 8; ++b) bytes[at(k, i) + b] = static_cast<std::uint8_t>(v >> 8 * b);
    }
};

struct Out {  // result, output buffer, stats, exposures and lut after the call
    int rc; std::vector<std::uint8_t> rgbe; std::array<float, 3> stats; std::vector<float> dt, lut;
    bool operator==(const Out&) const = default;
};
// mode, variant (-1 for calc_hdr), coherence byte, curve mode, gamma in lut[0], midValue.
struct Args { int mode, variant, coherence, curveMode; float gamma, mid; };

// The output buffer on entry: the coherence byte, then bytes that hold both
// markers in the exponent plane, for pass 2 to find where no pixel is written.
std::vector<std::uint8_t> initial(std::size_t size, int coherence) {
    std::vector<std::uint8_t> v(std::max<std::size_t>(size, 1));
    for (std::size_t i = 0; i < v.size(); ++i) v[i] = static_cast<std::uint8_t>(i ? i * 7 : coherence);
    return v;
}

Out run(const Stack& s, const Args& a, std::vector<float> dt) {
    Out o{0, initial(4 * s.px(), a.coherence), {-1, -1, -1}, std::move(dt), std::vector<float>(s.bps == 16 ? 65536 : 256)};
    o.lut[0] = a.gamma;
    o.rc = a.variant < 0 ? calc_hdr(a.mode, s.n, s.w, s.h, s.spp, s.bps, a.curveMode, o.lut.data(), a.mid,
                                    o.dt.data(), s.bytes.data(), o.stats.data(), o.rgbe.data())
                         : hdr_unghost(a.mode, a.variant, s.n, s.w, s.h, s.spp, s.bps, a.curveMode, o.lut.data(),
                                       a.mid, o.dt.data(), s.bytes.data(), o.stats.data(), o.rgbe.data());
    return o;
}

// ---------------------------------------------------------------------------
// Reference: the rules written out per pixel, no tables but the lut.

float log2f_(float v) { return static_cast<float>(std::log(static_cast<double>(v)) / std::log(2.0)); }
float curve(int i, float a, int lower) {  // (1 - a*(t-0.5)^2)^2
    const float t = i / 65536.0f, v = 1.0f - (i <= lower ? 4.0f : a) * ((t - 0.5f) * (t - 0.5f));
    return v * v;
}
float slopeAt(int i) {
    static const int L[] = {0, 10240, 15360, 20480, 23040, 25600, 28160, 46080, 51200, 65280};
    static const float V[] = {0.4f, 0.5f, 0.75f, 1.0f, 1.1f, 1.25f, 1.333f, 0.1f, 0.0f, 0.0f};
    int j = 0;
    while (j < 9 && i >= L[j + 1]) ++j;
    if (j == 9) return 0.0f;
    const float a = (V[j + 1] - V[j]) / static_cast<float>(L[j + 1] - L[j]), b = V[j] - L[j] * a;
    return static_cast<float>(i) * a + b;
}
// The wrapped RGBE form (frame/rgbe.hpp, checked by the frame tests); guard: four zeros at or below 1e-32.
std::array<std::uint8_t, 4> encode(float a, float b, float c, bool guard) {
    const auto p = ol::encodeRgbe(a, b, c, ol::RgbeForm::Wrapped, guard ? ol::ZeroGuard::On : ol::ZeroGuard::Off);
    return {p.r, p.g, p.b, p.e};
}

Out reference(const Stack& s, const Args& a, std::vector<float> dt) {
    Out o{s.h, initial(4 * s.px(), a.coherence), {-1, -1, -1}, {}, {}};
    const int n = s.n, size = s.bps == 16 ? 65536 : 256;
    const float g = a.curveMode == 1 ? a.gamma : a.curveMode == 2 ? 0.45f : 2.2f;
    for (int i = 0; i < size; ++i)  // entry 0 repeats entry 1
        o.lut.push_back(static_cast<float>(std::pow(static_cast<float>(std::max(i, 1)) / size, static_cast<double>(g)) *
                                           (a.curveMode == 2 ? 65535.0 : 1.0)));
    float tmid = 1;
    for (int k = n - 1; k >= 0; --k)  // the first frame with n/2 smaller exposures
        if (std::count_if(dt.begin(), dt.end(), [&](float v) { return v < dt[k]; }) == n / 2) tmid = dt[k];
    if (tmid > 0) for (float& v : dt) v *= 2 * a.mid / tmid;
    std::vector<int> ord(n);
    std::iota(ord.begin(), ord.end(), 0);
    std::stable_sort(ord.begin(), ord.end(), [&](int x, int y) { return dt[x] != dt[y] ? dt[x] < dt[y] : x > y; });
    for (float& v : dt) v = v != 0 ? 1 / v : 0;
    std::vector<int> sat(n, 64000);
    std::vector<float> dEV(n, 1.0f);
    const float top = log2f_(dt[ord[0]]), bottom = log2f_(dt[ord[n - 1]]);
    for (int k = 0; k < n; ++k) {
        if (top > bottom) sat[k] = static_cast<int>(60160.0f + 3840.0f * (log2f_(dt[k]) - bottom) / (top - bottom));
        const float d = k ? log2f_(dt[ord[k - 1]]) - log2f_(dt[ord[k]]) : 1 / 8192.0f;  // stops from the rank before
        dEV[k] = (d < 0.0001 ? 0.3f : d) * 8192;
    }
    const int mi = s.spp > 1 ? 1 : 0, la = s.spp > 1 ? 2 : 0, sh = s.bps == 16 ? 8 : 0;
    const float thr = a.variant < 0 ? (a.coherence == 2 ? 0.8f : 1.0f) : a.variant == 2 ? 0.18f : 0.15f;
    float mn = 1e11f, mx = 0, ref[3] = {0, 0, 0};
    double sum = 0, count = 0;
    for (std::size_t p = 0; p < s.px() && (s.bps == 8 || s.bps == 16); ++p) {
        float W = 0, C[3] = {0, 0, 0}, err = 0, Y = 0, YY = 0, CC[3] = {0, 0, 0}, out[3] = {0, 0, 0};
        int nSat = 0, prev = 0, black = 0;
        auto smp = [&](int k, int c) { return s.get(k, p * s.spp + (c == 0 ? 0 : c == 1 ? mi : la)); };
        for (int j = 0; j < n; ++j) {
            const int k = ord[j];
            const int iv = 54 * (smp(k, 0) >> sh) + 183 * (smp(k, 1) >> sh) + 19 * (smp(k, 2) >> sh);
            if (a.variant < 0) {  // consistency-checked
                if (iv > sat[k]) nSat++;
                else if (iv < 1280) W = C[0] = C[1] = C[2] = 0;
                if (a.coherence && j > 0) {
                    const int m = (iv + prev) >> 1;
                    const float e = slopeAt(std::max(m, 1)) - static_cast<float>(iv - prev) / dEV[j];
                    err += e * e * curve(m, 4, 65535);
                }
                prev = iv;
                const float w = curve(iv, 1 / ((0.5f - sat[k] / 65535.0f) * (0.5f - sat[k] / 65535.0f)), 32769);
                W += iv > sat[k] ? 0 : w;
                for (int c = 0; c < 3; ++c) C[c] += (iv > sat[k] ? 0 : w) * dt[k] * o.lut[smp(k, c)];
                continue;
            }
            if (iv > 64000 && (j == 0 || iv - prev < 52000)) {
                if (j == 0) W = 1, C[0] = C[1] = C[2] = Y = 1e9f;
                break;
            }
            if (iv <= 64000 && iv < 1280) {
                W = C[0] = C[1] = C[2] = Y = 0;
                if ((black = j == n - 1)) break;
            }
            const float w = curve(iv, 4, 65535), y = dt[k] * o.lut[s.bps == 16 ? iv : iv >> 8];
            W += w, Y += w * y, YY += w * y * y;
            for (int c = 0; c < 3; ++c) {
                const float L = o.lut[smp(k, c)], v = L * dt[k];
                C[c] += L * w * dt[k];
                CC[c] += w * v * v;
                if (j == n / 2) ref[c] = v;
            }
            prev = iv;
        }
        if (a.variant < 0 && nSat == n) W = 1, C[0] = C[1] = C[2] = 1e9f;
        if (a.variant < 0 && W > 0 && a.coherence && err / n > thr) {
            W = static_cast<float>(n), C[0] = C[1] = C[2] = 0;
            for (int k = 0; k < n; ++k)
                for (int c = 0; c < 3; ++c) C[c] += dt[k] * o.lut[smp(k, c)];
        }
        if (!black && W > 0) {
            float d = 0;
            for (int c = 0; c < 3; ++c) d += C[c] > 0.0001f ? CC[c] * W / (C[c] * C[c]) - 1 : 0;
            if (a.variant == 2) d = Y > 0.0001f ? YY * W / (Y * Y) - 1 : 0;
            const float bl = a.variant < 0 ? 0 : std::clamp(d / thr, 0.0f, 1.0f);
            for (int c = 0; c < 3; ++c) out[c] = C[c] / W * (1 - bl) + ref[c] * bl;
        }
        const float lum = static_cast<float>(0.3 * out[0] + 0.6 * out[1] + 0.1 * out[2]);
        if (lum < 1e9f) mx = std::max(mx, lum), sum += lum, count++;
        if (lum > 0 && lum < mn) mn = lum;
        auto px = encode(out[0], out[1], out[2], true);
        if (std::max(out[0], std::max(out[1], out[2])) > 1e-32f && lum >= 1e9f) px = {255, 255, 255, 255};
        if (a.mode == 0) std::swap(px[0], px[2]);
        for (int q = 0; q < 4; ++q) o.rgbe[(p / s.w) * 4 * s.w + q * s.w + p % s.w] = px[q];
    }
    o.stats[0] = 256 * mn, o.stats[1] = 256 * mx;
    if (count) o.stats[2] = 256 * static_cast<float>(sum / count);
    for (std::size_t p = 0; p < s.px() && (a.mode != 2 || a.variant >= 0); ++p) {
        std::uint8_t* e = &o.rgbe[(p / s.w) * 4 * s.w + 3 * s.w + p % s.w];
        const auto px = encode(*e ? mx : mn, *e ? mx : mn, *e ? mx : mn, false);
        for (int q = 0; q < 4 && (*e == 0 || *e == 255); ++q) e[(q - 3) * s.w] = px[q];  // exponent last
    }
    o.dt = dt;
    return o;
}

// A smooth scene through a 2.2 gamma at each exposure, clipped, with black
// pixels, and samples of pure noise that disagree between frames. The first
// three pixels, by exposure rank: 10 in the shortest frame and 255 in the
// others (hdr_unghost keeps the rise of 62720 levels, then stops); 255 in all;
// 3 in the longest frame and 100 in the others.
Stack scene(int n, int w, int h, int spp, int bps, const std::vector<float>& dt, unsigned seed) {
    Stack s{n, w, h, spp, bps, std::vector<std::uint8_t>(static_cast<std::size_t>(n) * w * h * spp * bps / 8)};
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> u(0, 1);
    const double top = bps == 8 ? 255 : 65535;
    for (std::size_t p = 0; p < s.px(); ++p) {
        const double base = std::exp(-7 + 10.0 * (p % w + p / w * 0.7) / (w + h * 0.7)), black = u(rng) > 0.97;
        for (int c = 0; c < spp; ++c) {
            const double r = base * (0.3 + 1.4 * u(rng)), wild = u(rng) < 0.08;
            for (int k = 0; k < n; ++k) {
                const double v = black ? 0 : wild ? u(rng) * (top + 1) : top * std::pow(r * dt[k], 1 / 2.2);
                s.set(k, p * spp + c, static_cast<unsigned>(std::clamp(v + (u(rng) - 0.5) * top / 40, 0.0, top)));
                const long rank = std::count_if(dt.begin(), dt.end(), [&](float t) { return t < dt[k]; });
                const int pin[3] = {rank == 0 ? 10 : 255, 255, rank == n - 1 ? 3 : 100};
                if (p < 3 && w >= 3) s.set(k, p * spp + c, pin[p] * (bps == 16 ? 257 : 1));
            }
        }
    }
    return s;
}

TEST(MotionMerge, RandomStacksMatchReference) {
    struct Case { int n, spp, bps; Args a; };
    const Case cases[] = {
        {3, 3, 8, {0, -1, 1, 0, 0, 0.5f}},  {3, 3, 8, {1, -1, 0, 0, 0, 1}},   {5, 4, 8, {2, -1, 2, 1, 1.8f, 2}},
        {1, 3, 8, {1, -1, 1, 0, 0, 1}},     {2, 1, 16, {0, -1, 7, 2, 0, 1}},  {4, 3, 16, {2, -1, 1, 0, 0, 0.3f}},
        {5, 3, 16, {1, -1, 0, 1, 1.0f, 1}}, {4, 5, 8, {0, -1, 2, 0, 0, 1}},   {3, 3, 8, {0, 1, 0, 0, 0, 0.5f}},
        {3, 4, 8, {1, 2, 0, 1, 1.8f, 1}},   {5, 3, 16, {0, 0, 0, 0, 0, 2}},   {1, 3, 16, {1, 3, 0, 2, 0, 1}},
        {2, 1, 8, {2, 1, 0, 0, 0, 1}},      {4, 3, 16, {1, 2, 0, 0, 0, 0.7f}}, {3, 3, 12, {0, -1, 1, 0, 0, 1}},
        {3, 3, 12, {0, 1, 0, 0, 0, 1}},
    };
    unsigned seed = 1;
    for (const Case& c : cases) {
        std::vector<float> dt(c.n);
        for (int k = 0; k < c.n; ++k) dt[k] = std::exp2(1.7f * ((k * 3) % c.n - c.n / 2) + 0.1f * (seed % 3));
        if (c.n == 4) dt[3] = dt[1];  // a tie
        Stack s = scene(c.n, 47, 31, c.spp, c.bps == 12 ? 8 : c.bps, dt, seed++);
        s.bps = c.bps;  // 12: no pixel is written, pass 2 reads what the buffer holds
        const Out got = run(s, c.a, dt), want = reference(s, c.a, dt);
        EXPECT_TRUE(got == want) << "case " << seed - 1 << ", first differing byte "
                                 << std::mismatch(got.rgbe.begin(), got.rgbe.end(), want.rgbe.begin()).first - got.rgbe.begin();
    }
}

// A still scene on four frames, one stop apart, with an object that sits in
// a different place in each frame (columns 8k to 8k+7 in frame k). Where the
// frames disagree hdr_unghost keeps the middle frame's value and calc_hdr
// turns to the plain mean (values elsewhere: the per-pixel reading above).
TEST(MotionMerge, MovingObject) {
    const std::vector<float> dt = {1, 2, 4, 8};
    Stack s{4, 40, 8, 3, 8, std::vector<std::uint8_t>(4 * 40 * 8 * 3)};
    for (int i = 0, k = 0, x = 0; i < 4 * 40 * 8 * 3; ++i, k = i / (40 * 8 * 3), x = i / 3 % 40)
        s.bytes[i] = static_cast<std::uint8_t>(255 * std::pow((x / 8 == k ? 0.6 : 0.02 * (1 + x / 10.0)) * dt[k] / 8, 1 / 2.2));
    const Out ug = run(s, {1, 1, 0, 0, 0, 1}, dt), ch = run(s, {1, -1, 1, 0, 0, 1}, dt), plain = run(s, {1, -1, 0, 0, 0, 1}, dt);
    for (int x = 0; x < 40; x += 3) {
        const float v = ug.lut[s.get(2, x * 3)] * ug.dt[2];  // frame 2 is the middle one
        const std::uint8_t mant = ug.rgbe[40 + x], e = ug.rgbe[120 + x];
        EXPECT_EQ(mant == encode(v, v, v, true)[1] && e == encode(v, v, v, true)[3], x < 32) << x;
        EXPECT_EQ(ch.rgbe[40 + x] != plain.rgbe[40 + x] || ch.rgbe[120 + x] != plain.rgbe[120 + x], x >= 8 && x < 32) << x;
    }
}

// All black, saturated everywhere, one frame, nothing to do, and -4 on each allocation.
TEST(MotionMerge, EdgeCasesNothingToDoAndFailedAllocations) {
    const Stack still = scene(3, 6, 4, 3, 8, {1, 2, 4}, 9);
    for (int variant : {-1, 1, 2}) {
        const Args a{1, variant, 1, 0, 0, 1}, half{0, variant, 1, 0, 0, 0.5f};
        Stack s = scene(3, 5, 2, 3, 8, {1, 2, 4}, 1);
        for (int v : {0, 255}) {  // all black: grey at 1e11; saturated everywhere: 1e9, marker, then grey at 0
            std::fill(s.bytes.begin(), s.bytes.end(), v);
            const Out o = run(s, a, {1, 2, 4});
            EXPECT_TRUE(o == reference(s, a, {1, 2, 4}));
            EXPECT_EQ(o.stats, (std::array<float, 3>{256 * (v ? 1e9f : 1e11f), 0, v ? -1.0f : 0}));  // saturated: no mean
            EXPECT_EQ(v ? o.rgbe[0] + o.rgbe[3 * 5] : o.rgbe[3 * 5], v ? 128 : encode(1e11f, 1e11f, 1e11f, false)[3]);
            EXPECT_EQ(o.dt, (std::vector<float>{1.0f, 0.5f, 0.25f}));  // reciprocals of the scaled exposures: median 2 -> 2*midValue
        }
        for (auto [n, w, h, spp] : std::vector<std::array<int, 4>>{{0, 6, 4, 3}, {3, 6, 0, 3}, {3, 0, 4, 3}, {3, 6, 4, 0}, {3, 6, 4, 2}})
            EXPECT_EQ(run({n, w, h, spp, 8, still.bytes}, half, {1, 2, 4}), (Out{0, initial(4 * w * h, 1), {-1, -1, -1}, {1, 2, 4}, std::vector<float>(256)}));
        const long allocations = oltest::countAllocations([&] { run(still, half, {1, 2, 4}); });
        ASSERT_GE(allocations, 3);
        for (long i = 1; i <= allocations; ++i) {
            oltest::FailAllocation fail(i);
            const Out o = run(still, half, {1, 2, 4});  // lut filled, exposures scaled but not yet inverted
            EXPECT_EQ(o, (Out{-4, initial(4 * still.px(), 1), {-1, -1, -1}, {0.5f, 1, 2}, o.lut})) << i;
        }
    }
}

}  // namespace
