// Byte-order-independent readers and writers over memory.
//
// The byte readers of the library, and which to use when:
//   frame/bytes.hpp        bytes already in memory: getU16LE/BE ... and
//                          ByteCursor (bounded; a read past the end gives 0
//                          and clears ok()); the put* writers.
//   frame/file.hpp         a file opened and closed in one call; reading a
//                          whole block or a known length, a short read reported.
//   frame/read_stream.hpp  walking a file by offsets found in it, a few bytes
//                          at a time in either byte order (TIFF/Exif, PSD).
//   frame/byte_source.hpp  one pass over a file byte after byte, buffered
//                          (run-length decoders).
//   frame/read_window.hpp  the first N bytes of a file in order, n contiguous
//                          bytes at a time in a caller's buffer (the in-memory
//                          run-length decoder).
// All of them assemble values with the helpers below.
//
// Multi-byte values in files are always assembled byte by byte, so nothing
// depends on the machine's byte order. ByteCursor bounds every read: a read
// past the end yields 0 and clears ok(), so a parser of a damaged buffer
// tests ok() once where it would otherwise have read past the end.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace ol {

inline std::uint16_t getU16LE(const std::uint8_t* p) noexcept {
    return static_cast<std::uint16_t>(p[0] | (p[1] << 8));
}
inline std::uint16_t getU16BE(const std::uint8_t* p) noexcept {
    return static_cast<std::uint16_t>((p[0] << 8) | p[1]);
}
inline std::uint32_t getU32LE(const std::uint8_t* p) noexcept {
    return static_cast<std::uint32_t>(p[0]) | (static_cast<std::uint32_t>(p[1]) << 8) |
           (static_cast<std::uint32_t>(p[2]) << 16) | (static_cast<std::uint32_t>(p[3]) << 24);
}
inline std::uint32_t getU32BE(const std::uint8_t* p) noexcept {
    return (static_cast<std::uint32_t>(p[0]) << 24) | (static_cast<std::uint32_t>(p[1]) << 16) |
           (static_cast<std::uint32_t>(p[2]) << 8) | static_cast<std::uint32_t>(p[3]);
}
inline std::uint64_t getU64BE(const std::uint8_t* p) noexcept {
    return (static_cast<std::uint64_t>(getU32BE(p)) << 32) | getU32BE(p + 4);
}
inline float getF32LE(const std::uint8_t* p) noexcept {
    const std::uint32_t u = getU32LE(p);
    float f;
    std::memcpy(&f, &u, 4);
    return f;
}
inline float getF32BE(const std::uint8_t* p) noexcept {
    const std::uint32_t u = getU32BE(p);
    float f;
    std::memcpy(&f, &u, 4);
    return f;
}

inline void putU16LE(std::uint8_t* p, std::uint32_t v) noexcept {
    p[0] = static_cast<std::uint8_t>(v);
    p[1] = static_cast<std::uint8_t>(v >> 8);
}
inline void putU16BE(std::uint8_t* p, std::uint32_t v) noexcept {
    p[0] = static_cast<std::uint8_t>(v >> 8);
    p[1] = static_cast<std::uint8_t>(v);
}
inline void putU32LE(std::uint8_t* p, std::uint32_t v) noexcept {
    p[0] = static_cast<std::uint8_t>(v);
    p[1] = static_cast<std::uint8_t>(v >> 8);
    p[2] = static_cast<std::uint8_t>(v >> 16);
    p[3] = static_cast<std::uint8_t>(v >> 24);
}
inline void putU32BE(std::uint8_t* p, std::uint32_t v) noexcept {
    p[0] = static_cast<std::uint8_t>(v >> 24);
    p[1] = static_cast<std::uint8_t>(v >> 16);
    p[2] = static_cast<std::uint8_t>(v >> 8);
    p[3] = static_cast<std::uint8_t>(v);
}
inline void putF32LE(std::uint8_t* p, float f) noexcept {
    std::uint32_t u;
    std::memcpy(&u, &f, 4);
    putU32LE(p, u);
}

enum class ByteOrder { Little, Big };

// A bounded reader over a block of memory.
class ByteCursor {
public:
    ByteCursor(const std::uint8_t* data, std::size_t size, ByteOrder order = ByteOrder::Little) noexcept
        : data_(data), size_(size), order_(order) {}

    bool ok() const noexcept { return ok_; }
    std::size_t pos() const noexcept { return pos_; }
    std::size_t size() const noexcept { return size_; }
    std::size_t remaining() const noexcept { return pos_ <= size_ ? size_ - pos_ : 0; }
    ByteOrder order() const noexcept { return order_; }
    void setOrder(ByteOrder o) noexcept { order_ = o; }
    const std::uint8_t* data() const noexcept { return data_; }

    // Moves to an absolute position; a position past the end clears ok().
    bool seek(std::size_t pos) noexcept {
        if (pos > size_) return ok_ = false;
        pos_ = pos;
        return true;
    }
    bool skip(std::size_t n) noexcept {
        if (n > remaining()) return ok_ = false;
        pos_ += n;
        return true;
    }
    bool has(std::size_t n) const noexcept { return n <= remaining(); }

    std::uint8_t u8() noexcept {
        if (!take(1)) return 0;
        return data_[pos_ - 1];
    }
    std::uint16_t u16() noexcept {
        if (!take(2)) return 0;
        const std::uint8_t* p = data_ + pos_ - 2;
        return order_ == ByteOrder::Little ? getU16LE(p) : getU16BE(p);
    }
    std::uint32_t u32() noexcept {
        if (!take(4)) return 0;
        const std::uint8_t* p = data_ + pos_ - 4;
        return order_ == ByteOrder::Little ? getU32LE(p) : getU32BE(p);
    }
    // Copies n bytes; on a short buffer copies nothing and clears ok().
    bool bytes(void* out, std::size_t n) noexcept {
        if (!take(n)) return false;
        std::memcpy(out, data_ + pos_ - n, n);
        return true;
    }

private:
    bool take(std::size_t n) noexcept {
        if (!ok_ || n > remaining()) return ok_ = false;
        pos_ += n;
        return true;
    }
    const std::uint8_t* data_;
    std::size_t size_;
    std::size_t pos_ = 0;
    ByteOrder order_;
    bool ok_ = true;
};

}  // namespace ol
