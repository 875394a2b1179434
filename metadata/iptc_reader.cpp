// Fetching the IPTC block whose place the metadata reader reported.
#include <cstdint>
#include <cstdio>

#include "Ombrelumen40Lib1.h"
#include "frame/file.hpp"

extern "C" {

OL_API int read_iptc(const char* path, int len, int offset, unsigned char* dest) {
    using namespace ol;
    File file = openFile(path, "rb");
    if (!file) return -1;
    std::FILE* f = file.get();
    // The position `offset` bytes from the end: len + offset below it means,
    // in effect, len below the file size.
    if (std::fseek(f, offset, SEEK_END) != 0) return -1;
    const long end = std::ftell(f);
    if (end <= 0) return -1;
    if (!(static_cast<std::int64_t>(len) + offset < end)) return 0;
    if (std::fseek(f, offset, SEEK_SET) != 0) return 0;
    if (len == 0) return 0;
    if (len < 0) return -1;  // nothing sensible to read
    const std::size_t got = std::fread(dest, 1, static_cast<std::size_t>(len), f);
    // An IPTC block starts with a dataset tag marker; this test comes before
    // the test for a short read.
    if (got > 0 && dest[0] != 0x1C) return -2;
    if (got < static_cast<std::size_t>(len)) return -1;
    return len;
}

}  // extern "C"
