// extract_profile into a buffer of the file's size, then get_profile_name on
// the input held in memory.
#include <cstdint>
#include <vector>

#include "Ombrelumen40Lib1.h"
#include "fuzz_file.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const char* path = olfuzz::writeInput(data, size);
    if (!path) return 0;
    std::vector<unsigned char> buffer(size + 1);
    extract_profile(path, buffer.data());
    // An exact-size copy, so reading one byte past the profile is caught.
    std::vector<unsigned char> profile(data, data + size);
    char name[32];
    get_profile_name(static_cast<int>(size), profile.data(), name);
    return 0;
}
