// extract_profile, then get_profile_name on exactly the bytes it returned, as
// a host chains them. The profile buffer is sized from the header's own size
// field (bounded by the input), exact, so reading past it is caught.
#include <cstdint>
#include <vector>

#include "Ombrelumen40Lib1.h"
#include "fuzz_file.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 4) return 0;
    const std::uint32_t field = static_cast<std::uint32_t>(data[0]) << 24 | data[1] << 16 | data[2] << 8 | data[3];
    if (field < 1 || field > size) return 0;
    const char* path = olfuzz::writeInput(data, size);
    if (!path) return 0;
    std::vector<unsigned char> profile(field);
    const int got = extract_profile(path, profile.data());
    if (got < 1 || static_cast<std::uint32_t>(got) > field) return 0;
    profile.resize(static_cast<std::size_t>(got));
    profile.shrink_to_fit();
    char name[32];
    get_profile_name(got, profile.data(), name);
    return 0;
}
