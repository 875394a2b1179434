// Image operations (resampling, crop and rotate, histograms, previews and
// crops) against plain per-pixel readings of their definitions, on random
// pictures; boundaries and refusals as table rows. Buffers are sized exactly
// so that the sanitizer build sees any access outside them.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "support/testsupport.hpp"

namespace {

using Bytes = std::vector<std::uint8_t>;
Bytes rnd(std::size_t n, std::uint32_t seed) { return oltest::randomBytes(n, seed); }
template <class T> T* as(Bytes& b) { return reinterpret_cast<T*>(b.data()); }
template <class T> const T* as(const Bytes& b) { return reinterpret_cast<const T*>(b.data()); }
long ext(long rows, long step, long len) { return rows < 1 ? 0 : (rows - 1) * step + len; }
void fml(int spp, int* p) { p[0] = 0, p[1] = (spp - 1) / 2, p[2] = spp - 1; }
void f012(int spp, int* p) { p[0] = 0, p[1] = spp > 1 ? 1 : 0, p[2] = spp > 1 ? 2 : 0; }
template <class T> std::uint8_t hi8(T v) { return static_cast<std::uint8_t>(sizeof(T) == 2 ? v >> 8 : v); }
int tr(double v) { return v > -2147483649.0 && v < 2147483648.0 ? static_cast<int>(v) : INT32_MIN; }

// Quarter turn, column by column as defined; reads and writes past the
// extents skipped (only reachable with two samples a pixel).
template <class T>
void refTurn(int angle, int w, int h, long ss, int spp, long ds, const int* p, const T* s, T* d) {
    const long sEnd = ext(h, ss, long(w) * spp), dEnd = ext(w, ds, long(h) * spp);
    for (int x = 0; x < w; ++x)
        for (int j = 0; j < h; ++j) {
            const long sr = long(angle == 90 ? h - 1 - j : j) * ss + long(x) * spp;
            const long dr = long(angle == 90 ? x : w - 1 - x) * ds + long(j) * spp;
            for (int k = 0; k < 3; ++k)
                if (sr + p[k] < sEnd && dr + p[k] < dEnd) d[dr + p[k]] = s[sr + p[k]];
        }
}

struct TurnCase { int bps, w, h, spp, angle, srcPad, dstPad; };

TEST(ImageOps, QuarterTurnsMatchTheColumnWalk) {
    const TurnCase cases[] = {{8, 7, 5, 3, 90, 0, 0},   {8, 7, 5, 3, 270, 2, 3}, {16, 9, 4, 4, 90, 1, 0},
                              {16, 9, 4, 4, 270, 0, 2}, {8, 1, 1, 1, 90, 0, 0},  {8, 70, 33, 1, 270, 0, 0},
                              {8, 5, 1, 3, 90, 0, 0},   {8, 1, 6, 3, 270, 0, 0}, {8, 6, 5, 2, 90, 0, 0},
                              {8, 6, 5, 2, 270, 1, 1},  {16, 65, 66, 3, 90, 3, 0}, {8, 33, 2, 4, 270, 0, 4}};
    for (const TurnCase& c : cases) {
        SCOPED_TRACE(testing::Message() << c.bps << " " << c.w << "x" << c.h << " spp " << c.spp << " " << c.angle);
        const int sz = c.bps / 8, ss = c.w * c.spp + c.srcPad, ds = c.h * c.spp + c.dstPad;
        const Bytes src = rnd(size_t(ext(c.h, ss, c.w * c.spp)) * sz, 1);
        Bytes got = rnd(size_t(ext(c.w, ds, c.h * c.spp)) * sz, 2), want = got;
        int p[3];
        f012(c.spp, p);
        EXPECT_EQ(rot_ldr(c.angle, c.bps, c.w, c.h, ss, c.spp, ds, src.data(), got.data()), c.w);
        if (sz == 1) refTurn(c.angle, c.w, c.h, ss, c.spp, ds, p, src.data(), want.data());
        else refTurn(c.angle, c.w, c.h, ss, c.spp, ds, p, as<std::uint16_t>(src), as<std::uint16_t>(want));
        EXPECT_EQ(got, want);
        if (c.srcPad || c.dstPad) continue;
        // ol_rotate: packed rows, first, middle and last positions; prints its line.
        want = got = rnd(got.size(), 3);
        fml(c.spp, p);
        oltest::CaptureFd err(2);
        EXPECT_EQ(ol_rotate(c.angle, c.w, c.h, c.spp, c.bps, src.data(), got.data()), c.w);
        char line[128];
        std::snprintf(line, sizeof line, "ol_rotate bsp: %d   -  %d x %d  ->  %d x %d\n", c.bps, c.w, c.h, c.h, c.w);
        EXPECT_EQ(err.finish(), line);
        if (sz == 1) refTurn(c.angle, c.w, c.h, ss, c.spp, ds, p, src.data(), want.data());
        else refTurn(c.angle, c.w, c.h, ss, c.spp, ds, p, as<std::uint16_t>(src), as<std::uint16_t>(want));
        EXPECT_EQ(got, want);
        // rgbe planes: the four runs of a row turned as four byte images.
        const Bytes planes = rnd(4 * size_t(c.w) * c.h, 4);
        Bytes a(planes.size()), b(planes.size()), r(planes.size());
        const int zero[3] = {0, 0, 0};
        for (int k = 0; k < 4; ++k)
            refTurn<std::uint8_t>(c.angle, c.w, c.h, 4 * c.w, 1, 4 * c.h, zero, planes.data() + k * c.w,
                                  r.data() + k * c.h);
        EXPECT_EQ(rot_hdr(c.angle, c.w, c.h, planes.data(), a.data()), c.w);
        EXPECT_EQ(ol_rotate(c.angle, c.w, c.h, 1, 32, planes.data(), b.data()), c.w);
        EXPECT_EQ(a, r);
        EXPECT_EQ(b, r);
    }
}

TEST(ImageOps, FourTurnsGiveTheOriginal) {
    const int seqs[][4] = {{90, 90, 270, 270}, {90, 90, 90, 90}, {270, 270, 270, 270}, {90, 270, 270, 90}};
    for (const auto& seq : seqs) {
        int cw = 13, ch = 7;
        const Bytes src = rnd(size_t(cw) * ch * 3, 5), planes = rnd(size_t(cw) * ch * 4, 6);
        Bytes a = src, b(src.size()), pa = planes, pb(planes.size());
        for (int angle : seq) {
            ASSERT_EQ(rot_ldr(angle, 8, cw, ch, cw * 3, 3, ch * 3, a.data(), b.data()), cw);
            ASSERT_EQ(rot_hdr(angle, cw, ch, pa.data(), pb.data()), cw);
            std::swap(a, b), std::swap(pa, pb), std::swap(cw, ch);
        }
        EXPECT_EQ(a, src);
        EXPECT_EQ(pa, planes);
    }
}

struct CropCase { int bps, spp, cw, ch, left, top, srcStride, dstPad; };

TEST(ImageOps, CropsTakeTheRectangleInsideTheRow) {
    // Source 11x9; crops at each border, negative corners, past the right edge.
    const CropCase cases[] = {{8, 3, 4, 3, 0, 0, 33, 0},  {8, 3, 4, 3, 7, 6, 33, 2},  {16, 4, 5, 2, -3, -1, 44, 0},
                              {8, 1, 11, 9, 0, 0, 11, 0}, {16, 1, 1, 1, 10, 8, 12, 0}, {8, 2, 4, 4, 7, 5, 22, 1},
                              {8, 2, 3, 2, 2, 2, 23, 0},  {8, 3, 6, 3, 8, 0, 33, 0},  {8, 4, 3, 2, 12, 0, 44, 0}};
    for (const CropCase& c : cases) {
        SCOPED_TRACE(testing::Message() << c.bps << " spp " << c.spp << " at " << c.left << "," << c.top);
        const int sz = c.bps / 8, ds = c.cw * c.spp + c.dstPad, l = std::max(c.left, 0), t = std::max(c.top, 0);
        const Bytes src = rnd(size_t(c.srcStride) * 9 * sz, 7);
        Bytes got = rnd(size_t(ext(c.ch, ds, c.cw * c.spp)) * sz, 8), want = got;
        EXPECT_EQ(crop_ldr(c.bps, c.srcStride, c.cw, c.ch, ds, c.spp, c.left, c.top, src.data(), got.data()), c.ch);
        int p[3];
        f012(c.spp, p);
        for (int r = 0; r < c.ch; ++r)
            for (int x = 0; x < c.cw && (l + x + 1) * c.spp <= c.srcStride; ++x)
                for (int k = 0; k < 3; ++k) {
                    const long si = long(l + x) * c.spp + p[k], di = long(x) * c.spp + p[k];
                    if (si < c.srcStride && di < (r < c.ch - 1 ? ds : c.cw * c.spp))
                        std::memcpy(&want[(r * ds + di) * sz], &src[((t + r) * c.srcStride + si) * sz], sz);
                }
        EXPECT_EQ(got, want);
        // crop_hdr on an 11-wide picture of planes, columns past 11 not copied.
        const Bytes planes = rnd(4 * 11 * 9, 9);
        Bytes hg(4 * size_t(c.cw) * c.ch, 0), hw = hg;
        EXPECT_EQ(crop_hdr(11, c.cw, c.ch, c.left, c.top, planes.data(), hg.data()), c.ch);
        for (int r = 0; r < c.ch; ++r)
            for (int k = 0; k < 4; ++k)
                for (int x = 0; x < c.cw && l + x < 11; ++x)
                    hw[4 * r * c.cw + k * c.cw + x] = planes[4 * 11 * (t + r) + k * 11 + l + x];
        EXPECT_EQ(hg, hw);
    }
}

// The histograms of one picture, read from their definitions.
struct Counts { std::vector<int32_t> c0 = std::vector<int32_t>(256), c1 = c0, c2 = c0, lum = c0, h16 = std::vector<int32_t>(512); float range[2] = {65535, 0}; };

template <class T>
void refCounts(int w, int h, long colourStep, long lumStep, int spp, const T* d, Counts& c) {
    int p[3];
    f012(spp, p);
    for (int pass = 0; pass < 2; ++pass) {
        const long step = pass == 0 ? colourStep : lumStep, end = ext(h, step, long(w) * spp);
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                const long i = y * step + long(x) * spp;
                const unsigned s0 = d[i + p[0]], s1 = d[i + p[1]], s2 = i + p[2] < end ? d[i + p[2]] : 0;
                if (pass == 0) {
                    ++c.c0[hi8<T>(s0)], ++c.c1[hi8<T>(s1)], ++c.c2[hi8<T>(s2)];
                    const unsigned s = 54 * s2 + 183 * s1 + 19 * s0;
                    if (sizeof(T) == 2) ++c.h16[s >> 15], c.range[0] = std::min(c.range[0], float(s >> 8)),
                                                          c.range[1] = std::max(c.range[1], float(s >> 8));
                } else {
                    ++c.lum[(54 * hi8<T>(s2) + 183 * hi8<T>(s1) + 19 * hi8<T>(s0)) >> 8];
                }
            }
    }
}

TEST(ImageOps, HistogramsCountEachPixelOncePerCall) {
    const int rows[][5] = {{8, 17, 9, 3, 0}, {16, 17, 9, 3, 5}, {8, 1, 1, 1, 0}, {16, 7, 4, 4, 2}, {8, 6, 5, 2, 0},
                           {16, 6, 5, 2, 1}, {16, 1, 1, 3, 0},  {8, 64, 3, 1, 7}};
    for (const auto& r : rows) {
        const int bps = r[0], w = r[1], h = r[2], spp = r[3], stride = w * spp + r[4], sz = bps / 8;
        SCOPED_TRACE(testing::Message() << bps << " " << w << "x" << h << " spp " << spp);
        const Bytes img = rnd(size_t(ext(h, stride, w * spp)) * sz, 10 + w);
        Counts got, want;
        for (int call = 0; call < 2; ++call) {  // the second call adds to the first
            EXPECT_EQ(histcolors(w, h, stride, spp, bps, img.data(), got.c2.data(), got.c1.data(), got.c0.data()), h);
            EXPECT_EQ(histlum(w, h, stride, spp, bps, img.data(), got.lum.data()), h);
            if (sz == 1) refCounts(w, h, stride, stride, spp, img.data(), want);
            else {
                EXPECT_EQ(hist16(w, h, stride, spp, as<std::uint16_t>(img), got.range, got.h16.data()), h);
                refCounts(w, h, stride, stride, spp, as<std::uint16_t>(img), want);
            }
        }
        EXPECT_EQ(got.c0, want.c0); EXPECT_EQ(got.c1, want.c1); EXPECT_EQ(got.c2, want.c2);
        EXPECT_EQ(got.lum, want.lum); EXPECT_EQ(got.h16, want.h16);
        EXPECT_EQ(got.range[0], want.range[0]); EXPECT_EQ(got.range[1], want.range[1]);
    }
    // A white 16-bit pixel: bin 511, luminance 65535; width 0 keeps the start range.
    std::vector<std::uint16_t> white(3, 65535);
    Counts c;
    EXPECT_EQ(hist16(1, 1, 3, 3, white.data(), c.range, c.h16.data()), 1);
    EXPECT_EQ(c.h16[511], 1); EXPECT_EQ(c.range[0], 65535.0f); EXPECT_EQ(c.range[1], 65535.0f);
    EXPECT_EQ(hist16(0, 2, 3, 3, white.data(), c.range, c.h16.data()), 2);
    EXPECT_EQ(c.range[0], 65535.0f); EXPECT_EQ(c.range[1], 0.0f);
}

TEST(ImageOps, RadianceHistogramAndItsMarks) {
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
            if (r[3 * w + x] == 0) continue;
            const float v = float((54 * r[x] + 183 * r[w + x] + 19 * r[2 * w + x]) >> 8) * float(std::ldexp(1.0, r[3 * w + x] - 128));
            ++want[std::clamp(tr((std::log(double(v)) - lmin) * double(scale)), 0, 511)];
        }
    EXPECT_EQ(got, want);
    // Marks from the text on that histogram, log axis (32) and linear (16).
    for (int mode : {32, 16}) {
        float info[10] = {5.0f, 200.0f};  // 200 is no percentile: 100 stands in
        const float lo = mode == 16 ? range[0] : lmin, hi = mode == 16 ? range[1] : float(std::log(double(range[1])));
        const float bw = float(double(hi - lo) * 0.001953125);
        auto val = [&](int b) { float v = lo + float(b) * bw; return mode == 32 ? float(std::exp(double(v))) : v; };
        long total = 0, sum = 0, run = 0;
        for (int i = 0; i < 512; ++i) total += got[i], sum += long(i) * got[i];
        auto first = [&](long t) { run = 0; for (int i = 0; i < 512; ++i) if ((run += got[i]) > t) return i; return 512; };
        const float want10[10] = {val(128), val(256), val(384), val(512), val(int(sum / total)), val(first(total / 2)),
                                  val(first(tr(float(total) * 5.0f / 100.0f))), val(first(tr(float(total) * 100.0f / 100.0f))),
                                  float(*std::max_element(got.begin(), got.end())), float(double(hi - lo) / std::log(2.0))};
        EXPECT_EQ(hist32info(range, mode, got.data(), info), total);
        for (int i = 0; i < 10; ++i) EXPECT_EQ(info[i], want10[i]) << mode << " info " << i;
    }
    // All exponents 0: nothing counted, total 0, mean mark 0.
    Bytes dark(4 * w * h, 0);
    std::vector<int32_t> none(512);
    float info[10] = {};
    EXPECT_EQ(getHisto32(w, h, dark.data(), range, none.data()), h);
    EXPECT_EQ(hist32info(range, 32, none.data(), info), 0);
    EXPECT_EQ(info[4], 0.0f);
}

}  // namespace
