#include "radiance/rle.hpp"

#include <cstring>

namespace ol::radiance {

namespace {

inline std::uint8_t* putLiteral(std::uint8_t* o, const std::uint8_t* src, int n) noexcept {
    *o++ = static_cast<std::uint8_t>(n);
    std::memcpy(o, src, static_cast<std::size_t>(n));
    return o + n;
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
std::size_t encodeComponent(const std::uint8_t* b, int width, std::uint8_t* out) noexcept {
    std::uint8_t* o = out;
    int pos = 0;
    int lit = 0;
    while (pos < width) {
        int run = 1;
        // Bytes that differ from their successor: the scan stops at the
        // first pair of equal bytes.
        {
            int i = pos + lit;
            const int limit = (width - 1 < pos + 127) ? width - 1 : pos + 127;
            while (i < limit && b[i] != b[i + 1]) ++i;
            lit = i - pos;
        }
        if (pos + lit + 1 < width) {
            const int start = pos + lit;
            const int maxRun = (width - start < 127) ? width - start : 127;
            const std::uint8_t v = b[start];
            while (run < maxRun && b[start + run] == v) ++run;
            if (run > 4) {
                if (lit > 0) {
                    o = putLiteral(o, b + pos, lit);
                    pos += lit;
                }
                *o++ = static_cast<std::uint8_t>(run + 128);
                *o++ = v;
                pos += run;
                lit = 0;
                continue;
            }
            if (run > 1) {
                lit += run;
                if (lit > 127) lit = 127;
            }
        } else if (lit < 127) {
            ++lit;  // the tail byte
        }
        if (pos + lit < width && lit < 127) continue;
        o = putLiteral(o, b + pos, lit);
        pos += lit;
        lit = 0;
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
            std::memset(dst + x, *p++, static_cast<std::size_t>(n));
            x += n;
        } else {
            if (code == 0 || x + code > width) return RleStatus::BadLiteral;
            if (end - p < code) return RleStatus::Truncated;
            std::memcpy(dst + x, p, static_cast<std::size_t>(code));
            p += code;
            x += code;
        }
    }
    return RleStatus::Ok;
}

}  // namespace ol::radiance
