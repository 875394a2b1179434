// get_exif_data on the input read as JPEG, PSD and TIFF, then read_iptc on
// the block it reports.
#include <cstdint>
#include <cstdio>
#include <vector>

#include "Ombrelumen40Lib1.h"
#include "fuzz_file.hpp"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // The reader's three messages go to standard output; keep the run quiet.
    std::freopen("/dev/null", "w", stdout);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const char* path = olfuzz::writeInput(data, size);
    if (!path) return 0;
    for (int type : {1, 2, 0}) {
        ExifRecord exif{};
        GpsRecord gps{};
        get_exif_data(path, type, &exif, &gps);
        if (exif.iptcLen > 0 && static_cast<std::size_t>(exif.iptcLen) <= size) {
            std::vector<unsigned char> block(static_cast<std::size_t>(exif.iptcLen));
            read_iptc(path, exif.iptcLen, exif.iptcOffset, block.data());
        }
    }
    return 0;
}
