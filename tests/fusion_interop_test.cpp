// ol_fusion beside another exposure fuser: on a bracketed scene both should
// land on much the same image, far closer to each other than to any frame.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "support/stacks.hpp"
#include "support/testsupport.hpp"

namespace {

void writePpm(const std::string& path, int w, int h, const std::uint8_t* rgb) {
    std::string bytes = "P6\n" + std::to_string(w) + " " + std::to_string(h) + "\n255\n";
    bytes.append(reinterpret_cast<const char*>(rgb), static_cast<std::size_t>(w) * h * 3);
    oltest::writeText(path, bytes);
}

// 8-bit binary PPM with optional comment lines in the header.
std::vector<std::uint8_t> readPpm(const std::string& path, int& w, int& h) {
    const std::vector<std::uint8_t> f = oltest::readFile(path);
    std::size_t i = 0;
    auto token = [&]() {
        std::string t;
        while (i < f.size()) {
            if (f[i] == '#') {
                while (i < f.size() && f[i] != '\n') ++i;
            } else if (std::isspace(f[i])) {
                if (!t.empty()) break;
                ++i;
            } else {
                t += static_cast<char>(f[i++]);
            }
        }
        return t;
    };
    if (token() != "P6") return {};
    w = std::atoi(token().c_str());
    h = std::atoi(token().c_str());
    // Some writers put the largest sample here rather than 255; the samples
    // are the 8-bit values either way.
    const int maxval = std::atoi(token().c_str());
    if (maxval < 1 || maxval > 255) return {};
    ++i;  // the one whitespace before the samples
    const std::size_t n = static_cast<std::size_t>(w) * h * 3;
    if (f.size() < i + n) return {};
    return std::vector<std::uint8_t>(f.begin() + static_cast<std::ptrdiff_t>(i),
                                     f.begin() + static_cast<std::ptrdiff_t>(i + n));
}

double meanAbs(const std::uint8_t* a, const std::uint8_t* b, std::size_t n) {
    double s = 0;
    for (std::size_t i = 0; i < n; ++i) s += std::abs(int(a[i]) - int(b[i]));
    return s / double(n);
}

TEST(FusionInterop, CloseToEnfuseOnABracketedScene) {
    if (!oltest::haveProgram("enfuse")) GTEST_SKIP() << "enfuse not installed";
    oltest::TempDir dir;
    const int w = 160, h = 120, n = 3;
    const auto stack = fustest::makeStack(n, w, h, 3, 8, 11);
    std::string frames;
    for (int k = 0; k < n; ++k) {
        const std::string path = dir.file("frame" + std::to_string(k) + ".ppm");
        writePpm(path, w, h, stack.data() + static_cast<std::size_t>(k) * w * h * 3);
        frames += " '" + path + "'";
    }
    ASSERT_EQ(oltest::runCommand("enfuse --depth=8 -o '" + dir.file("enfuse.ppm") + "'" + frames + " >/dev/null 2>&1"), 0);
    int ew = 0, eh = 0;
    const auto other = readPpm(dir.file("enfuse.ppm"), ew, eh);
    ASSERT_EQ(ew, w);
    ASSERT_EQ(eh, h);
    ASSERT_EQ(other.size(), static_cast<std::size_t>(w) * h * 3);

    fustest::Job job;
    job.w = w;
    job.h = h;
    job.nbProc = 2;
    ASSERT_GE(job.go(stack), 0);
    const auto ours = job.output();
    const std::size_t count = static_cast<std::size_t>(w) * h * 3;
    const double apart = meanAbs(ours.data(), other.data(), count);
    double nearestFrame = 1e9;
    for (int k = 0; k < n; ++k)
        nearestFrame = std::min(nearestFrame, meanAbs(ours.data(), stack.data() + k * count, count));
    EXPECT_LT(apart, 12.0);
    EXPECT_LT(apart * 2, nearestFrame) << "apart " << apart << ", nearest frame " << nearestFrame;
}

}  // namespace
