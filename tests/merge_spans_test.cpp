// The marker pass of the weighted merge visits only the row spans where the
// vector kernel saw markers, and every row once those overflow their room: a
// finished merge must equal the marked one (mode 2) with every marker of
// every row replaced.
#include <vector>

#include "merge/merge_tables.hpp"
#include "support/testsupport.hpp"

namespace {

TEST(MergeMarkerSpans, FinishedMergeIsMarkedMergeWithEveryMarkerReplaced) {
    // Groups of 8 pixels cycle burnt out, dark, mid-grey; `run` groups each.
    // The room holds 4 spans a row and 1024 more: the last row overflows it.
    struct Row {
        int width, height, run;
    };
    for (const Row& r : {Row{8 * 40 + 5, 3, 5}, Row{8 * 7, 2, 1}, Row{8 * 3 * 1100, 1, 1}}) {
        SCOPED_TRACE(::testing::Message() << r.width << "x" << r.height);
        const int n = 2, spp = 3;
        const std::size_t frame = static_cast<std::size_t>(r.width) * r.height * spp;
        std::vector<std::uint8_t> photos = oltest::randomBytes(frame * n, 5);
        for (int k = 0; k < n; ++k)
            for (std::size_t i = 0; i < frame; ++i) {
                const int kind = static_cast<int>((i / spp % r.width) / 8 / r.run % 3);
                std::uint8_t& v = photos[k * frame + i];
                v = kind == 0 ? 255 : kind == 1 ? 0 : static_cast<std::uint8_t>(60 + v % 120);
            }
        std::vector<float> lut(256);
        std::vector<std::uint8_t> finished(4 * frame / spp), marked(finished.size());
        float stats[3], markedStats[3];
        std::vector<float> dt = {1.0f, 4.0f};
        ASSERT_EQ(ol_hdr_merge(0, n, r.width, r.height, spp, 8, 0, lut.data(), -1.0f, dt.data(), photos.data(),
                               stats, finished.data()),
                  r.height);
        ol_hdr_merge(2, n, r.width, r.height, spp, 8, 0, lut.data(), -1.0f, dt.data(), photos.data(), markedStats,
                     marked.data());
        ol::replaceMarkers(r.width, r.height, markedStats[0] / 256, markedStats[1] / 256, ol::RgbeForm::Clamped,
                           marked.data());
        EXPECT_EQ(finished, marked);
    }
}

}  // namespace
