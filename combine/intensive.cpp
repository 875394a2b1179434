// Intensive combination: every output pixel is a weighted mean of that pixel
// in all images of a stack. An image's weight falls with the "badness" around
// the pixel: its distance from mid-grey, summed over a bilateral window (a
// spatial and a range weight a sample), directly, with no pyramid and no
// running sum. An optional lift of the saturation goes through HSL.
//
// Per call: the badness planes (one byte a pixel and image), the spatial
// table (one float a window position), the range table (256 floats) and the
// mid-grey table (256 bytes). Then, row by row, the weights of all images for
// the row, and the row's pixels.
//
// Speed: the window sums of one pixel are float sums in a fixed order, so
// they are never reassociated; pixels whose windows are whole (the interior)
// run 8 to a vector with AVX2 where the CPU has it, each lane in the window's
// order. Single thread.
#include <cmath>
#include <cstddef>
#include <cstdint>

#include "Ombrelumen40Lib1.h"
#include "combine/intensive.hpp"
#include "frame/alloc.hpp"
#include "frame/levels.hpp"
#include "frame/numeric.hpp"

namespace ol::intensive {
namespace {

struct Job {
    long step, r;
    int n;
    long w, h, rowStride, spp;
    bool swap;
    int bpsIn, bpsOut;
    ColourPositions pos;
    bool reciprocalRule;  // integer part of power 0
    float k;              // exponent of the pow rule
    bool saturate;        // integer part of saturation not 0
    float f;              // saturation factor
};

// Window limits along one dimension of `size` at coordinate `at`. The far
// edge is tested only when the near edge is not clipped.
inline void limits(long at, long size, long r, long& lo, long& hi) noexcept {
    if (at < r) {
        lo = -at;
        hi = r;
    } else {
        lo = -r;
        hi = at + r > size - 1 ? size - 1 - at : r;
    }
}

// The window sum of one pixel, sample by sample. The table position starts
// at 0 whatever the clipping. A window that runs past the plane (an image
// less than 2r + 1 wide or high) reads on into the next rows and images of the
// badness table, as laid out; past the table's end a badness counts as 0, so
// that sample adds nothing.
float pixelAcc(const RowWindow& win, long x) noexcept {
    const std::uint8_t* p = win.plane;
    const int c = p[win.y * win.w + x];
    float acc = static_cast<float>(c);
    long dxLo, dxHi;
    limits(x, win.w, win.r, dxLo, dxHi);
    const float* sp = win.spatial;
    for (long dy = win.dyLo; dy <= win.dyHi; dy += win.step) {
        const std::ptrdiff_t row = (win.y + dy) * win.w + x;
        if (row + dxLo >= win.limit) break;  // this row and every later one lie past the table
        for (long dx = dxLo; dx <= dxHi; dx += win.step, ++sp) {
            if (row + dx >= win.limit) continue;
            const int u = p[row + dx];
            const int d = u > c ? u - c : c - u;
            acc += win.range[d] * *sp * static_cast<float>(u);
        }
    }
    return acc;
}

void rowAcc(const RowWindow& win, bool vector, float* acc) noexcept {
    const long w = win.w, r = win.r;
    // Pixels whose window is whole and inside the plane: [r, w - 1 - r].
    long x = 0;
    if (vector && win.y + win.dyHi <= win.h - 1 && w - 1 - r >= r) {
        for (; x < r; ++x) acc[x] = pixelAcc(win, x);
        x = interiorAccAvx2(win, r, w - r, acc);
    }
    for (; x < w; ++x) acc[x] = pixelAcc(win, x);
}

inline float weightOf(const Job& j, float acc) noexcept {
    if (j.reciprocalRule) return static_cast<float>(1000000.0 / (static_cast<double>(acc) + 1.0));
    return static_cast<float>(std::pow(static_cast<double>(acc) + 1.0, -static_cast<double>(j.k)));
}

// HSL as this operator has it: the literals are doubles, the variables floats.
float channel(float p, float q, float t) noexcept {
    if (t < 0) t += 1;
    if (t > 1) t -= 1;
    const float x2 = t + t;
    const float x3 = x2 + t;
    const float x6 = x3 + t + t + t;
    if (x6 < 1) return p + (q - p) * x6;
    if (x2 < 1) return q;
    if (x3 < 2) return static_cast<float>(p + (q - p) * (4.0 - x6));
    return p;
}

void saturate(float* v, float f) noexcept {
    const float r = v[0], g = v[1], b = v[2];
    float mx = r, mn = r;
    if (g > mx) mx = g;
    if (b > mx) mx = b;
    if (g < mn) mn = g;
    if (b < mn) mn = b;
    const float L = static_cast<float>((mx + mn) * 0.5);
    float S = 0.0f, H = 0.0f;
    if (mx != mn) {
        S = L < 0.5 ? (mx - mn) / (mx + mn) : static_cast<float>((mx - mn) / (2.0 - mx - mn));
        if (r == mx)
            H = (g - b) / (mx - mn);
        else if (g == mx)
            H = static_cast<float>((b - r) / (mx - mn) + 2.0);
        else
            H = static_cast<float>((r - g) / (mx - mn) + 4.0);
        H = static_cast<float>(H / 6.0);
        if (H < 0) H = static_cast<float>(H + 1.0);
        if (H > 1.0) H = static_cast<float>(H - 1.0);
    }
    S = S * f;
    if (S > 1.0) S = 1.0f;
    if (S == 0.0f) {
        v[0] = v[1] = v[2] = L;
        return;
    }
    const float q = L <= 0.5 ? static_cast<float>(L * (1.0 + S)) : L + S - L * S;
    const float p = static_cast<float>(2.0 * L - q);
    v[0] = channel(p, q, static_cast<float>(H + 0.333333333333));
    v[1] = channel(p, q, H);
    v[2] = channel(p, q, static_cast<float>(H - 0.3333333333333));
}

template <class I, class O>
void pixelRow(const Job& j, const I* images, const float* weights, long y, O* out) noexcept {
    const std::size_t frame = static_cast<std::size_t>(j.w) * j.h * j.spp;
    const int shift = sizeof(I) == 1 && sizeof(O) == 2 ? 8 : 0;
    const std::int32_t top = sizeof(O) == 1 ? 255 : 65535;
    const double scale = sizeof(O) == 1 ? 255.0 : 65535.0;
    const double recip = sizeof(O) == 1 ? 0.003921569 : 1.5259022e-05;
    const int c[3] = {0, j.pos.middle, j.pos.last};
    for (long x = 0; x < j.w; ++x) {
        const std::size_t at = (static_cast<std::size_t>(y) * j.w + x) * j.spp;
        float sum[3] = {0.0f, 0.0f, 0.0f}, sumW = 0.0f;
        for (int k = 0; k < j.n; ++k) {
            const float wt = weights[static_cast<std::size_t>(k) * j.w + x];
            const I* p = images + k * frame + at;
            for (int i = 0; i < 3; ++i) sum[i] += wt * static_cast<float>(static_cast<std::int32_t>(p[c[i]]) << shift);
            sumW += wt;
        }
        float v[3];
        for (int i = 0; i < 3; ++i) v[i] = sum[i] / sumW;
        if (j.saturate) {
            for (float& e : v) e = static_cast<float>(e * recip);
            saturate(v, j.f);
            for (float& e : v) e = static_cast<float>(e * scale);
        }
        std::int32_t o[3];
        for (int i = 0; i < 3; ++i) {
            const std::int32_t t = truncToInt(v[i]);
            o[i] = t < 0 ? 0 : (t > top ? top : t);
        }
        O* d = out + static_cast<std::size_t>(y) * j.rowStride + x * j.spp;
        d[0] = static_cast<O>(j.swap ? o[2] : o[0]);
        d[j.pos.middle] = static_cast<O>(o[1]);
        d[j.pos.last] = static_cast<O>(j.swap ? o[0] : o[2]);
    }
}

// Badness of every pixel of every image: the distance of first, middle and
// last from mid-grey, weighted 0.2, 0.7 and 0.1 in double.
template <class I>
void badnessPass(const Job& j, const I* images, std::uint8_t* bad) noexcept {
    double m2[256], m7[256], m1[256];
    for (int i = 0; i < 256; ++i) {
        int v = (255 * i - 32640) / 128;
        v = v < 0 ? -v : v;
        const int mg = v < 255 ? v : 255;
        m2[i] = mg * 0.2;
        m7[i] = mg * 0.7;
        m1[i] = mg * 0.1;
    }
    const std::size_t pixels = static_cast<std::size_t>(j.w) * j.h * j.n;
    const I* p = images;
    for (std::size_t i = 0; i < pixels; ++i, p += j.spp) {
        const std::int32_t v = truncToInt(m2[highByte(p[0])] + m7[highByte(p[j.pos.middle])] + m1[highByte(p[j.pos.last])]);
        bad[i] = static_cast<std::uint8_t>(v < 0 ? 0 : (v > 255 ? 255 : v));
    }
}

template <class I, class O>
int run(const Job& j, const void* images, void* dst) noexcept {
    const std::size_t plane = static_cast<std::size_t>(j.w) * j.h;
    Owned<std::uint8_t> bad = makeOwned<std::uint8_t>(plane * j.n);
    if (!bad) return -4;
    const long side = 2 * j.r / j.step + 1;
    const std::size_t positions = static_cast<std::size_t>(side) * side;
    // Spatial table and the weights of one row (n * w floats), one block.
    Owned<float> tables = makeOwned<float>(positions + static_cast<std::size_t>(j.n) * j.w + 2 * j.w);
    if (!tables) return -4;
    float* spatial = tables.get();
    float* weights = spatial + positions;
    float* acc = weights + static_cast<std::size_t>(j.n) * j.w;
    float range[256];
    for (int d = 0; d < 256; ++d) {
        const float q = static_cast<float>(static_cast<float>(d) / 255.0);
        range[d] = static_cast<float>(std::exp(-2.0 * (static_cast<double>(q) * q)));
    }
    {
        float* s = spatial;
        for (long dy = -j.r; dy <= j.r; dy += j.step) {
            const float qy = static_cast<float>(static_cast<double>(dy) / static_cast<double>(j.r));
            const float ey = static_cast<float>(std::exp(-2.0 * (static_cast<double>(qy) * qy)));
            for (long dx = -j.r; dx <= j.r; dx += j.step) {
                const float qx = static_cast<float>(static_cast<double>(dx) / static_cast<double>(j.r));
                const float ex = static_cast<float>(std::exp(-2.0 * (static_cast<double>(qx) * qx)));
                *s++ = ey * ex;
            }
        }
    }
    const I* src = static_cast<const I*>(images);
    badnessPass(j, src, bad.get());

    const bool vector = haveAvx2();
    RowWindow win{nullptr, 0, j.w, j.h, 0, j.r, j.step, 0, 0, range, spatial};
    for (long y = 0; y < j.h; ++y) {
        win.y = y;
        limits(y, j.h, j.r, win.dyLo, win.dyHi);
        for (int k = 0; k < j.n; ++k) {
            win.plane = bad.get() + plane * k;
            win.limit = static_cast<std::ptrdiff_t>(plane * (j.n - k));
            rowAcc(win, vector, acc);
            float* wk = weights + static_cast<std::size_t>(k) * j.w;
            for (long x = 0; x < j.w; ++x) wk[x] = weightOf(j, acc[x]);
        }
        pixelRow<I, O>(j, src, weights, y, static_cast<O*>(dst));
    }
    return static_cast<int>(j.h);
}

}  // namespace
}  // namespace ol::intensive

extern "C" {

// Returns height, 0 when height or n is below 1, -4 when a work table can't
// be allocated.
//
// Arguments whose literal reading never ends or leaves the buffers are
// refused with 0 and the target untouched: a step or radius below 1 (an
// endless loop, a division by zero), a width below 1, spp below 1, a stride
// shorter than a row, depths other than 8 and 16, null buffers, and a window
// of more positions than an int counts (taken as a table that can't be
// allocated: -4). A NaN or out-of-range power or saturation has an integer
// part of 0x80000000 (not 0), and its arithmetic runs on as floats do; a
// value that ends as NaN is written as 0.
OL_API int ol_combi_intensive(int step, int radius, float power, float saturation, int n, int width, int height,
                              int rowStride, int swap, int spp, int bpsIn, int bpsOut, const void* images,
                              void* dst) {
    using namespace ol;
    if (height < 1 || n < 1) return 0;
    if (step < 1 || radius < 1 || width < 1 || spp < 1 || !images || !dst) return 0;
    if ((bpsIn != 8 && bpsIn != 16) || (bpsOut != 8 && bpsOut != 16)) return 0;
    if (static_cast<long long>(rowStride) < static_cast<long long>(width) * spp) return 0;
    const long long side = 2LL * radius / step + 1;
    if (side * side > INT32_MAX) return -4;
    intensive::Job j{};
    j.step = step;
    j.r = radius;
    j.n = n;
    j.w = width;
    j.h = height;
    j.rowStride = rowStride;
    j.spp = spp;
    j.swap = swap != 0;
    j.bpsIn = bpsIn;
    j.bpsOut = bpsOut;
    j.pos = colourPositions(spp);
    j.reciprocalRule = truncToInt(power) == 0;
    j.k = j.reciprocalRule ? 1.0f : static_cast<float>(std::pow(2.0, power / 10.0));
    j.saturate = truncToInt(saturation) != 0;
    j.f = static_cast<float>(saturation * 0.1 + 1.0);
    if (bpsIn == 8 && bpsOut == 8) return intensive::run<std::uint8_t, std::uint8_t>(j, images, dst);
    if (bpsIn == 8) return intensive::run<std::uint8_t, std::uint16_t>(j, images, dst);
    if (bpsOut == 8) return intensive::run<std::uint16_t, std::uint8_t>(j, images, dst);
    return intensive::run<std::uint16_t, std::uint16_t>(j, images, dst);
}

}  // extern "C"
