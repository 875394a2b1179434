// The two blends against small per-pixel readings of their rules on random
// stacks; pins only for sizes, depths and refused arguments.
#include <cmath>
#include <cstring>
#include <random>

#include "frame/numeric.hpp"
#include "support/box_mean.hpp"
#include "support/testsupport.hpp"

namespace {
using ol::truncToInt;
using Bytes = std::vector<std::uint8_t>;
std::mt19937 rng(611);
int clampI(long v, long top) { return int(v < 0 ? 0 : v > top ? top : v); }
struct Geo { int w, h, spp, stride, bpsIn, bpsOut, swap; };
// A random stack of n frames (bytes); 16-bit samples little-endian.
Bytes stack(int n, const Geo& g) { return oltest::randomBytes(std::size_t(n) * g.w * g.h * g.spp * g.bpsIn / 8, rng()); }
int sample(const Bytes& s, int bps, std::size_t i) { return bps == 8 ? s[i] : s[2 * i] | s[2 * i + 1] << 8; }
void put(Bytes& d, int bytes, std::size_t i, int v) { if (bytes == 1) d[i] = std::uint8_t(v); else d[2 * i] = std::uint8_t(v), d[2 * i + 1] = std::uint8_t(v >> 8); }
void writeOut(Bytes& d, int bytes, std::size_t at, const Geo& g, const int* v) { put(d, bytes, at, v[g.swap ? 2 : 0]), put(d, bytes, at + (g.spp - 1) / 2, v[1]), put(d, bytes, at + g.spp - 1, v[g.swap ? 0 : 2]); }

// ol_combi_2images, read literally on the target's bytes.
Bytes twoImagesRef(int ia, int ib, const Geo& g, const Bytes& img, Bytes dst, bool unblurred = false) {
    const int w = g.w, h = g.h, s = g.spp, ob = g.bpsOut / 8, c[3] = {0, (s - 1) / 2, s - 1};
    const bool work = g.bpsIn == 8 || g.bpsIn == 16;
    const std::size_t frame = std::size_t(w) * h * s;
    auto lvl = [&](int k, long px, int i) { int v = sample(img, g.bpsIn, k * frame + px * s + c[i]); return g.bpsIn == 16 ? v >> 8 : v; };
    auto bright = [&](int k) { unsigned sum = 0; int sx = w <= 50 ? 1 : w / 50 + 1, sy = h <= 50 ? 1 : h / 50 + 1;
        for (int y = 0; y < h; y += sy) for (int x = 0; x < w; x += sx) for (int i = 0; i < 3; ++i) sum += lvl(k, long(y) * w + x, i);
        return sum / (unsigned(s) * 2500); };
    const bool aBright = work && bright(ia) > bright(ib);  // a tie makes ib the bright one
    const int B = aBright ? ia : ib, D = aBright ? ib : ia;
    auto M = [&](int x, int y) -> std::uint8_t& { return dst[(std::size_t(y) * g.stride + std::size_t(x) * s) * ob]; };
    for (int y = 0; work && y < h; ++y) for (int x = 0; x < w; ++x) {
        const int t = lvl(D, long(y) * w + x, 0) + lvl(D, long(y) * w + x, 1) + lvl(D, long(y) * w + x, 2);
        M(x, y) = std::uint8_t(clampI(128 - int(float(t - 204) * -0.38333333), 255));
    }
    if (unblurred) return dst;
    std::vector<int> tmp(std::size_t(w) * h);
    for (int y = 0; y < h; ++y) for (int x = 0; x < w; ++x) tmp[y * w + x] = oltest::boxMean([&](long p) { return M(p, y); }, x, w, 10, 9);
    for (int y = 0; y < h; ++y) for (int x = 0; x < w; ++x) M(x, y) = std::uint8_t(oltest::boxMean([&](long p) { return tmp[p * w + x]; }, y, h, 10, 10));
    for (int y = 0; work && y < h; ++y) for (int x = 0; x < w; ++x) {
        const float a = float(M(x, y) * 0.00390625), b = float(1.0 - a);
        int v[3];
        for (int i = 0; i < 3; ++i) {
            const std::size_t px = (std::size_t(y) * w + x) * s + c[i];
            const float f = float(sample(img, g.bpsIn, B * frame + px)) * b + float(sample(img, g.bpsIn, D * frame + px)) * a;
            v[i] = g.bpsIn == 16 ? clampI(truncToInt(f), 65535) : g.bpsOut == 8 ? clampI(truncToInt(f), 255) : clampI(truncToInt(f * 255.0), 65535);
        }
        writeOut(dst, g.bpsIn == 16 ? 2 : ob, std::size_t(y) * g.stride + std::size_t(x) * s, g, v);
    }
    return dst;
}

// ol_combi_intensive, read literally: the window walks the flat badness table
// (past its end a badness reads as 0).
struct Knobs { int step, r; float power, sat; int n; };
float hue(float p, float q, float t) {
    t = t < 0 ? t + 1 : t, t = t > 1 ? t - 1 : t;
    const float x2 = t + t, x3 = x2 + t, x6 = x3 + t + t + t;
    return x6 < 1 ? p + (q - p) * x6 : x2 < 1 ? q : x3 < 2 ? float(p + (q - p) * (4.0 - x6)) : p;
}
Bytes intensiveRef(const Knobs& kn, const Geo& g, const Bytes& img, Bytes dst) {
    const int w = g.w, h = g.h, s = g.spp, r = kn.r, c[3] = {0, (s - 1) / 2, s - 1}, top = g.bpsOut == 8 ? 255 : 65535;
    std::vector<float> sp, range(256);
    for (int dy = -r; dy <= r; dy += kn.step) for (int dx = -r; dx <= r; dx += kn.step)
        sp.push_back(float(std::exp(-2.0 * std::pow(float(dy) / float(r), 2))) * float(std::exp(-2.0 * std::pow(float(dx) / float(r), 2))));
    for (int d = 0; d < 256; ++d) range[d] = float(std::exp(-2.0 * std::pow(float(d) / 255.0f, 2)));
    auto mid = [](int i) { return std::min(255, std::abs((255 * i - 32640) / 128)); };
    const std::size_t plane = std::size_t(w) * h;
    Bytes bad(plane * kn.n);
    auto lvl = [&](std::size_t px, int i) { int v = sample(img, g.bpsIn, px * s + c[i]); return g.bpsIn == 16 ? v >> 8 : v; };
    for (std::size_t p = 0; p < bad.size(); ++p) bad[p] = std::uint8_t(clampI(truncToInt(mid(lvl(p, 0)) * 0.2 + mid(lvl(p, 1)) * 0.7 + mid(lvl(p, 2)) * 0.1), 255));
    auto lim = [&](int at, int size, int& lo, int& hi) { if (at < r) lo = -at, hi = r; else lo = -r, hi = at + r > size - 1 ? size - 1 - at : r; };
    const bool rec = truncToInt(kn.power) == 0, sat = truncToInt(kn.sat) != 0;
    const float k = float(std::pow(2.0, kn.power / 10.0)), f = float(kn.sat * 0.1 + 1.0);
    for (int y = 0; y < h; ++y) for (int x = 0; x < w; ++x) {
        float sum[3] = {0, 0, 0}, sw = 0;
        for (int m = 0; m < kn.n; ++m) {
            const std::size_t base = m * plane;
            const int cc = bad[base + y * w + x];
            float acc = float(cc);
            int ylo, yhi, xlo, xhi, pos = 0;
            lim(y, h, ylo, yhi), lim(x, w, xlo, xhi);
            for (int dy = ylo; dy <= yhi; dy += kn.step) for (int dx = xlo; dx <= xhi; dx += kn.step, ++pos) {
                const std::size_t i = base + std::size_t(y + dy) * w + x + dx;
                const int u = i < bad.size() ? bad[i] : 0;
                acc += range[std::abs(u - cc)] * sp[pos] * float(u);
            }
            const float wt = rec ? float(1000000.0 / (acc + 1.0)) : float(std::pow(acc + 1.0, -k));
            for (int i = 0; i < 3; ++i) sum[i] += wt * float(sample(img, g.bpsIn, (base + y * w + x) * s + c[i]) << (g.bpsIn == 8 && g.bpsOut == 16 ? 8 : 0));
            sw += wt;
        }
        float v[3] = {sum[0] / sw, sum[1] / sw, sum[2] / sw};
        if (sat) {
            for (float& e : v) e = float(e * (g.bpsOut == 8 ? 0.003921569 : 1.5259022e-05));
            const float mx = std::max({v[0], v[1], v[2]}), mn = std::min({v[0], v[1], v[2]}), L = float((mx + mn) * 0.5);
            float S = 0, H = 0;
            if (mx != mn) {
                S = L < 0.5 ? (mx - mn) / (mx + mn) : float((mx - mn) / (2.0 - mx - mn));
                H = v[0] == mx ? (v[1] - v[2]) / (mx - mn) : v[1] == mx ? (v[2] - v[0]) / (mx - mn) + 2.0f : (v[0] - v[1]) / (mx - mn) + 4.0f;
                H = float(H / 6.0), H = H < 0 ? H + 1 : H, H = H > 1 ? H - 1 : H;
            }
            S = std::min(S * f, 1.0f);
            const float q = L <= 0.5 ? float(L * (1.0 + S)) : L + S - L * S, p = float(2.0 * L - q);
            if (S == 0) v[0] = v[1] = v[2] = L;
            else v[0] = hue(p, q, float(H + 0.333333333333)), v[1] = hue(p, q, H), v[2] = hue(p, q, float(H - 0.3333333333333));
            for (float& e : v) e = float(e * double(top));
        }
        const int o[3] = {clampI(truncToInt(v[0]), top), clampI(truncToInt(v[1]), top), clampI(truncToInt(v[2]), top)};
        writeOut(dst, g.bpsOut / 8, std::size_t(y) * g.stride + std::size_t(x) * s, g, o);
    }
    return dst;
}

TEST(Blends, MatchPerPixelReadings) {
    const Geo geos[] = {{23, 17, 3, 70, 8, 8, 0}, {60, 53, 4, 243, 8, 16, 1}, {31, 12, 1, 31, 16, 16, 0}, {9, 25, 3, 28, 16, 8, 1},
                        {1, 1, 3, 3, 8, 8, 0},    {1, 6, 4, 4, 16, 16, 0},     {7, 1, 2, 15, 8, 16, 1}, {12, 12, 3, 36, 12, 8, 0}};
    for (const Geo& g : geos)
        for (int pair : {0, 1, 2, 3}) {
            const int ia = pair == 2 ? 1 : pair & 1, ib = pair == 3 ? 1 : 2;
            Bytes img = stack(3, g), dst = oltest::randomBytes(std::size_t(g.h) * g.stride * 2, rng());
            if (pair == 3) std::memcpy(&img[img.size() / 3], &img[0], img.size() / 3);  // images 0 and 1 equal: a tie
            const Bytes want = twoImagesRef(ia, ib, g, img, dst);
            ASSERT_EQ(ol_combi_2images(7, ia, ib, g.w, g.h, g.stride, g.swap, g.bpsIn, g.bpsOut, g.spp, img.data(), dst.data()), g.h);
            ASSERT_EQ(dst, want) << g.w << "x" << g.h << " spp " << g.spp << " " << g.bpsIn << "->" << g.bpsOut << " pair " << pair;
        }
    const struct { Knobs k; Geo g; } rows[] = {  // 9 x 7 with r 5: windows clipped at both ends, weights that matter
        {{1, 3, 0.5f, 0.0f, 3}, {57, 11, 3, 175, 8, 8, 0}},    {{2, 4, 1.0f, 3.0f, 2}, {70, 13, 4, 280, 8, 16, 1}},
        {{3, 5, -5.0f, -5.0f, 4}, {45, 14, 1, 45, 16, 16, 0}}, {{1, 5, 3.7f, 0.5f, 2}, {9, 7, 3, 27, 8, 16, 1}},
        {{1, 6, 0.0f, 12.0f, 2}, {5, 4, 3, 15, 8, 8, 0}},      {{2, 3, 2.0f, -10.0f, 3}, {1, 1, 4, 4, 16, 8, 0}},
        {{1, 1, NAN, NAN, 2}, {6, 5, 2, 12, 8, 8, 1}},         {{4, 9, 1e30f, 40.0f, 2}, {50, 21, 3, 150, 8, 8, 0}}};
    for (const auto& t : rows) {
        Bytes img = stack(t.k.n, t.g), dst = oltest::randomBytes(std::size_t(t.g.h) * t.g.stride * 2, rng());
        const Bytes want = intensiveRef(t.k, t.g, img, dst);
        ASSERT_EQ(ol_combi_intensive(t.k.step, t.k.r, t.k.power, t.k.sat, t.k.n, t.g.w, t.g.h, t.g.stride, t.g.swap, t.g.spp,
                                     t.g.bpsIn, t.g.bpsOut, img.data(), dst.data()), t.g.h);
        ASSERT_EQ(dst, want) << t.g.w << "x" << t.g.h << " r " << t.k.r << " step " << t.k.step << " n " << t.k.n;
    }
}

// Refused arguments leave the target as it was; a table too large gives -4;
// a failed work buffer leaves the two-image blend's target with the
// unblurred mask (each allocation failing in turn: frame_alloc_sweep_test).
TEST(Combine, RefusalsAndAllocationFailures) {
    const Geo g{21, 13, 3, 63, 8, 8, 0};
    const Bytes img = stack(2, g), before = oltest::randomBytes(std::size_t(g.h) * g.stride * 2, 5);
    const struct { int ia, w, h, stride, bpsOut; } bad2[] = {{0, 0, 13, 63, 8}, {0, 21, 0, 63, 8}, {-1, 21, 13, 63, 8}, {0, 21, 13, 62, 8}, {0, 21, 13, 63, 12}, {0, 21, 13, 63, -8}};
    const struct { int step, r, n, h, stride, bpsIn, bpsOut; } badI[] = {{0, 2, 1, 6, 63, 8, 8}, {1, 0, 1, 6, 63, 8, 8}, {1, -3, 1, 6, 63, 8, 8}, {1, 2, 0, 6, 63, 8, 8},
        {1, 2, 1, 0, 63, 8, 8}, {1, 2, 1, 6, 62, 8, 8}, {1, 2, 1, 6, 63, 32, 8}, {1, 2, 1, 6, 63, 8, 12}};
    Bytes dst = before;
    for (const auto& b : bad2) EXPECT_EQ(ol_combi_2images(0, b.ia, 1, b.w, b.h, b.stride, 0, 8, b.bpsOut, 3, img.data(), dst.data()), 0);
    for (const auto& b : badI) EXPECT_EQ(ol_combi_intensive(b.step, b.r, 0.0f, 0.0f, b.n, 21, b.h, b.stride, 0, 3, b.bpsIn, b.bpsOut, img.data(), dst.data()), 0);
    EXPECT_EQ(ol_combi_intensive(1, 1 << 30, 0.0f, 0.0f, 1, 21, 6, 63, 0, 3, 8, 8, img.data(), dst.data()), -4);
    EXPECT_EQ(dst, before);
    oltest::FailAllocation fail(1);
    EXPECT_EQ(ol_combi_2images(0, 0, 1, g.w, g.h, g.stride, 0, 8, 8, 3, img.data(), dst.data()), -4);
    EXPECT_EQ(dst, twoImagesRef(0, 1, g, img, before, true));
}
}  // namespace
