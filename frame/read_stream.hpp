// Byte-by-byte reading of an open file, for readers that walk a structure
// by offsets (the metadata readers).
//
// The metadata readers walk a file by seeking to offsets found in the file and
// reading a few bytes there. ReadStream keeps the byte order of the structure
// being walked and remembers whether a read ran past the end of the file: a
// read at the end gives 0 bytes, so a damaged offset yields zeros instead of
// garbage, and the walkers test atEnd() to stop where a loop could otherwise
// run on over nothing.
#pragma once

#include <climits>
#include <cstdint>
#include <cstdio>

#include "frame/bytes.hpp"
#include "frame/file.hpp"

namespace ol {

class ReadStream {
public:
    explicit ReadStream(std::FILE* f, ByteOrder order = ByteOrder::Big) noexcept : f_(f), order_(order) {}

    void setOrder(ByteOrder o) noexcept { order_ = o; }
    ByteOrder order() const noexcept { return order_; }
    std::FILE* file() const noexcept { return f_; }

    bool atEnd() const noexcept { return end_; }
    void clearEnd() noexcept { end_ = false; }

    std::uint8_t u8() noexcept {
        const int c = std::fgetc(f_);
        if (c == EOF) {
            end_ = true;
            return 0;
        }
        return static_cast<std::uint8_t>(c);
    }
    // The bytes in file order (a braced list is evaluated left to right),
    // assembled by the byte-order helpers of frame/bytes.hpp.
    std::uint16_t u16() noexcept {
        const std::uint8_t b[2] = {u8(), u8()};
        return order_ == ByteOrder::Little ? getU16LE(b) : getU16BE(b);
    }
    std::uint32_t u32() noexcept {
        std::uint8_t b[4];
        for (auto& x : b) x = u8();
        return order_ == ByteOrder::Little ? getU32LE(b) : getU32BE(b);
    }
    std::uint16_t u16be() noexcept {
        const std::uint8_t b[2] = {u8(), u8()};
        return getU16BE(b);
    }
    std::uint32_t u32be() noexcept {
        std::uint8_t b[4];
        for (auto& x : b) x = u8();
        return getU32BE(b);
    }
    // Reads n bytes; true when all of them were there.
    bool bytes(void* out, std::size_t n) noexcept {
        const std::size_t got = std::fread(out, 1, n, f_);
        if (got != n) end_ = true;
        return got == n;
    }

    // Absolute seek; a negative position fails.
    bool seek(std::int64_t pos) noexcept {
        if (pos < 0) return false;
        end_ = false;
        return platform::seekTo(f_, pos);
    }
    bool skip(std::int64_t n) noexcept {
        const std::int64_t p = tell();
        if (p < 0) return false;
        return seek(p + n);
    }
    std::int64_t tell() const noexcept { return platform::tellAt(f_); }

private:
    std::FILE* f_;
    ByteOrder order_;
    bool end_ = false;
};

}  // namespace ol
