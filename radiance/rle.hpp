// Run-length coding of one component stream of a Radiance scanline.
//
// Packets: 128+n (n = 1..127) followed by one byte repeated n times, or n
// (1..127) followed by n literal bytes. The encoder makes runs only of 5
// bytes or more; shorter runs stay inside literal packets.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace ol::radiance {

// Encodes `width` bytes (at most 32768) into `out` (room for 2*width bytes is always
// enough); returns the number of bytes written.
std::size_t encodeComponent(const std::uint8_t* b, int width, std::uint8_t* out) noexcept;

// Packet bodies of 1 to 128 bytes, written inline: a row holds tens of
// thousands of short packets, and a library call per packet costs more than
// the copy. Only the packet's own bytes are read and written (the tail is an
// overlapping store ending at the last byte), so a row left unfinished by a
// failure holds exactly the bytes decoded before it.
inline void copyPacket(std::uint8_t* dst, const std::uint8_t* src, int n) noexcept {
#if defined(__SSE2__)
    if (n >= 16) {
        int i = 0;
        for (; i + 16 < n; i += 16)
            _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + i),
                             _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + i)));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + n - 16),
                         _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + n - 16)));
        return;
    }
#endif
    if (n >= 8) {
        std::uint64_t a, b;
        std::memcpy(&a, src, 8);
        std::memcpy(&b, src + n - 8, 8);
        std::memcpy(dst, &a, 8);
        std::memcpy(dst + n - 8, &b, 8);
    } else if (n >= 4) {
        std::uint32_t a, b;
        std::memcpy(&a, src, 4);
        std::memcpy(&b, src + n - 4, 4);
        std::memcpy(dst, &a, 4);
        std::memcpy(dst + n - 4, &b, 4);
    } else {
        for (int i = 0; i < n; ++i) dst[i] = src[i];
    }
}

inline void fillPacket(std::uint8_t* dst, std::uint8_t v, int n) noexcept {
#if defined(__SSE2__)
    if (n >= 16) {
        const __m128i b = _mm_set1_epi8(static_cast<char>(v));
        int i = 0;
        for (; i + 16 < n; i += 16) _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + i), b);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + n - 16), b);
        return;
    }
#endif
    if (n >= 8) {
        const std::uint64_t b = 0x0101010101010101ull * v;
        std::memcpy(dst, &b, 8);
        std::memcpy(dst + n - 8, &b, 8);
    } else if (n >= 4) {
        const std::uint32_t b = 0x01010101u * v;
        std::memcpy(dst, &b, 4);
        std::memcpy(dst + n - 4, &b, 4);
    } else {
        for (int i = 0; i < n; ++i) dst[i] = v;
    }
}

// Results of decoding one component of a row.
enum class RleStatus { Ok, RunOverrun, BadLiteral, Truncated };

// Decodes one component of `width` bytes from memory [p, end), advancing p.
RleStatus decodeComponent(const std::uint8_t*& p, const std::uint8_t* end, int width,
                          std::uint8_t* dst) noexcept;

}  // namespace ol::radiance
