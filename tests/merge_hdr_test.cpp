// The three merges of a photo block into rgbe planes: the weighted merge
// (ol_hdr_merge) and the two that resist movement (calc_hdr, hdr_unghost).
// Byte-exact agreement with one direct per-pixel reading of their rules on
// random stacks, the weighted merge's rules at their boundaries as rows run
// through the same reading, and the cases that matter by hand.
#include <algorithm>
#include <array>
#include <cmath>
#include <numeric>
#include <vector>

#include "frame/rgbe.hpp"
#include "merge/merge_encode.hpp"
#include "support/stacks.hpp"
#include "support/testsupport.hpp"

namespace {

using fustest::Photos;
using Floats = std::vector<float>;
using Pixel = std::array<std::uint8_t, 4>;

struct Out {  // result, output buffer, stats, exposures and lut after the call
    int rc;
    std::vector<std::uint8_t> rgbe;
    std::array<float, 3> stats;
    Floats dt, lut;
    bool operator==(const Out&) const = default;
};
// variant: -2 ol_hdr_merge (curveMode is gammaGiven), -1 calc_hdr (with its
// coherence byte), 0 and up hdr_unghost. The gamma goes in lut[0].
struct Args {
    int mode, variant, coherence, curveMode;
    float gamma, mid, evStep = -1.0f;
};
constexpr int kWeighted = -2, kCalc = -1;

// The output buffer on entry: the coherence byte, then bytes that hold both
// markers in the exponent plane, for pass 2 to find where no pixel is written.
std::vector<std::uint8_t> initial(std::size_t size, int coherence) {
    std::vector<std::uint8_t> v(std::max<std::size_t>(size, 1));
    for (std::size_t i = 0; i < v.size(); ++i) v[i] = static_cast<std::uint8_t>(i ? i * 7 : coherence);
    return v;
}

Out run(const Photos& s, const Args& a, Floats dt) {
    Out o{0, initial(4 * s.px(), a.coherence), {-1, -1, -1}, std::move(dt), Floats(s.bps == 16 ? 65536 : 256)};
    o.lut[0] = a.gamma;
    float *lut = o.lut.data(), *d = o.dt.data(), *st = o.stats.data();
    const std::uint8_t* in = s.bytes.data();
    std::uint8_t* out = o.rgbe.data();
    if (a.variant == kWeighted)
        o.rc = ol_hdr_merge(a.mode, s.n, s.w, s.h, s.spp, s.bps, a.curveMode, lut, a.evStep, d, in, st, out);
    else if (a.variant == kCalc)
        o.rc = calc_hdr(a.mode, s.n, s.w, s.h, s.spp, s.bps, a.curveMode, lut, a.mid, d, in, st, out);
    else
        o.rc = hdr_unghost(a.mode, a.variant, s.n, s.w, s.h, s.spp, s.bps, a.curveMode, lut, a.mid, d, in, st, out);
    return o;
}

// ---------------------------------------------------------------------------
// References: the rules written out per pixel, no tables but the lut.

float log2f_(float v) { return static_cast<float>(std::log(static_cast<double>(v)) / std::log(2.0)); }
// (1 - a*(t-0.5)^2)^2 with t = i/65536, a = 4 up to `lower` and
// 1/(0.5 - sat/65535)^2 above it; 0 above `sat`.
float curve(int i, int sat, int lower) {
    if (i > sat) return 0.0f;
    const float d = static_cast<float>(0.5 - static_cast<float>(sat) / 65535.0f), t = i / 65536.0f;
    const float v = 1.0f - (i <= lower ? 4.0f : static_cast<float>(1.0 / (d * d))) * ((t - 0.5f) * (t - 0.5f));
    return v * v;
}
Floats gammaLut(int size, float gamma, double scale) {  // entry 0 repeats entry 1
    Floats lut;
    for (int i = 0; i < size; ++i) {
        const float x = static_cast<float>(std::max(i, 1)) / size;
        lut.push_back(static_cast<float>(std::pow(x, static_cast<double>(gamma)) * scale));
    }
    return lut;
}
std::vector<int> byExposure(const Floats& dt) {  // smallest first; equal values: higher frame first
    std::vector<int> ord(dt.size());
    std::iota(ord.begin(), ord.end(), 0);
    std::sort(ord.begin(), ord.end(), [&](int x, int y) { return dt[x] != dt[y] ? dt[x] < dt[y] : x > y; });
    return ord;
}
std::size_t planeAt(int w, std::size_t p, int plane) { return (p / w) * 4 * w + plane * w + p % w; }
void put(Out& o, int w, std::size_t p, const Pixel& px) {
    for (int q = 0; q < 4; ++q) o.rgbe[planeAt(w, p, q)] = px[q];
}
// Pass 2: burnt-out pixels become grey at the maximum, dead-dark ones grey at
// the minimum, with `grey` giving the pixel.
template <class Grey>
void replaceMarkers(Out& o, const Photos& s, float mn, float mx, Grey grey) {
    for (std::size_t p = 0; p < s.px(); ++p)
        if (const std::uint8_t e = o.rgbe[planeAt(s.w, p, 3)]; e == 0 || e == 255) put(o, s.w, p, grey(e ? mx : mn));
}

// The RGBE forms of frame/rgbe.hpp (checked by the frame tests): clamped in
// the weighted merge, wrapped in the others; guard: four zeros at or below 1e-32.
Pixel encode(float a, float b, float c, bool guard, ol::RgbeForm form = ol::RgbeForm::Wrapped) {
    const auto p = ol::encodeRgbe(a, b, c, form, guard ? ol::ZeroGuard::On : ol::ZeroGuard::Off);
    return {p.r, p.g, p.b, p.e};
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
// One reading of the three merges, rule by rule, with their differences as
// branches: the weighted merge (`weighted`) keeps or guesses the exposures,
// has its own saturation levels, channel positions, dark bands, luminance and
// encoding; calc_hdr (`calc`) adds the consistency test; hdr_unghost blends
// toward the middle frame by the spread.
Out reference(const Photos& s, const Args& a, Floats dt) {
    const bool weighted = a.variant == kWeighted, calc = a.variant == kCalc;
    const int n = s.n, size = s.bps == 16 ? 65536 : 256;
    const float gamma = a.curveMode == 1 ? a.gamma : a.curveMode == 2 && !weighted ? 0.45f : 2.2f;
    const double scale = a.curveMode == 2 && !weighted ? 65535.0 : 1.0;
    Out o{s.h, initial(4 * s.px(), a.coherence), {-1, -1, -1}, {}, gammaLut(size, gamma, scale)};
    if (weighted && a.evStep > -0.5f) {
        std::vector<int> zeros(n, 0);
        guess_ev(0, n, a.evStep, zeros.data(), dt.data());
    }
    float tmid = 1;
    for (int k = n - 1; k >= 0; --k)  // the first frame with n/2 smaller exposures
        if (std::count_if(dt.begin(), dt.end(), [&](float v) { return v < dt[k]; }) == n / 2) tmid = dt[k];
    if (!weighted && tmid > 0) for (float& v : dt) v *= 2 * a.mid / tmid;
    const std::vector<int> ord = byExposure(dt);
    if (!weighted) for (float& v : dt) v = v != 0 ? 1 / v : 0;  // returned as reciprocals
    Floats invT = dt;
    if (weighted) for (float& v : invT) v = 1.0f / v;
    std::vector<int> sat(n, 64000);
    std::vector<float> dEV(n, 1.0f);
    const float top = log2f_(dt[ord[0]]), bottom = log2f_(dt[ord[n - 1]]);
    for (int k = 0; k < n; ++k) {
        const float t = log2f_(dt[k]);
        if (weighted && bottom > top) sat[k] = static_cast<int>(64000.0f - 3840.0f * ((t - top) / (bottom - top)));
        if (!weighted && top > bottom) sat[k] = static_cast<int>(60160.0f + 3840.0f * (t - bottom) / (top - bottom));
        const float d = k ? log2f_(dt[ord[k - 1]]) - log2f_(dt[ord[k]]) : 1 / 8192.0f;  // stops from the rank before
        dEV[k] = (d < 0.0001 ? 0.3f : d) * 8192;
    }
    const int mi = weighted ? (s.spp - 1) / 2 : s.spp > 1 ? 1 : 0, la = weighted ? s.spp - 1 : s.spp > 1 ? 2 : 0;
    const int sh = s.bps == 16 ? 8 : 0;
    const float thr = a.variant < 0 ? (a.coherence == 2 ? 0.8f : 1.0f) : a.variant == 2 ? 0.18f : 0.15f;
    float mn = weighted ? 1e9f : 1e11f, mx = 0, ref[3] = {0, 0, 0};
    double sum = 0, count = 0;
    for (std::size_t p = 0; p < s.px() && (s.bps == 8 || s.bps == 16); ++p) {
        float W = 0, C[3] = {0, 0, 0}, err = 0, Y = 0, YY = 0, CC[3] = {0, 0, 0}, out[3] = {0, 0, 0};
        int nSat = 0, prev = 0, black = 0;
        auto smp = [&](int k, int c) { return s.get(k, p * s.spp + (c == 0 ? 0 : c == 1 ? mi : la)); };
        for (int j = 0; j < n; ++j) {
            const int k = ord[j];
            const int iv = 54 * (smp(k, 0) >> sh) + 183 * (smp(k, 1) >> sh) + 19 * (smp(k, 2) >> sh);
            if (a.variant < 0) {  // the weighted and the consistency-checked merges
                nSat += iv > sat[k];
                const bool dark = weighted ? iv < (j == n - 1 ? 1280 : 2560) : iv <= sat[k] && iv < 1280;
                if (dark) W = C[0] = C[1] = C[2] = 0;
                if (calc && a.coherence && j > 0) {
                    const int m = (iv + prev) >> 1;
                    const float e = slopeAt(std::max(m, 1)) - static_cast<float>(iv - prev) / dEV[j];
                    err += e * e * curve(m, 65535, 65535);
                }
                prev = iv;
                const float w = curve(iv, sat[k], weighted ? 32768 : 32769);
                W += w;
                for (int c = 0; c < 3; ++c) C[c] += w * invT[k] * o.lut[smp(k, c)];
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
            const float w = curve(iv, 65535, 65535), y = dt[k] * o.lut[s.bps == 16 ? iv : iv >> 8];
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
        if (calc && W > 0 && a.coherence && err / n > thr) {
            W = static_cast<float>(n), C[0] = C[1] = C[2] = 0;
            for (int k = 0; k < n; ++k)
                for (int c = 0; c < 3; ++c) C[c] += dt[k] * o.lut[smp(k, c)];
        }
        if (!black && W > 0) {
            float d = 0;
            for (int c = 0; c < 3; ++c) d += C[c] > 0.0001f ? CC[c] * W / (C[c] * C[c]) - 1 : 0;
            if (a.variant == 2) d = Y > 0.0001f ? YY * W / (Y * Y) - 1 : 0;
            const float bl = a.variant < 0 ? 0 : std::clamp(d / thr, 0.0f, 1.0f);
            for (int c = 0; c < 3; ++c) out[c] = a.variant < 0 ? C[c] / W : C[c] / W * (1 - bl) + ref[c] * bl;
        }
        const double lum64 = weighted ? 0.2 * out[0] + 0.7 * out[1] + 0.1 * out[2]
                                      : 0.3 * out[0] + 0.6 * out[1] + 0.1 * out[2];
        const float lum = static_cast<float>(lum64), m = std::max(out[0], std::max(out[1], out[2]));
        if (lum < 1e9f) mx = std::max(mx, lum), sum += lum, count++;
        if (lum > 0 && lum < mn) mn = lum;
        auto px = encode(out[0], out[1], out[2], true, weighted ? ol::RgbeForm::Clamped : ol::RgbeForm::Wrapped);
        if (m > 1e-32f && (weighted ? m : lum) >= 1e9f) px = {255, 255, 255, 255};
        if (!weighted && a.mode == 0) std::swap(px[0], px[2]);
        put(o, s.w, p, px);
    }
    o.stats[0] = 256 * mn, o.stats[1] = 256 * mx;
    if (count || weighted) o.stats[2] = 256 * (count ? static_cast<float>(sum / count) : 0.0f);
    const ol::RgbeForm form = weighted ? ol::RgbeForm::Clamped : ol::RgbeForm::Wrapped;
    if (a.mode != 2 || a.variant >= 0)
        replaceMarkers(o, s, mn, mx, [&](float v) { return encode(v, v, v, false, form); });
    o.dt = dt;
    return o;
}

// The merge against its reference, byte for byte.
void expectReference(const Photos& s, const Args& a, const Floats& dt) {
    const Out got = run(s, a, dt), want = reference(s, a, dt);
    const auto diff = std::mismatch(got.rgbe.begin(), got.rgbe.end(), want.rgbe.begin()).first - got.rgbe.begin();
    EXPECT_TRUE(got == want) << "rc " << got.rc << ", stats " << got.stats[0] << " " << got.stats[1] << " "
                             << got.stats[2] << " want " << want.stats[0] << " " << want.stats[1] << " "
                             << want.stats[2] << ", first differing byte " << diff;
}

// ---------------------------------------------------------------------------

// The weighted merge's pass-1 encoding at its edges (the clamped form itself
// is checked by the frame tests): 1e-32f lies just above the double threshold
// 1e-32 and is encoded, the float below it is dark, and so is NaN; 1e9 and
// infinity are burnt out, the float below 1e9 is encoded; a negative channel
// clamps to 0.
TEST(MergeEncode, MarkersAtTheirEdges) {
    const struct {
        float r, g, b;
        Pixel want;
    } rows[] = {{0, 0, 0, {0, 0, 0, 0}},          {1e-32f, 0, 0, {207, 0, 0, 22}},
                {std::nextafter(1e-32f, 0.0f), 0, 0, {0, 0, 0, 0}},  {NAN, NAN, NAN, {0, 0, 0, 0}},
                {1e9f, 0, 0, {255, 255, 255, 255}}, {std::nextafter(1e9f, 0.0f), 0, 0, {238, 0, 0, 158}},
                {INFINITY, 1, 1, {255, 255, 255, 255}}, {-3.0f, 0.5f, 0.25f, {0, 128, 64, 128}}};
    for (const auto& r : rows) {
        const ol::RgbePixel got = ol::encodeMergePixel(r.r, r.g, r.b);
        EXPECT_EQ((Pixel{got.r, got.g, got.b, got.e}), r.want) << r.r << " " << r.g << " " << r.b;
    }
}

// Random stacks through all three merges. The first three pixels, by
// exposure rank: 10 in the shortest frame and 255 in the others (hdr_unghost
// keeps the rise of 62720 levels, then stops); 255 in all; 3 in the longest
// frame and 100 in the others.
TEST(Merges, RandomStacksMatchReference) {
    struct Case {
        int n, spp, bps;
        Args a;
    };
    const Case cases[] = {
        // ol_hdr_merge (gamma 1.8 in lut[0], taken with gammaGiven 1 only);
        // an evStep above -0.5 has the exposures guessed: -0.5 keeps them,
        // -0.4 infers them (all 1); 20 frames take their visits from the heap.
        {3, 3, 8, {0, kWeighted, 0, 0, 1.8f, 0}},    {3, 3, 8, {2, kWeighted, 0, 0, 1.8f, 0}},
        {5, 3, 8, {0, kWeighted, 0, 0, 1.8f, 0, 1.0f}}, {2, 4, 8, {1, kWeighted, 0, 1, 1.8f, 0}},
        {1, 3, 8, {0, kWeighted, 0, 0, 1.8f, 0}},    {4, 1, 8, {0, kWeighted, 0, 0, 1.8f, 0, 2.0f}},
        {3, 3, 16, {0, kWeighted, 0, 0, 1.8f, 0}},   {5, 4, 16, {2, kWeighted, 0, 0, 1.8f, 0}},
        {2, 1, 16, {0, kWeighted, 0, 1, 1.8f, 0, 0.7f}}, {3, 3, 8, {0, kWeighted, 0, 0, 1.8f, 0, 0.0f}},
        {6, 5, 8, {0, kWeighted, 0, 0, 1.8f, 0}},    {3, 2, 16, {0, kWeighted, 0, 0, 1.8f, 0, -2.0f}},
        {20, 3, 8, {0, kWeighted, 0, 0, 1.8f, 0}},   {3, 3, 8, {0, kWeighted, 0, 2, 1.8f, 0, -0.5f}},
        {3, 3, 16, {0, kWeighted, 0, 1, 1.8f, 0, -0.4f}},
        // calc_hdr and hdr_unghost; depth 12 writes no pixel, and pass 2 reads
        // what the buffer holds.
        {3, 3, 8, {0, kCalc, 1, 0, 0, 0.5f}}, {3, 3, 8, {1, kCalc, 0, 0, 0, 1}}, {5, 4, 8, {2, kCalc, 2, 1, 1.8f, 2}},
        {1, 3, 8, {1, kCalc, 1, 0, 0, 1}}, {2, 1, 16, {0, kCalc, 7, 2, 0, 1}}, {4, 3, 16, {2, kCalc, 1, 0, 0, 0.3f}},
        {5, 3, 16, {1, kCalc, 0, 1, 1.0f, 1}}, {4, 5, 8, {0, kCalc, 2, 0, 0, 1}}, {3, 3, 8, {0, 1, 0, 0, 0, 0.5f}},
        {3, 4, 8, {1, 2, 0, 1, 1.8f, 1}}, {5, 3, 16, {0, 0, 0, 0, 0, 2}}, {1, 3, 16, {1, 3, 0, 2, 0, 1}},
        {2, 1, 8, {2, 1, 0, 0, 0, 1}}, {4, 3, 16, {1, 2, 0, 0, 0, 0.7f}}, {3, 3, 12, {0, kCalc, 1, 0, 0, 1}},
        {3, 3, 12, {0, 1, 0, 0, 0, 1}},
    };
    unsigned seed = 1;
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << "case " << seed << ": n " << c.n << " variant " << c.a.variant);
        Floats dt(c.n);
        for (int k = 0; k < c.n; ++k) dt[k] = std::exp2(1.7f * ((k * 3) % c.n - c.n / 2) + 0.1f * (seed % 3));
        if (c.n == 4) dt[3] = dt[1];  // a tie
        Photos s = fustest::bracketScene(c.n, 61, 37, c.spp, c.bps == 12 ? 8 : c.bps, dt, seed++);
        for (int k = 0; k < c.n; ++k) {
            const long rank = std::count_if(dt.begin(), dt.end(), [&](float t) { return t < dt[k]; });
            const unsigned pin[3] = {rank == 0 ? 10u : 255u, 255u, rank == c.n - 1 ? 3u : 100u};
            for (int i = 0; i < 3 * c.spp; ++i) s.set(k, i, pin[i / c.spp] * (s.bps == 16 ? 257 : 1));
        }
        s.bps = c.bps;
        expectReference(s, c.a, dt);
    }
    // Uniformly random samples hit every rule at once, ties of exposure included.
    for (int bps : {8, 16})
        for (int variant : {kWeighted, kCalc, 1}) {
            Photos s(4, 53, 29, 3, bps);
            s.bytes = oltest::randomBytes(s.bytes.size(), 99 + bps);
            expectReference(s, {0, variant, 1, 0, 0, 1}, {0.5f, 2.0f, 0.5f, 8.0f});
        }
    // Groups of 8 pixels that cycle burnt out, dark and mid-grey, `len` groups
    // each. The weighted merge's marker pass visits only the spans of rows
    // where the vector kernel saw markers, and every row once these overflow
    // their room (4 a row and 1024 more), as in the last stack.
    for (const auto& [w, h, len] : {std::array<int, 3>{8 * 40 + 5, 3, 5}, {8 * 7, 2, 1}, {8 * 3 * 1100, 1, 1}}) {
        Photos s(2, w, h, 3, 8);
        s.bytes = oltest::randomBytes(s.bytes.size(), 5);
        for (std::size_t i = 0; i < s.bytes.size(); ++i) {
            const int kind = static_cast<int>(i / 3 % w / 8 / len % 3);
            s.bytes[i] = static_cast<std::uint8_t>(kind == 0 ? 255 : kind == 1 ? 0 : 60 + s.bytes[i] % 120);
        }
        expectReference(s, {0, kWeighted, 0, 0, 0, 0}, {1, 4});
    }
}

// The weighted merge's rules at their boundaries, as rows of one-channel
// frames (8-bit: ival is 256 times the level; 16-bit: the high byte counts and
// the lut takes the whole word), each compared byte for byte with the
// reference. `want` is what mode 2 leaves at each pixel: 'B' burnt out, 'D'
// dead dark, '.' merged.
TEST(HdrMerge, RulesAtTheirBoundariesAsRows) {
    struct Row {
        const char* what;
        std::vector<std::vector<unsigned>> pixels;  // per pixel, the level of each frame
        Floats dt;
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
        Photos s(n, w, 1, 1, row.bps);
        for (int x = 0; x < w; ++x)
            for (int k = 0; k < n; ++k) s.set(k, x, row.pixels[x][k]);
        const Out marked = run(s, {2, kWeighted, 0, 0, 0, 0, row.evStep}, row.dt);
        for (int x = 0; x < w; ++x) {
            EXPECT_EQ(marked.rgbe[3 * w + x] == 255, row.want[x] == 'B') << "pixel " << x;
            EXPECT_EQ(marked.rgbe[3 * w + x] == 0, row.want[x] == 'D') << "pixel " << x;
        }
        for (int mode : {2, 0}) expectReference(s, {mode, kWeighted, 0, 0, 0, 0, row.evStep}, row.dt);
    }
}

// A still scene on four frames, one stop apart, with an object that sits in
// a different place in each frame (columns 8k to 8k+7 in frame k). Where the
// frames disagree hdr_unghost keeps the middle frame's value and calc_hdr
// turns to the plain mean (values elsewhere: the per-pixel reading above).
TEST(MotionMerge, MovingObject) {
    const Floats dt = {1, 2, 4, 8};
    Photos s(4, 40, 8, 3, 8);
    for (int i = 0, k = 0, x = 0; i < 4 * 40 * 8 * 3; ++i, k = i / (40 * 8 * 3), x = i / 3 % 40)
        s.bytes[i] = static_cast<std::uint8_t>(255 * std::pow((x / 8 == k ? 0.6 : 0.02 * (1 + x / 10.0)) * dt[k] / 8, 1 / 2.2));
    const Out ug = run(s, {1, 1, 0, 0, 0, 1}, dt), ch = run(s, {1, kCalc, 1, 0, 0, 1}, dt);
    const Out plain = run(s, {1, kCalc, 0, 0, 0, 1}, dt);
    for (int x = 0; x < 40; x += 3) {
        const float v = ug.lut[s.get(2, x * 3)] * ug.dt[2];  // frame 2 is the middle one
        const std::uint8_t mant = ug.rgbe[40 + x], e = ug.rgbe[120 + x];
        EXPECT_EQ(mant == encode(v, v, v, true)[1] && e == encode(v, v, v, true)[3], x < 32) << x;
        const bool differs = ch.rgbe[40 + x] != plain.rgbe[40 + x] || ch.rgbe[120 + x] != plain.rgbe[120 + x];
        EXPECT_EQ(differs, x >= 8 && x < 32) << x;
    }
}

// All black and saturated everywhere, nothing to do, and -4 on each
// allocation with nothing written, for each merge. All black: grey at the
// minimum's start (1e9 in the weighted merge, 1e11 in the others, exponent
// bytes 158 and 165); saturated everywhere: marker, then grey at a maximum of
// 0 (mantissas 0, exponent byte 128), and no mean but in the weighted merge.
TEST(Merges, EdgeCasesNothingToDoAndFailedAllocations) {
    const Photos still = fustest::bracketScene(3, 6, 4, 3, 8, {1, 2, 4}, 9);
    for (int variant : {kWeighted, kCalc, 1, 2}) {
        SCOPED_TRACE(variant);
        const bool weighted = variant == kWeighted;
        const Args a{1, variant, 1, 0, 0, 1}, half{0, variant, 1, 0, 0, 0.5f};
        Photos s(3, 5, 2, 3, 8);
        for (int v : {0, 255}) {
            std::fill(s.bytes.begin(), s.bytes.end(), v);
            const Out o = run(s, a, {1, 2, 4});
            expectReference(s, a, {1, 2, 4});
            const float start = weighted ? 1e9f : 1e11f;
            EXPECT_EQ(o.stats, (std::array<float, 3>{256 * (v ? 1e9f : start), 0, v && !weighted ? -1.0f : 0}));
            EXPECT_EQ(v ? o.rgbe[0] + o.rgbe[3 * 5] : o.rgbe[3 * 5], v ? 128 : weighted ? 158 : 165);
            // The others return the reciprocals of the scaled exposures: median 2 -> 2*midValue.
            EXPECT_EQ(o.dt, (weighted ? Floats{1, 2, 4} : Floats{1.0f, 0.5f, 0.25f}));
        }
        // Frames, rows, columns, samples; a depth the weighted merge does not take.
        const std::array<int, 6> nothing[] = {{0, 6, 4, 3, 8, 0}, {3, 6, 0, 3, 8, 0}, {3, 6, 4, 0, 8, 0},
                                              {3, 0, 4, 3, 8, 1}, {3, 6, 4, 2, 8, 1}, {3, 6, 4, 3, 12, 0}};
        for (auto [n, w, h, spp, bps, motionOnly] : nothing) {
            Photos none(n, w, h, spp, bps);
            none.bytes = still.bytes;
            if ((motionOnly && weighted) || (bps == 12 && !weighted)) continue;
            const Out untouched{0, initial(4 * w * h, 1), {-1, -1, -1}, {1, 2, 4}, Floats(256)};
            EXPECT_EQ(run(none, half, {1, 2, 4}), untouched);
        }
        // The lut is filled first, and calc_hdr and hdr_unghost have scaled
        // the exposures but not yet inverted them.
        const long allocations = oltest::countAllocations([&] { run(still, half, {1, 2, 4}); });
        ASSERT_GE(allocations, weighted ? 2 : 3);
        for (long i = 1; i <= allocations; ++i) {
            oltest::FailAllocation fail(i);
            const Out o = run(still, half, {1, 2, 4});
            const Floats dt = weighted ? Floats{1, 2, 4} : Floats{0.5f, 1, 2};
            EXPECT_EQ(o, (Out{-4, initial(4 * still.px(), 1), {-1, -1, -1}, dt, o.lut})) << i;
        }
    }
}

}  // namespace
