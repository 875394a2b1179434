// read_iptc with a length and offset chosen by the input, as a host passes
// them from a record it did not check: the first 8 bytes are the length
// (16 bits, signed) and the offset (32 bits, signed), the rest is the file.
// The destination has exactly `len` bytes, so any write past it is caught.
#include <cstdint>
#include <vector>

#include "Ombrelumen40Lib1.h"
#include "fuzz_file.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 6) return 0;
    const int len = static_cast<std::int16_t>(data[0] | data[1] << 8);
    const int offset = static_cast<std::int32_t>(static_cast<std::uint32_t>(data[2]) |
                                                 static_cast<std::uint32_t>(data[3]) << 8 |
                                                 static_cast<std::uint32_t>(data[4]) << 16 |
                                                 static_cast<std::uint32_t>(data[5]) << 24);
    const char* path = olfuzz::writeInput(data + 6, size - 6);
    if (!path) return 0;
    std::vector<unsigned char> dest(len > 0 ? static_cast<std::size_t>(len) : 1);
    read_iptc(path, len, offset, dest.data());
    // The same block at the start of the file, where the tag test is reached.
    read_iptc(path, len, 0, dest.data());
    return 0;
}
