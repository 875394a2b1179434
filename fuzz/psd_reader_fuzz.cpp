// getPsdInfo, psd_profile and load_psd (both channel orders, with the
// large-document lengths derived or forced), with bounded dimensions as a
// host that allocates from getPsdInfo would use.
#include <cstdint>
#include <vector>

#include "Ombrelumen40Lib1.h"
#include "fuzz_file.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const char* path = olfuzz::writeInput(data, size);
    if (!path) return 0;
    PsdInfo info{};
    if (getPsdInfo(path, &info) <= 0) return 0;
    // The profile cannot be longer than the file it is read from.
    std::vector<unsigned char> profile(size + 1);
    psd_profile(path, profile.data());
    const long long pixels = static_cast<long long>(info.width) * info.height;
    if (info.width < 1 || info.height < 1 || pixels > (1 << 18)) return 0;
    const int stride = 3 * info.width + 1;
    std::vector<std::uint8_t> out(static_cast<std::size_t>(stride) * info.height * 2 + 4 * pixels);
    for (int lengthBits : {0, 64}) {
        info.lengthBits = lengthBits;
        load_psd(lengthBits ? 0 : 1, path, &info, stride, out.data());
    }
    return 0;
}
