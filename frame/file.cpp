#include "frame/file.hpp"

#include "frame/bytes.hpp"

namespace ol {

long fileSize(std::FILE* f) noexcept {
    if (std::fseek(f, 0, SEEK_END) != 0) return -1;
    const long size = std::ftell(f);
    if (size < 0 || std::fseek(f, 0, SEEK_SET) != 0) return -1;
    return size;
}

bool readU8(std::FILE* f, std::uint8_t& v) noexcept {
    const int c = std::fgetc(f);
    if (c == EOF) return false;
    v = static_cast<std::uint8_t>(c);
    return true;
}

bool readU16LE(std::FILE* f, std::uint16_t& v) noexcept {
    std::uint8_t b[2];
    if (!readExact(f, b, 2)) return false;
    v = getU16LE(b);
    return true;
}

bool readU16BE(std::FILE* f, std::uint16_t& v) noexcept {
    std::uint8_t b[2];
    if (!readExact(f, b, 2)) return false;
    v = getU16BE(b);
    return true;
}

bool readU32LE(std::FILE* f, std::uint32_t& v) noexcept {
    std::uint8_t b[4];
    if (!readExact(f, b, 4)) return false;
    v = getU32LE(b);
    return true;
}

bool readU32BE(std::FILE* f, std::uint32_t& v) noexcept {
    std::uint8_t b[4];
    if (!readExact(f, b, 4)) return false;
    v = getU32BE(b);
    return true;
}

}  // namespace ol
