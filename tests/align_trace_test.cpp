// The diagnostic line of align, byte for byte (this test links the library
// built with every diagnostic switch on).
#include <string>
#include <vector>

#include "support/testsupport.hpp"

// A bright square on grey, frame 1 seeing it 3 pixels further right and 2
// lower: frame 0 is read from (0, 0), frame 1 from (3, 2).
TEST(AlignTrace, OneLinePerFrameWithItsOffset) {
    const int w = 64, h = 48;
    std::vector<std::uint8_t> block(2 * w * h * 3, 100);
    for (int k = 0; k < 2; ++k)
        for (int y = 12; y < 32; ++y)
            for (int x = 20; x < 44; ++x)
                for (int i = 0; i < 3; ++i) block[((k * h + y + 2 * k) * w + x + 3 * k) * 3 + i] = 200;
    int dims[2] = {0, 0};
    oltest::CaptureFd cap(1);
    EXPECT_EQ(align(2, w, h, 3, 8, dims, block.data()), 5);
    EXPECT_EQ(cap.finish(),
              "Rearangement image k=0  deplX=0  deplY=0\n"
              "Rearangement image k=1  deplX=3  deplY=2\n");
}
