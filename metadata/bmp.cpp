// BMP dimensions, read from the file header without decoding the pixels.
#include <cstring>

#include "Ombrelumen40Lib1.h"
#include "frame/file.hpp"

extern "C" {

OL_API int olbmp_dim(const char* path, int* dims) {
    using namespace ol;
    File file = openFile(path, "rb");
    if (!file) return -1;
    std::FILE* f = file.get();
    char magic[2];
    if (!readExact(f, magic, 2)) return -1;
    if (magic[0] != 'B' || magic[1] != 'M') return -2;
    // File header rest (size, reserved, offset) and the info header size.
    if (std::fseek(f, 16, SEEK_CUR) != 0) return -1;
    std::uint32_t width = 0, height = 0;
    std::uint16_t planes = 0, bitCount = 0;
    // A header cut short has no bit count, which is neither 24 nor 8.
    if (!readU32LE(f, width) || !readU32LE(f, height)) return -3;
    dims[0] = static_cast<int>(width);
    dims[1] = static_cast<int>(height);
    if (!readU16LE(f, planes) || !readU16LE(f, bitCount)) return -3;
    if (bitCount == 24) {
        dims[2] = 3;
    } else if (bitCount == 8) {
        dims[2] = 1;
    } else {
        return -3;
    }
    return 8;
}

}  // extern "C"
