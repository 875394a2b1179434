// The host's decoding road: `olhdr info FILE --json` on a file of any kind
// (JPEG, PNG, TIFF, PSD, Radiance), through the host's decoders and the
// library's metadata readers, then the picture loader of the one-picture
// commands (which also decodes a Radiance picture's pixels). The program's
// main is built under the name olhdr_main for this target.
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <exception>

#include "fuzz_file.hpp"
#include "picture.hpp"

int olhdr_main(int argc, char** argv);

// The JSON of every input would fill the fuzzer's log: standard output goes
// to /dev/null (the refusals on standard error stay, one line each).
extern "C" int LLVMFuzzerInitialize(int*, char***) {
    const int devnull = open("/dev/null", O_WRONLY);
    if (devnull >= 0) {
        dup2(devnull, 1);
        close(devnull);
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const char* path = olfuzz::writeInput(data, size);
    if (!path) return 0;
    char prog[] = "olhdr", info[] = "info", json[] = "--json";
    char* argv[] = {prog, info, const_cast<char*>(path), json, nullptr};
    olhdr_main(4, argv);
    try {
        olhdr::loadPicture(path, false);
    } catch (const std::exception&) {
        // Refused files end as the host's one-line errors (as in main).
    }
    return 0;
}
