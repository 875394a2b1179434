#include "radiance/rle.hpp"

#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace ol::radiance {

namespace {

// The coder works on a bit set with bit i standing for b[i] == b[i+1], built
// once a component: the scan for the next pair of equal bytes and the count
// of a run are then bit scans instead of byte compares.
inline constexpr int kMaxWords = (32768 + 63) / 64;

void buildEqualBits(const std::uint8_t* b, int width, std::uint64_t* bits) noexcept {
    const int words = (width + 63) / 64;
    for (int k = 0; k < words; ++k) bits[k] = 0;
    const int pairs = width - 1;  // bit i for i in [0, width-1)
    int i = 0;
#if defined(__SSE2__)
    for (; i + 64 <= pairs; i += 64) {
        std::uint64_t w = 0;
        for (int q = 0; q < 4; ++q) {
            const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(b + i + 16 * q));
            const __m128i y = _mm_loadu_si128(reinterpret_cast<const __m128i*>(b + i + 16 * q + 1));
            w |= static_cast<std::uint64_t>(static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(x, y))))
                 << (16 * q);
        }
        bits[i >> 6] = w;
    }
#endif
    for (; i < pairs; ++i)
        if (b[i] == b[i + 1]) bits[i >> 6] |= std::uint64_t(1) << (i & 63);
}

inline std::uint8_t* putLiteral(std::uint8_t* o, const std::uint8_t* src, int n) noexcept {
    *o++ = static_cast<std::uint8_t>(n);
    std::memcpy(o, src, static_cast<std::size_t>(n));
    return o + n;
}

// First i in [i, limit) whose bit is set, or limit (bits past the row are 0).
inline int findEqualPair(const std::uint64_t* bits, int i, int limit) noexcept {
    while (i < limit) {
        const std::uint64_t w = bits[i >> 6] >> (i & 63);
        if (w) {
            const int r = i + __builtin_ctzll(w);
            return r < limit ? r : limit;
        }
        i = (i | 63) + 1;
    }
    return limit;
}

// Length of the run of equal bytes from start, at most maxRun (>= 1): one
// more than the set bits in a row from start.
inline int runLength(const std::uint64_t* bits, int start, int maxRun) noexcept {
    int run = 1;
    int i = start;
    while (run < maxRun) {
        const int sh = i & 63;
        const std::uint64_t w = bits[i >> 6] >> sh;
        const std::uint64_t inv = ~w;
        const int ones = inv ? __builtin_ctzll(inv) : 64;
        const int avail = 64 - sh;  // bits of this word from i on
        const int take = ones < avail ? ones : avail;
        run += take;
        i += take;
        if (take < avail) break;
    }
    return run < maxRun ? run : maxRun;
}
}  // namespace

// The packet rules, round by round, with `lit` bytes pending from `pos`:
//  - extend the pending literal over bytes that differ from their successor
//    (at most 127);
//  - if bytes remain, count the equal bytes from there (at most 127): five or
//    more give a run packet, after the pending literal if any; two to four
//    are absorbed into the literal (at most 127);
//  - otherwise the last byte is the tail and joins the literal, unless the
//    literal is full, in which case it gets a packet of its own next round;
//  - a literal is emitted when full or when it reaches the end of the row.
//
// Followed through, these rounds give: from `pos`, find the first place r
// where five equal bytes start (runs of two to four never break a literal);
// code [pos, r) as literals of 127 bytes and a shorter last one; then a run
// of the equal bytes from r, at most 127, and start again after it. A place
// found this way is always the start of its stretch of equal bytes, or the
// point where the previous packet ended, which is where the rounds would
// count the run too. The coder works in that form, on bit sets.
std::size_t encodeComponent(const std::uint8_t* b, int width, std::uint8_t* out) noexcept {
    if (width <= 0 || width > 32768) return 0;
    std::uint64_t bits[kMaxWords];
    std::uint64_t five[kMaxWords];
    buildEqualBits(b, width, bits);
    // five: bit i when b[i..i+4] are equal, i.e. bits i..i+3 all set.
    const int words = (width + 63) / 64;
    for (int k = 0; k < words; ++k) {
        const std::uint64_t w = bits[k];
        const std::uint64_t n = k + 1 < words ? bits[k + 1] : 0;
        five[k] = w & ((w >> 1) | (n << 63)) & ((w >> 2) | (n << 62)) & ((w >> 3) | (n << 61));
    }
    std::uint8_t* o = out;
    int pos = 0;
    while (pos < width) {
        const int r = findEqualPair(five, pos, width);
        while (pos < r) {
            const int n = r - pos < 127 ? r - pos : 127;
            o = putLiteral(o, b + pos, n);
            pos += n;
        }
        if (r < width) {
            const int maxRun = width - r < 127 ? width - r : 127;
            const int run = runLength(bits, r, maxRun);
            *o++ = static_cast<std::uint8_t>(run + 128);
            *o++ = b[r];
            pos = r + run;
        }
    }
    return static_cast<std::size_t>(o - out);
}

RleStatus decodeComponent(const std::uint8_t*& p, const std::uint8_t* end, int width,
                          std::uint8_t* dst) noexcept {
    int x = 0;
    while (x < width) {
        if (p >= end) return RleStatus::Truncated;
        const int code = *p++;
        if (code > 128) {
            const int n = code - 128;
            if (x + n > width) return RleStatus::RunOverrun;
            if (p >= end) return RleStatus::Truncated;
            fillPacket(dst + x, *p++, n);
            x += n;
        } else {
            if (code == 0 || x + code > width) return RleStatus::BadLiteral;
            if (end - p < code) return RleStatus::Truncated;
            copyPacket(dst + x, p, code);
            p += code;
            x += code;
        }
    }
    return RleStatus::Ok;
}

}  // namespace ol::radiance
