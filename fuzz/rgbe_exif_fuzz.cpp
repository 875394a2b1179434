// extract_rgbe_exif alone: the header scan and the Exif lines of a Radiance
// header, with nothing else spending the fuzzer's time.
#include <cstdint>

#include "Ombrelumen40Lib1.h"
#include "fuzz_file.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const char* path = olfuzz::writeInput(data, size);
    if (!path) return 0;
    ExifRecord exif{};
    extract_rgbe_exif(path, &exif);
    return 0;
}
