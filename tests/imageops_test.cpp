// Image operations (resampling, crop and rotate, histograms, previews and
// crops) against plain per-pixel readings of their definitions, on random
// pictures; boundaries and refusals as table rows. Buffers are sized exactly
// so that the sanitizer build sees any access outside them.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <sstream>

#include "support/testsupport.hpp"

namespace {

using Bytes = std::vector<std::uint8_t>;
Bytes rnd(std::size_t n, std::uint32_t seed) { return oltest::randomBytes(n, seed); }
template <class T> const T* as(const Bytes& b) { return reinterpret_cast<const T*>(b.data()); }
long ext(long rows, long step, long len) { return rows < 1 ? 0 : (rows - 1) * step + len; }
using Pos = std::array<int, 3>;  // the three colour samples of a pixel: first, middle, last or 0, 1, 2
Pos fml(int spp) { return {0, (spp - 1) / 2, spp - 1}; }
Pos f012(int spp) { return {0, spp > 1 ? 1 : 0, spp > 1 ? 2 : 0}; }
template <class T> std::uint8_t hi8(T v) { return static_cast<std::uint8_t>(sizeof(T) == 2 ? v >> 8 : v); }
int tr(double v) { return v > -2147483649.0 && v < 2147483648.0 ? static_cast<int>(v) : INT32_MIN; }

// Quarter turn, column by column as defined; reads and writes past the
// extents skipped (only reachable with two samples a pixel).
void refTurn(int angle, int w, int h, long ss, int spp, long ds, const Pos& p, int sz, const std::uint8_t* s, std::uint8_t* d) {
    const long sEnd = ext(h, ss, long(w) * spp), dEnd = ext(w, ds, long(h) * spp);
    for (int x = 0; x < w; ++x)
        for (int j = 0; j < h; ++j) {
            const long sr = long(angle == 90 ? h - 1 - j : j) * ss + long(x) * spp;
            const long dr = long(angle == 90 ? x : w - 1 - x) * ds + long(j) * spp;
            for (int k = 0; k < 3; ++k)
                if (sr + p[k] < sEnd && dr + p[k] < dEnd) std::memcpy(d + (dr + p[k]) * sz, s + (sr + p[k]) * sz, sz);
        }
}

// Both turns match the column walk at every size, 16x16 blocks and their
// edges included, so four turns give the original.
TEST(ImageOps, QuarterTurnsMatchTheColumnWalk) {
    const struct TurnCase { int bps, w, h, spp, angle, srcPad, dstPad; } cases[] = {{8, 7, 5, 3, 90, 0, 0},   {8, 7, 5, 3, 270, 2, 3}, {16, 9, 4, 4, 90, 1, 0},
                              {16, 9, 4, 4, 270, 0, 2}, {8, 1, 1, 1, 90, 0, 0},  {8, 70, 33, 1, 270, 0, 0}, {8, 40, 35, 1, 90, 0, 0},
                              {8, 5, 1, 3, 90, 0, 0},   {8, 1, 6, 3, 270, 0, 0}, {8, 6, 5, 2, 90, 0, 0},
                              {8, 6, 5, 2, 270, 1, 1},  {16, 65, 66, 3, 90, 3, 0}, {8, 33, 2, 4, 270, 0, 4}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.bps << " " << c.w << "x" << c.h << " spp " << c.spp << " " << c.angle);
        const int sz = c.bps / 8, ss = c.w * c.spp + c.srcPad, ds = c.h * c.spp + c.dstPad;
        const Bytes src = rnd(size_t(ext(c.h, ss, c.w * c.spp)) * sz, 1);
        Bytes got = rnd(size_t(ext(c.w, ds, c.h * c.spp)) * sz, 2), want = got;
        EXPECT_EQ(rot_ldr(c.angle, c.bps, c.w, c.h, ss, c.spp, ds, src.data(), got.data()), c.w);
        refTurn(c.angle, c.w, c.h, ss, c.spp, ds, f012(c.spp), sz, src.data(), want.data());
        EXPECT_EQ(got, want);
        // ol_rotate: packed rows, first, middle and last positions; prints its line.
        const int pss = c.w * c.spp, pds = c.h * c.spp;
        want = got = rnd(size_t(c.w) * pds * sz, 3);
        oltest::CaptureFd err(2);
        EXPECT_EQ(ol_rotate(c.angle, c.w, c.h, c.spp, c.bps, src.data(), got.data()), c.w);
        const std::string W = std::to_string(c.w), H = std::to_string(c.h);
        EXPECT_EQ(err.finish(), "ol_rotate bsp: " + std::to_string(c.bps) + "   -  " + W + " x " + H + "  ->  " + H + " x " + W + "\n");
        refTurn(c.angle, c.w, c.h, pss, c.spp, pds, fml(c.spp), sz, src.data(), want.data());
        EXPECT_EQ(got, want);
        // rgbe planes: the four runs of a row turned as four byte images.
        const Bytes planes = rnd(4 * size_t(c.w) * c.h, 4);
        Bytes a(planes.size()), b(planes.size()), r(planes.size());
        for (int k = 0; k < 4; ++k) refTurn(c.angle, c.w, c.h, 4 * c.w, 1, 4 * c.h, Pos{}, 1, &planes[k * c.w], &r[k * c.h]);
        EXPECT_EQ(rot_hdr(c.angle, c.w, c.h, planes.data(), a.data()), c.w);
        EXPECT_EQ(ol_rotate(c.angle, c.w, c.h, 1, 32, planes.data(), b.data()), c.w);
        EXPECT_EQ(a, r); EXPECT_EQ(b, r);
    }
}

// Sampled copy of a rectangle by buffer kind: output (x, r) from source
// (x0 + x*pas, y0 + r*pas), positions p of a pixel, output rows dstride
// samples apart; kind 1 bits (set only), 8, 16, 168 (16 to 8), 32 (planes).
void refGrid(int kind, int w, long stride, int spp, const Pos& p, int x0, int y0, int pas, int cols, int rows, int outW,
             long dstride, const std::uint8_t* s, std::uint8_t* d) {
    for (int r = 0; r < rows; ++r)
        for (int x = 0; x < cols; ++x) {
            const long sx = x0 + long(x) * pas, sy = y0 + long(r) * pas;
            for (int q = 0; q < (kind == 32 ? 4 : 3); ++q) {
                const long si = kind == 32 ? sy * 4 * w + q * w + sx : sy * stride + sx * spp + p[q];
                const long di = kind == 32 ? long(r) * 4 * outW + q * outW + x : long(r) * dstride + long(x) * spp + p[q];
                if (kind != 32 && (sx * spp + p[q] >= stride || long(x) * spp + p[q] >= (r < rows - 1 ? dstride : long(outW) * spp)))
                    continue;  // past the row's end (with two samples a pixel, position 2 can be)
                if (kind == 1) d[di >> 3] |= (s[si >> 3] & (0x80 >> (si & 7))) ? 0x80 >> (di & 7) : 0;
                else if (kind == 16) std::memcpy(d + 2 * di, s + 2 * si, 2);
                else d[di] = kind == 168 ? s[2 * si + 1] : s[si];
            }
        }
}

TEST(ImageOps, CropsTakeTheRectangleInsideTheRow) {
    // Source 11x9; crops at each border, negative corners, past the right edge.
    const struct CropCase { int bps, spp, cw, ch, left, top, srcStride, dstPad; } cases[] = {{8, 3, 4, 3, 0, 0, 33, 0},  {8, 3, 4, 3, 7, 6, 33, 2},  {16, 4, 5, 2, -3, -1, 44, 0},
                              {8, 1, 11, 9, 0, 0, 11, 0}, {16, 1, 1, 1, 10, 8, 12, 0}, {8, 2, 4, 4, 7, 5, 22, 1},
                              {8, 2, 3, 2, 2, 2, 23, 0},  {8, 3, 6, 3, 8, 0, 33, 0},  {8, 4, 3, 2, 12, 0, 44, 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.bps << " spp " << c.spp << " at " << c.left << "," << c.top);
        const int sz = c.bps / 8, ds = c.cw * c.spp + c.dstPad, l = std::max(c.left, 0), t = std::max(c.top, 0);
        const Bytes src = rnd(size_t(c.srcStride) * 9 * sz, 7);
        Bytes got = rnd(size_t(ext(c.ch, ds, c.cw * c.spp)) * sz, 8), want = got;
        EXPECT_EQ(crop_ldr(c.bps, c.srcStride, c.cw, c.ch, ds, c.spp, c.left, c.top, src.data(), got.data()), c.ch);
        // Samples 0, 1, 2 of the pixels that lie whole inside the source row.
        refGrid(c.bps, 0, c.srcStride, c.spp, f012(c.spp), l, t, 1, std::clamp(c.srcStride / c.spp - l, 0, c.cw), c.ch, c.cw, ds, src.data(), want.data());
        EXPECT_EQ(got, want);
        // crop_hdr on an 11-wide picture of planes, columns past 11 not copied.
        const Bytes planes = rnd(4 * 11 * 9, 9);
        Bytes hg(4 * size_t(c.cw) * c.ch, 0), hw = hg;
        EXPECT_EQ(crop_hdr(11, c.cw, c.ch, c.left, c.top, planes.data(), hg.data()), c.ch);
        refGrid(32, 11, 0, 1, {}, l, t, 1, std::max(0, std::min(c.cw, 11 - l)), c.ch, c.cw, 0, planes.data(), hw.data());
        EXPECT_EQ(hg, hw);
    }
}

// The counters of one picture read from their definitions, laid end to end:
// samples 0, 1 and 2, luminance, and with 16 bits the 512 bins and range of hist16.
template <class T>
void refCounts(int w, int h, long step, int spp, const T* d, std::vector<int32_t>& c, float* range) {
    const Pos p = f012(spp);
    const long end = ext(h, step, long(w) * spp);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const long i = y * step + long(x) * spp;
            const unsigned s0 = d[i + p[0]], s1 = d[i + p[1]], s2 = i + p[2] < end ? d[i + p[2]] : 0, s = 54 * s2 + 183 * s1 + 19 * s0;
            ++c[hi8<T>(s0)], ++c[256 + hi8<T>(s1)], ++c[512 + hi8<T>(s2)], ++c[768 + ((54 * hi8<T>(s2) + 183 * hi8<T>(s1) + 19 * hi8<T>(s0)) >> 8)];
            if (sizeof(T) == 2) ++c[1024 + (s >> 15)], range[0] = std::min(range[0], float(s >> 8)), range[1] = std::max(range[1], float(s >> 8));
        }
}

TEST(ImageOps, HistogramsCountEachPixelOncePerCallAndRadianceMarks) {
    const int rows[][5] = {{8, 17, 9, 3, 0}, {16, 17, 9, 3, 5}, {8, 1, 1, 1, 0}, {16, 7, 4, 4, 2}, {8, 6, 5, 2, 0},
                           {16, 6, 5, 2, 1}, {16, 1, 1, 3, 0},  {8, 64, 3, 1, 7}};
    for (const auto& r : rows) {
        const int bps = r[0], w = r[1], h = r[2], spp = r[3], stride = w * spp + r[4], sz = bps / 8;
        SCOPED_TRACE(testing::Message() << bps << " " << w << "x" << h << " spp " << spp);
        const Bytes img = rnd(size_t(ext(h, stride, w * spp)) * sz, 10 + w);
        std::vector<int32_t> got(1536), want(1536);
        float gotRange[2] = {0, 0}, wantRange[2] = {65535, 0};
        for (int call = 0; call < 2; ++call) {  // the second call adds to the first
            EXPECT_EQ(histcolors(w, h, stride, spp, bps, img.data(), &got[512], &got[256], &got[0]), h);
            EXPECT_EQ(histlum(w, h, stride, spp, bps, img.data(), &got[768]), h);
            if (sz == 1) refCounts(w, h, stride, spp, img.data(), want, wantRange);
            else refCounts(w, h, stride, spp, as<std::uint16_t>(img), want, wantRange);
            if (sz == 2) { EXPECT_EQ(hist16(w, h, stride, spp, as<std::uint16_t>(img), gotRange, &got[1024]), h); }
        }
        EXPECT_EQ(got, want);
        if (sz == 2) { EXPECT_EQ(gotRange[0], wantRange[0]); EXPECT_EQ(gotRange[1], wantRange[1]); }
    }
    // A white 16-bit pixel: bin 511, luminance 65535; width 0 keeps the start range.
    std::vector<std::uint16_t> white(3, 65535);
    std::vector<int32_t> bins(512);
    float r1[2], r0[2] = {-1, -1};
    EXPECT_EQ(hist16(1, 1, 3, 3, white.data(), r1, bins.data()) + hist16(0, 2, 3, 3, white.data(), r0, bins.data()), 3);
    EXPECT_EQ(std::vector<float>({float(bins[511]), r1[0], r1[1], r0[0], r0[1]}), std::vector<float>({1, 65535, 65535, 65535, 0}));
    // Radiance pictures: getHisto32's bins, and the marks of hist32info on them.
    const int w = 37, h = 11;
    Bytes planes = rnd(4 * w * h, 11);
    for (int i = 0; i < w * h; ++i) {  // exponents near 128, some 0, some levels 0
        std::uint8_t& e = planes[4 * w * (i / w) + 3 * w + i % w];
        e = e < 20 ? 0 : std::uint8_t(120 + e % 16);
        if (i % 29 == 0) planes[4 * w * (i / w) + i % w] = planes[4 * w * (i / w) + w + i % w] = 0;
    }
    const float range[2] = {0.5f, 40000.0f};
    std::vector<int32_t> got(512), want(512);
    EXPECT_EQ(getHisto32(w, h, planes.data(), range, got.data()), h);
    const float lmin = float(std::log(double(range[0]))), scale = 511.0f / (float(std::log(double(range[1]))) - lmin);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const std::uint8_t* r = &planes[4 * w * y];
            const float v = float((54 * r[x] + 183 * r[w + x] + 19 * r[2 * w + x]) >> 8) * float(std::ldexp(1.0, r[3 * w + x] - 128));
            if (r[3 * w + x]) ++want[std::clamp(tr((std::log(double(v)) - lmin) * double(scale)), 0, 511)];
        }
    EXPECT_EQ(got, want);
    // The ten marks of hist32info on that histogram, log axis (32) and linear (16).
    for (int mode : {32, 16}) {
        float info[10] = {5.0f, 200.0f};  // 200 is no percentile: 100 stands in
        const float lo = mode == 16 ? range[0] : lmin, hi = mode == 16 ? range[1] : float(std::log(double(range[1]))), bw = float(double(hi - lo) * 0.001953125);
        auto val = [&](int b) { float v = lo + float(b) * bw; return mode == 32 ? float(std::exp(double(v))) : v; };
        long total = 0, sum = 0;
        for (int i = 0; i < 512; ++i) total += got[i], sum += long(i) * got[i];
        auto first = [&](long t) { for (long i = 0, run = 0; i < 512; ++i) if ((run += got[i]) > t) return int(i); return 512; };
        const float want10[10] = {val(128), val(256), val(384), val(512), val(int(sum / total)), val(first(total / 2)),
                                  val(first(tr(float(total) * 5.0f / 100.0f))), val(first(tr(float(total) * 100.0f / 100.0f))),
                                  float(*std::max_element(got.begin(), got.end())), float(double(hi - lo) / std::log(2.0))};
        EXPECT_EQ(hist32info(range, mode, got.data(), info), total);
        for (int i = 0; i < 10; ++i) EXPECT_EQ(info[i], want10[i]) << mode << " info " << i;
    }
    // All exponents 0: nothing counted, total 0, mean mark 0.
    std::fill(planes.begin(), planes.end(), 0), std::fill(got.begin(), got.end(), 0);
    float info[10] = {};
    EXPECT_EQ(getHisto32(w, h, planes.data(), range, got.data()), h);
    EXPECT_EQ(hist32info(range, 32, got.data(), info), 0); EXPECT_EQ(info[4], 0.0f);
}

// Nearest-neighbour walk as defined: output row y from source row rowOf(y)
// (skipped when negative), pixel x from column trunc(x*colScale); reads past
// sEnd and writes past the destination's last row skipped; with a matrix a
// pixel needs its three reads.
template <class T, class RowOf>
void refResize(int outW, int outH, long rowStep, int spp, const Pos& p, float colScale, RowOf rowOf, long ss, long sEnd, const int* k, const T* s, std::uint8_t* d) {
    const long dEnd = ext(outH, rowStep, long(outW) * spp);
    auto mix = [](int ka, int kb, int kc, int a, int b, int c) { return std::uint8_t(std::clamp(int(unsigned(ka) * a + unsigned(kb) * b + unsigned(kc) * c) / 10000, 0, 255)); };
    for (int y = 0; y < outH; ++y) {
        const long r = rowOf(y);
        for (int x = 0; x < outW && r >= 0; ++x) {
            const int col = tr(float(x) * colScale);
            const long i = r * ss + long(col) * spp, o = y * rowStep + long(x) * spp;
            if (col < 0 || (k && i + p[2] >= sEnd)) continue;
            std::uint8_t v[3] = {};
            for (int q = 0; q < 3 && k; ++q) v[q] = mix(k[8 - 3 * q], k[7 - 3 * q], k[6 - 3 * q], s[i + p[0]], s[i + p[1]], s[i + p[2]]);
            for (int q = 0; q < 3; ++q)
                if (i + p[q] < sEnd && o + p[q] < dEnd) d[o + p[q]] = k ? v[q] : hi8<T>(s[i + p[q]]);
        }
    }
}

TEST(ImageOps, ResizingMatchesThePixelWalk) {
    // bps, spp, source width and height, step, output size, output padding, matrix (0 none, 1 random, 2 identity, 3 first 0)
    const struct Z { int bps, spp, sw, sh; float step; int ow, oh, pad, mat; } cases[] = {{8, 3, 10, 7, 1.0f, 10, 7, 0, 0},  {8, 3, 10, 7, 1.0f, 10, 7, 0, 2},  {8, 4, 10, 7, 0.4f, 25, 17, 3, 1},
                       {16, 3, 10, 7, 2.5f, 4, 3, 0, 1},  {8, 1, 31, 9, 3.1f, 10, 4, 2, 0},  {16, 4, 9, 5, 1.5f, 7, 5, 0, 0},
                       {8, 3, 10, 7, 1.5f, 8, 6, 0, 3},   {8, 2, 9, 9, 2.0f, 5, 5, 1, 1},    {8, 3, 10, 7, 1.5f, 9, 6, 0, 0},
                       {8, 3, 1, 1, 0.25f, 4, 4, 0, 1},   {8, 3, 5000, 2, 1.0f, 4200, 2, 0, 0}};
    for (const Z& c : cases) {
        SCOPED_TRACE(testing::Message() << c.bps << " spp " << c.spp << " step " << c.step << " -> " << c.ow << "x" << c.oh);
        const int sz = c.bps / 8, ss = c.sw * c.spp, os = c.ow * c.spp + c.pad;
        const Bytes src = rnd(size_t(ss) * c.sh * sz, 20 + c.sw);
        Bytes got = rnd(size_t(ext(c.oh, os, c.ow * c.spp)), 21), want = got, plain = got;
        float m[9];
        for (int i = 0; i < 9; ++i) m[i] = c.mat == 1 ? float((i * 37 + c.sw) % 256) / 128.0f - 0.5f : c.mat == 2 ? float(i % 4 == 0) : 0.5f;
        m[0] = c.mat == 3 || c.mat == 0 ? 0.0f : c.mat == 1 ? 0.7f : m[0];
        int k[9];
        for (int i = 0; i < 9; ++i) k[i] = tr(float(double(m[i]) * 10000.0));
        const Pos p = fml(c.spp);
        const bool useM = c.mat && c.mat != 3 && c.bps == 8;
        auto rowOf = [&](int y) { return long(std::min(tr(float(y) * c.step), c.sh - 1)); };
        if (sz == 1) refResize(c.ow, c.oh, os, c.spp, p, c.step, rowOf, ss, long(ss) * c.sh, useM ? k : nullptr, src.data(), want.data());
        else refResize(c.ow, c.oh, os, c.spp, p, c.step, rowOf, ss, long(ss) * c.sh, nullptr, as<std::uint16_t>(src), want.data());
        EXPECT_EQ(zoom_cm(c.step, 0, c.sh, ss, c.ow, c.oh, os, c.spp, c.bps, m, src.data(), got.data()), c.oh);
        EXPECT_EQ(got, want);
        EXPECT_EQ(zoom2(c.step, 0, c.sh, ss, c.ow, c.oh, os, c.spp, c.bps, src.data(), plain.data()), c.oh);
        if (!c.mat || !useM || c.mat == 2) { EXPECT_EQ(plain, got); }  // no matrix, first entry 0, 16 bits, identity
        if (sz == 2) continue;
        // retaille to the same output size: scales from the sizes, samples 0, 1, 2.
        const float sx = float(c.sw) / float(c.ow), sy = float(c.sh) / float(c.oh);
        const long step = std::max<long>(os, long(c.ow) * c.spp);
        auto rowR = [&](int y) { const float v = float(y) * sy; return long(v < float(c.sh - 1) ? tr(v) : c.sh - 1); };
        got = want = rnd(size_t(ext(c.oh, step, c.ow * c.spp)), 22);
        refResize(c.ow, c.oh, step, c.spp, f012(c.spp), sx, rowR, ss, long(ss) * c.sh, nullptr, src.data(), want.data());
        EXPECT_EQ(retaille(c.sw, c.sh, ss, c.ow, c.oh, os, c.spp, src.data(), got.data()), c.oh);
        EXPECT_EQ(got, want);
    }
}

TEST(ImageOps, PreviewsAndCropsOfTheFourBufferKinds) {
    // bps, to8, size, spp, wanted size, expected step (or code)
    const int previews[][8] = {{8, 0, 13, 9, 3, 7, 5, 2},    {8, 0, 13, 9, 3, 13, 9, 1},  {8, 0, 13, 9, 3, 8, 5, -5},
                               {16, 0, 21, 17, 4, 6, 5, 4},  {16, 1, 21, 17, 3, 11, 9, 2}, {1, 0, 21, 17, 1, 6, 5, 4},
                               {32, 0, 21, 17, 1, 11, 9, 2}, {8, 0, 4, 9, 3, 5, 5, -1},    {8, 0, 21, 9, 1, 6, 3, -1},
                               {8, 0, 40, 5, 1, 20, 5, -5}};
    for (const auto& c : previews) {
        SCOPED_TRACE(testing::Message() << c[0] << " " << c[2] << "x" << c[3] << " -> " << c[5] << "x" << c[6]);
        const int bps = c[0], w = c[2], h = c[3], spp = c[4], kind = bps == 16 && c[1] ? 168 : bps;
        const long stride = bps == 32 ? 0 : w * spp + 1, inBytes = bps == 32 ? 4L * w * h : (bps == 1 ? (h * stride + 7) / 8 : h * stride * bps / 8);
        const Bytes src = rnd(size_t(inBytes), 30);
        const long outBytes = bps == 32 ? 4L * c[5] * c[6] : (bps == 1 ? (long(c[5]) * c[6] * spp + 7) / 8 : long(c[5]) * c[6] * spp * (kind == 16 ? 2 : 1));
        Bytes got = rnd(size_t(std::max(outBytes, 1L)), 31), want = got;
        EXPECT_EQ(extract_basepreview(bps, w, h, spp, int(stride), c[5], c[6], c[1], src.data(), nullptr, got.data()), c[7] > 0 ? c[6] : c[7]);
        if (c[7] > 0) refGrid(kind, w, stride, spp, fml(spp), 0, 0, c[7], c[5], c[6], c[5], long(c[5]) * spp, src.data(), want.data());
        EXPECT_EQ(got, want);
    }
    // photos, bps, spp, crop size, position, expected; source 11x9, one padding sample a row.
    const int crops[][8] = {{1, 8, 3, 5, 5, 6, 4, 5},  {1, 8, 3, 6, 5, 7, 0, 5},  {1, 16, 4, 5, 6, 0, 3, 6},
                            {1, 1, 1, 7, 5, 4, 4, 5},  {1, 32, 1, 5, 9, 6, 0, 9},  {3, 8, 3, 5, 5, 1, 2, 5},
                            {2, 16, 1, 6, 5, 5, 4, 5}, {3, 32, 1, 5, 5, 0, 0, 5},  {1, 8, 3, 5, 5, 11, 0, -2},
                            {1, 8, 3, 5, 5, -1, 0, -2}, {1, 8, 3, 4, 5, 0, 0, -1}, {1, 8, 3, 5, 5, 0, 9, -2}};
    for (const auto& c : crops) {
        SCOPED_TRACE(testing::Message() << c[0] << " photos bps " << c[1] << " at " << c[5] << "," << c[6]);
        const int n = c[0], bps = c[1], spp = c[2], w = 11, h = 9, ow = c[3], oh = c[4];
        const long stride = bps == 32 ? 0 : w * spp + 1, frame = bps == 32 ? 4L * w * h : h * stride;
        const Bytes src = rnd(size_t(bps == 1 ? (frame + 7) / 8 : frame * n * std::max(bps / 8, 1)), 32);
        const long outFrame = bps == 32 ? 4L * ow * oh : long(ow) * oh * spp;
        Bytes got = rnd(size_t(bps == 1 ? (outFrame + 7) / 8 : outFrame * n * std::max(bps / 8, 1)), 33), want = got;
        EXPECT_EQ(extract_crop(n, w, h, spp, int(stride), bps, ow, oh, c[5], c[6], src.data(), got.data()), c[7]);
        for (int f = 0; f < n && c[7] > 0 && !(n > 1 && bps == 32); ++f)
            refGrid(bps, w, stride, spp, fml(spp), c[5], c[6], 1, std::min(ow, w - c[5]), std::min(oh, h - c[6]), ow, long(ow) * spp,
                    src.data() + f * frame * (bps / 8), want.data() + f * outFrame * (bps / 8));
        EXPECT_EQ(got, want);
    }
}

TEST(ImageOps, MalformedCallsWriteNothing) {
    const Bytes src = rnd(64 * 4, 40);
    std::vector<int32_t> h(512, 7);
    const float nan = std::nanf(""), range[2] = {1, 2};
    Bytes dst(64 * 4, 0x5c);
    const Bytes untouched = dst;
    auto d = dst.data(); auto s = src.data();
#define ROW(call, want) {#call, call, want}
    const struct { const char* what; int got, want; } cases[] = {  // each call and its result
        ROW(rot_ldr(180, 8, 4, 4, 12, 3, 12, s, d), 0), ROW(rot_ldr(90, 8, 4, 4, 12, 3, 11, s, d), 0), ROW(rot_ldr(90, 8, 4, 4, -12, 3, 12, s, d), 0),
        ROW(rot_ldr(90, 8, 0, 4, 12, 3, 12, s, d), 0), ROW(rot_ldr(90, 12, 4, 5, 12, 3, 12, s, d), 5), ROW(rot_hdr(0, 4, 4, s, d), 0), ROW(ol_rotate(45, 4, 4, 3, 8, s, d), 0),
        ROW(crop_ldr(8, 12, 4, 0, 12, 3, 0, 0, s, d), 0), ROW(crop_ldr(12, 12, 4, 3, 12, 3, 0, 0, s, d), 4), ROW(crop_ldr(8, 12, 4, 3, 12, 0, 0, 0, s, d), 0),
        ROW(crop_ldr(8, 12, 4, 3, 12, 3, 4, 0, s, d), 3), ROW(crop_hdr(4, 2, 2, 5, 0, s, d), 2), ROW(zoom_cm(1, 0, 4, 12, 4, 4, 12, 3, 12, range, s, d), 3),
        ROW(zoom2(1, 0, 4, 12, 6, 4, 18, 3, 12, s, d), 6), ROW(zoom2(1, 0, 4, 12, 4, 0, 12, 3, 8, s, d), 0), ROW(zoom2(nan, 0, 4, 12, 4, 4, 12, 3, 8, s, d), 0),
        ROW(zoom2(-1, 0, 4, 12, 4, 4, 12, 3, 8, s, d), 0), ROW(zoom2(1, 0, 0, 12, 4, 4, 12, 3, 8, s, d), 0), ROW(zoom2(1, 0, 4, 12, 4, 4, 11, 3, 8, s, d), 0),
        ROW(retaille(4, 4, 12, 4, 0, 12, 3, s, d), 0), ROW(retaille(0, 4, 12, 4, 4, 12, 3, s, d), 0), ROW(histcolors(4, 4, 12, 3, 10, s, h.data(), h.data(), h.data()), 3),
        ROW(histlum(4, 4, 12, 3, 10, s, h.data()), 10), ROW(histlum(4, 0, 12, 3, 8, s, h.data()), 0), ROW(getHisto32(4, 0, s, range, h.data()), 0),
        ROW(extract_basepreview(8, 8, 0, 3, 24, 5, 5, 0, s, nullptr, d), 0), ROW(extract_basepreview(8, 8, 8, 3, 23, 8, 8, 0, s, nullptr, d), -1),
        ROW(extract_crop(1, 8, 8, 3, 24, 8, 5, 0, 0, 0, s, d), 0), ROW(extract_crop(1, 8, 8, 3, 24, 8, 5, 5, 8, 0, s, d), -2), ROW(extract_crop(1, 8, 8, 3, 24, 12, 5, 5, 0, 0, s, d), 5)};
#undef ROW
    for (const auto& c : cases) EXPECT_EQ(c.got, c.want) << c.what;
    EXPECT_EQ(dst, untouched); EXPECT_EQ(h, std::vector<int32_t>(512, 7));
}

// Real pictures: a preview at whole-number steps equals ImageMagick's
// -sample on the same grid (its offset less a tiny epsilon: at 10 % of a
// step of 4 or 5 it truncates to the step's first pixel, as ours does), and
// the colour and luminance counts equal numpy's on the same decoded pixels.
TEST(ImageOps, RealPhotoAgainstImageMagickAndNumpy) {
    OL_REQUIRE_TESTDATA();
    if (!oltest::haveProgram("convert") || !oltest::havePythonModule("numpy")) GTEST_SKIP() << "no convert or numpy";
    oltest::TempDir tmp;
    const std::string in = (oltest::testdataDir() / "brackets/samsung_ex2f_campus/SAM_0015.JPG").string();
    const int w = 1000, h = 750, ow = 250, oh = 150;  // steps 4 and 5
    ASSERT_EQ(oltest::runCommand("convert '" + in + "' -depth 8 rgb:" + tmp.file("full.raw") + " 2>/dev/null && convert '" + in +
                                 "' -define sample:offset=10 -sample " + std::to_string(ow) + "x" + std::to_string(oh) +
                                 "! -depth 8 rgb:" + tmp.file("small.raw") + " 2>/dev/null"), 0);
    const Bytes full = oltest::readFile(tmp.file("full.raw")), small = oltest::readFile(tmp.file("small.raw"));
    Bytes ours(small.size());
    ASSERT_EQ(full.size(), size_t(w) * h * 3);
    EXPECT_EQ(retaille(w, h, w * 3, ow, oh, ow * 3, 3, full.data(), ours.data()), oh);
    EXPECT_EQ(ours, small);
    std::vector<int32_t> counts(1024), theirs;  // samples 0, 1, 2, then luminance
    histcolors(w, h, w * 3, 3, 8, full.data(), &counts[512], &counts[256], &counts[0]), histlum(w, h, w * 3, 3, 8, full.data(), &counts[768]);
    std::string out;
    ASSERT_EQ(oltest::runCommand(oltest::systemPython() + " -c \"import numpy as n; p=n.fromfile('" + tmp.file("full.raw") +
                                 "',n.uint8).reshape(-1,3).astype(n.int64); l=(54*p[:,2]+183*p[:,1]+19*p[:,0])>>8; "
                                 "print(' '.join(' '.join(map(str,n.bincount(c,minlength=256))) for c in (p[:,0],p[:,1],p[:,2],l)))\"",
                                 &out), 0);
    std::istringstream is(out);
    for (int v; is >> v;) theirs.push_back(v);
    EXPECT_EQ(counts, theirs);
}

}  // namespace
