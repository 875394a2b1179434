// The readers take file names: each fuzz input is written to one scratch file
// per process, and its path handed to the reader.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>

namespace olfuzz {

inline const char* writeInput(const std::uint8_t* data, std::size_t size) {
    static const std::string path = "/tmp/olfuzz-" + std::to_string(getpid()) + ".bin";
    std::FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) return nullptr;
    if (size) std::fwrite(data, 1, size, f);
    std::fclose(f);
    return path.c_str();
}

}  // namespace olfuzz
