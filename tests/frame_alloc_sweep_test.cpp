// Allocation-failure sweep: each call below is made again and again with its
// 1st, 2nd, ... allocation failing, until a run makes fewer allocations than
// the one set to fail (then the call must succeed). Every failed run must
// give the family's code, leave the outputs the call must not touch as they
// were, and leak nothing (the asan build checks the leaks).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "Ombrelumen40Lib1.h"
#include "support/records.hpp"
#include "support/stacks.hpp"
#include "support/testsupport.hpp"

namespace {

using Bytes = std::vector<std::uint8_t>;

struct Row {
    const char* name;
    int code;                                  // the family's allocation failure code
    std::function<void()> reset;               // fills the outputs with their sentinel
    std::function<int()> call;
    std::function<bool()> untouched;           // outputs still hold the sentinel (failure only)
    std::vector<long> absorbed = {};           // allocations whose failure the call works around
};

TEST(AllocSweep, EveryAllocationFailsInTurn) {
    oltest::TempDir dir;
    const int W = 64, H = 80;  // rgbe_dim needs a file of some length
    // Radiance pixels with exponents near 128, a picture to read back, and a PSD.
    Bytes rgbe = oltest::randomBytes(4u * W * H, 7);
    for (std::size_t i = 3; i < rgbe.size(); i += 4) rgbe[i] = static_cast<std::uint8_t>(124 + rgbe[i] % 8);
    ExifRecord exif;
    std::memset(&exif, 0, sizeof exif);
    const std::string pic = dir.file("in.hdr"), out = dir.file("out.hdr"), strip = dir.file("strip.hdr"),
                      tif = dir.file("out.tif");
    ASSERT_EQ(ol_io_rgbe_write(pic.c_str(), W, H, &exif, nullptr, "sRGB", rgbe.data()), H);
    const std::string psd = std::string(OL_SOURCE_DIR) + "/fuzz/corpus/psd_reader_fuzz/psd8rle.psd";
    const std::string psd32 = std::string(OL_SOURCE_DIR) + "/fuzz/corpus/psd_reader_fuzz/psd32.psd";
    PsdInfo info{}, info32{};
    ASSERT_GT(getPsdInfo(psd.c_str(), &info), 0);
    ASSERT_GT(getPsdInfo(psd32.c_str(), &info32), 0);
    int dims[7] = {0, 0, 0, 0, 0, 0, 0};
    float primaries[8];
    ASSERT_GE(rgbe_dim(pic.c_str(), primaries, dims), 0);

    Bytes dst, psdOut;
    std::vector<float> curve;
    const Bytes grey(3u * 60 * 40 * 3, 128);
    const std::vector<float> expo{1, 2, 4};
    const std::vector<std::uint16_t> src16(20 * 3 * 4, 1000);
    const auto fill = [](Bytes& b, std::size_t n) { b.assign(n, 0xEE); };
    const auto same = [](const Bytes& b) {
        for (auto v : b)
            if (v != 0xEE) return false;
        return true;
    };
    const auto none = [] { return true; };
    const Bytes photos = oltest::randomBytes(grey.size(), 9);
    std::vector<float> lut, dt;
    float stats[3];
    const auto mergeOut = [&] {
        fill(dst, 4u * 60 * 40);
        dst[0] = 0;  // calc_hdr's consistency switch: off
        lut.assign(256, 0.0f);
        dt = {0.5f, 1.0f, 2.0f};
    };
    std::vector<int> order, stops;
    const fustest::Job fusionJob = fustest::sized(23, 17);
    const Bytes fusionStack = fusionJob.stack();
    float seuil = 10.0f;
    const Row rows[] = {
        {"rgbe_rep", -4, [&] { fill(dst, 4u * 18); },
         [&] { return rgbe_rep(6, 4, 18, 10.0f, rgbe.data(), dst.data()); }, [&] { return same(dst); }},
        {"hdr_rep8", -4, [&] { fill(dst, 4u * 18); },
         [&] { return hdr_rep8(6, 4, 3, 2, 9, 10.0f, rgbe.data(), dst.data()); }, [&] { return same(dst); }},
        {"calc_courbe", -4, [&] { curve.assign(256, -7.0f); },
         [&] { return calc_courbe(3, 60, 40, 8, 3, expo.data(), grey.data(), curve.data()); },
         [&] { return curve == std::vector<float>(256, -7.0f); }},
        {"comp16", -4, [&] { fill(dst, src16.size()); },
         [&] { return comp16(0, 20, 4, 60, 3, src16.data(), dst.data()); }, none},
        {"ol_io_rgbe_write", -4, [] {},
         [&] { return ol_io_rgbe_write(out.c_str(), W, H, &exif, nullptr, "sRGB", rgbe.data()); }, none},
        {"ol_write_strip_rgbe", -4, [] {},
         [&] { return ol_write_strip_rgbe(strip.c_str(), 0, H, W, H, nullptr, rgbe.data()); }, none},
        {"decomp_rle", -4, [&] { fill(dst, 4u * W * H); },
         [&] { return decomp_rle(pic.c_str(), dims, dst.data()); }, none},
        {"decomp2", -4, [&] { fill(dst, 4u * W * H); },
         [&] { return decomp2(pic.c_str(), dims, dst.data(), nullptr); }, none},
        {"ol_io_read_preview_rgbe", -4, [&] { fill(dst, 4u * 8 * 4); },
         [&] { return ol_io_read_preview_rgbe(W, H, 8, 4, pic.c_str(), dst.data()); }, none},
        {"ol_downsample", -4, [&] { fill(dst, 4u * 2 * 2); },
         [&] { return ol_downsample(2, 2, 0, 2, 2, 0, 0, 32, rgbe.data(), dst.data()); }, none},
        {"buf2tifOld", -1, [] {},
         [&] {
             tif_info t = oltest::records::makeInfo(4, 2, 3, 8);
             return buf2tifOld(rgbe.data(), &t, 12, nullptr, &exif, nullptr, 0, nullptr, 0, nullptr, tif.c_str());
         },
         none},
        {"load_psd", -4, [&] { fill(psdOut, 16u * info.width * info.height); },
         [&] {
             PsdInfo copy = info;
             return load_psd(1, psd.c_str(), &copy, 4 * info.width, psdOut.data());
         },
         none},
        {"load_psd 32 bits", -1, [&] { fill(psdOut, 16u * info32.width * info32.height); },
         [&] {
             PsdInfo copy = info32;
             return load_psd(1, psd32.c_str(), &copy, 4 * info32.width, psdOut.data());
         },
         none},
        {"ol_hdr_merge", -4, mergeOut,
         [&] { return ol_hdr_merge(0, 3, 60, 40, 3, 8, 0, lut.data(), -1, dt.data(), photos.data(), stats, dst.data()); },
         none},
        {"calc_hdr", -4, mergeOut,
         [&] { return calc_hdr(1, 3, 60, 40, 3, 8, 0, lut.data(), 0.5f, dt.data(), photos.data(), stats, dst.data()); },
         none},
        {"hdr_unghost", -4, mergeOut,
         [&] {
             return hdr_unghost(1, 2, 3, 60, 40, 3, 8, 0, lut.data(), 0.5f, dt.data(), photos.data(), stats, dst.data());
         },
         none},
        {"ol_ghost_detect", -4, [&] { fill(dst, 2u * 60 * 40 * 3 / 8); },
         [&] {
             Bytes img = photos;
             return ol_ghost_detect(&seuil, 3, 60, 40, 3, 8, 0.0f, dt.data(), img.data(), dst.data());
         },
         none},
        {"align", -4, [] {},
         [&] {
             Bytes block = photos;
             int shifts[2] = {0, -7};
             return align(3, 60, 40, 3, 8, shifts, block.data());
         },
         none},
        {"ol_fusion", -4, [] {},
         [&] {
             fustest::Job j = fusionJob;
             return j.go(fusionStack);
         },
         none, {9, 10}},  // without the worker records the calling thread computes the weights
        {"ol_combi_2images", -4, [&] { fill(dst, 60u * 40 * 3); },
         [&] { return ol_combi_2images(0, 0, 1, 60, 40, 180, 0, 8, 8, 3, photos.data(), dst.data()); }, none},
        {"ol_combi_intensive", -4, [&] { fill(dst, 60u * 40 * 3); },
         [&] { return ol_combi_intensive(1, 1, 0.0f, 0.0f, 3, 60, 40, 180, 0, 3, 8, 8, photos.data(), dst.data()); },
         none},
        {"lumcontr", -4, [&] { dst.assign(photos.begin(), photos.begin() + 60 * 40 * 3); },
         [&] { return lumcontr(0.5f, 0, 16, 30, 40, 90, 3, dst.data()); },
         [&] { return std::equal(dst.begin(), dst.end(), photos.begin()); }},
        {"comp16qv", -4, [&] { fill(dst, src16.size()); },
         [&] { return comp16qv(0, 0, 0, 20, 4, 60, 60, 3, src16.data(), dst.data()); }, none},
        {"rankvig", 0, [&] { order.assign(3, -7), stops.assign(3, -7); },
         [&] { return rankvig(3, 60, 40, 180, 3, photos.data(), order.data(), stops.data()); },
         [&] { return order == std::vector<int>(3, -7) && stops == order; }},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        long failed = 0;
        bool whole = false;
        for (long n = 1; n < 1000 && !whole; ++n) {
            row.reset();
            int rc;
            long made;
            {
                oltest::FailAllocation fail(n);
                rc = row.call();
                made = ol::testing::allocationCount();
            }
            if (made < n) {  // the nth allocation never came: the call ran whole
                EXPECT_GE(rc, 0) << "with every allocation granted";
                whole = true;
                continue;
            }
            if (std::find(row.absorbed.begin(), row.absorbed.end(), n) != row.absorbed.end()) {
                EXPECT_GE(rc, 0) << "allocation " << n;
                continue;
            }
            ++failed;
            EXPECT_EQ(rc, row.code) << "allocation " << n;
            EXPECT_TRUE(row.untouched()) << "allocation " << n;
        }
        EXPECT_GT(failed, 0) << "the call made no tested allocation";
        EXPECT_TRUE(whole) << "still allocating after " << failed << " failures";
    }
}

}  // namespace
