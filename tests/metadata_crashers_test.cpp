// Malformed input for the metadata readers: randomly damaged copies of
// well-formed files (the hand-made ones are in crashers_test.cpp).
// Every reader must return (its failure code or a silent stop), never crash,
// hang or touch memory it does not own; the sanitizer build checks the last.
#include <algorithm>
#include <chrono>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "support/metadata_bytes.hpp"

using namespace metatest;
namespace fs = std::filesystem;

namespace {

// Well-formed seeds of every kind the readers take (tests/fixtures/seeds: a
// TIFF in both byte orders with Exif, GPS, description, IPTC and thumbnail
// entries, a JPEG carrying it with a Photoshop block, flat PSDs of 8, 16 and
// 32 bits raw and PackBits with resources, a BMP header and an ICC profile).
std::vector<Bytes> seeds() {
    std::vector<fs::path> files;
    for (const auto& e : fs::directory_iterator(fs::path(OL_SOURCE_DIR) / "tests" / "fixtures" / "seeds"))
        files.push_back(e.path());
    std::sort(files.begin(), files.end());
    std::vector<Bytes> out;
    for (const auto& f : files) out.push_back(oltest::readFile(f.string()));
    EXPECT_EQ(out.size(), 10u);
    return out;
}

TEST(MetadataCrashers, RandomlyDamagedFilesAreSurvived) {
    oltest::TempDir dir;
    const std::string path = dir.file("damaged.bin");
    std::uint32_t seed = 1;
    for (const Bytes& good : seeds()) {
        for (int round = 0; round < 150; ++round, ++seed) {
            Bytes b = good;
            const std::vector<std::uint8_t> noise = oltest::randomBytes(16, seed);
            switch (round % 3) {
                case 0:  // a few bytes overwritten
                    for (int k = 0; k < 4; ++k) b[noise[2 * k] * b.size() / 256] = noise[2 * k + 1];
                    break;
                case 1:  // cut short
                    b.resize((noise[0] | (noise[1] << 8)) % b.size());
                    break;
                default:  // a 32-bit field set to an extreme value
                    {
                        const std::size_t at = (noise[0] * b.size() / 256) & ~std::size_t{1};
                        const std::uint8_t fill = noise[1] & 1 ? 0xFF : 0x7F;
                        for (std::size_t k = at; k < at + 4 && k < b.size(); ++k) b[k] = k == at ? fill : 0xFF;
                    }
                    break;
            }
            oltest::writeFile(path, b);
            runAllReaders(path);
        }
    }
    SUCCEED();
}

// An IFD of 65535 entries that all point back at the IFD itself (or at the
// whole file as a Photoshop block or a description): taken literally, the
// walk would visit billions of entries or read the file tens of thousands of
// times.
TEST(MetadataCrashers, SelfReferencingHugeIfdsEndQuickly) {
    oltest::TempDir dir;
    const std::string path = dir.file("big.tif");
    for (std::uint16_t t : {tag::kExifIfd, tag::kGpsIfd, tag::kPhotoshop, tag::kImageDescription}) {
        const bool text = t == tag::kImageDescription, whole = text || t == tag::kPhotoshop;
        TiffSpec s;  // the IFD at 8, then nothing: the file is 8 + 2 + 65535 * 12 + 4 bytes
        s.ifds = {std::vector<Entry>(65535, rawE(t, text ? ol::kTiffAscii : ol::kTiffLong, whole ? 8 + 2 + 65535u * 12 + 4 : 1, 8))};
        oltest::writeFile(path, buildTiff(s));
        const auto start = std::chrono::steady_clock::now();
        readExif(path, 0);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20)) << t;
    }
}

}  // namespace
