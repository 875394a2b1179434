// Response curves against a small reading of their rules on random and
// degenerate stacks; tone curves of crafted and real profiles.
#include <cmath>
#include <cstring>
#include <random>
#include <sstream>
#include <utility>

#include "support/testsupport.hpp"

namespace {
using Bytes = std::vector<std::uint8_t>;

int lev(const Bytes& b, std::size_t k, int bps) { return bps == 8 ? b[k] : b[2 * k + 1]; }

// Order by repeated scans: the first of the largest values below the last
// scan's, from 255; a scan that finds nothing repeats the last image.
std::vector<int> descendingScan(const std::vector<int>& v) {
    std::vector<int> ord(v.size());
    for (int k = 0, pick = 0, lim = 255, best; k < int(v.size()); ord[k++] = pick, lim = best)
        for (int i = (best = 0, 0); i < int(v.size()); ++i) if (v[i] < lim && v[i] > best) best = v[pick = i];
    return ord;
}

// calc_courbe as its rules read, step by step.
int refCourbe(int n, int w, int h, int bps, int spp, const float* ex, const Bytes& im, float* c) {
    const std::size_t fs = std::size_t(w) * h * spp;
    auto fml = [&](int i, std::size_t o, int k) { return lev(im, i * fs + o + (k == 0 ? 0 : k == 1 ? (spp - 1) / 2 : spp - 1), bps); };
    auto wl = [&](int i, std::size_t o, double wf, double wla) { return int(fml(i, o, 1) * 0.6 + fml(i, o, 0) * wf + fml(i, o, 2) * wla); };
    auto fold = [](int m) { return m > 128 ? 255 - m : m; };
    std::vector<std::size_t> pts;
    for (std::size_t y = 0, o; y < std::size_t(h); y += h / 50 + 1)
        for (std::size_t x = 0, ok = 1; x < std::size_t(w); x += w / 50 + 1, ok = 1) {
            for (int i = 0; i < n; ++i) ok &= wl(i, o = (y * w + x) * spp, 0.1, 0.3) >= 1 && wl(i, o, 0.1, 0.3) <= 254;
            if (ok) pts.push_back((y * w + x) * spp);
        }
    const int N = int(pts.size()) - 1;
    if (N < 1) return -1;
    std::vector<int> mean(n), ord(n), l(n);
    std::vector<float> est(n, 0.0f), v(n);
    for (int i = 0, s = 0; i < n; mean[i++] = s / (3 * N), s = 0)
        for (int p = 0; p < N; ++p) s += fml(i, pts[p], 0) + fml(i, pts[p], 1) + fml(i, pts[p], 2);
    ord = descendingScan(mean);
    for (int i = 0, a, b, rej; i + 1 < n; ++i) {
        float sum = 0.0f, Lg;
        if (ex[b = ord[i + 1]] == 0.0f) continue;
        for (int p = (rej = 0, a = ord[i], 0), la, lb; p < N; ++p) {
            la = wl(a, pts[p], 0.1, 0.3), lb = bps == 16 ? wl(b, pts[p], 0.1, 0.3) : wl(b, pts[p], 0.3, 0.1);
            Lg = la < 65 || la > 191 || lb < 65 || lb > 191 ? 0.0f : float(std::log(double(float(la) / float(lb))));
            if (Lg == 0.0f) ++rej; else sum += 1.0 / Lg;
        }
        if (rej < N) est[i] = float(std::log(double(ex[a] / ex[b])) * (sum / float(N - rej)));
    }
    float ws = 0.0f, vs = 0.0f;
    for (int i = 0, wt; i + 1 < n; ++i)
        if (est[i] > 1.0 && est[i] < 3.2) wt = int((fold(mean[ord[i]]) + fold(mean[ord[i + 1]])) * 0.5), ws += float(wt), vs += float(wt) * est[i];
    const float g = ws == 0.0f ? 0.0f : vs / ws;
    int pairs = 0;
    for (int p = 0; p < N; ++p) {
        for (int i = 0; i < n; ++i) l[i] = wl(i, pts[p], 0.1, 0.3), v[i] = l[i] >= 37 && l[i] <= 199 ? float(std::pow(double(l[i]), double(g)) / ex[i]) : 0.0f;
        for (int i = 0; i < n; ++i)
            for (int j = i + 1; j < n; ++j)
                if (float d = v[i] > 0 && v[j] > 0 ? (v[i] - v[j]) / v[i] : 1.0f; std::fabs(d) < 0.2)
                    c[l[i]] = v[i] * ex[i] * float(d + 1.0), c[l[j]] = v[j] * ex[j] * float(d + 1.0), ++pairs;
    }
    c[1] = 1.0f, c[0] = float(std::pow(200.0, double(g))), c[2] = float(pairs);
    return int(g * 1000.0);
}

// Stacks photographed with exponent 1.6..2.7 (noise, clipping), random bytes,
// one grey level, all black or all white; exposures bracketed, equal, or one 0.
TEST(Response, CalcCourbeAgainstReading) {
    std::mt19937 rng(7);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    for (int t = 0; t < 400; ++t) {
        const int n = 1 + t % 5, bps = t % 2 ? 16 : 8, spp = (t / 2) % 3 == 0 ? 1 : 3 + (t / 6) % 2, sizes[] = {1, 2, 3, 7, 50, 51, 101, 160};
        const int w = sizes[rng() % 8], h = sizes[rng() % 8], kind = t % 9, top = bps == 8 ? 255 : 65535;
        const std::size_t fs = std::size_t(w) * h * spp;
        std::vector<float> ex(n), got(256, -7.0f), want(256, -7.0f);
        for (int i = 0; i < n; ++i) ex[i] = t % 11 == 3 ? 1.0f : (t % 13 == 5 && i == 1 ? 0.0f : std::exp2(float(i) * (0.5f + (rng() % 4) * 0.5f)));
        Bytes im = oltest::randomBytes(fs * n * bps / 8, t);
        for (std::size_t k = 0; kind > 1 && k < fs; ++k)
            for (int i = 0, r = int(std::exp2(-8.0 * u(rng)) * 1e6); i < n; ++i) {
                const int q = kind == 2 ? 0 : kind == 3 ? top : kind == 4 ? 40 * top / 255 : int(std::clamp(top * (std::pow(r * 1e-6 * ex[i] / ex[n - 1], 1.0 / (1.6 + 0.1 * (t % 12))) + 0.02 * (u(rng) - 0.5)), 0.0, double(top)));
                if (bps == 8) im[i * fs + k] = q; else im[2 * (i * fs + k)] = q & 255, im[2 * (i * fs + k) + 1] = q >> 8;
            }
        ASSERT_EQ(calc_courbe(n, w, h, bps, spp, ex.data(), im.data(), got.data()), refCourbe(n, w, h, bps, spp, ex.data(), im, want.data())) << t;
        ASSERT_EQ(std::memcmp(got.data(), want.data(), 1024), 0) << t;
    }
    std::vector<float> c(256, -7.0f), ex{1, 2, 4};
    const Bytes grey(3 * 60 * 40 * 3, 128);
    EXPECT_EQ(calc_courbe(3, 60, 40, 12, 3, ex.data(), grey.data(), c.data()) + calc_courbe(0, 60, 40, 8, 3, ex.data(), grey.data(), c.data()) +
              calc_courbe(3, INT32_MAX, INT32_MAX, 8, 3, ex.data(), grey.data(), c.data()), -2);
    EXPECT_EQ(c[0] + c[1] + c[2], -21.0f);  // no level at 12 bits, no frame, sizes past any buffer: untouched
}

TEST(Response, TablesFromAnExponent) {
    std::vector<float> c(65536, -7.0f);
    EXPECT_EQ(gen_courbe(2200, 1.0f, c.data()), 256);
    EXPECT_EQ(std::vector<float>({c[0], c[1], c[255]}), std::vector<float>({1.0f, 1.0f, float(std::pow(255.0, 2.2))}));
    EXPECT_EQ(camcurve(0, 65536, c.data()), 65536);
    EXPECT_EQ(std::vector<float>({c[0], c[1], c[65535]}), std::vector<float>({c[1], float(std::pow(double(float(1.0 / 65535)), 2.2) * 65535), 65535.0f}));
    EXPECT_EQ(camcurve(1, 256, c.data()), 256);
    for (int i = 0; i < 256; ++i) ASSERT_NEAR(c[i], i + (i == 0), 1e-4 * i);  // a straight line; entry 0 = entry 1
    c[0] = -7.0f;
    EXPECT_EQ(camcurve(1, 1, c.data()) + camcurve(0, -3, c.data()), 2);
    EXPECT_EQ(c[0], -7.0f);  // untouched below two entries
}

TEST(Response, GammaOfCraftedProfiles) {
    // Size field; at 20 a curve ("curv", reserved, count, 8.8 gamma 2.199);
    // at 132 the entry "rTRC" with its offset; cut to `size` bytes.
    auto profile = [](int size, std::uint32_t field, std::uint32_t count, std::uint32_t at) {
        Bytes p(200, 0);
        for (int k = 0; k < 4; ++k) p[k] = field >> (24 - 8 * k), p[136 + k] = at >> (24 - 8 * k), p[28 + k] = count >> (24 - 8 * k);
        std::memcpy(&p[20], "curv", 4), std::memcpy(&p[132], "rTRC", 4), p[32] = 2, p[33] = 0x33, p.resize(size);
        return p;
    };
    struct Row { Bytes p; int result; float gamma; } rows[] = {
        {profile(200, 200, 1, 20), 136, 2.19921875f}, {profile(200, 200, 0, 20), 136, 2.2f}, {profile(200, 200, 256, 20), 136, 2.2f},
        {profile(200, 200, 1, 186), 136, 2.2f}, {profile(200, 200, 1, 187), 136, 2.2f}, {profile(200, 200, 1, ~0u), 136, 2.2f},
        {profile(145, 145, 1, 20), 136, 2.19921875f}, {profile(144, 144, 1, 20), 132, 2.2f},  // the last position scanned is size - 13
        {profile(13, 13, 1, 20), 1, 2.2f}, {profile(12, 12, 1, 20), 0, 2.2f}, {profile(0, 0, 1, 20), 0, 2.2f},
        {profile(200, 201, 1, 20), -201, -1.0f}, {profile(200, 0x80000000u, 1, 20), INT32_MIN, -1.0f}, {profile(3, 0x300, 1, 20), -768, -1.0f}};
    for (float gamma = -1.0f; const Row& r : rows) {  // gamma untouched (-1) on a size mismatch
        EXPECT_EQ(trc_from_profile(r.p.data(), int(r.p.size()), &gamma), r.result) << r.p.size();
        EXPECT_EQ(std::exchange(gamma, -1.0f), r.gamma) << r.p.size();
    }
}

// Expected from the truth files: the first r/g/b tone curve of the tag table
// (entry k at 132 + 12 k), its gamma if it is a curve of one entry, else 2.2;
// without one, 2.2 after size - 12 positions.
TEST(Response, ProfilesOfTheTestData) {
    OL_REQUIRE_TESTDATA();
    const std::string dir = (oltest::testdataDir() / "icc").string(), script =
        "import json,glob,sys\nfor t in sorted(glob.glob(sys.argv[1]+'/*.truth.json')):\n j=json.load(open(t));tg=j['tags']\n"
        " k=[i for i,g in enumerate(tg) if g['signature'] in ('rTRC','gTRC','bTRC')]\n c=j[tg[k[0]]['signature']] if k else {}\n"
        " print(j['file'],c['gamma'] if c.get('type')=='curv' and c.get('count')==1 else 2.2,136+12*k[0] if k else j['file_size']-12)\n";
    std::string out, file;
    ASSERT_EQ(oltest::runCommand(oltest::systemPython() + " -c \"" + script + "\" " + dir, &out), 0);
    std::istringstream lines(out);
    double gamma;
    int result, count = 0, curves = 0;
    for (float got; lines >> file >> gamma >> result; ++count, curves += gamma != 2.2) {
        const Bytes p = oltest::readFile(dir + "/" + file);
        EXPECT_EQ(trc_from_profile(p.data(), int(p.size()), &got), result) << file;
        EXPECT_EQ(got, float(gamma)) << file;
    }
    EXPECT_EQ(count * 100 + curves, 1405);  // 14 profiles, 5 with a gamma
}

TEST(Response, RankingAgainstReading) {
    std::mt19937 rng(3);
    for (int t = 0; t < 200; ++t) {
        const int n = 1 + t % 4, spp = t % 3 == 0 ? 1 : 3 + t % 2, bps = t % 5 < 2 ? 16 : 8, w = 1 + rng() % 90, h = 1 + rng() % 70;
        // Strides above a row, and below: the block then ends at n*h*rowStride samples.
        const int rs = w * spp + (t % 7 == 0 ? 5 : 0) - (t % 7 == 1 ? w * spp / 2 : 0), top = t % 6 == 1 ? 9 : 256;  // dark: 95th percentile
        Bytes im(std::max(std::size_t(n) * h * rs, std::size_t(h - 1) * rs + w * spp) * bps / 8 + 1);
        for (auto& b : im) b = rng() % top;
        std::vector<int> got(n, -7), want(n, -7), vals(n + t % 5);
        for (int i = 0, hist[256], m, q, sum; i < n; want[i++] = m >= 5 ? m << 8 : q) {
            std::fill(hist, hist + 256, 0);
            for (std::size_t p = 0, o = std::size_t(i) * h * rs; p < std::min(std::size_t(w) * h, std::size_t(n - i) * h * rs / spp); ++p, o += spp)
                ++hist[std::min(255, (lev(im, o + (spp - 1) / 2, bps) * 183 + lev(im, o, bps) * 54 + lev(im, o + spp - 1, bps) * 19) >> 8)];
            for (m = 0, sum = 0; m < 256 && (sum += hist[m]) <= (w * h) >> 1;) ++m;  // 256: never above (pixels cut off)
            for (q = 0, sum = 0; q < 256 && (sum += hist[q]) <= int(float(w * h) * 0.95);) ++q;
        }
        ASSERT_EQ(moy_images(n, w, h, rs, spp, bps, im.data(), got.data()), (w * h) >> 1);
        ASSERT_EQ(got, want) << t;
        float sum = 0.0f, count = 0;  // samples 0..2 of each grid point; past the image: 0
        for (std::size_t y = 0, x = 0, s = 0, k; y < std::size_t(h); x = 0, y += h / 50 + 1)
            for (; x < std::size_t(w); x += w / 50 + 1, count += 3, s = 0)
                for (k = y * rs + x * spp; s < 3; ++s) sum += k + s < (h - 1) * std::size_t(rs) + w * spp ? float(lev(im, k + s, bps)) : 0.0f;
        ASSERT_EQ(moy_image(w, h, rs, spp, bps, im.data()), int(sum / count)) << t;
        for (int& v : vals) v = rng() % (t % 3 ? 300 : 3);
        ASSERT_EQ(mid_im(int(vals.size()), vals.data()), descendingScan(vals)[vals.size() / 2]) << t;
    }
    int out = -7;
    EXPECT_EQ(moy_image(3, 3, 9, 3, 12, nullptr) + moy_images(0, 3, 3, 9, 3, 8, nullptr, &out) + mid_im(0, nullptr) +
              moy_images(1, INT32_MAX, INT32_MAX, INT32_MAX, 3, 8, nullptr, &out), 0);
    EXPECT_EQ(out, -7);
}

}  // namespace
