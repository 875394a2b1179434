// XMP packet of tone-mapping settings, byte for byte.
#include <string>
#include <vector>

#include "support/metadata_bytes.hpp"

namespace {

const std::string kHead =
    "<x:xmpmeta xmlns:x='adobe:ns:meta/'>\n"
    "<rdf:RDF xmlns:rdf='http://www.w3.org/1999/02/22-rdf-syntax-ns#'>\n\n"
    "<rdf:Description rdf:about=''\n"
    "xmlns:oltm='http://ns.ombrelumen40lib1.org/tone_mapping_settings'>\n"
    "<oltm:Version>3.2</oltm:Version>\n";
const std::string kTail = "</rdf:Description>\n\n</rdf:RDF>\n</x:xmpmeta>\n";

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

TEST(MetawriteXmp, DetailsEnhancerPacket) {
    const float tm[15] = {1.0f, 2.0f, 3.25f, 0.5f, 0.001f, 2.9f, -3.0f, 4.0f, 25.0f, 5.0f, 6.0f, 7.0f, 8.0f, 9.0f, 10.0f};
    EXPECT_EQ(packet(1, tm), kHead +
                                 "<oltm:Method>Details Enhancer</oltm:Method>\n"
                                 "<oltm:Strength>2.0</oltm:Strength>\n"
                                 "<oltm:ColorSaturation>3.2</oltm:ColorSaturation>\n"
                                 "<oltm:Luminosity>1.0</oltm:Luminosity>\n"
                                 "<oltm:WhiteClip>0.500000</oltm:WhiteClip>\n"
                                 "<oltm:BlackClip>0.001000</oltm:BlackClip>\n"
                                 "<oltm:Smoothing>Medium  </oltm:Smoothing>\n"
                                 "<oltm:Microcontrast>-3.0</oltm:Microcontrast>\n"
                                 "<oltm:Microsmoothing>4.0</oltm:Microsmoothing>\n"
                                 "<oltm:Gamma>1.4</oltm:Gamma>\n"
                                 "<oltm:HighlightsSmoothing>5.0</oltm:HighlightsSmoothing>\n"
                                 "<oltm:ShadowsSmoothing>6.0</oltm:ShadowsSmoothing>\n"
                                 "<oltm:ShadowsClipping>7.0</oltm:ShadowsClipping>\n"
                                 "<oltm:ColorTemperature>8.0</oltm:ColorTemperature>\n"
                                 "<oltm:SaturationHighlights>9.0</oltm:SaturationHighlights>\n"
                                 "<oltm:SaturationShadows>10.0</oltm:SaturationShadows>\n" +
                                 kTail);
}

TEST(MetawriteXmp, ToneCompressorPacketReadsOnlyItsSlots) {
    float tm[15];
    for (int i = 0; i < 15; ++i) tm[i] = 100.0f + static_cast<float>(i);
    tm[3] = 1.0f / 3.0f;
    EXPECT_EQ(packet(2, tm), kHead +
                                 "<oltm:Method>Tone Compressor</oltm:Method>\n"
                                 "<oltm:Brightness>100.0</oltm:Brightness>\n"
                                 "<oltm:Compression>101.0</oltm:Compression>\n"
                                 "<oltm:Contrast>102.0</oltm:Contrast>\n"
                                 "<oltm:WhiteClip>0.333333</oltm:WhiteClip>\n"
                                 "<oltm:BlackClip>104.000000</oltm:BlackClip>\n"
                                 "<oltm:ColorTemperature>112.0</oltm:ColorTemperature>\n"
                                 "<oltm:Saturation>113.0</oltm:Saturation>\n" +
                                 kTail);
}

TEST(MetawriteXmp, OtherMethodsGiveTheFrameAlone) {
    const float tm[15] = {};
    EXPECT_EQ(packet(3, tm), kHead + kTail);
    EXPECT_EQ(packet(0, tm), kHead + kTail);
    EXPECT_EQ(packet(-7, nullptr), kHead + kTail);
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
