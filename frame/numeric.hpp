// Conversions between floating point and integers with the results that
// 64-bit x86 gives, written out so that they are defined behaviour in C++:
// a NaN or a value outside the int32 range truncates to 0x80000000 (the
// "integer indefinite" value of cvttss2si/cvttsd2si).
#pragma once

#include <cstdint>

namespace ol {

inline constexpr std::int32_t kIntIndefinite = INT32_MIN;

inline std::int32_t truncToInt(float x) noexcept {
    if (x >= -2147483648.0f && x < 2147483648.0f) return static_cast<std::int32_t>(x);
    return kIntIndefinite;
}

inline std::int32_t truncToInt(double x) noexcept {
    if (x > -2147483649.0 && x < 2147483648.0) return static_cast<std::int32_t>(x);
    return kIntIndefinite;
}

// Conversion to an unsigned 8-bit field that keeps only the low 8 bits of the
// truncated integer.
inline std::uint8_t wrapToByte(std::int32_t v) noexcept {
    return static_cast<std::uint8_t>(static_cast<std::uint32_t>(v) & 0xFFu);
}

inline std::uint8_t clampToByte(std::int32_t v) noexcept {
    return static_cast<std::uint8_t>(v < 0 ? 0 : (v > 255 ? 255 : v));
}

}  // namespace ol
