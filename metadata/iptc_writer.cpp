// Adding one keyword (IPTC dataset 2:25) to an IPTC block.
//
// A dataset is 0x1C, the record number, the dataset number, a 16-bit
// big-endian length and the data. The new keyword goes behind the last
// keyword of the block, or behind its last dataset when it has none, so that
// keywords stay together; a new block starts with a record-version dataset.
#include <cstdint>
#include <cstring>

#include "Ombrelumen40Lib1.h"
#include "frame/bytes.hpp"

extern "C" {

OL_API int add_iptc_keyword(int iptc_len, const unsigned char* iptc, int keyword_len,
                            const unsigned char* keyword, unsigned char* out) {
    // The scan looks at every byte position rather than stepping from dataset
    // to dataset, so a 0x1C 0x02 pair inside a dataset's data counts too.
    int lastDataset = 0;
    int lastKeyword = 0;
    for (int i = 0; i <= iptc_len - 6; ++i) {
        if (iptc[i] == 0x1C && iptc[i + 1] == 0x02) {
            lastDataset = i;
            if (iptc[i + 2] == 0x19) lastKeyword = i;
        }
    }

    int insert;
    if (iptc_len == 0) {
        // Record version 2 (dataset 2:0, two bytes).
        static constexpr unsigned char kVersion[7] = {0x1C, 0x02, 0x00, 0x00, 0x02, 0x02, 0x00};
        std::memcpy(out, kVersion, sizeof kVersion);
        insert = 7;
    } else {
        // A keyword at position 0 is not told apart from "no keyword".
        const int p = lastKeyword > 0 ? lastKeyword : lastDataset;
        // A block shorter than one dataset header cannot hold the dataset
        // taken at position 0: its end lies past the block whatever its
        // length field says, so the field is not read.
        if (iptc_len < 0 || p + 5 > iptc_len) return -1;
        insert = p + 5 + ol::getU16BE(iptc + p + 3);
        if (insert > iptc_len) return -1;
        std::memcpy(out, iptc, static_cast<std::size_t>(insert));
    }

    const int klen = keyword_len > 0 ? keyword_len : 0;
    unsigned char* k = out + insert;
    k[0] = 0x1C;
    k[1] = 0x02;
    k[2] = 0x19;
    k[3] = static_cast<unsigned char>((static_cast<unsigned>(keyword_len) >> 8) & 0xFF);
    k[4] = static_cast<unsigned char>(static_cast<unsigned>(keyword_len) & 0xFF);
    if (klen > 0) std::memcpy(k + 5, keyword, static_cast<std::size_t>(klen));
    if (iptc_len > 0)
        std::memcpy(k + 5 + klen, iptc + insert, static_cast<std::size_t>(iptc_len - insert));
    return insert;
}

}  // extern "C"
