// Run-length coding of one component stream of a Radiance scanline.
//
// Packets: 128+n (n = 1..127) followed by one byte repeated n times, or n
// (1..127) followed by n literal bytes. The encoder makes runs only of 5
// bytes or more; shorter runs stay inside literal packets.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ol::radiance {

// Encodes `width` bytes (at most 32768) into `out` (room for 2*width bytes is always
// enough); returns the number of bytes written.
std::size_t encodeComponent(const std::uint8_t* b, int width, std::uint8_t* out) noexcept;

// Results of decoding one component of a row.
enum class RleStatus { Ok, RunOverrun, BadLiteral, Truncated };

// Decodes one component of `width` bytes from memory [p, end), advancing p.
RleStatus decodeComponent(const std::uint8_t*& p, const std::uint8_t* end, int width,
                          std::uint8_t* dst) noexcept;

}  // namespace ol::radiance
