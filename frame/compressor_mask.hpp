// The compressor mask: a luminance level turned into the blend weight of the
// luminance-mask compressor and of the two-image combination.
//
// From a weighted luminance Y (0..255): trunc((Y - 68) * 1.15 + 128), with
// Y - 68 an integer converted to float and the rest in double, clamped to
// 0..255. Y = 68 gives 128, Y = 0 gives 49, Y >= 179 gives 255.
//
// The two-image combination has the same mask in another form, from the sum
// t of three 8-bit levels (0..765): 128 - trunc((float)(t - 204) * -0.38333333),
// clamped to 0..255 (204 is 3 * 68, 0.38333333 is 1.15 / 3). Each form keeps
// its own arithmetic.
//
// Both are tables of bytes, built once.
#pragma once

#include <cstdint>

namespace ol {

inline std::uint8_t compressorMaskOfLuminance(int y) noexcept {
    const double v = static_cast<double>(static_cast<float>(y - 68)) * 1.15 + 128.0;
    // Y is a level: the value stays far inside the int range.
    const int m = static_cast<int>(v);
    return static_cast<std::uint8_t>(m < 0 ? 0 : (m > 255 ? 255 : m));
}

inline std::uint8_t compressorMaskOfLevelSum(int t) noexcept {
    const double v = static_cast<double>(static_cast<float>(t - 204)) * -0.38333333;
    const int m = 128 - static_cast<int>(v);
    return static_cast<std::uint8_t>(m < 0 ? 0 : (m > 255 ? 255 : m));
}

struct CompressorMaskTables {
    std::uint8_t ofLuminance[256];  // by Y, 0..255
    std::uint8_t ofLevelSum[766];   // by t, 0..765
};

// A process-wide read-only copy, built once.
const CompressorMaskTables& compressorMaskTables() noexcept;

}  // namespace ol
