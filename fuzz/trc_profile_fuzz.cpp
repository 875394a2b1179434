// trc_from_profile on the input held in memory, in an exact-size copy so that
// reading one byte past the profile is caught; the input's own size and its
// header's size field are both tried, the latter reaching the tag scan.
#include <cstdint>
#include <vector>

#include "Ombrelumen40Lib1.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > (1u << 24)) return 0;
    std::vector<std::uint8_t> profile(data, data + size);
    float gamma = 0.0f;
    trc_from_profile(profile.data(), static_cast<int>(size), &gamma);
    // The same bytes with the size field rewritten to the input's size, so
    // that every input gets past the size check.
    if (size >= 4) {
        profile[0] = static_cast<std::uint8_t>(size >> 24);
        profile[1] = static_cast<std::uint8_t>(size >> 16);
        profile[2] = static_cast<std::uint8_t>(size >> 8);
        profile[3] = static_cast<std::uint8_t>(size);
        trc_from_profile(profile.data(), static_cast<int>(size), &gamma);
    }
    return 0;
}
