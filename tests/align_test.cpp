// Frame alignment: byte-exact agreement with a per-pixel reading of the method
// on random stacks, known shifts found again, and the boundary cases.
#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>
#include <set>
#include <vector>

#include "align/align_internal.hpp"
#include "frame/histogram.hpp"
#include "support/testsupport.hpp"

namespace {

using Bytes = std::vector<std::uint8_t>;
struct Shape { int n, w, h, spp, bits; };
struct Out { Bytes block; int dims[2]; int rc; };

// ---------------------------------------------------------------------------
// Reference: bitmaps one byte a pixel, every pair rebuilt from the pixels.
struct Ref {
    Shape s; const Bytes& in;
    int sample(int k, long px, int i) const {
        const long at = ((long)k * s.w * s.h + px) * s.spp + i;
        return s.bits == 8 ? in[at] : in[2 * at + 1];  // the high byte
    }
    static int bin(const long* h, long c) {
        long sum = 0;
        for (int b = 0; b < 256; ++b) if ((sum += h[b]) > c) return b;
        return 256;
    }
    // The written loop, stopped at the first count that comes round again.
    static long adjust(const long* h, long c) {
        for (std::set<long> seen;; ) {
            const int b = bin(h, c);
            if ((b <= 235 && b >= 15) || !seen.insert(c).second) return c;
            c = b > 235 ? (long)(c * 0.95) : (long)(c * 1.05);
        }
    }
    static long correct(const long* h, long c) {
        const int b = bin(h, c);
        return b >= 236 ? adjust(h, (long)(c * 0.95)) : b < 15 ? adjust(h, (long)(c * 1.05)) : c;
    }
    // Level bitmaps of frame k at count c, with their sizes.
    std::vector<Bytes> bitmaps(int k, const long* hist, long c, int L, std::vector<int>& ws, std::vector<int>& hs) const {
        const int T = bin(hist, c);
        int w = s.w, h = s.h;
        Bytes g(w * h);
        for (long p = 0; p < (long)w * h; ++p)
            g[p] = (s.bits == 8 || s.bits == 16) ? (54 * sample(k, p, 0) + 183 * sample(k, p, 1) + 19 * sample(k, p, 2)) >> 8 : 0;
        std::vector<Bytes> out;
        ws.clear(); hs.clear();
        for (int l = 0; l < L; ++l) {
            if (l > 0) {
                const int w2 = w / 2, h2 = h / 2;
                Bytes r(w2 * h2);
                auto at = [&](int x, int y) { return (int)g[y * w + x]; };
                for (int y = 0; y < h2; ++y)
                    for (int x = 0; x < w2; ++x) {
                        const int cx = 2 * x + 1, cy = 2 * y + 1, C = at(cx, cy), Lf = at(cx - 1, cy), U = at(cx, cy - 1), UL = at(cx - 1, cy - 1);
                        const bool lastX = x == w2 - 1, lastY = y == h2 - 1;
                        if (!lastX && !lastY)
                            r[y * w2 + x] = (4 * C + 2 * (Lf + at(cx + 1, cy) + U + at(cx, cy + 1)) + UL + at(cx + 1, cy - 1) + at(cx - 1, cy + 1) + at(cx + 1, cy + 1)) >> 4;
                        else if (!lastY)
                            r[y * w2 + x] = (85 * C + 43 * (Lf + U + at(cx, cy + 1)) + 21 * (UL + at(cx - 1, cy + 1))) >> 8;
                        else if (!lastX)
                            r[y * w2 + x] = (83 * C + 43 * (Lf + at(cx + 1, cy) + U) + 21 * (UL + at(cx + 1, cy - 1))) >> 8;
                        else
                            r[y * w2 + x] = (113 * C + 57 * (Lf + U) + 16 * UL) >> 8;
                    }
                g = r; w = w2; h = h2;
            }
            Bytes b(w * h);
            for (int y = 0; y < h; ++y)
                for (int x = 0; x < w / 8 * 8; ++x) b[y * w + x] = g[y * w + x] > T;
            out.push_back(b); ws.push_back(w); hs.push_back(h);
        }
        return out;
    }
    void search(const std::vector<Bytes>& A, const std::vector<Bytes>& B, const std::vector<int>& ws,
                const std::vector<int>& hs, int& dx, int& dy) const {
        int sx = 0, sy = 0;
        for (int l = (int)A.size() - 1; l >= 0; --l) {
            const int w = ws[l], h = hs[l];
            long best = (long)w * h; int bx = 0, by = 0, ties = 0;
            for (int cy = -1; cy <= 1; ++cy)
                for (int cx = -1; cx <= 1; ++cx) {
                    long n = 0;
                    for (int y = 0; y < h; ++y)
                        for (int x = 0; x < w; ++x) {
                            const int u = x + sx + cx, v = y + sy + cy;
                            const int b = u >= 1 && u < w && v >= 1 && v < h ? B[l][v * w + u] : 0;
                            n += A[l][y * w + x] != b;
                        }
                    if (n <= best) ++ties;
                    if (n < best) { best = n; bx = cx; by = cy; }
                }
            if (ties > 8) bx = by = 0;
            sx = 2 * (sx + bx); sy = 2 * (sy + by);
        }
        dx = sx / 2; dy = sy / 2;
    }
    Out run(int keep) const {
        const long P = (long)s.w * s.h, c17 = (long)(P * 0.17), c50 = (long)(P * 0.5), c90 = (long)(P * 0.9), c95 = (long)(P * 0.95);
        std::vector<long> hist(256 * s.n), target(s.n), key(s.n);
        std::vector<int> order(s.n), X(s.n), Y(s.n);
        for (int k = 0; k < s.n; ++k) {
            for (long p = 0; p < P && (s.bits == 8 || s.bits == 16); ++p)
                ++hist[256 * k + ((54 * sample(k, p, 0) + 183 * sample(k, p, 1) + 19 * sample(k, p, 2)) >> 8)];
            const int m = bin(&hist[256 * k], c50);
            target[k] = m >= 236 ? c17 : m < 15 ? c90 : c50;
            key[k] = m >= 5 ? m * 256 : bin(&hist[256 * k], c95);
        }
        std::iota(order.begin(), order.end(), 0);
        std::stable_sort(order.begin(), order.end(), [&](int a, int b) { return key[a] > key[b]; });
        const int L = s.w > 0 ? (int)(std::log(0.08 * s.w) / std::log(2.0)) : 0;
        auto H = [&](int k) { return &hist[256 * k]; };
        long c = target[order[0]];
        if (c != c17 && target[order[1]] != c50) c = target[order[1]];
        c = correct(H(order[1]), c);
        std::vector<int> ws, hs;
        std::vector<Bytes> A = bitmaps(order[1], H(order[1]), c, L, ws, hs), B = bitmaps(order[0], H(order[0]), c, L, ws, hs);
        search(A, B, ws, hs, X[order[0]], Y[order[0]]);
        for (int k = 2; k < s.n; ++k) {
            const int p = order[k - 1], q = order[k];
            long t = target[p] != c50 ? target[p] : target[q];
            if (k > 2 || t != c) { t = correct(H(p), t); A = bitmaps(p, H(p), t, L, ws, hs); }
            B = bitmaps(q, H(q), t, L, ws, hs);
            c = t;
            int dx, dy;
            search(A, B, ws, hs, dx, dy);
            X[q] = X[p] + dx; Y[q] = Y[p] + dy;
        }
        const int minX = std::min(0, *std::min_element(X.begin(), X.end())), maxX = std::max(0, *std::max_element(X.begin(), X.end()));
        const int minY = std::min(0, *std::min_element(Y.begin(), Y.end())), maxY = std::max(0, *std::max_element(Y.begin(), Y.end()));
        const int W = keep == 1 ? s.w : s.w - maxX + minX, Hh = keep == 1 ? s.h : s.h - maxY + minY, bps = s.bits / 8;
        Out o{in, {W, Hh}, maxX - minX + maxY - minY};
        for (int k = 0; k < s.n; ++k)
            for (int y = 0; y < Hh; ++y)
                for (int x = 0; x < W; ++x)
                    for (int i = 0; i < s.spp * bps; ++i) {
                        const int u = x + X[k] - minX, v = y + Y[k] - minY;
                        const long src = (((long)k * s.h + v) * s.w + u) * s.spp * bps + i;
                        const int b = i >= 3 * bps ? 0 : (u < s.w && v < s.h && (s.bits == 8 || s.bits == 16)) ? in[src] : (s.bits == 8 || s.bits == 16) ? 255 : 0;
                        o.block[(((long)k * Hh + y) * W + x) * s.spp * bps + i] = b;
                    }
        return o;
    }
};

Out runLib(const Shape& s, Bytes block, int keep) {
    Out o{std::move(block), {keep, -7}, 0};
    o.rc = align(s.n, s.w, s.h, s.spp, s.bits, o.dims, o.block.data());
    return o;
}

// A scene of random boxes on a gradient, seen by each frame through a window
// moved by (sx[k], sy[k]) and an exposure factor, with a little noise.
Bytes makeStack(const Shape& s, const std::vector<int>& sx, const std::vector<int>& sy, unsigned seed, int margin = 40,
                float exposure = 1) {
    std::mt19937 rng(seed);
    const int W = s.w + 2 * margin, Hs = s.h + 2 * margin;
    std::vector<float> scene(W * Hs);
    for (int y = 0; y < Hs; ++y) for (int x = 0; x < W; ++x) scene[y * W + x] = 0.2f * x / W + 0.1f * y / Hs;
    for (int b = 0; b < 12 + W * Hs / 900; ++b) {
        const int x0 = rng() % W, y0 = rng() % Hs, bw = 2 + rng() % (W / 4 + 1), bh = 2 + rng() % (Hs / 4 + 1);
        const float v = (rng() % 1000) / 1000.0f;
        for (int y = y0; y < std::min(Hs, y0 + bh); ++y) for (int x = x0; x < std::min(W, x0 + bw); ++x) scene[y * W + x] = v;
    }
    const int bps = s.bits / 8;
    Bytes out((size_t)s.n * s.w * s.h * s.spp * bps);
    for (int k = 0; k < s.n; ++k) {
        const float gain = exposure * (0.5f + 0.12f * k + (rng() % 100) / 1000.0f);
        for (int y = 0; y < s.h; ++y)
            for (int x = 0; x < s.w; ++x)
                for (int i = 0; i < s.spp; ++i) {
                    const float v = scene[(y + margin + sy[k]) * W + x + margin + sx[k]] * gain * (0.8f + 0.2f * i) + (rng() % 64) / 8192.0f;
                    const unsigned q = (unsigned)(std::clamp(v, 0.0f, 1.0f) * (bps == 1 ? 255 : 65535));
                    const size_t at = ((((size_t)k * s.h + y) * s.w + x) * s.spp + i) * bps;
                    out[at] = q & 0xFF;
                    if (bps == 2) out[at + 1] = q >> 8;
                }
    }
    return out;
}

TEST(Align, MatchesPerPixelReadingOnRandomStacks) {
    const Shape shapes[] = {{3, 61, 37, 3, 8}, {4, 100, 53, 4, 8}, {5, 77, 41, 3, 16}, {7, 130, 67, 4, 16},
                            {3, 25, 9, 3, 8}, {6, 203, 99, 3, 8}, {3, 64, 2, 4, 8}, {2, 45, 31, 3, 8}};
    unsigned seed = 1;
    for (const Shape& s : shapes)
        for (int keep : {0, 1})
            for (int rep = 0; rep < 3; ++rep, ++seed) {
                std::mt19937 rng(seed);
                std::vector<int> sx(s.n), sy(s.n);
                for (int k = 0; k < s.n; ++k) { sx[k] = (int)(rng() % 13) - 6; sy[k] = (int)(rng() % 13) - 6; }
                // Mid exposures, then dark and bright stacks (corrected counts).
                const Bytes in = makeStack(s, sx, sy, seed, 40, rep == 0 ? 1.0f : rep == 1 ? 0.12f : 3.0f);
                SCOPED_TRACE(testing::Message() << s.n << " frames " << s.w << "x" << s.h << " spp " << s.spp << " bits " << s.bits << " keep " << keep << " seed " << seed);
                const Out want = Ref{s, in}.run(keep), got = runLib(s, in, keep);
                ASSERT_EQ(got.rc, want.rc);
                ASSERT_EQ(got.dims[0], want.dims[0]);
                ASSERT_EQ(got.dims[1], want.dims[1]);
                ASSERT_TRUE(got.block == want.block);
            }
}

// Frames moved by known amounts come back in register: frame k's output is
// its input read from (largest shift - shift of k), cropped or with white margins.
TEST(Align, FindsKnownShifts) {
    struct Case { Shape s; std::vector<int> sx, sy; };
    // Any two frames lie within one pair's reach (2^L - 1), whatever the order.
    const Case cases[] = {{{3, 200, 150, 3, 8}, {0, 3, -4}, {0, -5, 2}},                      // L = 4
                          {{5, 320, 200, 4, 16}, {-7, 0, 6, 8, 5}, {7, 0, -7, -1, 8}},           // L = 4, reach 15
                          {{7, 160, 120, 3, 16}, {1, 0, -1, -3, -1, 4, 0}, {-2, 0, 3, 1, -4, 0, -3}},  // L = 3, reach 7
                          {{4, 400, 300, 4, 8}, {-15, 0, 16, 0}, {16, 0, -15, -5}}};           // L = 5, reach 31
    for (const Case& c : cases)
        for (int keep : {0, 1}) {
            const Bytes in = makeStack(c.s, c.sx, c.sy, 99, 70);
            const Out got = runLib(c.s, in, keep);
            const int mx = *std::max_element(c.sx.begin(), c.sx.end()), nx = *std::min_element(c.sx.begin(), c.sx.end());
            const int my = *std::max_element(c.sy.begin(), c.sy.end()), ny = *std::min_element(c.sy.begin(), c.sy.end());
            ASSERT_EQ(got.rc, mx - nx + my - ny) << c.s.w << " keep " << keep << " dims " << got.dims[0] << "x" << got.dims[1];
            const int W = keep ? c.s.w : c.s.w - (mx - nx), H = keep ? c.s.h : c.s.h - (my - ny), ps = c.s.spp * c.s.bits / 8;
            ASSERT_EQ(got.dims[0], W);
            ASSERT_EQ(got.dims[1], H);
            for (int k = 0; k < c.s.n; ++k)
                for (int y = 0; y < H; ++y)
                    for (int x = 0; x < W; ++x)
                        for (int i = 0; i < ps; ++i) {
                            const int u = x + mx - c.sx[k], v = y + my - c.sy[k];
                            const int want = i >= 3 * c.s.bits / 8 ? 0 : u < c.s.w && v < c.s.h ? in[(((size_t)k * c.s.h + v) * c.s.w + u) * ps + i] : 255;
                            ASSERT_EQ(got.block[(((size_t)k * H + y) * W + x) * ps + i], want) << k << " " << x << "," << y;
                        }
        }
}

TEST(Align, BoundaryCases) {
    const Shape s{3, 24, 20, 4, 8};  // width 24: no level, nothing moves
    Out o = runLib(s, makeStack(s, {0, 5, -5}, {0, 3, 2}, 5), 0);
    EXPECT_EQ(o.rc, 0);
    EXPECT_EQ(ol::alignment::levelCount(24), 0);
    EXPECT_EQ(ol::alignment::levelCount(25), 1);
    const Shape t{4, 90, 50, 4, 16};  // identical frames: nothing moves, alpha cleared
    Bytes one = makeStack({1, 90, 50, 4, 16}, {0}, {0}, 6), same;
    for (int k = 0; k < 4; ++k) same.insert(same.end(), one.begin(), one.end());
    o = runLib(t, same, 0);
    EXPECT_EQ(o.rc, 0);
    EXPECT_EQ(o.dims[0], 90);
    EXPECT_EQ(o.dims[1], 50);
    EXPECT_TRUE(o.block == (Ref{t, same}.run(0).block));
    int order[5], work[5];
    const int keys[5] = {1280, 1792, 1792, 1280, 4};  // equal keys keep frame order
    ol::orderByFallingKey(5, keys, work, order);
    EXPECT_EQ(std::vector<int>(order, order + 5), (std::vector<int>{1, 2, 0, 3, 4}));
    // Fewer than 2 frames, sizes 0 and 1, missing samples: no crash, defined result.
    for (const Shape& z : {Shape{1, 50, 50, 3, 8}, Shape{0, 50, 50, 3, 8}, Shape{3, 0, 5, 3, 8}, Shape{3, 5, 0, 3, 8},
                           Shape{2, 1, 1, 3, 8}, Shape{2, 1, 1, 4, 16}, Shape{3, 60, 1, 3, 8}, Shape{3, 1, 60, 3, 16},
                           Shape{2, 40, 40, 2, 8}, Shape{2, -3, 4, 3, 8}}) {
        const Bytes in = oltest::randomBytes(std::max(0, z.n * z.w * z.h * z.spp * z.bits / 8), 3);
        o = runLib(z, in, 0);
        EXPECT_EQ(o.rc, 0) << z.n << " " << z.w << "x" << z.h;
        if (z.n < 2 || z.spp < 3 || z.w < 0) EXPECT_TRUE(o.block == in && o.dims[1] == -7);
        else EXPECT_TRUE((z.w * z.h == 0 || o.block == (Ref{z, in}.run(0).block)) && o.dims[0] == z.w && o.dims[1] == z.h);
    }
    // Other depths: no luminance, every frame overwritten with zero bytes.
    const Shape b12{2, 40, 30, 3, 12};
    o = runLib(b12, Bytes(2 * 40 * 30 * 3, 77), 0);
    EXPECT_TRUE(o.rc == 0 && std::all_of(o.block.begin(), o.block.end(), [](int v) { return v == 0; }));
}

// The correction loop stops on histograms it can never satisfy: a run of
// counts that comes back to a count already taken returns that count.
TEST(Align, CorrectionStopsOnHistogramsWithoutAnswer) {
    std::vector<std::int64_t> h(3 * 256, 0);
    h[240] = 1000;                   // frame 0: all above 235
    h[256 + 3] = 1000;               // frame 1: all black
    h[512 + 3] = 500, h[512 + 100] = 500;  // frame 2: satisfiable
    EXPECT_EQ(ol::alignment::adjust_count(h.data(), 0, 900), 0);
    for (int k = 1; k < 3; ++k) EXPECT_EQ(ol::alignment::adjust_count(h.data(), k, 900), Ref::adjust(&h[256 * k], 900));
    for (int v : {0, 255}) {  // whole stacks of such frames end too
        const Shape s{3, 70, 40, 3, 8};
        const Out o = runLib(s, Bytes(3 * 70 * 40 * 3, v), 0);
        EXPECT_EQ(o.rc, 0);
    }
}

TEST(Align, AllocationFailureLeavesBlockAndDims) {
    const Shape s{3, 120, 80, 4, 8};
    const Bytes in = makeStack(s, {0, 4, -3}, {2, 0, -1}, 8);
    const long count = oltest::countAllocations([&] { runLib(s, in, 0); });
    ASSERT_GE(count, 4);
    for (long n = 1; n <= count; ++n) {
        oltest::FailAllocation fail(n);
        const Out o = runLib(s, in, 0);
        EXPECT_EQ(o.rc, -4) << n;
        EXPECT_TRUE(o.block == in && o.dims[0] == 0 && o.dims[1] == -7) << n;
    }
}

}  // namespace
