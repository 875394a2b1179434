// The metadata writers' own blocks: the free-standing Exif block, the XMP
// packet of tone-mapping settings, IPTC keywords (damaged blocks also in
// tests/crashers/metawrite: one byte, five bytes saying too much).
#include "support/metadata_bytes.hpp"

using namespace metatest;

namespace {

// Measures, writes into a marked buffer, checks the two lengths agree and
// that neither a terminator nor anything else went past the text.
std::string packet(int method, const float* params) {
    const int measured = embed_xmp(0, nullptr, method, params);
    std::vector<char> buf(static_cast<std::size_t>(measured) + 8, '#');
    const int written = embed_xmp(1, buf.data(), method, params);
    EXPECT_EQ(measured, written);
    EXPECT_EQ(std::string(buf.begin() + written, buf.end()), "########");
    return std::string(buf.data(), static_cast<std::size_t>(written));
}

std::string lineOf(const std::string& xmp, const std::string& element) {
    const auto a = xmp.find("<oltm:" + element + ">");
    if (a == std::string::npos) return "(none)";
    const auto start = a + element.size() + 7;
    return xmp.substr(start, xmp.find("</oltm:" + element + ">", a) - start);
}

}  // namespace

// Whole blocks against the kept ones (tests/fixtures/README.md); the census
// sizes each, and nothing past its end is touched. (The census of full
// records is in the printed lines of tests/transcripts/metadata_write.txt; a
// full camera and date in tests/fixtures/tiff/full_camera_and_date.tif.)
TEST(MetawriteExifBuf, BlocksMatchTheKeptOnes) {
    ExifRecord dated = emptyExif(), cam = emptyExif();
    std::strcpy(dated.date, "2024");  // the GPS date is still copied whole
    std::strcpy(cam.camera, "Cam");
    cam.exposureNum = 1;  // rationals with a part 0 or negative are absent
    cam.apertureDen = 10;
    cam.focalNum = 5;
    cam.focalDen = -2;
    GpsRecord gpsDate = emptyGps(), latRef = emptyGps();
    std::memcpy(gpsDate.datestamp, "2023:12:31", 11);
    latRef.lat_ref = 'N';
    latRef.alt_ref = static_cast<char>(0x81);  // negative as a signed byte: absent
    latRef.altitude[1] = 1;  // numerator 0: absent
    const struct {
        const char* file;  // nullptr: no block
        ExifRecord ex;
        GpsRecord gps;
        int orientation, result;
    } rows[] = {
        {"full.exif", fullExif(), fullGps(), 9, 387},  // orientation 9 counts as 1
        {"gps_date_whole.exif", dated, gpsDate, 1, 114},
        {"camera_only.exif", cam, emptyGps(), 6, 14 + 24 + 4},
        {"gps_only.exif", emptyExif(), latRef, 2, 14 + 24 + 30},  // version and reference, no data
        {nullptr, emptyExif(), emptyGps(), 3, -1},  // nothing to say, though an orientation was given
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.file ? row.file : "empty");
        Bytes out(1024, 0xAA);
        std::fill(out.begin(), out.begin() + 512, 0);
        const int r = exifBlockInto(row.ex, row.gps, row.orientation, out.data());
        EXPECT_EQ(r, row.result);
        const std::size_t end = static_cast<std::size_t>(std::max(r, 0));
        EXPECT_EQ(Bytes(out.begin() + static_cast<std::ptrdiff_t>(end), out.end()),
                  patched(Bytes(1024 - end, 0xAA), 0, Bytes(512 - end, 0)))
            << "written past the block";
        out.resize(end);
        if (row.file) { EXPECT_TRUE(oltest::matchesFixture(std::string("exif/") + row.file, out)); }
    }
    Bytes out(64, 0);  // -1 at once: the records are not even read
    EXPECT_EQ(write_exif_buf(0, 0, 0, 0, 0, 0, 0, 3, nullptr, nullptr, out.data()), -1);
    EXPECT_EQ(out, Bytes(64, 0));
}

// Whole packets against the kept ones: each method reads only its slots.
// (Method 1 in full: the packet of tests/fixtures/tiff/full_layout.tif.)
TEST(MetawriteXmp, PacketsMatchTheKeptOnes) {
    float compressor[15], zero[15] = {};
    for (int i = 0; i < 15; ++i) compressor[i] = 100.0f + static_cast<float>(i);
    compressor[3] = 1.0f / 3.0f;
    const std::pair<const char*, std::string> rows[] = {
        {"tone_compressor.xmp", packet(2, compressor)}, {"frame_alone.xmp", packet(3, zero)},
        {"frame_alone.xmp", packet(0, zero)},           {"frame_alone.xmp", packet(-7, nullptr)},
    };
    for (const auto& [file, text] : rows)
        EXPECT_TRUE(oltest::matchesFixture(std::string("xmp/") + file, std::vector<std::uint8_t>(text.begin(), text.end())));
}

// One slot set on zeros (or every slot, -1): the line it gives.
TEST(MetawriteXmp, LinesOfOneSlot) {
    const struct {
        int slot;
        float value;
        const char* element;
        std::string text;
    } rows[] = {
        // Smoothing: truncated, not rounded; the fixed-width texts keep their blanks.
        {5, 0.75f, "Smoothing", "Very High"}, {5, 1.75f, "Smoothing", "High    "}, {5, 2.75f, "Smoothing", "Medium  "},
        {5, 3.75f, "Smoothing", "Low     "},  {5, 4.75f, "Smoothing", "Very Low"}, {5, -0.5f, "Smoothing", "Very High"},
        {5, 7.0f, "Smoothing", ""},  // no such step: an empty text, still a well-formed line
        {8, 50.0f, "Gamma", "1.0"},  {8, 0.0f, "Gamma", "2.0"},  {8, 100.0f, "Gamma", "0.5"},
        {8, 25.0f, "Gamma", "1.4"},  {8, 75.0f, "Gamma", "0.7"}, {8, -50.0f, "Gamma", "4.0"},
        // Sliders whose gamma lies within a float's rounding of a printing
        // boundary: the value is narrowed to float before it is printed, and
        // the double alone would print the other digit.
        {8, 93.12482452392578f, "Gamma", "0.6"}, {8, 46.480533599853516f, "Gamma", "1.0"},
        // Large values (every slot but Smoothing) are counted as written.
        {-1, -3.4e38f, "WhiteClip", "-339999995214436424907732413799364296704.000000"},
        {-1, -3.4e38f, "Strength", "-339999995214436424907732413799364296704.0"},
    };
    for (const auto& r : rows) {
        float tm[15] = {};
        std::fill(tm, tm + (r.slot < 0 ? 15 : 0), r.value);
        tm[r.slot < 0 ? 5 : r.slot] = r.slot < 0 ? 1.0f : r.value;
        EXPECT_EQ(lineOf(packet(1, tm), r.element), r.text) << r.element << " " << r.value;
    }
}

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
        {"4 bytes", Bytes(4, 0x1C), "k", -1},
        {"5 bytes", {0, 0, 0, 0, 0}, "k", 5},
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
            EXPECT_EQ(Bytes(out.begin(), out.begin() + static_cast<std::ptrdiff_t>(newLen)),
                      cat({Bytes(old.begin(), at), ds(0x19, r.keyword), Bytes(at, old.end())}))
                << r.what;
        }
    }
}
