// XMP packet of tone-mapping settings, byte for byte.
#include <algorithm>
#include <string>
#include <vector>

#include "support/metadata_bytes.hpp"

namespace {

// Measures, writes into a marked buffer, checks the two lengths agree and
// that neither a terminator nor anything else went past the text.
std::string packet(int method, const float* params) {
    const int measured = embed_xmp(0, nullptr, method, params);
    std::vector<char> buf(static_cast<std::size_t>(measured) + 8, '#');
    const int written = embed_xmp(1, buf.data(), method, params);
    EXPECT_EQ(measured, written);
    for (std::size_t i = static_cast<std::size_t>(written); i < buf.size(); ++i) EXPECT_EQ(buf[i], '#');
    return std::string(buf.data(), static_cast<std::size_t>(written));
}

std::string lineOf(const std::string& xmp, const std::string& element) {
    const auto a = xmp.find("<oltm:" + element + ">");
    if (a == std::string::npos) return "(none)";
    const auto b = xmp.find("</oltm:" + element + ">", a);
    const auto start = a + element.size() + 7;
    return xmp.substr(start, b - start);
}

}  // namespace

// Whole packets against the kept ones: each method reads only its slots.
TEST(MetawriteXmp, PacketsMatchTheKeptOnes) {
    const float details[15] = {1.0f, 2.0f, 3.25f, 0.5f, 0.001f, 2.9f, -3.0f, 4.0f, 25.0f,
                               5.0f, 6.0f, 7.0f, 8.0f, 9.0f, 10.0f};
    float compressor[15], zero[15] = {};
    for (int i = 0; i < 15; ++i) compressor[i] = 100.0f + static_cast<float>(i);
    compressor[3] = 1.0f / 3.0f;
    const std::pair<const char*, std::string> rows[] = {
        {"details_enhancer.xmp", packet(1, details)}, {"tone_compressor.xmp", packet(2, compressor)},
        {"frame_alone.xmp", packet(3, zero)},         {"frame_alone.xmp", packet(0, zero)},
        {"frame_alone.xmp", packet(-7, nullptr)},
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
