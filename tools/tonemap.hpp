// The preview of a Radiance picture as a photographer expects it: a global
// photographic tone mapping done by the host.
//
//   Lw   = 0.2126 R + 0.7152 G + 0.0722 B       (linear, per pixel)
//   key  = exp(mean of log Lw)                  (over pixels with Lw > 0)
//   L    = 0.18 * Lw / key                      (the scene's key at middle grey)
//   Ld   = L / (1 + L)                          (highlights compressed, never clipped)
//   out  = sRGB encoding of min(1, C * Ld / Lw) for each channel C
//
// Colour ratios are kept; a channel above 1 after the scaling is clipped.
#pragma once

#include <cstdint>
#include <vector>

#include "image.hpp"

namespace olhdr {

// An 8-bit RGB image (red first) from rgbe planes of w x h.
Image photographicPreview(const std::vector<std::uint8_t>& planes, int w, int h);

}  // namespace olhdr
