// The diagnostic lines of calc_hdr and hdr_unghost, byte for byte (this test
// links the library built with every diagnostic switch on).
#include <string>
#include <vector>

#include "support/testsupport.hpp"

namespace {

// Two uniform frames of 24 x 24: levels 60 and 200 (high bytes), exposures 1
// and 4, scaled so that the median (4) becomes 2*0.5. The sample pixels are
// where x % 12 and y % 12 are both 10.
std::string mergeTwo(int bps, int variant) {
    const std::size_t frame = 24 * 24 * 3;
    std::vector<std::uint16_t> words(2 * frame, 0x3C40);
    std::vector<std::uint8_t> bytes(2 * frame, 60), out(4 * 24 * 24, 1);
    std::fill(words.begin() + frame, words.end(), 0xC840);
    std::fill(bytes.begin() + frame, bytes.end(), 200);
    std::vector<float> lut(bps == 16 ? 65536 : 256), dt = {1.0f, 4.0f};
    float stats[3];
    const void* photos = bps == 8 ? static_cast<const void*>(bytes.data()) : words.data();
    oltest::CaptureFd cap(1);
    EXPECT_EQ(variant < 0 ? calc_hdr(1, 2, 24, 24, 3, bps, 0, lut.data(), 0.5f, dt.data(), photos, stats, out.data())
                          : hdr_unghost(1, variant, 2, 24, 24, 3, bps, 0, lut.data(), 0.5f, dt.data(), photos, stats,
                                        out.data()),
              24);
    return cap.finish();
}

const std::string kHead =
    "calc_hdr deltaT0=1.000 \ntmid=4.000 \n--- deltaT ---\n0   0.250\n1   1.000\n"
    "--- apres classement ---\n 0   0.250\n 0   ordre=0\n 1   1.000\n 1   ordre=1\n";

// Per sample pixel: a line per frame, the sums, and (hdr_unghost) the spread
// with the reference values and the result.
std::string pixelLines(const std::string& w1, const std::string& sums, const std::string& spread) {
    std::string s;
    for (const std::string y : {"10", "22"})
        for (const std::string x : {"10", "22"})
            s += x + "," + y + " deltaT[0]=4.0000   pix=15360 wpix=0.515\n" + x + "," + y +
                 " deltaT[1]=1.0000   pix=51200 wpix=" + w1 + "\n---- sumW=" + sums + "   \n" +
                 (spread.empty() ? "" : x + " " + y + "  lumv=" + spread + "    0.58 0.58 0.58    0.58 0.58 0.58 \n");
    return s;
}

TEST(MotionMergeTrace, ConsistencyCheckedMerge) {
    // Sample pixels for 16-bit frames only; frame 1's weight is lowered by
    // its saturation level 60160.
    EXPECT_EQ(mergeTwo(16, -1), kHead + pixelLines("0.299", "0.815  sumG=0.260    Ergb: 0.319 0.319 0.319", ""));
    EXPECT_EQ(mergeTwo(8, -1), kHead);
}

TEST(MotionMergeTrace, VarianceBlendedMerge) {
    // The reference is frame 1; the frames disagree, so the result is its value.
    const std::string head = kHead + "kMid=1  ordre[kMid]=1\n";
    EXPECT_EQ(mergeTwo(8, 1), head + pixelLines("0.467", "0.982  sumG=0.356    Ergb: 0.363 0.363 0.363", "0.99"));
    EXPECT_EQ(mergeTwo(16, 2), head + pixelLines("0.467", "0.982  sumG=0.358    Ergb: 0.364 0.364 0.364", "0.33"));
}

}  // namespace
