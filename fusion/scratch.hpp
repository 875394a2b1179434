// Positioning in the scratch files of exposure fusion. Offsets are formed as
// 32-bit signed products, so a scratch file is addressable up to 2 GiB less
// one byte; a larger offset wraps like that product and, when negative, makes
// the seek fail.
#pragma once

#include <cstdint>
#include <cstdio>

namespace ol {

inline bool seekScratch(std::FILE* f, std::int64_t bytes) noexcept {
    const auto off = static_cast<std::int32_t>(static_cast<std::uint32_t>(bytes));
    if (off < 0) return false;
    return std::fseek(f, static_cast<long>(off), SEEK_SET) == 0;
}

}  // namespace ol
