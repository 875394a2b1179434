// ol_io_read_preview_rgbe with the picture size from rgbe_dim (as a host
// does) and a preview size chosen by the first two input bytes; the rest is
// the file. The preview buffer has exactly previewWidth*previewHeight*4 bytes.
#include <cstdint>
#include <vector>

#include "Ombrelumen40Lib1.h"
#include "fuzz_file.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) return 0;
    const char* path = olfuzz::writeInput(data + 2, size - 2);
    if (!path) return 0;
    float primaries[8];
    int dims[7] = {0, 0, 0, 0, 0, 0, 0};
    if (rgbe_dim(path, primaries, dims) < 0) return 0;
    const int width = dims[0], height = dims[1];
    if (width < 1 || height < 1 || static_cast<long long>(width) * height > (1 << 20)) return 0;
    // Preview sizes 1..width and 1..height, including the full size.
    const int pw = 1 + data[0] % width, ph = 1 + data[1] % height;
    std::vector<unsigned char> preview(4u * static_cast<std::size_t>(pw) * static_cast<std::size_t>(ph));
    ol_io_read_preview_rgbe(width, height, pw, ph, path, preview.data());
    return 0;
}
