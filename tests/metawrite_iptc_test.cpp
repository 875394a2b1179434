// Adding keywords to IPTC blocks.
#include <map>
#include <string>
#include <vector>

#include "meta_bytes.hpp"

using namespace metatest;

namespace {

Bytes dataset(std::uint8_t number, const std::string& data) { return iptcDataset(number, data); }

// Adds `keyword`; returns the result and the new block at its stated length
// (checking nothing is written beyond it).
std::pair<int, Bytes> add(const Bytes& block, const std::string& keyword) {
    const std::size_t newLen = (block.empty() ? 7 : block.size()) + keyword.size() + 5;
    Bytes out(newLen + 16, 0xEE);
    const int r = add_iptc_keyword(static_cast<int>(block.size()), block.empty() ? nullptr : block.data(),
                                   static_cast<int>(keyword.size()),
                                   reinterpret_cast<const unsigned char*>(keyword.data()), out.data());
    for (std::size_t i = newLen; i < out.size(); ++i) EXPECT_EQ(out[i], 0xEE) << "written past the block at " << i;
    out.resize(newLen);
    return {r, out};
}

}  // namespace

TEST(MetawriteIptc, NewBlockStartsWithRecordVersion) {
    const auto [r, out] = add({}, "alpha");
    EXPECT_EQ(r, 7);
    EXPECT_EQ(out, cat({{0x1C, 0x02, 0x00, 0x00, 0x02, 0x02, 0x00}, dataset(0x19, "alpha")}));
    // The block grows by keyword + 5 for each further keyword.
    const auto [r2, out2] = add(out, "be");
    EXPECT_EQ(r2, 17);
    EXPECT_EQ(out2.size(), 24u);
}

TEST(MetawriteIptc, KeywordGoesBehindTheLastKeyword) {
    const Bytes block = cat({kIptcVersion, dataset(0x19, "one"), dataset(0x19, "two"), dataset(0x78, "a caption")});
    const auto [r, out] = add(block, "three");
    EXPECT_EQ(r, 23);
    EXPECT_EQ(out, cat({kIptcVersion, dataset(0x19, "one"), dataset(0x19, "two"), dataset(0x19, "three"),
                        dataset(0x78, "a caption")}));
}

TEST(MetawriteIptc, WithoutAKeywordItGoesBehindTheLastDataset) {
    // No keyword at all, and a keyword at position 0, which is not seen as one.
    for (const Bytes& block : {cat({kIptcVersion, dataset(0x78, "caption"), dataset(0x50, "by")}),
                               cat({dataset(0x19, "first"), dataset(0x78, "caption")})}) {
        const auto [r, out] = add(block, "k");
        EXPECT_EQ(r, static_cast<int>(block.size()));
        EXPECT_EQ(out, cat({block, dataset(0x19, "k")}));
    }
}

TEST(MetawriteIptc, MarkerBytesInsideDataCountAsDatasets) {
    // The caption's text holds 1C 02 19 00 01: the scan takes it for a
    // keyword of one byte, and the new keyword lands inside the caption.
    const Bytes caption = dataset(0x78, std::string("ab\x1C\x02\x19\x00\x01xyz", 10));
    const Bytes block = cat({kIptcVersion, caption});
    const auto [r, out] = add(block, "k");
    EXPECT_EQ(r, 7 + 5 + 2 + 6);
    // Same marker with a length running past the block: damaged, -1.
    const Bytes bad = cat({kIptcVersion, dataset(0x78, std::string("ab\x1C\x02\x19\x00\x40xyz", 10))});
    EXPECT_EQ(add(bad, "k").first, -1);
}

TEST(MetawriteIptc, DamagedAndTinyBlocks) {
    // Last dataset says 9 bytes, 3 are there.
    Bytes block = cat({kIptcVersion, dataset(0x78, "abc")});
    block[block.size() - 4] = 9;
    EXPECT_EQ(add(block, "k").first, -1);
    // 1 to 4 bytes: position 0 is a dataset whose header does not even fit.
    for (int n = 1; n <= 4; ++n) EXPECT_EQ(add(Bytes(static_cast<std::size_t>(n), 0x1C), "k").first, -1) << n;
    // 5 bytes: no scan, the length field is read from bytes 3 and 4.
    const auto [r, out] = add({0x00, 0x00, 0x00, 0x00, 0x00}, "k");
    EXPECT_EQ(r, 5);
    EXPECT_EQ(out, cat({{0, 0, 0, 0, 0}, dataset(0x19, "k")}));
    EXPECT_EQ(add({0x1C, 0x02, 0x19, 0x00, 0x01}, "k").first, -1);
}

TEST(MetawriteIptc, LongKeywordLengthIsBigEndian) {
    const std::string k(300, 'w');
    const auto [r, out] = add({}, k);
    EXPECT_EQ(r, 7);
    EXPECT_EQ(out[10], 0x01);
    EXPECT_EQ(out[11], 0x2C);
}

TEST(MetawriteIptc, HandMadeMalformedBlocks) {
    // Every block of the folder goes through the insertion with an output
    // buffer of exactly the promised size (the sanitizer build catches more).
    const std::map<std::string, int> expected = {
        {"iptc_length_past_end.bin", -1},
        {"iptc_marker_in_data.bin", 18},  // the marker lies beyond the scan
        {"iptc_one_byte.bin", -1},
        {"iptc_empty_keywords_cut.bin", 10},
    };
    const auto dir = oltest::fs::path(OL_SOURCE_DIR) / "tests" / "crashers" / "metawrite";
    int seen = 0;
    for (const auto& entry : oltest::fs::directory_iterator(dir)) {
        if (entry.path().filename() == "README.md") continue;  // notes of scripts/fuzz.sh
        const Bytes block = oltest::readFile(entry.path().string());
        const std::string name = entry.path().filename().string();
        Bytes out(block.size() + 1 + 5);
        const unsigned char k = 'k';
        const int r = add_iptc_keyword(static_cast<int>(block.size()), block.data(), 1, &k, out.data());
        EXPECT_GE(r, -1) << name;
        EXPECT_LE(r, static_cast<int>(block.size())) << name;
        const auto it = expected.find(name);
        if (it != expected.end()) {
            EXPECT_EQ(r, it->second) << name;
        }
        ++seen;
    }
    EXPECT_GE(seen, 4);
}
