// The diagnostic lines of align, ol_ghost_detect, calc_hdr and hdr_unghost,
// byte for byte, against tests/transcripts/motion.txt (this test links the
// library built with every diagnostic switch on). After a deliberate change
// of the lines, OL_UPDATE_TRANSCRIPTS=1 rewrites the file: review its diff.
#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "support/stacks.hpp"
#include "support/testsupport.hpp"

namespace {

using Bytes = std::vector<std::uint8_t>;

// Two uniform frames of 24 x 24, levels 60 and 200 (high bytes), exposures 1
// and 4; the sample pixels are where x % 12 and y % 12 are both 10.
int mergeTwo(int bps, int variant) {
    const std::size_t frame = 24 * 24 * 3 * (bps / 8);
    Bytes photos(2 * frame, 0x40), out(4 * 24 * 24, 1);  // 16 bits: 0x3C40 and 0xC840, little-endian
    for (std::size_t i = bps / 16; i < 2 * frame; i += bps / 8) photos[i] = i < frame ? 60 : 200;
    std::vector<float> lut(bps == 16 ? 65536 : 256), dt = {1.0f, 4.0f};
    float stats[3];
    return variant < 0 ? calc_hdr(1, 2, 24, 24, 3, bps, 0, lut.data(), 0.5f, dt.data(), photos.data(), stats, out.data())
                       : hdr_unghost(1, variant, 2, 24, 24, 3, bps, 0, lut.data(), 0.5f, dt.data(), photos.data(),
                                     stats, out.data());
}

TEST(MotionTrace, Transcript) {
    std::string text;
    auto step = [&](const std::string& title, auto call) {
        oltest::CaptureFd o(1), e(2);
        const long r = call();
        const std::string err = e.finish(), out = o.finish();
        text += "### " + title + " -> " + std::to_string(r) + "\n" + out + (err.empty() ? "" : "### stderr\n" + err);
    };
    // A bright square on grey, frame 1 seeing it 3 pixels further right and 2 lower.
    step("align: frame 1 read from (3, 2)", [] {
        const int w = 64, h = 48;
        Bytes block(2 * w * h * 3, 100);
        for (int k = 0; k < 2; ++k)
            for (int y = 12; y < 32; ++y) std::fill_n(&block[((k * h + y + 2 * k) * w + 20 + 3 * k) * 3], 24 * 3, 200);
        int dims[2] = {0, 0};
        return align(2, w, h, 3, 8, dims, block.data());
    });
    // Two flat photos; the edge kernels take the coarse corner from 100 and 200 to 99 and 199.
    step("ol_ghost_detect: two flat photos of 8 x 6", [] {
        Bytes img = fustest::flatStack(8, 6, {100, 200}), mask(6);
        std::vector<float> dt = {1, 2};
        float seuil = 10;
        return ol_ghost_detect(&seuil, 2, 8, 6, 3, 8, -1, dt.data(), img.data(), mask.data());
    });
    // Sample pixels for 16-bit frames only; frame 1's weight is lowered by its saturation level 60160.
    step("calc_hdr, 16 bits", [] { return mergeTwo(16, -1); });
    step("calc_hdr, 8 bits", [] { return mergeTwo(8, -1); });
    // The reference is frame 1; the frames disagree, so the result is its value.
    step("hdr_unghost, variant 1, 8 bits", [] { return mergeTwo(8, 1); });
    step("hdr_unghost, variant 2, 16 bits", [] { return mergeTwo(16, 2); });
    const std::string path = std::string(OL_SOURCE_DIR) + "/tests/transcripts/motion.txt";
    if (std::getenv("OL_UPDATE_TRANSCRIPTS")) return oltest::writeText(path, text);
    const Bytes want = oltest::readFile(path);
    EXPECT_EQ(text, std::string(want.begin(), want.end())) << "transcript " << path;
}

}  // namespace
