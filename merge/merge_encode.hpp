// RGBE encoding of the weighted merge, pass 1: the dark and burnt-out markers
// and the clamped form, without frexp or a division per pixel.
#pragma once

#include <bit>
#include <cstdint>

#include "frame/numeric.hpp"
#include "frame/rgbe.hpp"

namespace ol {

// Values of 1e9 or more (every frame saturated) become the burnt-out marker.
inline constexpr float kMergeBurnt = 1e9f;

// Same bytes as encodeRgbe(r, g, b, Clamped) for values below kMergeBurnt.
// For a normal float m, frexp gives f = m * 2^-e exactly, so the scale
// f*256/m of the general encoder is exactly 2^(8-e): it is built from the
// exponent bits here. Every m that passes the 1e-32 guard is a normal float.
inline RgbePixel encodeMergePixel(float r, float g, float b) noexcept {
    float m = r;
    if (g > m) m = g;
    if (b > m) m = b;
    // The threshold is the double 1e-32, as in encodeRgbe (1e-32f itself lies
    // just above it and is encoded).
    if (!(static_cast<double>(m) > 1e-32)) return kRgbeDark;
    if (m >= kMergeBurnt) return kRgbeBurnt;
    const std::uint32_t bits = std::bit_cast<std::uint32_t>(m);
    const int e = static_cast<int>(bits >> 23) - 126;  // frexp exponent
    const float s = std::bit_cast<float>(static_cast<std::uint32_t>(135 - e) << 23);
    return {clampToByte(truncToInt(r * s)), clampToByte(truncToInt(g * s)),
            clampToByte(truncToInt(b * s)), clampToByte(e + 128)};
}

}  // namespace ol
