// The response exponent of an ICC profile, from its first red, green or blue
// tone curve.
//
// The profile is searched byte by byte for the first "rTRC", "gTRC" or "bTRC"
// (the tag table is not walked, so a match may fall anywhere); the four bytes
// after the match give the curve's offset. A curve of one entry holds a gamma
// in unsigned 8.8 fixed point; any other curve keeps the default of 2.2.
#include <cstdint>
#include <cstring>

#include "Ombrelumen40Lib1.h"
#include "frame/bytes.hpp"

namespace {

constexpr float kDefaultGamma = 2.2f;

bool isTrcSignature(const std::uint8_t* p) noexcept {
    return (p[0] == 'r' || p[0] == 'g' || p[0] == 'b') && std::memcmp(p + 1, "TRC", 3) == 0;
}

}  // namespace

extern "C" {

OL_API int trc_from_profile(const std::uint8_t* profile, int size, float* gamma) {
    using ol::getU32BE;
    // 1. The size field must equal the size given. Bytes that a profile of
    //    fewer than 4 bytes lacks count as 0.
    std::uint8_t head[4] = {0, 0, 0, 0};
    if (profile && size > 0) std::memcpy(head, profile, size < 4 ? static_cast<std::size_t>(size) : 4u);
    const std::int32_t s = static_cast<std::int32_t>(getU32BE(head));
    if (s != size) return s < 1 ? s : -s;

    // 2. Too short to hold a tag.
    if (size - 12 < 1) {
        *gamma = kDefaultGamma;
        return 0;
    }

    // 3. The first signature among the first size - 12 positions; the match
    //    and its offset field lie inside the profile (p + 8 <= size - 4).
    const long positions = static_cast<long>(size) - 12;
    long at = 0;
    while (at < positions && !isTrcSignature(profile + at)) ++at;
    if (at == positions) {
        *gamma = kDefaultGamma;
        return static_cast<int>(positions);
    }
    const std::size_t offset = getU32BE(profile + at + 4);

    // 4. The count lies 8 bytes into the curve, the fixed-point gamma 12. A
    //    curve that would end past the profile can't be read and keeps the
    //    default.
    float exponent = kDefaultGamma;
    const std::size_t end = static_cast<std::size_t>(size);
    if (offset <= end && end - offset >= 14 && getU32BE(profile + offset + 8) == 1)
        exponent = static_cast<float>(profile[offset + 12] + profile[offset + 13] * 0.00390625);

    // 5. The position after the match.
    *gamma = exponent;
    return static_cast<int>(at + 4);
}

}  // extern "C"
