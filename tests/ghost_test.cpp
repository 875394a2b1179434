// Ghost detection: against a per-pixel reading of the detection (on the
// library's reduce step, statistics and exposure guess, which have their own
// tests), on a stack with a moving object, at the boundaries of the
// comparison, and on bad input. How ol_fusion uses the mask is pinned in
// fusion_weights_test (exact weights) and fusion_driver_test (on threads);
// every allocation failing in turn is in frame_alloc_sweep_test.
#include <array>

#include "fusion/photo_stats.hpp"
#include "fusion/pyramid.hpp"
#include "support/stacks.hpp"
#include "ghost/ghost.hpp"
#include "support/testsupport.hpp"

namespace {

using Bytes = std::vector<std::uint8_t>;

// up() of the Laplacian blend, one channel: the coarse pixel, with its right
// and/or lower neighbour at an odd coordinate that is not the last of an even side.
template <class T>
T up(const T* C, int wC, int wF, int hF, int x, int y) {
    const int r = (x & 1) && x != wF - 1, d = (y & 1) && y != hF - 1;
    const T* c = C + (y >> 1) * wC + (x >> 1);
    const auto sum = c[0] + (r ? c[1] : 0) + (d ? c[wC] : 0) + (r && d ? c[wC + 1] : 0);
    if constexpr (std::is_floating_point_v<T>) return sum * (r + d == 2 ? 0.25f : r + d ? 0.5f : 1.0f);
    else return static_cast<T>(sum >> (r + d));
}

// The detection, pixel by pixel, into a copy of the caller's mask.
Bytes reference(int seuil, int n, int w, int h, int ch, int bps, float evStep, std::vector<float>& dt, const Bytes& img, Bytes mask) {
    const int side = std::max(w, h), nivo = side < 1000 ? 2 : side < 2000 ? 3 : side < 4000 ? 4 : side < 8000 ? 5 : 6;
    std::vector<int> W{w}, H{h}, at{0}, st(5 * n), rise(n), sat(n), noise(n);
    for (int k = 0; k <= nivo; ++k) at.push_back(at[k] + W[k] * H[k]), W.push_back((W[k] + 1) / 2), H.push_back((H[k] + 1) / 2);
    Bytes pyr(at[nivo + 1] * ch + 8), stack;  // the last mask byte may read past the pyramid
    for (int p = 0; p < n; ++p) {
        for (int i = 0; i < w * h * ch; ++i) pyr[i] = img[(bps / 8) * (p * w * h * ch + i + 1) - 1];
        for (int k = 0; k < nivo; ++k) ol::fusion21a(W[k], H[k], W[k + 1], H[k + 1], ch, 8, 0, at[k] * ch, at[k + 1] * ch, nullptr, pyr.data(), "deghost21a");
        stack.insert(stack.end(), pyr.begin() + at[nivo] * ch, pyr.begin() + at[nivo + 1] * ch);
    }
    ol::photo_stats(n, w, h, ch, bps, img.data(), &st[0], &st[n], &st[2 * n], &st[3 * n], &st[4 * n]);
    if (evStep > -0.5f) guess_ev(0, n, evStep, &st[3 * n], dt.data());
    for (int j = 0; j < n; ++j) rise[j] = st[5 * n - 1 - j];
    auto lg = [&](int j) { return float(std::log2(double(dt[rise[j]]))); };
    for (int j = 0; j < n; ++j) {
        const float t = (lg(j) - lg(0)) / (lg(n - 1) - lg(0));
        sat[j] = lg(n - 1) <= lg(0) ? 64000 : int(t * 5120 + 56320), noise[j] = lg(n - 1) <= lg(0) ? 4096 : int(4096 - t * 1536);
    }
    for (int i = 0; i < W[nivo] * H[nivo]; ++i) {
        int s[3] = {}, count = 0, prev[3] = {}, prevLum = 0;
        for (int j = 0; j < n; ++j) {
            const std::uint8_t* q = &stack[(rise[j] * W[nivo] * H[nivo] + i) * ch];
            const int c[3] = {q[0], q[(ch - 1) / 2], q[ch - 1]};
            int lum = c[1] * 183 + c[0] * 54 + c[2] * 19, a[3] = {prev[0], prev[1], prev[2]}, b[3] = {c[0], c[1], c[2]};
            const bool pd = prevLum < noise[std::max(j - 1, 0)], cd = lum < noise[j];
            if (j && pd != cd) {  // one side dark: luminance only, raised to 512
                lum = std::max(lum, 512);
                for (int k = 0; k < 3; ++k) a[k] = std::max(prevLum, 512) >> 8, b[k] = lum >> 8;
            }
            if (j && !(pd && cd) && (pd != cd || lum <= sat[j]) && ++count)
                for (int k = 0; k < 3; ++k) s[k] += std::abs(b[k] - int(float(a[k]) * float(std::pow(double(dt[rise[j]] / dt[rise[j - 1]]), double(0.45454547f)))));
            std::copy(c, c + 3, prev), prevLum = lum;
        }
        pyr[at[nivo] + i] = count && (s[0] / count + s[1] / count + s[2] / count) / 2 > seuil ? 255 : 0;
    }
    for (int k = nivo - 1; k >= 0; --k)
        for (int i = 0; i < W[k] * H[k]; ++i) pyr[at[k] + i] = up(&pyr[at[k + 1]], W[k + 1], W[k], H[k], i % W[k], i / W[k]);
    for (int i = 0; w * h > 0 && i < 8 * (((w * h - 1) >> 3) + 1); ++i) mask[i >> 3] |= pyr[i] ? 0x80 >> (i & 7) : 0;
    return mask;
}

int detect(float seuil, int n, int w, int h, int ch, int bps, float evStep, std::vector<float>& dt, Bytes& img, Bytes& mask) {
    return ol_ghost_detect(&seuil, n, w, h, ch, bps, evStep, dt.data(), img.data(), mask.data());
}
bool bit(const Bytes& m, int i) { return m[i >> 3] & (0x80 >> (i & 7)); }

TEST(Ghost, MatchesThePerPixelReadingOnRandomStacks) {
    // Every level count (the longer side picks 2 to 6), and pictures so small
    // that the last mask byte reads past the pyramid.
    const std::array<int, 20> sizes = {1, 1, 3, 1, 5, 3, 17, 9, 64, 41, 301, 7, 1000, 3, 2001, 2, 4000, 1, 8000, 1};
    for (std::uint32_t seed = 0; seed < 60; ++seed) {
        const int w = sizes[seed / 6 * 2], h = sizes[seed / 6 * 2 + 1], round = seed % 6;
        const Bytes r = oltest::randomBytes(16, seed);
        const int n = 1 + r[0] % 5, ch = 1 + r[1] % 4, bps = r[2] & 1 ? 16 : 8, seuil = r[3] % 24;
        const float evStep = round % 3 == 0 ? -1.0f : round % 3 == 1 ? 0.0f : 1.5f;
        Bytes img = oltest::randomBytes(std::size_t(n) * w * h * ch * (bps / 8), seed * 7), mask = oltest::randomBytes((w * h + 7) / 8 + 1, seed);
        std::vector<float> dt(n);
        for (int p = 0; p < n; ++p) dt[p] = round == 3 ? 1.0f : std::ldexp(1.0f + r[4 + p] / 64.0f, r[9 + p] % 9 - 4);
        // A noisy ramp photographed at these exposures (gamma 2.2), with small patches that move.
        const std::size_t bytes = std::size_t(w) * h * ch * (bps / 8);
        const float top = *std::max_element(dt.begin(), dt.end());
        for (std::size_t i = 0, p = 0, q = 0; i < img.size(); ++i, p = i / bytes, q = i % bytes) {
            const double s = double(q) / bytes * (0.6 + img[i] / 640.0) * dt[p] / top * 1.3;
            img[i] = std::uint8_t(std::clamp(255 * std::pow(s, 1 / 2.2) + img[i] % 5 - 2 + (q % 97 < 9 && p == q % n ? 70 : 0), 0.0, 255.0));
        }
        std::vector<float> dtRef = dt;
        const Bytes want = reference(seuil, n, w, h, ch, bps, evStep, dtRef, img, mask);
        EXPECT_GE(detect(seuil, n, w, h, ch, bps, evStep, dt, img, mask), 0);
        EXPECT_EQ(mask, want) << w << "x" << h << " n" << n << " ch" << ch << " bps" << bps << " ev" << evStep;
        EXPECT_EQ(dt, dtRef);
    }
}

TEST(Ghost, BoundariesOnFlatPairs) {
    struct Row { int dark, bright; float dtDark, dtBright, seuil; bool marked; };
    const Row rows[] = {{100, 110, 1, 1, 14, true}, {100, 110, 1, 1, 15, false},  // equal exposures: 10 a channel gives 15
                        {100, 102, 1, 1, 0, true},                                // seuil 0 marks any difference
                        {4, 12, 1, 1, 0, false},                                  // dark in both photos
                        {100, 250, 1, 2, 0, false},                               // the brighter one above its saturation limit
                        {1, 40, 1, 2, 56, true}, {1, 40, 1, 2, 57, false},        // one dark: lum 0 raised to 512, 40 - trunc(2 * 1.37)
                        {100, 100, 0, -1, 0, false}};  // log2 of 0 and of a negative exposure: limits of 0x80000000, no crash
    for (const Row& r : rows) {  // 2x2 photos: the corner kernels keep even levels (1 becomes 0)
        Bytes img = fustest::flatStack(2, 2, {r.dark, r.bright}), mask(1);
        std::vector<float> dt = {r.dtDark, r.dtBright};
        EXPECT_EQ(detect(r.seuil, 2, 2, 2, 3, 8, -1, dt, img, mask), 1);
        EXPECT_EQ(mask[0] & 0xf0, r.marked ? 0xf0 : 0) << r.dark << " " << r.bright << " " << r.seuil;
    }
}

TEST(Ghost, ExpandLevelIsTheBlendExpansionAtEachDepth) {
    const Bytes c = oltest::randomBytes(12, 5);
    auto check = [&](auto zero, int bps) {
        std::vector<decltype(zero)> coarse(c.begin(), c.end()), fine(42);
        ol::expand_level(7, 6, 4, 3, 1, bps, 0, 0, 0, coarse.data(), fine.data());
        for (int i = 0; i < 42; ++i) EXPECT_EQ(fine[i], up(coarse.data(), 4, 7, 6, i % 7, i / 7)) << bps << " " << i;
    };
    check(std::uint8_t(), 8), check(std::uint16_t(), 16), check(0.0f, 32);
}

TEST(Ghost, MovingObjectIsMarkedWithItsDilation) {
    // Three photos (exposures 0.5, 1, 2 through gamma 2.2) of a smooth scene,
    // with a bright 40-pixel square at rows 100..139 and column x0 = 60 + 100 p in photo p.
    const int w = 400, h = 300;
    Bytes img(3 * w * h * 3), mask(w * h / 8);
    for (int i = 0; i < 3 * w * h * 3; ++i) {
        const int p = i / (w * h * 3), x = i / 3 % w, y = i / 3 / w % h, obj = y >= 100 && y < 140 && x >= 60 + 100 * p && x < 100 + 100 * p;
        img[i] = std::uint8_t(255 * std::pow((obj ? 0.4 : 0.08 + 0.25 * x / w + 0.04 * (i % 3)) * (0.5 * (1 << p)), 1 / 2.2));
    }
    std::vector<float> dt = {9, 9, 9};  // guessed one stop apart by rank: the exposures the photos were made with
    EXPECT_EQ(detect(10, 3, w, h, 3, 8, 1.0f, dt, img, mask), 75);
    EXPECT_EQ(dt, (std::vector<float>{0.5f, 1.0f, 2.0f}));
    for (int i = 0; i < w * h; ++i) {  // inside a square: marked; more than 8 pixels from every square: clear
        const int x = i % w, y = i / w, x0 = 60 + 100 * std::clamp((x - 40) / 100, 0, 2);
        const int far = std::max({0, x0 - x, x - x0 - 39, 100 - y, y - 139});
        if ((far == 0 && !bit(mask, i)) || (far > 8 && bit(mask, i))) ADD_FAILURE() << x << "," << y << " marked " << bit(mask, i);
    }
    for (int x0 : {60, 160})  // the expansion grows the region on every side
        for (auto [x, y] : {std::pair{x0 - 2, 120}, {x0 + 41, 120}, {x0 + 20, 98}, {x0 + 20, 141}}) EXPECT_TRUE(bit(mask, y * w + x));
}

TEST(Ghost, BadInputAndNothingToDo) {
    struct Row { int n, w, h, ch, bps, given, want; };  // given: bits of settings, deltaT, images, mask
    const Row rows[] = {{2, 4, 4, 3, 12, 15, -2}, {2, 4, 4, 3, 32, 15, -2}, {-1, 4, 4, 3, 8, 15, -1}, {2, 4, 4, 0, 8, 15, -1},
                        {2, -4, 4, 3, 8, 15, -1}, {2, 4, 4, 3, 8, 14, -1}, {2, 4, 4, 3, 8, 13, -1}, {2, 4, 4, 3, 16, 11, -1},
                        {2, 4, 4, 3, 8, 7, -1}, {0, 4, 4, 3, 8, 15, 0},
                        // empty and one-pixel pictures; one photo compares nothing (bits past the picture are left over)
                        {1, 0, 0, 3, 8, 15, 0}, {2, 0, 5, 3, 8, 15, 2}, {2, 1, 0, 3, 8, 15, 0}, {1, 1, 1, 3, 8, 15, 1},
                        {2, 1, 1, 3, 8, 15, 1}, {1, 1, 5, 3, 8, 15, 2}, {2, 1, 5, 3, 8, 15, 2}};
    Bytes img(2 * 16 * 3 * 2, 100);
    std::vector<float> dt = {1, 2};
    for (const Row& r : rows) {
        Bytes mask(2, 0);
        float seuil = 0, *s = r.given & 1 ? &seuil : nullptr, *d = r.given & 2 ? dt.data() : nullptr;
        EXPECT_EQ(ol_ghost_detect(s, r.n, r.w, r.h, r.ch, r.bps, -1, d, r.given & 4 ? img.data() : nullptr, r.given & 8 ? mask.data() : nullptr), r.want);
        const int bits = std::clamp(r.w * r.h, 0, 8);
        EXPECT_TRUE(((r.want > 0 && r.n > 1) || (bits ? mask[0] >> (8 - bits) : mask[0]) == 0) && mask[1] == 0) << r.n << " " << r.w << "x" << r.h;
    }
}

}  // namespace
