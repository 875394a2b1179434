// Disk mode reads large ranges of its scratch files in pieces side by side:
// they must give the bytes of one read, and leave a range that one read
// would not get whole to the serial path.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "fusion/scratch.hpp"
#include "support/testsupport.hpp"

namespace {

std::vector<std::uint8_t> noise(std::size_t n) {
    std::vector<std::uint8_t> v(n);
    std::uint32_t s = 12345;
    for (auto& b : v) b = static_cast<std::uint8_t>((s = s * 1664525u + 1013904223u) >> 24);
    return v;
}

TEST(FusionScratch, PiecesGiveTheBytesOfOneRead) {
    const oltest::TempDir dir;
    const std::vector<std::uint8_t> data = noise((std::size_t(3) << 20) + 4099);
    for (int threads : {1, 2, 3, 5}) {
        std::FILE* f = std::fopen(dir.file("s").c_str(), "wb+");
        ASSERT_NE(f, nullptr);
        ASSERT_EQ(std::fwrite(data.data(), 1, data.size(), f), data.size());
        for (std::int64_t off : {std::int64_t(0), std::int64_t(4097)}) {
            std::vector<std::uint8_t> got(data.size() - off);
            ASSERT_EQ(ol::readScratchBands(f, off, got.data(), got.size(), threads), 1);
            EXPECT_TRUE(std::equal(got.begin(), got.end(), data.begin() + off)) << threads << " " << off;
            // Past the end, and past what 32-bit offsets address: the serial path's turn.
            EXPECT_EQ(ol::readScratchBands(f, off + 1, got.data(), got.size(), threads), 0);
        }
        std::uint8_t two[2];
        EXPECT_EQ(ol::readScratchBands(f, INT32_MAX, two, 2, threads), 0);
        std::fclose(f);
    }
}

}  // namespace
