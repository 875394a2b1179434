// rgbe_dim, then both decoders (decomp_rle and decomp2) on the size it
// reports, each into its own exact-size buffer.
#include <cstdint>
#include <vector>

#include "Ombrelumen40Lib1.h"
#include "fuzz_file.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const char* path = olfuzz::writeInput(data, size);
    if (!path) return 0;
    float primaries[8];
    int dims[7] = {0, 0, 0, 0, 0, 0, 0};
    if (rgbe_dim(path, primaries, dims) < 0) return 0;
    if (dims[0] < 1 || dims[1] < 1 || static_cast<long long>(dims[0]) * dims[1] > (1 << 20)) return 0;
    const std::size_t bytes = 4u * static_cast<std::size_t>(dims[0]) * static_cast<std::size_t>(dims[1]);
    std::vector<unsigned char> a(bytes), b(bytes);
    decomp_rle(path, dims, a.data());
    decomp2(path, dims, b.data(), nullptr);
    return 0;
}
