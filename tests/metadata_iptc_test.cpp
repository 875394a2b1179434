// Adding keywords to IPTC blocks (damaged blocks also in tests/crashers/metawrite).
#include <string>
#include <vector>

#include "support/metadata_bytes.hpp"

using namespace metatest;

// Each row pins the insertion point; the new block is then the old one (or
// a new record version) with the keyword dataset put in at that point.
TEST(MetawriteIptc, KeywordPlacesAndDamagedBlocks) {
    const auto ds = iptcDataset;
    // A caption whose text holds 1C 02 19 00 01: the scan takes it for a
    // keyword of one byte, so the new one lands inside the caption; with a
    // length running past the block it is damaged.
    const Bytes markerInText = cat({kIptcVersion, ds(0x78, std::string("ab\x1C\x02\x19\x00\x01xyz", 10))});
    Bytes lengthPastEnd = cat({kIptcVersion, ds(0x78, "abc")});
    lengthPastEnd[lengthPastEnd.size() - 4] = 9;  // says 9 bytes, 3 are there
    const struct {
        const char* what;
        Bytes block;
        std::string keyword;
        int result;
    } rows[] = {
        {"a new block starts with the record version", {}, "alpha", 7},
        {"the length is big-endian", {}, std::string(300, 'w'), 7},
        {"behind the last keyword", cat({kIptcVersion, ds(0x19, "one"), ds(0x19, "two"), ds(0x78, "a caption")}), "three", 23},
        {"no keyword: behind the last dataset", cat({kIptcVersion, ds(0x78, "caption"), ds(0x50, "by")}), "k", 26},
        {"a keyword at position 0 is not seen", cat({ds(0x19, "first"), ds(0x78, "caption")}), "k", 22},
        {"marker bytes inside data count", markerInText, "k", 7 + 5 + 2 + 6},
        {"the same with a length past the end", patched(markerInText, 18, {0x40}), "k", -1},
        {"the last dataset runs past the end", lengthPastEnd, "k", -1},
        // 1 to 5 bytes: no scan, position 0 taken as a dataset, its length
        // field read from bytes 3 and 4.
        {"1 byte", Bytes(1, 0x1C), "k", -1},
        {"4 bytes", Bytes(4, 0x1C), "k", -1},
        {"5 bytes", {0, 0, 0, 0, 0}, "k", 5},
        {"5 bytes saying 1", {0x1C, 0x02, 0x19, 0x00, 0x01}, "k", -1},
    };
    for (const auto& r : rows) {
        // Nothing may be written past the new length.
        const Bytes old = r.block.empty() ? Bytes{0x1C, 0x02, 0x00, 0x00, 0x02, 0x02, 0x00} : r.block;
        const std::size_t newLen = old.size() + r.keyword.size() + 5;
        Bytes out(newLen + 16, 0xEE);
        EXPECT_EQ(add_iptc_keyword(static_cast<int>(r.block.size()), r.block.empty() ? nullptr : r.block.data(),
                                   static_cast<int>(r.keyword.size()), reinterpret_cast<const unsigned char*>(r.keyword.data()), out.data()),
                  r.result)
            << r.what;
        EXPECT_EQ(Bytes(out.begin() + static_cast<std::ptrdiff_t>(newLen), out.end()), Bytes(16, 0xEE)) << r.what;
        if (r.result >= 0) {
            const auto at = old.begin() + r.result;
            EXPECT_EQ(Bytes(out.begin(), out.begin() + static_cast<std::ptrdiff_t>(newLen)), cat({Bytes(old.begin(), at), ds(0x19, r.keyword), Bytes(at, old.end())}))
                << r.what;
        }
    }
}
