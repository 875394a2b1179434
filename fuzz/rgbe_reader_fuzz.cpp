// Radiance readers on arbitrary bytes: the size query, both decoders, the
// preview reader and the header values. The sizes the decoders are given are
// bounded so that the fuzzer spends its time in the parsers, not in memset.
#include <cstdint>
#include <cstring>
#include <vector>

#include "Ombrelumen40Lib1.h"
#include "fuzz_file.hpp"

namespace {

constexpr long long kMaxPixels = 1 << 20;

void decodeAll(const char* path, int width, int height, int size) {
    if (width <= 0 || height <= 0 || static_cast<long long>(width) * height > kMaxPixels) return;
    std::vector<unsigned char> out(4u * static_cast<std::size_t>(width) * static_cast<std::size_t>(height));
    int dims[7] = {width, height, size, 0, 0, 0, 0};
    decomp_rle(path, dims, out.data());
    decomp2(path, dims, out.data(), nullptr);
    ol_io_read_preview_rgbe(width, height, width, height, path, out.data());
    const int pw = width > 3 ? width / 3 : 1, ph = height > 2 ? height / 2 : 1;
    ol_io_read_preview_rgbe(width, height, pw, ph, path, out.data());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const char* path = olfuzz::writeInput(data, size);
    if (!path) return 0;
    float primaries[8];
    int dims[7] = {0, 0, 0, 0, 0, 0, 0};
    if (rgbe_dim(path, primaries, dims) >= 0) decodeAll(path, dims[0], dims[1], dims[2]);
    // Fixed small sizes reach the decoders when the budget keeps the size
    // query from the resolution line.
    decodeAll(path, 8, 8, static_cast<int>(size));
    decodeAll(path, 3, 40, static_cast<int>(size));
    ExifRecord exif;
    std::memset(&exif, 0, sizeof exif);
    extract_rgbe_exif(path, &exif);
    return 0;
}
