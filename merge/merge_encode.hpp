// RGBE encoding of the weighted merge, pass 1: the dark and burnt-out markers
// and the clamped form.
#pragma once

#include <cstdint>

#include "frame/numeric.hpp"
#include "frame/rgbe.hpp"

namespace ol {

// Values of 1e9 or more (every frame saturated) become the burnt-out marker.
inline constexpr float kMergeBurnt = 1e9f;

// The merge's pass-1 encoding: the dark marker for values not above 1e-32,
// the burnt-out marker for 1e9 or more, otherwise the clamped form.
inline RgbePixel encodeMergePixel(float r, float g, float b) noexcept {
    float m = r;
    if (g > m) m = g;
    if (b > m) m = b;
    if (!(static_cast<double>(m) > 1e-32)) return kRgbeDark;
    if (m >= kMergeBurnt) return kRgbeBurnt;
    return encodeRgbe(r, g, b, RgbeForm::Clamped);
}

}  // namespace ol
