// olbmp_dim on arbitrary input.
#include <cstdint>

#include "Ombrelumen40Lib1.h"
#include "fuzz_file.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const char* path = olfuzz::writeInput(data, size);
    if (!path) return 0;
    int dims[3] = {0, 0, 0};
    olbmp_dim(path, dims);
    return 0;
}
