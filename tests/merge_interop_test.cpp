// The merge as a radiance estimate, beside OpenCV's Debevec merge given the
// same gamma response: on noise-free frames of a known scene both should
// recover the scene, and so each other, wherever some frame is well exposed.
#include <cmath>
#include <cstring>
#include <fstream>
#include <vector>

#include "support/testsupport.hpp"

namespace {

constexpr int kW = 96, kH = 8, kN = 3;
const float kDt[kN] = {0.25f, 1.0f, 4.0f};

// Scene radiance of one channel: 14 stops across the width.
double radiance(int x, int c) { return std::exp2(-11.0 + 14.0 * x / kW) * (0.7 + 0.15 * c); }

std::vector<std::uint8_t> makeFrames() {
    std::vector<std::uint8_t> f(static_cast<std::size_t>(kN) * kW * kH * 3);
    for (int k = 0; k < kN; ++k)
        for (int y = 0; y < kH; ++y)
            for (int x = 0; x < kW; ++x)
                for (int c = 0; c < 3; ++c) {
                    const double v = 256.0 * std::pow(radiance(x, c) * kDt[k], 1.0 / 2.2);
                    f[((static_cast<std::size_t>(k) * kH + y) * kW + x) * 3 + c] =
                        static_cast<std::uint8_t>(std::min(v, 255.0));
                }
    return f;
}

// Pixels where the middle frame is well exposed in every channel.
bool wellExposed(const std::vector<std::uint8_t>& frames, int x) {
    for (int c = 0; c < 3; ++c) {
        const int v = frames[((static_cast<std::size_t>(1) * kH) * kW + x) * 3 + c];
        if (v < 40 || v > 220) return false;
    }
    return true;
}

TEST(MergeInterop, AgreesWithOpenCvDebevecOnAKnownScene) {
    if (!oltest::havePythonModule("cv2") || !oltest::havePythonModule("numpy"))
        GTEST_SKIP() << "system Python with OpenCV and numpy is missing";
    const auto frames = makeFrames();
    std::vector<float> lut(256), dt(kDt, kDt + kN);
    float stats[3];
    std::vector<std::uint8_t> rgbe(4 * kW * kH);
    ASSERT_EQ(ol_hdr_merge(0, kN, kW, kH, 3, 8, 0, lut.data(), -1.0f, dt.data(), frames.data(), stats,
                           rgbe.data()),
              kH);

    oltest::TempDir dir;
    oltest::writeFile(dir.file("frames.raw"), frames);
    const std::string script = dir.file("debevec.py");
    oltest::writeText(script,
                      "import sys, numpy as np, cv2\n"
                      "n, h, w = " + std::to_string(kN) + ", " + std::to_string(kH) + ", " +
                          std::to_string(kW) + "\n"
                      "f = np.fromfile(sys.argv[1], dtype=np.uint8).reshape(n, h, w, 3)\n"
                      "t = np.array([0.25, 1.0, 4.0], dtype=np.float32)\n"
                      "r = np.power(np.arange(256, dtype=np.float64) / 256.0, 2.2)\n"
                      "r[0] = r[1]\n"
                      "resp = np.repeat(r.astype(np.float32).reshape(256, 1, 1), 3, axis=2)\n"
                      "out = cv2.createMergeDebevec().process([f[i] for i in range(n)], t, resp)\n"
                      "out.astype(np.float32).tofile(sys.argv[2])\n");
    ASSERT_EQ(oltest::runCommand(oltest::systemPython() + " " + script + " " + dir.file("frames.raw") + " " +
                                 dir.file("out.raw")),
              0);
    const auto raw = oltest::readFile(dir.file("out.raw"));
    ASSERT_EQ(raw.size(), static_cast<std::size_t>(kW) * kH * 3 * 4);
    std::vector<float> cv(raw.size() / 4);
    std::memcpy(cv.data(), raw.data(), raw.size());

    std::vector<float> table(256);
    for (int e = 0; e < 256; ++e) table[e] = std::ldexp(1.0f, e - 128);
    int checked = 0;
    for (int y = 0; y < kH; ++y)
        for (int x = 0; x < kW; ++x) {
            if (!wellExposed(frames, x)) continue;
            const std::uint8_t* row = rgbe.data() + 4 * static_cast<std::size_t>(y) * kW;
            for (int c = 0; c < 3; ++c) {
                // Decoded RGBE is 256 times the merge's value.
                const double ours = row[c * kW + x] * table[row[3 * kW + x]] / 256.0;
                const double theirs = cv[(static_cast<std::size_t>(y) * kW + x) * 3 + c];
                const double truth = radiance(x, c);
                EXPECT_NEAR(ours / truth, 1.0, 0.05) << x << " " << c;
                EXPECT_NEAR(theirs / truth, 1.0, 0.05) << x << " " << c;
                EXPECT_NEAR(ours / theirs, 1.0, 0.05) << x << " " << c;
                ++checked;
            }
        }
    EXPECT_GT(checked, 3 * kH * kW / 4);
    // The mean in stats is in decoded units too: it lies within the scene's
    // luminance range times 256.
    EXPECT_GT(stats[2], 256.0f * std::exp2(-11.0f));
    EXPECT_LT(stats[2], 256.0f * std::exp2(3.0f));
}

}  // namespace
