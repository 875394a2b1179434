// Single-image operators against small per-pixel readings of their rules, on
// random inputs; hand pins only at the boundaries (rims, modes, bad sizes).
#include <algorithm>
#include <cmath>
#include <random>

#include "frame/numeric.hpp"
#include "frame/rgbe.hpp"
#include "support/box_mean.hpp"
#include "support/testsupport.hpp"

namespace {

using ol::truncToInt;
using oltest::boxMean;
std::mt19937 rng(20261125);

template <class T> std::vector<T> randomSamples(std::size_t n, int top) {
    std::vector<T> v(n);
    for (auto& s : v) s = static_cast<T>(rng() % (top + 1u));
    return v;
}
// Guarded read of a buffer: outside it a sample is 0.
template <class T> int at(const std::vector<T>& v, long i) { return i < 0 || i >= static_cast<long>(v.size()) ? 0 : v[i]; }

TEST(ToneParams, RoundingAndScales) {
    const struct { int got, want; } rows[] = {
        {slider2param(100, 2.7), 100000}, {clipvar(100, 0.3), 1000}, {slider2param(0, 2.0), 0}, {slider2param(0, 0.0), 100000},
        {clipvar(50, 1.0), 500}, {slider2param(50, 2.0), 25000}, {fclipvar(1.25f, 1.0), 12}, {fclipvar(1.2506f, 1.0), 13},
        {param2slider(100000.0f, 0.4), 100}, {param2slider(50000.0f, 1.0), 50}, {fclipvar(-1.27f, 1.0), -12},  // rounding tests the positive side only
        {slider2param(-50, 0.5), INT32_MIN}, {fclipvar(NAN, 1.0), INT32_MIN}, {slider2param(100000, 2.0), INT32_MIN + 1}};  // NaN from pow; out of range: 0x80000000, then the fraction adds 1
    for (std::size_t i = 0; i < std::size(rows); ++i) EXPECT_EQ(rows[i].got, rows[i].want) << "row " << i;
}

// lumcontr: the curve through its four knots, value by value.
template <class T> void checkContrast(float contrast, int brightness, int w, int h, int spp, int pad) {
    const int top = sizeof(T) == 1 ? 255 : 65535, bps = 8 * sizeof(T);
    const double S = sizeof(T) == 1 ? 64.0 : 16384.0, c = contrast;
    const int kx[4] = {0, int(S * (c + 1)), int(S * (3 - c)), top}, ky[4] = {0, int(S * (1 - c)), int(S * (3 + c)), top};
    auto curve = [&](long v) {
        v = std::clamp<long>(v + (sizeof(T) == 1 ? brightness : brightness * 256L), 0, top);
        int s = 0;  // the segment [kx[s], kx[s+1]) holding v, 3 for none
        while (s < 3 && !(v >= kx[s] && v < kx[s + 1])) ++s;
        const float slope = s < 3 ? float(ky[s + 1] - ky[s]) / float(kx[s + 1] - kx[s]) : 0;
        return s < 3 ? int(float(v) * slope + (float(ky[s]) - float(kx[s]) * slope)) : top;
    };
    const int stride = w * spp + pad;
    auto img = randomSamples<T>(std::size_t(h) * stride, top), want = img;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w * spp; x += spp) for (int k = 0; k < 3; ++k) want[y * stride + x + k] = T(curve(want[y * stride + x + k]));
    ASSERT_EQ(lumcontr(contrast, brightness, bps, w, h, stride, spp, img.data()), h);
    EXPECT_EQ(img, want) << "lumcontr";
}

TEST(Lumcontr, CurveAtBothDepthsIdentityAndBadArguments) {
    for (float c : {0.0f, 0.35f, -0.6f, 0.9f})  // 0 and 0: the identity
        for (int b : {0, 17, -40}) checkContrast<std::uint8_t>(c, b, 7, 5, 3, 2), checkContrast<std::uint16_t>(c, b, 5, 3, 4, 0);
    auto img = randomSamples<std::uint8_t>(64 * 3, 255), copy = img;
    EXPECT_EQ(lumcontr(0.5f, 0, 12, 64, 1, 192, 3, img.data()), 1);  // other depths: untouched
    EXPECT_EQ(lumcontr(0.5f, 0, 8, 64, 0, 192, 3, img.data()), 0);
    EXPECT_EQ(lumcontr(0.5f, 0, 8, 64, 2, 100, 3, img.data()), 0);  // stride shorter than a row
    EXPECT_EQ(img, copy) << "refused calls";
    EXPECT_EQ(lumcontr(NAN, 1000000, 8, 1, 1, 1, 1, std::vector<std::uint8_t>{9}.data()), 1);  // spp 1 reads three samples a pixel: never past the buffer
}

TEST(Rankvig, OrderTiesAndStops) {
    auto run = [](std::vector<int> means, int spp, std::vector<int> order, std::vector<int> stops) {
        const int n = int(means.size()), w = 5, h = 3, stride = w * spp + 1;
        std::vector<std::uint8_t> block(std::size_t(n) * h * stride, 0);
        for (int i = 0; i < n; ++i) std::fill_n(block.begin() + i * h * stride, h * stride, std::uint8_t(means[i]));
        for (int k = 0; k < std::min(spp, 3); ++k) block[k] = 255;  // a white pixel (sum 765) doesn't count
        std::vector<int> o(n, -9), s(n, -9);
        EXPECT_EQ(rankvig(n, w, h, stride, spp, block.data(), o.data(), s.data()), s[n - 1]);
        EXPECT_EQ(o, order); if (!stops.empty()) { EXPECT_EQ(s, stops); }
    };
    run({77}, 3, {0}, {0});
    run({100, 100, 50}, 4, {0, 2, 1}, {});
    run({50, 100, 200}, 3, {2, 1, 0}, {3, 0, -2});   // ln 2 at T[150] = 3.01 and T[75] = 1.65
    run({0, 120}, 1, {1, 0}, {INT32_MIN, 0});          // log of 0/120: no finite stop
    EXPECT_EQ(rankvig(0, 5, 3, 15, 3, nullptr, nullptr, nullptr), 0);
}

// Means of the stack at the colour positions, as moyenne writes them.
template <class Out> std::vector<Out> stackMeans(const std::vector<std::uint16_t>& st, int n, int w, int h, int stride, int spp, bool swap,
                            int scale, std::vector<Out> dst) {
    const int pos[3] = {0, (spp - 1) / 2, spp - 1};
    for (int i = 0; i < w * h; ++i)
        for (int c : {0, 2, 1}) {  // first, last, then middle: with 1 or 2 samples a pixel the middle stays
            long sum = 0;
            for (int k = 0; k < n; ++k) sum += st[(std::size_t(k) * w * h + i) * spp + pos[c]];
            dst[i / w * stride + i % w * spp + pos[swap && c != 1 ? 2 - c : c]] = Out(sum * scale / n);
        }
    return dst;
}

// moyenne writes the stack's means; hsauto takes the same means through the
// negative level, a 2r x (2r+1) clipped box blur and the soft-light blend.
TEST(StackMeans, MoyenneAndHsautoMatchReading) {
    const int sizes[][2] = {{7, 3}, {13, 9}, {40, 31}, {11, 47}, {1, 5}, {5, 4}};  // width 1: windows without a position give 0
    int t = 0;
    for (int spp : {1, 2, 3, 4})
        for (int n : {1, 2, 3})
            for (auto [bpsIn, bpsOut] : {std::pair{8, 8}, {8, 16}, {16, 16}, {16, 8}}) {  // 16 bits in: 16 out
                const int swap = (t + t / 4) % 2, W = sizes[t % 6][0], H = sizes[t % 6][1], stride = W * spp + 3, r = 4 * n + 2;
                const int out16 = bpsIn == 16 || bpsOut == 16, scale = bpsIn < bpsOut ? 256 : 1, mid = (spp - 1) / 2, last = spp - 1;
                SCOPED_TRACE(testing::Message() << "case " << t++);
                auto st = randomSamples<std::uint16_t>(std::size_t(n) * W * H * spp, bpsIn == 8 ? 255 : 65535);
                auto d = randomSamples<std::uint16_t>(std::size_t(H) * stride, out16 ? 65535 : 255), d16 = d;
                std::vector<std::uint8_t> in8(st.begin(), st.end()), d8(d.begin(), d.end()), scratch(2 * W * H);
                void *in = bpsIn == 8 ? static_cast<void*>(in8.data()) : st.data(), *out = out16 ? static_cast<void*>(d16.data()) : d8.data();
                auto got = [&] { return out16 ? d16 : std::vector<std::uint16_t>(d8.begin(), d8.end()); };
                ASSERT_EQ(moyenne(n, W, H, stride, swap, spp, bpsIn, bpsOut, in, out), H);
                EXPECT_EQ(got(), stackMeans(st, n, W, H, stride, spp, swap, scale, d)) << "moyenne";
                auto want = stackMeans(st, n, W, H, stride, spp, false, scale, d);
                if (spp > 1) {
                    std::vector<int> p0(W * H), p1(W * H);
                    const int T = out16 ? 65535 : 255, sh = out16 ? 16 : 8;
                    auto px = [&](int i) { return want.data() + (i / W) * stride + (i % W) * spp; };
                    for (int i = 0; i < W * H; ++i) p0[i] = std::max(0, 255 - ((px(i)[last] * 54 + px(i)[0] * 19 + px(i)[mid] * 183) >> sh));
                    for (int i = 0; i < W * H; ++i) p1[i] = boxMean([&](long c) { return p0[i / W * W + c]; }, i % W, W, r, r - 1);
                    for (int i = 0; i < W * H; ++i) {
                        const int m = boxMean([&](long y) { return p1[y * W + i % W]; }, i / W, H, r, r);
                        auto soft = [&](int c) { return std::min(T, ((255 - (((255 - m) * (T - c)) >> sh)) * c + ((m * c) >> sh) * (T - c)) >> 8); };
                        std::uint16_t* p = px(i);
                        const int a = soft(p[0]), b = soft(p[mid]), c = soft(p[last]);
                        p[swap ? last : 0] = std::uint16_t(a), p[swap ? 0 : last] = std::uint16_t(c), p[mid] = std::uint16_t(b);
                    }
                }
                d16 = d, d8.assign(d.begin(), d.end());
                ASSERT_EQ(hsauto(n, W, H, stride, swap, bpsIn, bpsOut, spp, t % 3 ? scratch.data() : nullptr, in, out), H);
                EXPECT_EQ(got(), want) << "hsauto";
            }
    std::vector<std::uint8_t> img(12, 7), dst(12, 1);
    EXPECT_EQ(moyenne(1, 4, 1, 12, 0, 3, 12, 8, img.data(), dst.data()), 4);  // other depth: width
    EXPECT_EQ(moyenne(0, 4, 1, 12, 0, 3, 8, 8, img.data(), dst.data()), 0);   // no frame
    EXPECT_EQ(moyenne(1, 4, 1, 11, 0, 3, 8, 8, img.data(), dst.data()), 0);   // stride shorter than a row
    EXPECT_EQ(dst, std::vector<std::uint8_t>(12, 1));
}

// comp16: mask, 17 x 17 clipped box blur, blend; on a rectangle of a source.
std::vector<std::uint8_t> compressReading(int strength, const std::vector<std::uint16_t>& src, int x0, int y0, int w, int h, int sstride, int dstride, int spp, std::vector<std::uint8_t> dst) {
    const int g1 = spp > 1 ? 1 : 0, b1 = spp > 1 ? 2 : 0;
    auto S = [&](int x, int y, int c) { return int(src[(y0 + y) * sstride + (x0 + x) * spp + c]); };
    std::vector<int> mask(w * h), tmp(w * h);
    for (int i = 0, x, y, Y; i < w * h; ++i) {
        x = i % w, y = i / w, Y = int((float(S(x, y, g1) >> 8) * 0.6094f + float(S(x, y, 0) >> 8) * 0.3086f) + float(S(x, y, b1) >> 8) * 0.082f);
        mask[i] = std::clamp(int(double(float(Y - 68)) * 1.15 + 128.0), 0, 255);
    }
    for (int i = 0; i < w * h; ++i) tmp[i] = boxMean([&](long c) { return mask[i / w * w + c]; }, i % w, w, 8, 8);
    const double g = strength * 0.01 + 0.5;
    for (int i = 0; i < w * h; ++i) {
        const int x = i % w, y = i / w;
        const float a = float(boxMean([&](long r) { return tmp[r * w + x]; }, y, h, 8, 8) / 255.0);
        for (int c : {0, g1, b1}) {
            const int p = std::min(255, truncToInt(std::pow(double(S(x, y, c)), g)));
            const double t = float(S(x, y, c) >> 8) * a;
            dst[y * dstride + x * spp + c] = std::uint8_t(std::clamp(truncToInt(t + p * (1.0 - a)), 0, 255));
        }
    }
    return dst;
}

TEST(Comp16, WholeImageAndRectangleMatchReadingFailedWorkBufferAndRefusals) {
    const struct { int strength, w, h, spp; } cases[] = {{0, 23, 19, 3}, {50, 9, 30, 4}, {-70, 40, 3, 1}, {180, 2, 2, 3}, {25, 1, 6, 3}};  // width 1: empty windows
    for (const auto& k : cases) {
        const int stride = k.w * k.spp + 2;
        auto src = randomSamples<std::uint16_t>(std::size_t(k.h) * stride, 65535);
        for (std::size_t i = 0; i < src.size(); i += 5) src[i] >>= 5;  // darker samples too
        auto dst = randomSamples<std::uint8_t>(std::size_t(k.h) * stride, 255), want = compressReading(k.strength, src, 0, 0, k.w, k.h, stride, stride, k.spp, dst);
        ASSERT_EQ(comp16(k.strength, k.w, k.h, stride, k.spp, src.data(), dst.data()), k.h);
        EXPECT_EQ(dst, want) << "comp16";
        // The rectangle of columns 1.. and rows 1.. into a packed target.
        const int cw = k.w - 1, ch = k.h - 1;
        if (cw < 1) continue;
        std::vector<std::uint8_t> qv(std::size_t(cw) * ch * k.spp, 3), wantQv = compressReading(k.strength, src, 1, 1, cw, ch, stride, cw * k.spp, k.spp, qv);
        ASSERT_EQ(comp16qv(k.strength, 1, 1, cw, ch, stride, cw * k.spp, k.spp, src.data(), qv.data()), 1 + ch);
        EXPECT_EQ(qv, wantQv) << "comp16qv";
    }
    std::vector<std::uint16_t> src(20 * 3 * 4, 0);  // Y = 0: mask 49 before blurring
    std::vector<std::uint8_t> dst(src.size(), 200);
    ASSERT_EQ(([&] { oltest::FailAllocation fail(1); return comp16(0, 20, 4, 60, 3, src.data(), dst.data()); }()), -4);
    for (std::size_t i = 0; i < dst.size(); ++i) ASSERT_EQ(dst[i], i % 3 ? 200 : 49);
    EXPECT_EQ(comp16(0, 20, 0, 60, 3, src.data(), dst.data()), 0);
    EXPECT_EQ(comp16(0, 20, 4, 59, 3, src.data(), dst.data()), 0);  // stride shorter than a row
    EXPECT_EQ(comp16qv(0, 5, 7, 4, 0, 60, 12, 3, src.data(), dst.data()), 7);
    EXPECT_EQ(comp16qv(0, 18, 0, 4, 2, 60, 12, 3, src.data(), dst.data()), 0);  // rectangle past the row
}

// sharpen's rim rules written out by position; its centre advances by 3
// samples a pixel whatever spp is. sharp16 adds only neighbours inside.
template <class T> std::vector<T> sharpenReading(bool rimRules, float amount, const std::vector<T>& s, int w, int h, int stride, int spp, std::vector<T> d) {
    const int top = sizeof(T) == 1 ? 255 : 65535;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int c = 0; c < (spp == 1 ? 1 : 3); ++c) {
                const long j = long(y) * stride + (rimRules ? 3 * x : x * spp) + c;
                auto n = [&](int dx, int dy) { return at(s, j + dy * stride + dx * spp); };
                const int C = s[j];
                const bool L = x > 0, R = x < w - 1, U = y > 0, D = y < h - 1;
                int k = 0;
                if (!rimRules) {
                    for (int dd = 0; dd < 9; ++dd) k += x + dd % 3 - 1 >= 0 && x + dd % 3 - 1 < w && y + dd / 3 - 1 >= 0 && y + dd / 3 - 1 < h ? n(dd % 3 - 1, dd / 3 - 1) : 0;
                    k -= 9 * C;  // the loop took the centre too
                } else if (L && R && U && D) {
                    k = n(-1, -1) + n(0, -1) + n(1, -1) + n(-1, 0) + n(1, 0) + n(-1, 1) + n(0, 1) + n(1, 1) - 8 * C;
                } else if ((L && R) || (U && D)) {  // an edge: two neighbours along it count twice
                    const int ex = L && R ? 1 : 0, ey = 1 - ex, ox = ex ? 0 : (L ? -1 : 1), oy = ey ? 0 : (U ? -1 : 1);
                    k = 2 * (n(-ex, -ey) + n(ex, ey)) + n(ox - ex, oy - ey) + n(ox, oy) + n(ox + ex, oy + ey) - 7 * C;
                } else {  // a corner
                    const int dx = L ? -1 : 1, dy = U ? -1 : 1;
                    k = 2 * (n(dx, 0) + n(0, dy)) + n(dx, dy) - 5 * C;
                }
                d[j] = T(std::clamp(std::int32_t(std::uint32_t(C) - std::uint32_t(truncToInt(float(k) * amount))), 0, top));  // wraps as unsigned
            }
    return d;
}

TEST(Sharpen, RimRulesDriftBothDepthsAndRefusals) {
    for (float amount : {0.0f, 0.37f, 1.5f, -0.8f, 3e9f, NAN})
        for (int spp : {1, 3, 4})
            for (auto [w, h] : {std::pair{2, 2}, {7, 5}, {37, 4}, {3, 9}}) {
                const int stride = w * spp + 5;
                auto s8 = randomSamples<std::uint8_t>(std::size_t(h) * stride, 255), d8 = randomSamples<std::uint8_t>(s8.size(), 255), w8 = d8;
                if (spp > 1) w8 = sharpenReading(true, amount, s8, w, h, stride, spp, d8);
                ASSERT_EQ(sharpen(amount, w, h, stride, spp, s8.data(), d8.data()), spp == 1 ? 1 : h);
                EXPECT_EQ(d8, w8) << "sharpen";
                auto s16 = randomSamples<std::uint16_t>(std::size_t(h) * stride, 65535), d16 = randomSamples<std::uint16_t>(s16.size(), 65535);
                const auto w16 = sharpenReading(false, amount, s16, w, h, stride, spp, d16);
                ASSERT_EQ(sharp16(amount, w, h, stride, spp, s16.data(), d16.data()), h);
                EXPECT_EQ(d16, w16) << "sharp16";
            }
    std::vector<std::uint16_t> s16(4 * 3 * 3, 1000), d16(s16.size());
    ASSERT_EQ(sharp16(0.5f, 4, 3, 12, 3, s16.data(), d16.data()), 3);
    EXPECT_EQ(d16[0], 3500);  // sharp16 leaves missing neighbours out: a flat corner brightens; sharpen's stays
    for (auto [fw, fh] : {std::pair{1, 6}, {6, 1}, {1, 1}}) {  // sharpen keeps flat lines flat
        std::vector<std::uint8_t> s8(fw * fh * 3, 90), d8(s8.size(), 0);
        ASSERT_EQ(sharpen(2.0f, fw, fh, fw * 3, 3, s8.data(), d8.data()), fh);
        EXPECT_EQ(d8, s8) << fw << "x" << fh;
    }
    std::vector<std::uint8_t> s(30, 1), d(30, 0);
    EXPECT_EQ(sharpen(1.0f, 5, 2, 10, 2, s.data(), d.data()), 0);   // 2 samples: the centre would leave the row
    EXPECT_EQ(sharpen(1.0f, 5, 2, 14, 3, s.data(), d.data()), 0);   // stride shorter than a row
    EXPECT_EQ(sharp16(1.0f, 0, 0, 0, 3, nullptr, nullptr), 0);
    EXPECT_EQ(d, std::vector<std::uint8_t>(30, 0));
}

// The projection of a target pixel onto the ball, formula by formula.
struct Cell { long ix, iy; double fx, fy; };
Cell project(long x, long y, long w, long h, long xmax) {
    const double W = 2.0 * w, th = y * M_PI / (h - 1), ph = (x - W * 0.25) * 2 * M_PI / (W - 1);
    const double a = std::acos(std::sin(ph) * std::sin(th)), b = std::atan2(std::cos(th), -(std::cos(ph) * std::sin(th)));
    const double s = std::sin(a * 0.5), sx = (std::cos(b) * s + 1.0) * (w * 0.5), sy = (1.0 - std::sin(b) * s) * (h * 0.5);
    long ix = std::max(1, truncToInt(sx)), iy = std::max(1, truncToInt(sy));
    ix = std::min(ix, xmax), iy = std::min(iy, h - 3);
    return {ix, iy, sx - ix, sy - iy};
}
// Rows of four taps weighted by wx, summed left to right, then the rows by wy.
template <class F> float splineSum(const float* wx, const float* wy, F tap) {
    float v = 0;
    for (int r = 0; r < 4; ++r) {
        const float row = ((wx[0] * tap(r, 0) + wx[1] * tap(r, 1)) + wx[2] * tap(r, 2)) + wx[3] * tap(r, 3);
        v = r ? v + wy[r] * row : wy[0] * row;
    }
    return v;
}
void spline(double t, float* wt) {
    t = std::clamp(t, 0.0, 1.0);
    wt[0] = float(((0.8 - t / 3) * t - 7.0 / 15) * t), wt[1] = float(((t - 1.8) * t - 0.2) * t + 1.0);
    wt[2] = float(((1.2 - t) * t + 0.8) * t), wt[3] = float(((t / 3 - 0.2) * t - 2.0 / 15) * t);
}

template <class T> void checkRemapLdr(int mode, int w, int h, int spp, int top) {
    const int ss = w * spp + 1, ds = 2 * w * spp + 2;
    auto src = randomSamples<T>(std::size_t(h - 1) * ss + w * spp, top);  // the last row without its padding
    auto dst = randomSamples<T>(std::size_t(h) * ds, 65535), want = dst;
    for (long y = 0; y < h; ++y)
        for (long x = 0; x < 2 * w; ++x) {
            const Cell c = project(x, y, w, h, w - 1);
            const long i = c.iy * ss + c.ix * spp;
            float wx[4], wy[4];
            spline(c.fx, wx), spline(c.fy, wy);
            for (int k = 0; k < 3; ++k) {
                auto S = [&](long o) { return float(at(src, i + o + k)); };
                auto lerp = [](double f, float l, float r) { return f <= 0 ? l : f >= 1 ? r : float((1 - f) * l + f * r); };
                const float v = mode == 1 ? lerp(c.fy, lerp(c.fx, S(0), S(3)), lerp(c.fx, S(ss), S(ss + 3)))
                                          : splineSum(wx, wy, [&](int r, int q) { return S((r - 1) * ss + (q - 1) * spp); });
                want[y * ds + x * spp + k] = mode ? T(truncToInt(std::clamp(v, 0.0f, 255.0f)))
                                                  : T(at(src, i + (c.fx > 0.5 ? spp : 0) + (c.fy > 0.5 ? ss : 0) + k));
            }
        }
    remap_ldr(mode, 8 * sizeof(T), w, h, ss, ds, spp, src.data(), dst.data());
    EXPECT_EQ(dst, want) << "remap_ldr";
}

void checkRemapHdr(int mode, int w, int h) {
    const float* tab = ol::rgbeExpTable().v;
    auto src = randomSamples<std::uint8_t>(std::size_t(4) * w * h, 255);
    for (int i = 0; i < w * h; ++i) src[(i / w) * 4 * w + 3 * w + i % w] = rng() % 5 ? 120 + rng() % 16 : 0;
    std::vector<std::uint8_t> dst(8 * std::size_t(w) * h, 0), want = dst;
    for (long y = 0; y < h; ++y)
        for (long x = 0; x < 2 * w; ++x) {
            const Cell c = project(x, y, w, h, w - 3);
            const long i = c.iy * 4 * w + c.ix;
            std::uint8_t out[4];
            auto decode = [&](long p, int k) { return at(src, p + 3 * w) ? float(at(src, p + k * w)) * tab[at(src, p + 3 * w)] : 0.0f; };
            if (mode == 0) {  // the nearest pixel's bytes
                for (int k = 0; k < 4; ++k) out[k] = std::uint8_t(at(src, i + (c.fx > 0.5 ? 1 : 0) + (c.fy > 0.5 ? 4 * w : 0) + k * w));
            } else {
                const float fx = float(std::clamp(c.fx, 0.0, 1.0)), fy = float(std::clamp(c.fy, 0.0, 1.0));
                float v[3], wx[4], wy[4];
                spline(fx, wx), spline(fy, wy);
                for (int k = 0; k < 3; ++k) {
                    auto lerp = [&](long p) { return decode(p + 1, k) * fx + decode(p, k) * (1 - fx); };
                    v[k] = mode == 1 ? lerp(i + 4 * w) * fy + lerp(i) * (1 - fy)
                                     : splineSum(wx, wy, [&](int r, int q) { return decode(i + (r - 1) * 4 * w + q - 1, k); });
                }
                int e = 0;
                const float m = std::max({v[0], v[1], v[2]}), f = std::frexp(m, &e), sc = float(f * 256.0 / m);
                for (int k = 0; k < 3; ++k) out[k] = m > 1e-32 ? std::uint8_t(truncToInt(v[k] * sc)) : 0;
                out[3] = m > 1e-32 ? std::uint8_t(e + 120) : 0;
            }
            for (int k = 0; k < 4; ++k) want[y * 8 * w + k * 2 * w + x] = out[k];
        }
    remap_hdr(mode, w, h, src.data(), dst.data());
    EXPECT_EQ(dst, want) << "remap_hdr";
}

TEST(Remap, ModesDepthsAndSmallSizes) {
    for (int mode : {0, 1, 2}) {
        for (auto [w, h] : {std::pair{12, 9}, {7, 3}, {5, 2}, {2, 1}})  // modes 1 and 2 clamp to 255 at 16 bits too
            checkRemapLdr<std::uint8_t>(mode, w, h, 3, 255), checkRemapLdr<std::uint16_t>(mode, w, h, 4, 1200);
        for (auto [w, h] : {std::pair{11, 8}, {6, 5}, {3, 3}, {1, 2}}) checkRemapHdr(mode, w, h);
    }
    std::vector<std::uint8_t> src(6 * 4 * 3, 9), dst(12 * 4 * 3, 77);
    remap_ldr(3, 8, 6, 4, 18, 36, 3, src.data(), dst.data());  // unknown mode: untouched
    remap_ldr(0, 8, 6, 4, 17, 36, 3, src.data(), dst.data());  // source stride shorter than a row
    remap_ldr(0, 8, 6, 4, 18, 36, 1, src.data(), dst.data());  // fewer samples than the three written
    EXPECT_EQ(dst, std::vector<std::uint8_t>(dst.size(), 77));
}

// A mirror ball seen from afar shows at the image point (u, v) (unit radius,
// v up, z toward the camera) the direction d = 2 (n.z) n - z, n = (u, v,
// sqrt(1 - u^2 - v^2)) being its normal. A spot painted on the ball by that
// rule must land, in every mode, within a pixel of the lat-long place of its
// direction: theta down from the zenith over the rows, phi over the columns,
// phi = 90 degrees facing the camera.
TEST(Remap, BallSpotsLandAtTheirDirections) {
    const int w = 160, h = 160, W = 2 * w;
    for (auto [thDeg, phDeg] : {std::pair{90.0, 90.0}, {60.0, 50.0}, {120.0, 140.0}, {75.0, 170.0}, {100.0, 15.0}}) {
        const double th = thDeg * M_PI / 180, ph = phDeg * M_PI / 180, spot[3] = {-std::cos(ph) * std::sin(th), std::cos(th), std::sin(ph) * std::sin(th)};
        std::vector<std::uint8_t> ball(std::size_t(w) * h * 3, 0), planes(std::size_t(w) * h * 4, 0);
        for (int py = 0; py < h; ++py)
            for (int px = 0; px < w; ++px) {
                const double u = (px - w / 2.0) / (w / 2.0), v = (h / 2.0 - py) / (h / 2.0), nz2 = 1 - u * u - v * v;
                const double nz = std::sqrt(std::max(nz2, 0.0)), cosine = 2 * nz * u * spot[0] + 2 * nz * v * spot[1] + (2 * nz2 - 1) * spot[2];
                if (nz2 <= 0 || cosine < std::cos(0.12)) continue;
                for (int k = 0; k < 4; ++k) planes[(py * 4 + k) * w + px] = k < 3 ? 200 : 130, ball[(py * w + px) * 3 + k % 3] = 200;
            }
        const double wantX = ph * (W - 1) / (2 * M_PI) + W / 4.0, wantY = th * (h - 1) / M_PI;
        for (int mode : {0, 1, 2})
            for (int kind : {8, 32}) {  // 16 bits take the 8-bit projection
                std::vector<std::uint8_t> out(std::size_t(W) * h * 3), hdr(std::size_t(W) * h * 4);
                std::vector<double> value(std::size_t(W) * h);
                if (kind == 8) remap_ldr(mode, 8, w, h, w * 3, W * 3, 3, ball.data(), out.data());
                else remap_hdr(mode, w, h, planes.data(), hdr.data());
                for (int i = 0; i < W * h; ++i) value[i] = kind == 8 ? out[3 * i] : std::ldexp(hdr[i / W * 4 * W + i % W], hdr[i / W * 4 * W + 3 * W + i % W]);
                const double top = *std::max_element(value.begin(), value.end());
                double n = 0, sx = 0, sy = 0;  // the centroid of the half-maximum area
                for (int i = 0; i < W * h; ++i) if (value[i] >= top / 2) n += 1, sx += i % W, sy += i / W;
                EXPECT_NEAR(sx / n, wantX, 0.5) << thDeg << "," << phDeg << " mode " << mode << " kind " << kind;
                EXPECT_NEAR(sy / n, wantY, 0.5) << thDeg << "," << phDeg << " mode " << mode << " kind " << kind;
            }
    }
}

}  // namespace
