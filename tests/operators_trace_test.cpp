// The one diagnostic line of the operators, byte for byte (this test links
// the library built with every diagnostic switch on).
#include "support/testsupport.hpp"

TEST(OperatorsTrace, MoyennePrintsDepthsAndRowRemainderFirst) {
    std::vector<std::uint8_t> img(2 * 4 * 3, 10);
    std::vector<std::uint16_t> dst(2 * 14, 0);
    oltest::CaptureFd cap(1);
    EXPECT_EQ(moyenne(1, 4, 2, 14, 0, 3, 8, 16, img.data(), dst.data()), 2);
    EXPECT_EQ(moyenne(1, 4, 0, 12, 0, 3, 12, 8, img.data(), dst.data()), 0);  // printed before any check
    EXPECT_EQ(cap.finish(), "moyenne bps=8 16  spp=3  reste=2\nmoyenne bps=12 8  spp=3  reste=0\n");
}
