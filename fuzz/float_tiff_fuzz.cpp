// fp2rgbe on arbitrary bytes, at a few caller sizes.
#include <cstdint>
#include <vector>

#include "Ombrelumen40Lib1.h"
#include "fuzz_file.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const char* path = olfuzz::writeInput(data, size);
    if (!path) return 0;
    static const int sizes[][2] = {{16, 16}, {1, 1}, {33, 7}};
    for (const auto& s : sizes) {
        std::vector<unsigned char> out(4u * s[0] * s[1]);
        float stats[3];
        fp2rgbe(path, s[0], s[1], stats, out.data());
    }
    return 0;
}
