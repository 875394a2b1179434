// Tone-mapping parameters: slider positions to integer parameters and back.
//
// Each one is scale, pow with the caller's exponent, scale, and a rounding of
// its own: truncate toward zero, then add 1 only when the fraction is
// strictly above 0.5. A fraction of exactly 0.5 rounds down, and the test is
// made on the positive side only (-12.7 gives -12).
#include <cmath>
#include <cstdint>

#include "Ombrelumen40Lib1.h"
#include "frame/numeric.hpp"

namespace ol {
namespace {

int roundParam(double v) noexcept {
    // A NaN or a value outside the int range truncates to 0x80000000; the
    // comparison then fails for a NaN and holds for a large value, and the
    // increment wraps as on the machine (unsigned arithmetic).
    const std::int32_t t = truncToInt(v);
    if (v - static_cast<double>(t) > 0.5)
        return static_cast<std::int32_t>(static_cast<std::uint32_t>(t) + 1u);
    return t;
}

}  // namespace
}  // namespace ol

extern "C" {

OL_API int slider2param(int slider, double power) {
    return ol::roundParam(std::pow(slider / 100.0, power) * 100000.0);
}

OL_API int param2slider(float param, double power) {
    return ol::roundParam(std::pow(static_cast<double>(param) / 100000.0, power) * 100.0);
}

OL_API int clipvar(int slider, double power) {
    return ol::roundParam(std::pow(slider / 100.0, power) * 1000.0);
}

OL_API int fclipvar(float slider, double power) {
    return ol::roundParam(std::pow(static_cast<double>(slider) / 100.0, power) * 1000.0);
}

}  // extern "C"
