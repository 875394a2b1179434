// The diagnostic lines of the preview and crop extraction, byte for byte
// (this test links the library built with every diagnostic switch on).
#include "support/testsupport.hpp"

TEST(ImageOpsTrace, PreviewAndCropLines) {
    const std::vector<std::uint8_t> src(21 * 17 * 3, 9);
    std::vector<std::uint8_t> dst(21 * 17 * 3);
    oltest::CaptureFd cap(1);
    EXPECT_EQ(extract_basepreview(8, 21, 17, 3, 63, 6, 5, 0, src.data(), nullptr, dst.data()), 5);
    EXPECT_EQ(extract_crop(1, 21, 17, 3, 63, 8, 5, 6, 2, 3, src.data(), dst.data()), 6);
    EXPECT_EQ(cap.finish(),
              "extract_qv  k: 0     11 x 9  \nextract_qv  k: 1     6 x 5  \n"
              "extract_basepreview  bps: 8  In: 21 x 17    out:  6 x 5   pas: 4\n "
              "== extract_crop  1 photos  from 21 x 17  to  5 x 6  - rowStride: 63  spp=3  c1=1  c2=2   bps=8  posit 2 3\n");
}
