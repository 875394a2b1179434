// XMP packet of tone-mapping settings, byte for byte.
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

TEST(MetawriteXmp, SmoothingTextsKeepTheirBlanks) {
    float tm[15] = {};
    const char* expected[5] = {"Very High", "High    ", "Medium  ", "Low     ", "Very Low"};
    for (int i = 0; i < 5; ++i) {
        tm[5] = static_cast<float>(i) + 0.75f;  // truncated, not rounded
        EXPECT_EQ(lineOf(packet(1, tm), "Smoothing"), expected[i]);
    }
    tm[5] = -0.5f;  // truncates to 0
    EXPECT_EQ(lineOf(packet(1, tm), "Smoothing"), "Very High");
    tm[5] = 7.0f;  // no such step: an empty text, and still a well-formed line
    EXPECT_EQ(lineOf(packet(1, tm), "Smoothing"), "");
}

TEST(MetawriteXmp, GammaLineFollowsTheSlider) {
    float tm[15] = {};
    const std::vector<std::pair<float, std::string>> cases = {
        {50.0f, "1.0"}, {0.0f, "2.0"}, {100.0f, "0.5"}, {25.0f, "1.4"}, {75.0f, "0.7"}, {-50.0f, "4.0"},
        // Sliders whose gamma lies within a float's rounding of a printing
        // boundary: the value is narrowed to float before it is printed, and
        // the double alone would print the other digit.
        {93.12482452392578f, "0.6"}, {46.480533599853516f, "1.0"}};
    for (const auto& [slider, text] : cases) {
        tm[8] = slider;
        EXPECT_EQ(lineOf(packet(1, tm), "Gamma"), text) << slider;
    }
}

TEST(MetawriteXmp, LargeValuesAreCountedAsWritten) {
    float tm[15];
    for (float& v : tm) v = -3.4e38f;
    tm[5] = 1.0f;
    const std::string p = packet(1, tm);
    EXPECT_EQ(lineOf(p, "WhiteClip"), "-339999995214436424907732413799364296704.000000");
    EXPECT_EQ(static_cast<int>(p.size()), embed_xmp(0, nullptr, 1, tm));
}
