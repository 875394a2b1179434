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

// 8-bit binary PPM, written plain; read with comment lines in the header
// and a largest sample of up to 255 (some writers put the image's largest
// sample there; the samples are the 8-bit values either way).
void writePpm(const std::string& path, int w, int h, const std::uint8_t* rgb) {
    oltest::writeText(path, "P6\n" + std::to_string(w) + " " + std::to_string(h) + "\n255\n" +
                                std::string(reinterpret_cast<const char*>(rgb), static_cast<std::size_t>(w) * h * 3));
}

// Empty unless the file is a PPM of w x h pixels.
std::vector<std::uint8_t> readPpm(const std::string& path, int w, int h) {
    const std::vector<std::uint8_t> f = oltest::readFile(path);
    std::size_t i = 2;
    int fields[3] = {0, 0, 0};  // width, height, largest sample
    for (int& v : fields) {
        while (i < f.size() && !std::isdigit(f[i]))  // whitespace and comment lines
            i = f[i] == '#' ? static_cast<std::size_t>(std::find(f.begin() + i, f.end(), '\n') - f.begin()) : i + 1;
        while (i < f.size() && std::isdigit(f[i])) v = v * 10 + (f[i++] - '0');
    }
    ++i;  // the one whitespace before the samples
    const std::size_t n = static_cast<std::size_t>(w) * h * 3;
    if (f.size() < i + n || f[0] != 'P' || f[1] != '6' || fields[0] != w || fields[1] != h || fields[2] < 1 || fields[2] > 255)
        return {};
    return std::vector<std::uint8_t>(f.begin() + static_cast<std::ptrdiff_t>(i), f.begin() + static_cast<std::ptrdiff_t>(i + n));
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
    const std::size_t count = static_cast<std::size_t>(w) * h * 3;
    const auto other = readPpm(dir.file("enfuse.ppm"), w, h);
    ASSERT_EQ(other.size(), count);
    fustest::Job job = fustest::sized(w, h);
    job.nbProc = 2;
    ASSERT_GE(job.go(stack), 0);
    const auto ours = job.output();
    const double apart = meanAbs(ours.data(), other.data(), count);
    double nearestFrame = 1e9;
    for (int k = 0; k < n; ++k)
        nearestFrame = std::min(nearestFrame, meanAbs(ours.data(), stack.data() + k * count, count));
    EXPECT_LT(apart, 12.0);
    EXPECT_LT(apart * 2, nearestFrame) << "apart " << apart << ", nearest frame " << nearestFrame;
}

}  // namespace
