// Luminance of a run of pixels: (54 s0 + 183 s1 + 19 s2) >> 8 on the first
// three samples, the high byte of each 16-bit sample. The weights add up to
// 256, so the result is 0..255.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ol::alignment {

// Bytes: 1 or 2 a sample; Samples: 3 or 4 known at compile time, 0 for the
// run-time `samples`. Kept branch-free so that it vectorises where inlined.
template <int Bytes, int Samples>
inline void luminanceRun(const std::uint8_t* src, std::size_t n, int samples, std::uint8_t* out) noexcept {
    const std::size_t stride = static_cast<std::size_t>(Samples ? Samples : samples) * Bytes;
    constexpr int hi = Bytes - 1;  // little-endian: the high byte comes last
    for (std::size_t i = 0; i < n; ++i) {
        const std::uint8_t* p = src + i * stride;
        const unsigned l = 54u * p[hi] + 183u * p[Bytes + hi] + 19u * p[2 * Bytes + hi];
        out[i] = static_cast<std::uint8_t>(l >> 8);
    }
}

}  // namespace ol::alignment
