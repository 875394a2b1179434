// The RGBE pixel: three mantissa bytes and an exponent byte E.
//
// Decoding: E == 0 is black; otherwise a channel is mantissa * 2^(E-128), with
// no half-step offset and no division by 256, so a decoded value is 256 times
// the value that went into the encoder.
//
// Encoding of (a, b, c) with m the largest of the three: frexp(m) gives a
// fraction f in [0.5, 1) and an exponent e; s = f*256/m in double, rounded to
// float; each mantissa is trunc(channel*s) in float and the exponent byte is
// e+128. The clamped form limits every byte to 0..255, the wrapped form keeps
// the low 8 bits.
#pragma once

#include <bit>
#include <cmath>
#include <cstdint>

#include "frame/numeric.hpp"

namespace ol {

struct RgbePixel {
    std::uint8_t r, g, b, e;
};

inline constexpr RgbePixel kRgbeDark{0, 0, 0, 0};        // dead-dark marker
inline constexpr RgbePixel kRgbeBurnt{255, 255, 255, 255};  // burnt-out marker

enum class RgbeForm { Clamped, Wrapped };

// Whether values at or below 1e-32 are written as four zero bytes. Some
// callers encode without the guard, and then 0 gives a NaN scale: mantissas
// trunc(NaN) -> 0x80000000 (0 in either form) and exponent byte 128.
enum class ZeroGuard { On, Off };

inline RgbePixel encodeRgbe(float a, float b, float c, RgbeForm form,
                            ZeroGuard guard = ZeroGuard::On) noexcept {
    float m = a;
    if (b > m) m = b;
    if (c > m) m = c;
    // The threshold is the double 1e-32; the nearest float, 1e-32f, lies just
    // above it, so "m > 1e-32" in double is "m >= 1e-32f" in float.
    if (guard == ZeroGuard::On && !(static_cast<double>(m) > 1e-32)) return kRgbeDark;
    const std::uint32_t bits = std::bit_cast<std::uint32_t>(m);
    const std::uint32_t biased = (bits >> 23) & 0xFFu;
    int e = 0;
    float s;
    if (biased >= 8 && biased != 255 && !(bits >> 31)) {
        // A positive normal m is exactly f * 2^e with the frexp fraction f, so
        // the scale f*256/m is exactly 2^(8-e): built from the exponent bits,
        // with no frexp and no division. Same value as the general path as
        // long as 2^(8-e) is a float (below biased exponent 8 it overflows to
        // infinity there, and every m that passes the guard is far above).
        e = static_cast<int>(biased) - 126;
        s = std::bit_cast<float>(static_cast<std::uint32_t>(135 - e) << 23);
    } else {
        // Zero, the smallest normals, subnormals, infinities and NaN (reached
        // without the guard, or from a negative largest channel): the general
        // frexp form.
        const float f = std::frexp(m, &e);
        s = static_cast<float>(static_cast<double>(f) * 256.0 / static_cast<double>(m));
    }
    const std::int32_t ma = truncToInt(a * s);
    const std::int32_t mb = truncToInt(b * s);
    const std::int32_t mc = truncToInt(c * s);
    const std::int32_t ex = e + 128;
    if (form == RgbeForm::Clamped)
        return {clampToByte(ma), clampToByte(mb), clampToByte(mc), clampToByte(ex)};
    return {wrapToByte(ma), wrapToByte(mb), wrapToByte(mc), wrapToByte(ex)};
}

// The 256-entry decoding table: ldexp(1.0, e-128) as floats. Every entry is an
// exact power of two (2^-128 is a float subnormal), so the values are exact.
// A bias of 136 folds the mantissa's division by 256 into the table.
struct RgbeExpTable {
    float v[256];
};

inline void fillRgbeExpTable(float* table, int bias = 128) noexcept {
    for (int e = 0; e < 256; ++e) table[e] = static_cast<float>(std::ldexp(1.0, e - bias));
}

// A process-wide read-only copy, built once.
const RgbeExpTable& rgbeExpTable() noexcept;

// Decodes one channel as the library does everywhere (0 when E is 0).
inline float decodeRgbeChannel(std::uint8_t mantissa, std::uint8_t e, const float* table) noexcept {
    return e == 0 ? 0.0f : static_cast<float>(mantissa) * table[e];
}

// Offsets of the four planes of row y in `rgbe planes` of the given width.
struct RgbeRow {
    std::uint8_t* r;
    std::uint8_t* g;
    std::uint8_t* b;
    std::uint8_t* e;
};

inline RgbeRow rgbeRow(std::uint8_t* planes, int width, long y) noexcept {
    std::uint8_t* row = planes + static_cast<std::size_t>(y) * 4u * static_cast<std::size_t>(width);
    return {row, row + width, row + 2 * static_cast<std::size_t>(width),
            row + 3 * static_cast<std::size_t>(width)};
}

inline void storeRgbe(const RgbeRow& row, int x, RgbePixel p) noexcept {
    row.r[x] = p.r;
    row.g[x] = p.g;
    row.b[x] = p.b;
    row.e[x] = p.e;
}

}  // namespace ol
