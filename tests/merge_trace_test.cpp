// The diagnostic lines of the weighted merge, byte for byte (this test links
// the library built with every diagnostic switch on).
#include <string>
#include <vector>

#include "support/testsupport.hpp"

namespace {

// Two uniform frames of 210 x 210: levels 100 and 200, exposures 1 and 4.
// The sample pixels are where x % 105 == 100 and y % 52 == 50.
std::string mergeTwoFrames(int bps, std::vector<float> dt, float evStep) {
    const int w = 210, h = 210;
    const std::size_t frame = static_cast<std::size_t>(w) * h * 3;
    std::vector<std::uint16_t> words(2 * frame);
    std::vector<std::uint8_t> bytes(2 * frame);
    for (std::size_t i = 0; i < 2 * frame; ++i) {
        bytes[i] = i < frame ? 100 : 200;
        words[i] = i < frame ? 0x6480 : 0xC880;
    }
    std::vector<float> lut(static_cast<std::size_t>(1) << bps);
    float stats[3];
    std::vector<std::uint8_t> out(4 * static_cast<std::size_t>(w) * h);
    oltest::CaptureFd cap(1);
    const void* photos = bps == 8 ? static_cast<const void*>(bytes.data()) : words.data();
    EXPECT_EQ(ol_hdr_merge(0, 2, w, h, 3, bps, 0, lut.data(), evStep, dt.data(), photos, stats, out.data()), h);
    return cap.finish();
}

std::string pixelLines(const std::string& lut0, const std::string& lut1) {
    std::string s;
    for (int y : {50, 102, 154, 206})
        for (int x : {100, 205}) {
            const std::string at = std::to_string(x) + "," + std::to_string(y) + "\n";
            s += "dT[0]=1.00   ival: 25600    w: 0.91     " + lut0 + " " + lut0 + " " + lut0 + "       " + at;
            s += "dT[1]=0.25   ival: 51200    w: 0.30     " + lut1 + " " + lut1 + " " + lut1 + "       " + at;
        }
    return s;
}

// The lines of the two frames, frame 1 the longer at log2 `maxT` (its
// levels lowered to 60160), or, at "0.00", as long as frame 0.
std::string frameLines(const std::string& maxT) {
    const bool spread = maxT != "0.00";
    return "0  minT: 0.00 maxT: " + maxT + "  curT: 0.00      saturationLevel: 64000  250   noiseLevel: 12\n" +
           "1  minT: 0.00 maxT: " + maxT + "  curT: " + maxT + "      saturationLevel: " +
           (spread ? "60160  235   noiseLevel: 10\n" : "64000  250   noiseLevel: 12\n") +
           "photo0   saturationLevel: 64000     beta:  4.40\n" +
           (spread ? "photo1   saturationLevel: 60160     beta:  5.72\n"
                   : "photo1   saturationLevel: 64000     beta:  4.40\n");
}

TEST(MergeTrace, HeaderFramesWeightsAndSamplePixels) {
    const std::string got = mergeTwoFrames(8, {1.0f, 4.0f}, -1.0f);
    const std::string want =
        "ol_hdr_merge: 2 photos  210 x 210  spp: 3   bps: 8   inputMax: 255  max: 256\n" + frameLines("2.00") +
        pixelLines("0.13", "0.58");
    EXPECT_EQ(got, want);

    // Exposures whose log2 is not a float: the ends still get 64000 and 60160.
    const std::string odd = mergeTwoFrames(8, {1.0f, 3.0f}, -1.0f);
    EXPECT_NE(odd.find(frameLines("1.58")), std::string::npos) << odd.substr(0, 400);
}

TEST(MergeTrace, SixteenBitLinesIndexTheLutByHighByte) {
    // The line shows lut at the high byte (a tiny value on a 65536-entry
    // table), though the merge itself reads lut at the whole word.
    const std::string got = mergeTwoFrames(16, {1.0f, 4.0f}, -1.0f);
    const std::string want =
        "ol_hdr_merge: 2 photos  210 x 210  spp: 3   bps: 16   inputMax: 65535  max: 65536\n" +
        frameLines("2.00") + pixelLines("0.00", "0.00");
    EXPECT_EQ(got, want);
}

TEST(MergeTrace, GuessedEqualExposuresAndSmallImages) {
    // evStep 0 on zero means: both exposures 1, no spread of levels.
    const std::string got = mergeTwoFrames(8, {5.0f, 5.0f}, 0.0f);
    const std::string head =
        "ol_hdr_merge: 2 photos  210 x 210  spp: 3   bps: 8   inputMax: 255  max: 256\n" + frameLines("0.00");
    ASSERT_EQ(got.substr(0, head.size()), head);
    // Frame 1 is visited first (equal exposures: higher frame first).
    EXPECT_EQ(got.substr(head.size(), 68),
              "dT[1]=1.00   ival: 51200    w: 0.42     0.58 0.58 0.58       100,50\n");

    // Below 202 x 204 there is no sample pixel; a width of 1 and a height
    // below 4 (a period of 0) print none either.
    for (auto [w, h] : {std::pair{1, 3}, std::pair{201, 300}, std::pair{300, 203}}) {
        std::vector<std::uint8_t> photos(static_cast<std::size_t>(w) * h * 3, 128);
        std::vector<float> lut(256), dt = {1.0f};
        std::vector<std::uint8_t> out(4 * static_cast<std::size_t>(w) * h);
        float stats[3];
        oltest::CaptureFd cap(1);
        ol_hdr_merge(0, 1, w, h, 3, 8, 0, lut.data(), -1.0f, dt.data(), photos.data(), stats, out.data());
        const std::string text = cap.finish();
        EXPECT_EQ(text.find("dT["), std::string::npos) << w << "x" << h;
        EXPECT_NE(text.find("photo0   saturationLevel: 64000     beta:  4.40\n"), std::string::npos);
    }

    // Nothing to do prints nothing.
    std::vector<float> lut(256), dt = {1.0f};
    float stats[3];
    oltest::CaptureFd cap(1);
    ol_hdr_merge(0, 1, 4, 0, 3, 8, 0, lut.data(), -1.0f, dt.data(), nullptr, stats, nullptr);
    EXPECT_EQ(cap.finish(), "");
}

}  // namespace
