// Mirror ball to latitude-longitude panorama.
//
// The sphere fills the source frame (centre in the middle, rim on the
// edges); the panorama is twice as wide as the source and as high. Each
// target pixel's direction (theta down the rows, phi across the columns) is
// mapped to a point of the sphere's image, all in double precision:
//   a  = acos(sin(phi) sin(theta))                 angle from the view axis
//   b  = atan2(cos(theta), -(cos(phi) sin(theta)))  angle in the image plane
//   s  = sin(a / 2)                                 radius on a mirror ball
//   sx = (cos(b) s + 1) w/2,  sy = (1 - sin(b) s) h/2
// The cell (ix, iy) = trunc(sx, sy) is clamped to 1..xmax and 1..h-3 (lower
// bound first, so for small sizes the upper bound wins); xmax is w-1 for
// integer images and w-3 for rgbe planes. The fractions are taken after the
// clamp and can lie outside 0..1 at a clamped cell.
//
// Sampling: mode 0 nearest, 1 bilinear, 2 Spline16; any other mode writes
// nothing. Integer images clamp interpolated values to 0..255 at both depths
// (16-bit samples keep their value only in mode 0), and mode 1 takes its
// right-hand neighbour exactly 3 samples on whatever spp is.
//
// The clamps let the footprint of a cell reach past the source: one or two
// pixels past the row's end at ix = w-1, and rows before the first or after
// the last for heights (or widths of rgbe planes) below 4. Reads inside the
// source buffer take what lies there; a sample before its start or past its
// end reads as 0 (an exponent byte of 0 is black).
#include <cmath>
#include <cstdint>
#include <cstring>

#include "Ombrelumen40Lib1.h"
#include "frame/alloc.hpp"
#include "frame/numeric.hpp"
#include "frame/rgbe.hpp"
#include "operators/geometry.hpp"

namespace ol {
namespace {

constexpr double kPi = 3.14159265358979323846;

// Spline16 weights of t for the taps -1, 0, 1, 2: double, then float.
inline void spline16(double t, float* w) noexcept {
    w[0] = static_cast<float>(((0.8 - t / 3.0) * t - 7.0 / 15.0) * t);
    w[1] = static_cast<float>(((t - 1.8) * t - 0.2) * t + 1.0);
    w[2] = static_cast<float>(((1.2 - t) * t + 0.8) * t);
    w[3] = static_cast<float>(((t / 3.0 - 0.2) * t - 2.0 / 15.0) * t);
}

inline double clamp01(double f) noexcept {
    if (f < 0.0) f = 0.0;
    if (f > 1.0) f = 1.0;
    return f;
}

// The cell and fractions of a target pixel.
struct Cell {
    std::int32_t ix, iy;
    double fx, fy;
};

// The projection, row by row. With its tables (one row of cells, and per
// column sin and cos of phi) a row is computed whole at startRow with fewer
// libm calls than the per-pixel reading, and the same bytes:
// - columns x and W/2 - x have phi and -phi (the same double, negated), so
//   the same cos(phi), the same atan2 arguments and the same b: atan2, cos(b)
//   and sin(b) are taken once for the pair (checked bit for bit per column);
// - rows are visited in mirrored pairs (y, h-1-y) (rowAt); where the second
//   row's sin(theta) is bit for bit the first one's, the acos arguments
//   repeat and so do a and s = sin(a/2).
// Without the memory for the tables every cell is computed on its own.
//
// Nearest-neighbour sampling (mode 0) needs of sx and sy only which side of
// each multiple of 0.5 they lie on (the cell and the fx, fy > 0.5 steps). The
// same point follows from the identities sin(acos(u) / 2) = sqrt((1 - u) / 2)
// and (cos, sin)(atan2(y, x)) = (x, y) / hypot(x, y), with a square root and
// a division in place of five libm calls, on the same u, x and y. Both ways
// stay within a few 1e-16 of the exact function of those doubles (the libm
// calls are accurate to an ulp or two, the identities to a few roundings),
// so sx and sy differ by some 1e-12 of a pixel at most; where the shortcut
// lands within 1e-10 (w + h) of a multiple of 0.5, or is not finite, the
// cell is computed the long way. The cells and steps are therefore the same.
class Projection {
public:
    Projection(long w, long h, long xmax, bool nearest) noexcept
        : w_(w), h_(h), xmax_(xmax), W_(2 * w), nearest_(nearest), margin_(2e-10 * static_cast<double>(w + h)) {
        tab_ = makeOwned<double>(sizeOf(W_) * 5);
        twin_ = makeOwned<std::int32_t>(sizeOf(W_));
        cells_ = makeOwned<Cell>(sizeOf(W_));
        if (!tab_ || !twin_ || !cells_) {
            tab_ = {};
            return;
        }
        double* sinP = tab_.get();
        double* cosP = sinP + W_;
        for (long x = 0; x < W_; ++x) {
            const double phi = phiOf(x);
            sinP[x] = std::sin(phi);
            cosP[x] = std::cos(phi);
            const long other = W_ / 2 - x;
            twin_[x] = other >= 0 && other < x && sameBits(cosP[other], cosP[x]) ? static_cast<std::int32_t>(other) : -1;
        }
    }

    // The k-th row to visit: 0, h-1, 1, h-2, ...
    long rowAt(long k) const noexcept { return k % 2 == 0 ? k / 2 : h_ - 1 - k / 2; }

    void startRow(long y) noexcept {
        const double theta = static_cast<double>(y) * kPi / static_cast<double>(h_ - 1);
        sinT_ = std::sin(theta);
        cosT_ = std::cos(theta);
        if (!tab_) return;
        const double* sinP = tab_.get();
        const double* cosP = sinP + W_;
        double* sRow = tab_.get() + 2 * W_;
        double* cbRow = sRow + W_;
        double* sbRow = cbRow + W_;
        if (nearest_) {
            for (long x = 0; x < W_; ++x) {
                const double u = sinP[x] * sinT_, across = -(cosP[x] * sinT_);
                const double rho = std::sqrt(cosT_ * cosT_ + across * across), s = std::sqrt((1.0 - u) * 0.5);
                const double sx = (across / rho * s + 1.0) * (static_cast<double>(w_) * 0.5);
                const double sy = (1.0 - cosT_ / rho * s) * (static_cast<double>(h_) * 0.5);
                cells_[x] = rho > 1e-150 && clearOfHalves(sx) && clearOfHalves(sy) ? clamped(sx, sy) : exact(x);
            }
            return;
        }
        const bool sameS = haveRow_ && sameBits(sinT_, prevSinT_);
        for (long x = 0; x < W_; ++x) {
            if (!sameS) sRow[x] = std::sin(std::acos(sinP[x] * sinT_) * 0.5);
            const std::int32_t t = twin_[x];
            if (t >= 0) {
                cbRow[x] = cbRow[t];
                sbRow[x] = sbRow[t];
            } else {
                const double b = std::atan2(cosT_, -(cosP[x] * sinT_));
                cbRow[x] = std::cos(b);
                sbRow[x] = std::sin(b);
            }
            cells_[x] = finish(cbRow[x], sbRow[x], sRow[x]);
        }
        prevSinT_ = sinT_;
        haveRow_ = true;
    }

    Cell cell(long x) const noexcept { return tab_ ? cells_[x] : exact(x); }

private:
    Cell exact(long x) const noexcept {
        const double phi = phiOf(x);
        const double sinP = std::sin(phi), cosP = std::cos(phi);
        const double a = std::acos(sinP * sinT_);
        const double b = std::atan2(cosT_, -(cosP * sinT_));
        return finish(std::cos(b), std::sin(b), std::sin(a * 0.5));
    }
    bool clearOfHalves(double v) const noexcept {
        const double t = 2.0 * v;
        return std::fabs(t - std::nearbyint(t)) > margin_;  // false for NaN
    }
    static bool sameBits(double a, double b) noexcept { return std::memcmp(&a, &b, sizeof a) == 0; }
    double phiOf(long x) const noexcept {
        return (static_cast<double>(x) - static_cast<double>(W_) * 0.25) * 2.0 * kPi / static_cast<double>(W_ - 1);
    }
    Cell finish(double cosB, double sinB, double s) const noexcept {
        return clamped((cosB * s + 1.0) * (static_cast<double>(w_) * 0.5), (1.0 - sinB * s) * (static_cast<double>(h_) * 0.5));
    }
    Cell clamped(double sx, double sy) const noexcept {
        std::int32_t ix = truncToInt(sx), iy = truncToInt(sy);
        if (ix < 1) ix = 1;
        if (ix > xmax_) ix = static_cast<std::int32_t>(xmax_);
        if (iy < 1) iy = 1;
        if (iy > h_ - 3) iy = static_cast<std::int32_t>(h_ - 3);
        return {ix, iy, sx - ix, sy - iy};
    }
    long w_, h_, xmax_, W_;
    bool nearest_;
    double margin_;  // on 2 sx and 2 sy
    double sinT_ = 0.0, cosT_ = 0.0, prevSinT_ = 0.0;
    bool haveRow_ = false;
    Owned<double> tab_;  // sin phi, cos phi; the row's s, cos b, sin b
    Owned<std::int32_t> twin_;
    Owned<Cell> cells_;
};

// Samples of an integer source; Checked reads 0 outside [0, extent).
template <class T, bool Checked>
struct LdrSource {
    const T* p;
    std::ptrdiff_t extent;
    float operator()(std::ptrdiff_t i) const noexcept {
        if constexpr (Checked)
            if (i < 0 || i >= extent) return 0.0f;
        return static_cast<float>(p[i]);
    }
    T raw(std::ptrdiff_t i) const noexcept {
        if constexpr (Checked)
            if (i < 0 || i >= extent) return 0;
        return p[i];
    }
};

inline float clampTo255(float v) noexcept {
    if (v < 0.0f) v = 0.0f;
    if (v > 255.0f) v = 255.0f;
    return v;
}

template <class T, class Src>
void sampleLdr(int mode, const Src& src, std::ptrdiff_t stride, std::ptrdiff_t spp, const Cell& c,
               T* out) noexcept {
    std::ptrdiff_t i = static_cast<std::ptrdiff_t>(c.iy) * stride + static_cast<std::ptrdiff_t>(c.ix) * spp;
    if (mode == 0) {
        if (c.fx > 0.5) i += spp;
        if (c.fy > 0.5) i += stride;
        for (int k = 0; k < 3; ++k) out[k] = src.raw(i + k);
        return;
    }
    if (mode == 1) {
        for (int k = 0; k < 3; ++k) {
            const float L0 = src(i + k), R0 = src(i + 3 + k);
            const float L1 = src(i + stride + k), R1 = src(i + stride + 3 + k);
            auto lerp = [](double f, float l, float r) {
                if (f <= 0.0) return l;
                if (f >= 1.0) return r;
                return static_cast<float>((1.0 - f) * l + f * r);
            };
            const float top = lerp(c.fx, L0, R0), bottom = lerp(c.fx, L1, R1);
            const float v = lerp(c.fy, top, bottom);
            out[k] = static_cast<T>(static_cast<std::uint32_t>(truncToInt(clampTo255(v))));
        }
        return;
    }
    float wx[4], wy[4];
    spline16(clamp01(c.fx), wx);
    spline16(clamp01(c.fy), wy);
    for (int k = 0; k < 3; ++k) {
        float v = 0.0f;
        for (int r = 0; r < 4; ++r) {
            const std::ptrdiff_t at = i + (r - 1) * stride + k;
            const float row = ((wx[0] * src(at - spp) + wx[1] * src(at)) + wx[2] * src(at + spp)) +
                              wx[3] * src(at + 2 * spp);
            v = r == 0 ? wy[0] * row : v + wy[r] * row;
        }
        out[k] = static_cast<T>(static_cast<std::uint32_t>(truncToInt(clampTo255(v))));
    }
}

template <class T>
void remapLdr(int mode, long w, long h, long srcStride, long dstStride, int spp, const T* src, T* dst) noexcept {
    Projection proj(w, h, w - 1, mode == 0);
    const std::ptrdiff_t extent = static_cast<std::ptrdiff_t>((h - 1) * srcStride + w * spp);
    const LdrSource<T, false> fast{src, extent};
    const LdrSource<T, true> checked{src, extent};
    const long W = 2 * w;
    for (long k = 0; k < h; ++k) {
        const long y = proj.rowAt(k);
        proj.startRow(y);
        T* out = dst + sizeOf(y) * sizeOf(dstStride);
        for (long x = 0; x < W; ++x, out += spp) {
            const Cell c = proj.cell(x);
            const std::ptrdiff_t i = static_cast<std::ptrdiff_t>(c.iy) * srcStride + static_cast<std::ptrdiff_t>(c.ix) * spp;
            // Widest footprint of the three modes: a row and a pixel before,
            // two rows and two pixels (or 3 + 2 samples) after.
            const bool inside = i - spp - srcStride >= 0 && i + 2 * spp + 2 * srcStride + 5 < extent;
            if (inside)
                sampleLdr(mode, fast, srcStride, spp, c, out);
            else
                sampleLdr(mode, checked, srcStride, spp, c, out);
        }
    }
}

// One pixel of rgbe planes decoded; Checked reads bytes outside the source as 0.
template <bool Checked>
struct HdrSource {
    const std::uint8_t* p;
    std::ptrdiff_t extent, w;
    const float* table;
    std::uint8_t byte(std::ptrdiff_t i) const noexcept {
        if constexpr (Checked)
            if (i < 0 || i >= extent) return 0;
        return p[i];
    }
    void decode(std::ptrdiff_t i, float* rgb) const noexcept {
        const std::uint8_t e = byte(i + 3 * w);
        if (e == 0) {
            rgb[0] = rgb[1] = rgb[2] = 0.0f;
            return;
        }
        const float f = table[e];
        rgb[0] = static_cast<float>(byte(i)) * f;
        rgb[1] = static_cast<float>(byte(i + w)) * f;
        rgb[2] = static_cast<float>(byte(i + 2 * w)) * f;
    }
};

template <class Src>
RgbePixel sampleHdr(int mode, const Src& src, std::ptrdiff_t w, const Cell& c) noexcept {
    std::ptrdiff_t i = static_cast<std::ptrdiff_t>(c.iy) * 4 * w + c.ix;
    if (mode == 0) {
        if (c.fx > 0.5) i += 1;
        if (c.fy > 0.5) i += 4 * w;
        return {src.byte(i), src.byte(i + w), src.byte(i + 2 * w), src.byte(i + 3 * w)};
    }
    // The fractions, clamped, in single precision like the interpolation.
    const float fx = static_cast<float>(clamp01(c.fx)), fy = static_cast<float>(clamp01(c.fy));
    float v[3];
    if (mode == 1) {
        float L0[3], R0[3], L1[3], R1[3];
        src.decode(i, L0);
        src.decode(i + 1, R0);
        src.decode(i + 4 * w, L1);
        src.decode(i + 4 * w + 1, R1);
        for (int k = 0; k < 3; ++k) {
            const float top = R0[k] * fx + L0[k] * (1.0f - fx);
            const float bottom = R1[k] * fx + L1[k] * (1.0f - fx);
            v[k] = bottom * fy + top * (1.0f - fy);
        }
    } else {
        float wx[4], wy[4];
        spline16(fx, wx);
        spline16(fy, wy);
        float px[4][4][3];
        for (int r = 0; r < 4; ++r)
            for (int q = 0; q < 4; ++q) src.decode(i + (r - 1) * 4 * w + (q - 1), px[r][q]);
        for (int k = 0; k < 3; ++k) {
            float acc = 0.0f;
            for (int r = 0; r < 4; ++r) {
                const float row =
                    ((wx[0] * px[r][0][k] + wx[1] * px[r][1][k]) + wx[2] * px[r][2][k]) + wx[3] * px[r][3][k];
                acc = r == 0 ? wy[0] * row : acc + wy[r] * row;
            }
            v[k] = acc;
        }
    }
    float m = v[0];
    if (v[1] > m) m = v[1];
    if (v[2] > m) m = v[2];
    if (!(static_cast<double>(m) > 1e-32)) return {0, 0, 0, 0};
    // The decoded values are 2^8 above the encoder's scale (the table leaves
    // the mantissa byte unscaled), so the exponent byte is E + 120: the
    // shared encoder's E + 128, less 8, in the low byte.
    RgbePixel p = encodeRgbe(v[0], v[1], v[2], RgbeForm::Wrapped);
    p.e = static_cast<std::uint8_t>(p.e - 8);
    return p;
}

void remapHdr(int mode, long w, long h, const std::uint8_t* src, std::uint8_t* dst) noexcept {
    Projection proj(w, h, w - 3, mode == 0);
    const std::ptrdiff_t extent = static_cast<std::ptrdiff_t>(4 * w * h);
    const float* table = rgbeExpTable().v;
    const HdrSource<false> fast{src, extent, w, table};
    const HdrSource<true> checked{src, extent, w, table};
    const long W = 2 * w;
    for (long k = 0; k < h; ++k) {
        const long y = proj.rowAt(k);
        proj.startRow(y);
        std::uint8_t* row = dst + sizeOf(y) * sizeOf(4 * W);
        for (long x = 0; x < W; ++x) {
            const Cell c = proj.cell(x);
            const std::ptrdiff_t i = static_cast<std::ptrdiff_t>(c.iy) * 4 * w + c.ix;
            const bool inside = i - 1 - 4 * w >= 0 && i + 2 + 11 * w < extent;
            const RgbePixel p = inside ? sampleHdr(mode, fast, w, c) : sampleHdr(mode, checked, w, c);
            row[x] = p.r;
            row[W + x] = p.g;
            row[2 * W + x] = p.b;
            row[3 * W + x] = p.e;
        }
    }
}

}  // namespace
}  // namespace ol

extern "C" {

OL_API void remap_ldr(int mode, int bps, int width, int height, int srcRowStride, int dstRowStride, int spp,
                      const void* src, void* dst) {
    if (bps != 8 && bps != 16) return;
    if (mode < 0 || mode > 2 || width < 1 || height < 1) return;
    // Three samples are written to every target pixel: fewer a pixel would
    // spill into the next ones and past the row. Rows must fit their strides.
    if (spp < 3 || !ol::rowsFit(width, spp, srcRowStride) || !ol::rowsFit(2L * width, spp, dstRowStride) || !src ||
        !dst)
        return;
    if (bps == 8)
        ol::remapLdr(mode, width, height, srcRowStride, dstRowStride, spp, static_cast<const std::uint8_t*>(src),
                     static_cast<std::uint8_t*>(dst));
    else
        ol::remapLdr(mode, width, height, srcRowStride, dstRowStride, spp, static_cast<const std::uint16_t*>(src),
                     static_cast<std::uint16_t*>(dst));
}

OL_API void remap_hdr(int mode, int width, int height, const std::uint8_t* src, std::uint8_t* dst) {
    if (mode < 0 || mode > 2 || width < 1 || height < 1 || !src || !dst) return;
    ol::remapHdr(mode, width, height, src, dst);
}

}  // extern "C"
