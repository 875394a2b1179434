// Positioning in the scratch files of exposure fusion. Offsets are formed as
// 32-bit signed products, so a scratch file is addressable up to 2 GiB less
// one byte; a larger offset wraps like that product and, when negative, makes
// the seek fail.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace ol {

inline bool seekScratch(std::FILE* f, std::int64_t bytes) noexcept {
    const auto off = static_cast<std::int32_t>(static_cast<std::uint32_t>(bytes));
    if (off < 0) return false;
    return std::fseek(f, static_cast<long>(off), SEEK_SET) == 0;
}

// Several rows at once: `bytes` from byte `off`, in one seek and one read.
// 1 when they came. -1 when the seek fails, as the first seek of the rows
// would. 0 when the range reaches past what 32-bit offsets address (there
// the row-by-row reads, with their wrapped offsets, are the ones that hold)
// or the read falls short: the caller then goes on row by row from the same
// row, which meets the same short read with its own code and line.
inline int readScratchBlock(std::FILE* f, std::int64_t off, void* dst, std::size_t bytes) noexcept {
    if (off < 0 || off + static_cast<std::int64_t>(bytes) > INT32_MAX) return 0;
    if (std::fseek(f, static_cast<long>(off), SEEK_SET) != 0) return -1;
    return std::fread(dst, 1, bytes, f) == bytes ? 1 : 0;
}

// The same range read in pieces side by side on up to `threads` threads,
// each at its own offset of the file's descriptor (the stream's buffer is
// emptied first by the seek): reads leave nothing behind, so how a range is
// split cannot show. Same results as readScratchBlock; on 0 the caller goes
// on through its serial path, which meets any short read with its own code
// and line.
int readScratchBands(std::FILE* f, std::int64_t off, void* dst, std::size_t bytes, int threads) noexcept;

namespace testing {
// The block buffer of disk mode for the following ol_fusion calls: `bytes`
// (raised to one row of every photo), or none at all for 0, so that every
// scratch read goes row by row. Tests only; the static library has it.
void setScratchBlockBytes(std::size_t bytes) noexcept;
void resetScratchBlockBytes() noexcept;
}  // namespace testing

}  // namespace ol
