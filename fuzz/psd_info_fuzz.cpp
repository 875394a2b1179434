// getPsdInfo, psd_profile and load_psd on their own paths: psd_profile into
// exactly lProfil bytes, and load_psd with the channel order and document
// form chosen by the first input byte rather than derived, as a host that
// guessed the form would call it. The rest of the input is the file.
#include <cstdint>
#include <vector>

#include "Ombrelumen40Lib1.h"
#include "fuzz_file.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1) return 0;
    const char* path = olfuzz::writeInput(data + 1, size - 1);
    if (!path) return 0;
    PsdInfo info{};
    if (getPsdInfo(path, &info) <= 0) return 0;
    if (info.lProfil > 0 && static_cast<std::size_t>(info.lProfil) <= size) {
        std::vector<unsigned char> profile(static_cast<std::size_t>(info.lProfil));
        psd_profile(path, profile.data());
    }
    const long long pixels = static_cast<long long>(info.width) * info.height;
    if (info.width < 1 || info.height < 1 || pixels > (1 << 18)) return 0;
    info.lengthBits = (data[0] & 1) ? 64 : 0;
    const int order = (data[0] >> 1) & 1;
    // The buffer a host sizes for the widest output of any depth.
    const int stride = 3 * info.width + 1;
    std::vector<std::uint8_t> out(static_cast<std::size_t>(stride) * info.height * 2 + 4 * pixels);
    load_psd(order, path, &info, stride, out.data());
    return 0;
}
