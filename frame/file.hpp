// Files opened and closed within one call, and bounded reading from them.
//
// File is a FILE* that closes itself on every exit path. The read helpers
// report a short read instead of returning garbage, so a reader of a
// truncated file returns its family's failure code.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>

#include "frame/platform.hpp"

namespace ol {

struct FileCloser {
    void operator()(std::FILE* f) const noexcept {
        if (f) std::fclose(f);
    }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

// fopen() that accepts a null path (gives a null File); binary on every
// platform.
inline File openFile(const char* path, const char* mode) noexcept {
    if (!path) return File();
    return File(platform::openFile(path, mode));
}

// Size of an open file, leaving the position at the start; -1 on a failed seek.
long fileSize(std::FILE* f) noexcept;

// Reads exactly n bytes; false on a short read.
inline bool readExact(std::FILE* f, void* out, std::size_t n) noexcept {
    return std::fread(out, 1, n, f) == n;
}
inline bool writeExact(std::FILE* f, const void* data, std::size_t n) noexcept {
    return std::fwrite(data, 1, n, f) == n;
}

bool readU8(std::FILE* f, std::uint8_t& v) noexcept;
bool readU16LE(std::FILE* f, std::uint16_t& v) noexcept;
bool readU16BE(std::FILE* f, std::uint16_t& v) noexcept;
bool readU32LE(std::FILE* f, std::uint32_t& v) noexcept;
bool readU32BE(std::FILE* f, std::uint32_t& v) noexcept;

// Reads one header line as fgets() does, at most maxBytes-1 characters
// (the line feed included when it fits), always zero-terminated. False when
// nothing could be read.
inline bool readLine(std::FILE* f, char* buf, int maxBytes) noexcept {
    return std::fgets(buf, maxBytes, f) != nullptr;
}

}  // namespace ol
