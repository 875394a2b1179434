// The XMP packet that records the tone-mapping settings of an output image.
//
// The packet is a bare x:xmpmeta element (no xpacket wrapper) with one
// rdf:Description in the project's `oltm` namespace. Measuring and writing run
// the same code, every numeric line being formatted into a scratch buffer
// first, so the measured length is exactly the written one.
#include <cmath>
#include <cstdio>
#include <cstring>

#include "Ombrelumen40Lib1.h"
#include "frame/numeric.hpp"

namespace ol {
namespace {

// Namespace of the tone-mapping properties; the path is fixed, the host is
// the project's own.
constexpr const char* kToneMappingNs = "http://ns.ombrelumen40lib1.org/tone_mapping_settings";

class XmpSink {
public:
    explicit XmpSink(char* out) noexcept : out_(out) {}

    void text(const char* s) noexcept { bytes(s, std::strlen(s)); }

    // One line with a single value, formatted with `format`.
    template <class T>
    void line(const char* format, T value) noexcept {
        char scratch[512];
        const int n = std::snprintf(scratch, sizeof scratch, format, value);
        if (n > 0) bytes(scratch, static_cast<std::size_t>(n) < sizeof scratch ? static_cast<std::size_t>(n) : sizeof scratch - 1);
    }

    int length() const noexcept { return static_cast<int>(len_); }

private:
    void bytes(const char* s, std::size_t n) noexcept {
        if (out_) std::memcpy(out_ + len_, s, n);
        len_ += n;
    }
    char* out_;
    std::size_t len_ = 0;
};

// Smoothing is chosen on five steps; the fixed-width texts keep their blanks.
const char* smoothingText(float v) noexcept {
    static constexpr const char* kTexts[5] = {"Very High", "High    ", "Medium  ", "Low     ", "Very Low"};
    const std::int32_t i = truncToInt(v);
    // The host only offers 0 to 4; any other value gets an empty text rather
    // than reading outside the table.
    return (i >= 0 && i <= 4) ? kTexts[i] : "";
}

// The gamma slider runs 0..100 around 50; the packet records the gamma it
// stands for, 2^((50 - slider)/50).
float gammaOfSlider(float slider) noexcept {
    return static_cast<float>(std::exp(std::log(2.0) * (50.0 - static_cast<double>(slider)) / 50.0));
}

}  // namespace
}  // namespace ol

extern "C" {

OL_API int embed_xmp(int write, char* out, int tmMethod, const float* tmParams) {
    static constexpr float kNoParams[15] = {};
    const float* p = tmParams ? tmParams : kNoParams;
    ol::XmpSink s(write ? out : nullptr);

    s.text("<x:xmpmeta xmlns:x='adobe:ns:meta/'>\n");
    s.text("<rdf:RDF xmlns:rdf='http://www.w3.org/1999/02/22-rdf-syntax-ns#'>\n\n");
    s.text("<rdf:Description rdf:about=''\n");
    s.text("xmlns:oltm='");
    s.text(ol::kToneMappingNs);
    s.text("'>\n");
    s.text("<oltm:Version>3.2</oltm:Version>\n");

    if (tmMethod == 1) {
        s.text("<oltm:Method>Details Enhancer</oltm:Method>\n");
        s.line("<oltm:Strength>%1.1f</oltm:Strength>\n", static_cast<double>(p[1]));
        s.line("<oltm:ColorSaturation>%1.1f</oltm:ColorSaturation>\n", static_cast<double>(p[2]));
        s.line("<oltm:Luminosity>%1.1f</oltm:Luminosity>\n", static_cast<double>(p[0]));
        s.line("<oltm:WhiteClip>%f</oltm:WhiteClip>\n", static_cast<double>(p[3]));
        s.line("<oltm:BlackClip>%f</oltm:BlackClip>\n", static_cast<double>(p[4]));
        s.line("<oltm:Smoothing>%s</oltm:Smoothing>\n", ol::smoothingText(p[5]));
        s.line("<oltm:Microcontrast>%1.1f</oltm:Microcontrast>\n", static_cast<double>(p[6]));
        s.line("<oltm:Microsmoothing>%1.1f</oltm:Microsmoothing>\n", static_cast<double>(p[7]));
        s.line("<oltm:Gamma>%1.1f</oltm:Gamma>\n", static_cast<double>(ol::gammaOfSlider(p[8])));
        s.line("<oltm:HighlightsSmoothing>%1.1f</oltm:HighlightsSmoothing>\n", static_cast<double>(p[9]));
        s.line("<oltm:ShadowsSmoothing>%1.1f</oltm:ShadowsSmoothing>\n", static_cast<double>(p[10]));
        s.line("<oltm:ShadowsClipping>%1.1f</oltm:ShadowsClipping>\n", static_cast<double>(p[11]));
        s.line("<oltm:ColorTemperature>%1.1f</oltm:ColorTemperature>\n", static_cast<double>(p[12]));
        s.line("<oltm:SaturationHighlights>%1.1f</oltm:SaturationHighlights>\n", static_cast<double>(p[13]));
        s.line("<oltm:SaturationShadows>%1.1f</oltm:SaturationShadows>\n", static_cast<double>(p[14]));
    } else if (tmMethod == 2) {
        s.text("<oltm:Method>Tone Compressor</oltm:Method>\n");
        s.line("<oltm:Brightness>%1.1f</oltm:Brightness>\n", static_cast<double>(p[0]));
        s.line("<oltm:Compression>%1.1f</oltm:Compression>\n", static_cast<double>(p[1]));
        s.line("<oltm:Contrast>%1.1f</oltm:Contrast>\n", static_cast<double>(p[2]));
        s.line("<oltm:WhiteClip>%f</oltm:WhiteClip>\n", static_cast<double>(p[3]));
        s.line("<oltm:BlackClip>%f</oltm:BlackClip>\n", static_cast<double>(p[4]));
        s.line("<oltm:ColorTemperature>%1.1f</oltm:ColorTemperature>\n", static_cast<double>(p[12]));
        s.line("<oltm:Saturation>%1.1f</oltm:Saturation>\n", static_cast<double>(p[13]));
    }

    s.text("</rdf:Description>\n\n");
    s.text("</rdf:RDF>\n");
    s.text("</x:xmpmeta>\n");
    return s.length();
}

}  // extern "C"
