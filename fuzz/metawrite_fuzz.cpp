// The metadata writers on arbitrary records and blocks.
//
// Input: one selector byte, then the bytes of an ExifRecord and a GpsRecord
// (as far as they go) for the Exif census and block, or of float settings for
// the XMP packet, or an IPTC block (the last byte a keyword length) for the
// keyword insertion. Every output buffer is sized exactly, so that any write
// past what the writer promises is caught by the address sanitizer.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "Ombrelumen40Lib1.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1) return 0;
    const std::uint8_t which = data[0] % 3;
    ++data;
    --size;

    if (which == 0) {
        ExifRecord ex;
        GpsRecord gps;
        std::memset(&ex, 0, sizeof ex);
        std::memset(&gps, 0, sizeof gps);
        const std::size_t a = size < sizeof ex ? size : sizeof ex;
        std::memcpy(&ex, data, a);
        const std::size_t b = size - a < sizeof gps ? size - a : sizeof gps;
        std::memcpy(&gps, data + a, b);
        int c[7];
        get_exif_count(&ex, &c[0], &c[1], &gps, &c[2], &c[3], &c[4], &c[5], &c[6]);
        const int n = 1 + (c[4] > 0) + (c[0] > 0) + (c[2] > 0);
        const int total = 14 + 12 * n + c[4] + (c[0] > 0 ? c[1] + 12 * c[0] + 6 : 0) +
                          (c[2] > 0 ? c[3] + 12 * c[2] + 6 : 0);
        std::vector<unsigned char> out(static_cast<std::size_t>(total), 0);
        const int r = write_exif_buf(c[0], c[1], c[2], c[3], c[4], c[5], c[6], ex.orientation, &ex, &gps, out.data());
        if (r != (n > 1 ? total : -1)) std::abort();
    } else if (which == 1) {
        float tm[15] = {};
        std::memcpy(tm, data, size < sizeof tm ? size : sizeof tm);
        const int method = size > sizeof tm ? data[sizeof tm] % 4 : 1;
        const int len = embed_xmp(0, nullptr, method, tm);
        std::vector<char> out(static_cast<std::size_t>(len));
        if (embed_xmp(1, out.data(), method, tm) != len) std::abort();
    } else {
        if (size < 1) return 0;
        const int keywordLen = data[size - 1];
        const int len = static_cast<int>(size - 1);
        std::vector<unsigned char> keyword(static_cast<std::size_t>(keywordLen), 'k');
        std::vector<unsigned char> block(data, data + len);
        const std::size_t newLen = static_cast<std::size_t>(len == 0 ? 7 : len) + keywordLen + 5;
        std::vector<unsigned char> out(newLen);
        const int r = add_iptc_keyword(len, block.data(), keywordLen, keyword.data(), out.data());
        if (r < -1 || r > (len == 0 ? 7 : len)) std::abort();
    }
    return 0;
}
