// Malformed input for the metadata readers: the hand-made files kept in
// tests/crashers/metadata, and randomly damaged copies of well-formed files.
// Every reader must return (its failure code or a silent stop), never crash,
// hang or touch memory it does not own; the sanitizer build checks the last.
#include <chrono>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "meta_bytes.hpp"

using namespace metatest;
namespace fs = std::filesystem;

namespace {

TEST(MetareadCrashers, KeptFilesReturnTheirCodes) {
    const fs::path dir = fs::path(OL_SOURCE_DIR) / "tests" / "crashers" / "metadata";
    ASSERT_TRUE(fs::exists(dir));
    // The codes the files were made to produce.
    const std::map<std::string, int> psdLoad = {
        // The layer section length is a signed 32-bit number: this one seeks
        // back before the start of the file.
        {"psd_rle_short.psd", -3}, {"psd_32bit_cut.psd", -1}, {"psd_layer_negative.psd", -1},
        {"psd_layer_past_end.psd", -1}, {"psd_rle_overrun.psd", 2}};
    const std::map<std::string, int> psdInfo = {{"psd_header_cut.psd", -2}, {"psd_huge_dims.psd", 34}};
    const std::map<std::string, int> bmp = {{"bmp_cut.bmp", -3}, {"bmp_bad_bits.bmp", -3}};
    const std::map<std::string, int> icc = {{"icc_size_past_end.icc", -5}};
    int files = 0;
    for (const auto& entry : fs::directory_iterator(dir)) {
        const std::string name = entry.path().filename().string();
        if (name == "README.md") continue;  // notes of scripts/fuzz.sh
        SCOPED_TRACE(name);
        const auto start = std::chrono::steady_clock::now();
        const Outcome o = runAllReaders(entry.path().string());
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
        auto expect = [&](const std::map<std::string, int>& codes, int got) {
            if (auto it = codes.find(name); it != codes.end()) {
                EXPECT_EQ(got, it->second);
            }
        };
        expect(psdLoad, o.psdLoad);
        expect(psdInfo, o.psdInfo);
        expect(bmp, o.bmp);
        expect(icc, o.icc);
        ++files;
    }
    EXPECT_GE(files, 20);
}

// Well-formed seeds of every kind the readers take.
std::vector<Bytes> seeds() {
    std::vector<Bytes> out;
    TiffSpec t;
    t.little = false;
    t.ifds = {{asciiE(270, "a, b, c, d, e, f, g, 1/8s, R1, G2, B3"), asciiE(272, "Cam"), shortE(274, 6),
               rawE(33723, 7, 20, 8)},
              {longE(513, 8), longE(514, 20)}};
    t.exif = {rationalE(33434, 1, 60), rationalE(33437, 8, 1), shortE(34855, 100), asciiE(36867, "2024:01:01 00:00:00"),
              srationalE(37377, 6, 1), rationalE(41493, 100, 1)};
    t.gps = {bytesE(1, 2, std::string("S\0", 2)), rationalsE(2, {1, 1, 2, 1, 3, 1}), asciiE(29, "2024:01:01")};
    const Bytes tiff = buildTiff(t);
    out.push_back(tiff);
    t.little = true;
    out.push_back(buildTiff(t));
    Bytes th(40, 0);
    th[7] = 4;
    const Bytes res = cat({resource8bim(0x0404, iptcKeywords({"one", "two"})), resource8bim(0x040C, th)});
    out.push_back(jpegWith({{0xE0, Bytes(14, 0)}, {0xE1, exifPayload(tiff)}, {0xED, app13Payload(res)}}));
    for (int depth : {8, 16, 32}) {
        for (int comp : {0, 1}) {
            if (depth == 32 && comp == 1) continue;
            PsdSpec s;
            s.depth = depth;
            s.width = 3;
            s.height = 2;
            s.resources = cat({resource8bim(1005, Bytes(16, 1)), resource8bim(1039, Bytes(40, 2)), resource8bim(1058, tiff)});
            s.compression = comp;
            const std::size_t plane = 3 * 2 * static_cast<std::size_t>(depth / 8);
            if (comp == 0) {
                s.image = Bytes(3 * plane, 0x41);
            } else {
                s.image = Bytes(2 * 3 * 2, 0);
                for (int c = 0; c < 3; ++c) {
                    s.image.push_back(static_cast<std::uint8_t>(-(static_cast<int>(plane) - 1)));
                    s.image.push_back(0x42);
                }
            }
            out.push_back(buildPsd(s));
        }
    }
    Bytes bmp = {'B', 'M'};
    bmp.resize(54, 0);
    bmp[18] = 4;
    bmp[22] = 4;
    bmp[28] = 24;
    out.push_back(bmp);
    Bytes icc(200, 0);
    icc[3] = 200;
    const Bytes d = {'d', 'e', 's', 'c', 0, 0, 0, 0, 0, 0, 0, 9, 'M', 'y', ' ', 's', 'R', 'G', 'B', '!'};
    std::copy(d.begin(), d.end(), icc.begin() + 132);
    out.push_back(icc);
    return out;
}

TEST(MetareadCrashers, RandomlyDamagedFilesAreSurvived) {
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
TEST(MetareadCrashers, SelfReferencingHugeIfdsEndQuickly) {
    oltest::TempDir dir;
    const std::string path = dir.file("big.tif");
    for (std::uint16_t tag : {34665, 34853, 34377, 270}) {
        Bytes b = {'I', 'I', 42, 0, 8, 0, 0, 0, 0xFF, 0xFF};
        Writer w{true, &b};
        const std::uint32_t size = 8 + 2 + 65535u * 12 + 4;
        for (int i = 0; i < 65535; ++i) {
            w.u16(tag);
            w.u16(tag == 270 ? 2 : 4);
            w.u32(tag == 34377 || tag == 270 ? size : 1);
            w.u32(8);
        }
        w.u32(0);
        oltest::writeFile(path, b);
        const auto start = std::chrono::steady_clock::now();
        readExif(path, 0);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20)) << tag;
    }
}

}  // namespace
