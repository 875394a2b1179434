// The diagnostic lines of ghost detection, with every switch on.
#include <gtest/gtest.h>

#include "support/stacks.hpp"
#include "support/testsupport.hpp"

TEST(GhostTrace, LevelsPlacesSampledPixelsAndMask) {
    // Two flat photos; the edge kernels take the coarse corner from 100 and 200 to 99 and 199.
    std::vector<std::uint8_t> img = fustest::flatStack(8, 6, {100, 200}), mask(6);
    std::vector<float> dt = {1, 2};
    float seuil = 10;
    oltest::CaptureFd capture(2);
    EXPECT_EQ(ol_ghost_detect(&seuil, 2, 8, 6, 3, 8, -1, dt.data(), img.data(), mask.data()), 2);
    const std::string text = capture.finish();
    std::size_t from = 0;
    for (const char* line : {"ol_ghost_detect - 8 x 6   2 x 2    nivoMax: 2 \n",
                             "  initCoarse: 180    initCoarse+coarseStride: 192    lenPyram: 192    diff: 0\n",
                             "down0  from 8 x 6  to  4 x 3  -   positCoarse: 144   positFine: 0 \n",
                             "deghost21a  8 x 6  ->  4 x 3    bps: 8     initFine: 0  coarse: 144\n",
                             "down1  from 4 x 3  to  2 x 2  -   positCoarse: 180   positFine: 144 \n",
                             "0  minT: 0.00 maxT: 1.00  curT: 0.00      saturationLevel: 56320  220   noiseLevel: 4096\n",
                             "1  minT: 0.00 maxT: 1.00  curT: 1.00      saturationLevel: 61440  240   noiseLevel: 2560\n",
                             "photo0:      99 99 99    lum:  25344\n", "photo1:      199 199 199    lum:  50944\n",
                             " 1 vs 0   evMult: 1.37    expected: 136 136 136 vs 199 199 199    diff: 64 64 64  ->   96  vs  seuil: 10 \n",
                             "-- 0,0\n", "0,0      ghostMask: 255   1\n"}) {
        const std::size_t at = text.find(line, from);
        EXPECT_NE(at, std::string::npos) << "missing or out of order: [" << line << "]\n" << text;
        from = at == std::string::npos ? from : at + std::string(line).size();
    }
}
