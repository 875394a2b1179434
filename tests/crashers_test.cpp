// The hand-made damaged files kept in tests/crashers (one note per file in the
// folder's README), as one table: a file or a whole folder, the call, and the
// codes it may give. Every call must return, never crash or hang; the
// sanitizer build checks that it stays inside its buffers.
#include <algorithm>
#include <chrono>
#include <functional>
#include <map>

#include "support/metadata_bytes.hpp"
#include "support/radiance.hpp"

namespace {

namespace fs = oltest::fs;

// Each call on one file; its result is the code the table checks.
const std::map<std::string, std::function<int(const std::string&)>> kCalls = {
    // Every metadata reader (each result checked inside); each gives one reader's.
    {"load_psd", [](const std::string& p) { return metatest::runAllReaders(p).psdLoad; }},
    {"getPsdInfo", [](const std::string& p) { return metatest::runAllReaders(p).psdInfo; }},
    {"bmp", [](const std::string& p) { return metatest::runAllReaders(p).bmp; }},
    {"icc", [](const std::string& p) { return metatest::runAllReaders(p).icc; }},
    // Every Radiance and float-TIFF reader at several sizes (each checked inside).
    {"radiance readers", [](const std::string& p) { radtest::runAllReaders(p); return 0; }},
    // An IPTC block through the keyword insertion, with an output buffer of
    // exactly the promised size.
    {"add_iptc_keyword", [](const std::string& p) {
         const auto block = oltest::readFile(p);
         std::vector<std::uint8_t> out(block.size() + 1 + 5);
         const unsigned char k = 'k';
         const int r = add_iptc_keyword(static_cast<int>(block.size()), block.data(), 1, &k, out.data());
         EXPECT_TRUE(r >= -1 && r <= static_cast<int>(block.size())) << r;
         return r;
     }},
};

struct Row {
    const char* path;  // under tests/crashers: a file, or a folder for all its files
    const char* call;
    std::vector<int> codes;  // empty: any code the call's own checks accept
};

const Row kRows[] = {
    {"metadata", "load_psd", {}},  // every metadata reader on every file
    // The layer section length is a signed 32-bit number: this one seeks back
    // before the start of the file.
    {"metadata/psd_layer_negative.psd", "load_psd", {-1}},
    {"metadata/psd_rle_short.psd", "load_psd", {-3}},
    {"metadata/psd_32bit_cut.psd", "load_psd", {-1}},
    {"metadata/psd_layer_past_end.psd", "load_psd", {-1}},
    {"metadata/psd_rle_overrun.psd", "load_psd", {2}},
    {"metadata/psd_header_cut.psd", "getPsdInfo", {-2}},
    {"metadata/psd_huge_dims.psd", "getPsdInfo", {34}},
    {"metadata/bmp_cut.bmp", "bmp", {-3}},
    {"metadata/bmp_bad_bits.bmp", "bmp", {-3}},
    {"metadata/icc_size_past_end.icc", "icc", {-5}},
    {"metawrite", "add_iptc_keyword", {}},
    {"metawrite/iptc_length_past_end.bin", "add_iptc_keyword", {-1}},
    {"metawrite/iptc_marker_in_data.bin", "add_iptc_keyword", {18}},  // the marker lies beyond the scan
    {"metawrite/iptc_one_byte.bin", "add_iptc_keyword", {-1}},
    {"metawrite/iptc_empty_keywords_cut.bin", "add_iptc_keyword", {10}},
    {"radiance", "radiance readers", {}},
    {"host", "load_psd", {}},
};

TEST(Crashers, KeptFilesReturnTheirCodes) {
    const fs::path root = fs::path(OL_SOURCE_DIR) / "tests" / "crashers";
    for (const Row& row : kRows) {
        std::vector<fs::path> files;
        if (fs::is_directory(root / row.path)) {
            for (const auto& e : fs::directory_iterator(root / row.path))
                if (e.path().extension() != ".md") files.push_back(e.path());
        } else {
            files.push_back(root / row.path);
        }
        ASSERT_TRUE(!files.empty() && fs::exists(files[0])) << row.path;
        for (const fs::path& f : files) {
            SCOPED_TRACE(f.filename().string() + " " + row.call);
            const auto start = std::chrono::steady_clock::now();
            const int r = kCalls.at(row.call)(f.string());
            EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
            if (!row.codes.empty()) {
                EXPECT_NE(std::find(row.codes.begin(), row.codes.end(), r), row.codes.end()) << r;
            }
        }
    }
}

}  // namespace
