// ol_fusion end to end: thread counts, memory and disk mode, scratch files,
// depth combinations, progress, output layout, finishing settings and
// failures.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <regex>
#include <stdexcept>
#include <string>
#include <vector>

#include "fusion/stages.hpp"
#include "support/stacks.hpp"
#include "support/testsupport.hpp"

namespace {

using fustest::Job;
using fustest::sized;

TEST(FusionDriver, OnePhotoComesBackNearlyUnchanged) {
    // One photo, 16-bit weights: every weight is 65535/65536, and the
    // Laplacian pyramid gives the photo back up to rounding.
    Job r = sized(40, 24, 3, 1);
    const auto stack = r.stack();
    ASSERT_GE(r.go(stack), 0);
    const auto out = r.output();
    int worst = 0;
    for (std::size_t i = 0; i < out.size(); ++i) worst = std::max(worst, std::abs(int(out[i]) - int(stack[i])));
    EXPECT_LE(worst, 3);
}

TEST(FusionDriver, FlatGreyStackStaysGreyInside) {
    Job r = sized(32, 16);
    ASSERT_GE(r.go(fustest::flatStack(32, 16, {128, 128, 128})), 0);
    for (std::uint8_t v : r.output()) {
        EXPECT_LE(v, 128);
        EXPECT_GE(v, 124);  // the border kernels lose a little per level
    }
}

TEST(FusionDriver, DiskModeWithByteWeightsClearsOnlyPartOfTheFusedPyramid) {
    // The clearing counts bytes with the weight depth: with 8-bit weights
    // only half of a 16-bit fused pyramid is cleared, and its low-pass level
    // starts from what `images` held there.
    oltest::TempDir dir;
    Job mem = sized(26, 18);
    mem.bdp = 8;
    const auto stack = mem.stack(5);
    ASSERT_GE(mem.go(stack), 0);
    Job disk = mem.onDisk(dir.path().string());
    ASSERT_GE(disk.go(stack), 0);
    EXPECT_NE(disk.output(), mem.output());
    // The low-pass level is the only difference: where `images` holds zeros
    // under the low-pass level, disk mode agrees again (those bytes are also
    // part of the last photo, so memory mode runs on the same input).
    const int lowPixels = 4 * 3;  // 26x18 -> 13x9 -> 7x5 -> 4x3
    const std::size_t lowStart = std::size_t(pyram_len(26, 18) - lowPixels) * 3 * 2;
    std::vector<std::uint8_t> zeroed = stack;
    std::fill(zeroed.begin() + lowStart, zeroed.begin() + lowStart + lowPixels * 3 * 2, 0);
    Job disk2 = disk, mem2 = mem;
    ASSERT_GE(disk2.go(zeroed), 0);
    ASSERT_GE(mem2.go(zeroed), 0);
    EXPECT_EQ(disk2.output(), mem2.output());
    EXPECT_NE(mem2.output(), mem.output());
}

// Disk mode asked for where it cannot run: each case ends in memory mode,
// with the memory output, the photos left alone and no source scratch file.
TEST(FusionDriver, DiskModeThatCannotRunFallsBackToMemory) {
    oltest::TempDir dir;
    const std::string folder = dir.path().string(), bad = dir.file("missing/folder.tmp");
    struct Case {
        const char* what;
        Job job;
        bool sourceFileChecked = true;
    };
    std::vector<Case> cases;
    // One 8-bit channel: 16-bit weight planes need twice the photos' bytes.
    cases.push_back({"overrun", sized(20, 12, 1).onDisk(folder)});
    // Two photos of one byte a sample never use disk.
    cases.push_back({"two 8-bit photos", sized(16, 12, 3, 2).onDisk(folder)});
    // A scratch file that cannot be opened: the call keeps its two threads,
    // which show through a ghost mask read by byte-aligned slices.
    for (int which = 0; which < 3; ++which) {
        Job r = sized(12, 10).onDisk(folder);
        r.nbProc = 2;
        r.fixedExpo = {0, -1, -1};
        fustest::setMaskBit(r.mask, 12, 10, 0, 60);
        (which == 0 ? r.nameSource : which == 1 ? r.namePoids : r.namePyramPoids) = bad;
        cases.push_back({"unopened scratch file", r, false});
    }
    // A missing name is no disk mode either.
    {
        Job r = sized(20, 14);
        r.nbProc = 2;
        r.disk = 1;
        r.nameSource = dir.file("s.tmp");
        cases.push_back({"missing names", r});
    }
    for (Case& c : cases) {
        Job mem = c.job;
        mem.disk = 0;
        const auto stack = mem.stack();
        ASSERT_GE(mem.go(stack), 0) << c.what;
        std::filesystem::remove(dir.file("source.tmp"));
        ASSERT_GE(c.job.go(stack), 0) << c.what;
        EXPECT_EQ(c.job.output(), mem.output()) << c.what;
        EXPECT_TRUE(c.job.photosKept(stack)) << c.what;
        if (!c.job.mask.empty()) {
            Job oneThread = mem;
            oneThread.nbProc = 0;
            ASSERT_GE(oneThread.go(stack), 0);
            EXPECT_NE(oneThread.output(), mem.output()) << c.what << ": the mask does not show the threads";
        }
        if (c.sourceFileChecked) {
            EXPECT_FALSE(std::filesystem::exists(dir.file("source.tmp"))) << c.what;
            EXPECT_FALSE(std::filesystem::exists(dir.file("s.tmp"))) << c.what;
        }
    }
    // With 8-bit weights the one-channel stack fits, and disk mode runs; so
    // do two 16-bit photos, with the memory output.
    Job byteWeights = sized(20, 12, 1).onDisk(folder);
    byteWeights.bdp = 8;
    ASSERT_GE(byteWeights.go(byteWeights.stack()), 0);
    EXPECT_TRUE(std::filesystem::exists(dir.file("source.tmp")));
    std::filesystem::remove(dir.file("source.tmp"));
    Job wide = sized(16, 12, 3, 2).onDisk(folder);
    wide.bspIn = 16;
    const auto stack16 = wide.stack();
    ASSERT_GE(wide.go(stack16), 0);
    EXPECT_TRUE(std::filesystem::exists(dir.file("source.tmp")));
    Job mem = wide;
    mem.disk = 0;
    ASSERT_GE(mem.go(stack16), 0);
    EXPECT_EQ(wide.output(), mem.output());
}

TEST(FusionDriver, ScratchWriteFailures) {
    // /dev/full opens but takes no byte. A large write falls short at once:
    // the copy of the photos then falls back to memory, the weights or a
    // weight pyramid end the call with -2. A small write only fills the
    // stream's buffer, and the flush that fails is a failed seek: -3.
    if (!std::filesystem::exists("/dev/full")) GTEST_SKIP() << "no /dev/full";
    oltest::TempDir dir;
    for (int size : {80, 8}) {
        Job mem = sized(size, size * 3 / 4);
        const auto stack = mem.stack();
        ASSERT_GE(mem.go(stack), 0);
        Job r = mem.onDisk(dir.path().string());
        r.nameSource = "/dev/full";
        if (size == 80) {
            ASSERT_GE(r.go(stack), 0);
            EXPECT_EQ(r.output(), mem.output());
            EXPECT_TRUE(r.photosKept(stack));
        } else {
            EXPECT_EQ(r.go(stack), -3);
        }
        r.nameSource.clear();
        r.namePoids = "/dev/full";
        EXPECT_EQ(r.go(stack), size == 80 ? -2 : -3) << size;
        r.namePoids.clear();
        r.namePyramPoids = "/dev/full";
        EXPECT_EQ(r.go(stack), size == 80 ? -2 : -3) << size;
    }
}

TEST(FusionDriver, RefusedAndUnservedDepthCombinations) {
    std::vector<std::uint8_t> floats(3 * 12 * 10 * 3 * 4, 0);
    Job r = sized(12, 10);
    r.bspIn = 32;
    r.bdf = 32;
    for (int out : {8, 16}) {
        r.bspOut = out;
        EXPECT_EQ(oltest::countAllocations([&] { r.go(floats); }), 0);
        EXPECT_EQ(r.status, -2);
    }
    r.bspOut = 32;
    r.bdf = 16;
    EXPECT_EQ(r.go(floats), -2);
    // Float in and out passes the checks but gives no image: the output area
    // of work is never finished.
    r.bdf = 32;
    r.workFill = 0xab;
    EXPECT_GE(r.go(floats), 0);
    // A float fused pyramid from 8-bit photos is accepted too; the 16-bit
    // samples are read as floats, so only the status is defined.
    Job f = sized(12, 10);
    f.bdf = 32;
    const auto stack = f.stack();
    EXPECT_GE(f.go(stack), 0);
    f.bspOut = 32;
    f.workFill = 0xab;
    EXPECT_GE(f.go(stack), 0);
    // A pyramid length below the levels' is refused before any allocation.
    Job shortLen = sized(16, 12);
    shortLen.lenPyram = pyram_len(16, 12) - 1;
    const auto stack16 = shortLen.stack();
    EXPECT_EQ(oltest::countAllocations([&] { shortLen.go(stack16); }), 0);
    EXPECT_EQ(shortLen.status, -1);
}

TEST(FusionDriver, TinyImagesWriteNoOutput) {
    // 3 x 3: nivo 0. Only the low-pass blend runs and fusion3 writes nothing,
    // so work still holds photo 0 on the pipeline scale.
    Job r = sized(3, 3);
    const auto stack = r.stack();
    EXPECT_EQ(r.go(stack), 0);
    for (int i = 0; i < 27; ++i) {
        std::uint16_t v;
        std::memcpy(&v, &r.work[2 * i], 2);
        EXPECT_EQ(v, stack[i] << 7) << i;
    }
}

TEST(FusionDriver, NoPhotosGivesABlackImage) {
    Job r = sized(10, 8, 3, 0);
    r.workFill = 0x77;
    EXPECT_GE(r.go({}), 0);
    for (std::uint8_t v : r.output()) EXPECT_EQ(v, 0);
}

std::vector<float> gFractions;
void record(float f, std::int32_t* cancel) {
    gFractions.push_back(f);
    *cancel = 1;  // asked for and ignored
}
void throwing(float, std::int32_t*) { throw std::runtime_error("host failure"); }

TEST(FusionDriver, ProgressFractionsAndIgnoredCancel) {
    Job plain = sized(14, 10);
    const auto stack = plain.stack();
    ASSERT_GE(plain.go(stack), 0);
    gFractions.clear();
    Job r = plain;
    r.progress = record;
    ASSERT_GE(r.go(stack), 0);
    EXPECT_EQ(r.output(), plain.output());
    ASSERT_EQ(gFractions.size(), 5u);
    EXPECT_EQ(gFractions[0], 0.3f);
    EXPECT_NEAR(gFractions[1], 0.3 + 0.5 / 3, 1e-6);
    EXPECT_NEAR(gFractions[2], 0.3 + 1.0 / 3, 1e-6);
    EXPECT_NEAR(gFractions[3], 0.8, 1e-6);
    EXPECT_EQ(gFractions[4], 0.95f);
    // A float fused pyramid starts at 0.1.
    gFractions.clear();
    r.bdf = 32;
    r.go(stack);
    ASSERT_EQ(gFractions.size(), 5u);
    EXPECT_EQ(gFractions[0], 0.1f);
    EXPECT_NEAR(gFractions[3], 0.8, 1e-6);
    // A callback that throws counts as cancel, which is ignored as well.
    Job t = plain;
    t.progress = throwing;
    ASSERT_GE(t.go(stack), 0);
    EXPECT_EQ(t.output(), plain.output());
    EXPECT_EQ(ol::fusion_progress(nullptr, 0.5f), 1);
    EXPECT_EQ(ol::fusion_progress(record, 0.5f), 0);
    EXPECT_EQ(ol::fusion_progress(throwing, 0.5f), 0);
    EXPECT_EQ(ol::fusion_progress([](float, std::int32_t*) {}, 0.5f), 1);
}

TEST(FusionDriver, OutputStrideSwapAndFourChannels) {
    Job r = sized(12, 8, 4);
    r.outStride = 12 * 4 + 5;
    r.workFill = 0xee;
    const auto stack = r.stack();
    ASSERT_GE(r.go(stack), 0);
    Job s = r;
    s.outSwap = 1;
    ASSERT_GE(s.go(stack), 0);
    for (int y = 0; y < 8; ++y) {
        const std::uint8_t* a = &r.work[y * r.outStride];
        const std::uint8_t* b = &s.work[y * r.outStride];
        for (int x = 0; x < 12; ++x) {
            EXPECT_EQ(a[x * 4 + 0], b[x * 4 + 3]);
            EXPECT_EQ(a[x * 4 + 3], b[x * 4 + 0]);
            EXPECT_EQ(a[x * 4 + 1], b[x * 4 + 1]);
        }
    }
}

TEST(FusionDriver, SixteenBitOutputIsTheEightBitOneRefined) {
    Job a = sized(20, 12);
    a.bspIn = 16;
    const auto stack = a.stack();
    ASSERT_GE(a.go(stack), 0);
    Job b = a;
    b.bspOut = 16;
    ASSERT_GE(b.go(stack), 0);
    const auto o8 = a.output();
    const auto o16 = b.output();
    for (std::size_t i = 0; i < o8.size(); ++i) {
        std::uint16_t v;
        std::memcpy(&v, &o16[2 * i], 2);
        // v >> 7 versus v * 2 of the same fused value.
        EXPECT_EQ(v >> 8, o8[i]) << i;
    }
}

// fusion33 alone on a hand-made full-size level.
std::vector<int> finish(std::vector<std::uint16_t> fused, float sat, float white, float black, float mid,
                        int bspOut = 8) {
    float params[7] = {0, 0, 0, sat, white, black, mid};
    const int w = int(fused.size() / 3);
    std::vector<std::uint8_t> out(fused.size() * (bspOut / 8));
    ol::fusion33(params, w, 1, 3, bspOut, 16, w * 3, 0, nullptr, fused.data(), nullptr, out.data());
    std::vector<int> v;
    for (std::size_t i = 0; i < fused.size(); ++i) {
        if (bspOut == 8) v.push_back(out[i]);
        else {
            std::uint16_t u;
            std::memcpy(&u, &out[2 * i], 2);
            v.push_back(u);
        }
    }
    return v;
}

TEST(FusionFinish, StrideSwapAndUntouchedSamples) {
    // Two pixels of four samples; rows of 10 samples. Samples 0, 1 and 3 are
    // written (0 and 3 traded with outSwap); sample 2 and the padding stay.
    std::vector<std::uint16_t> fused = {10 << 7, 20 << 7, 30 << 7, 40 << 7, 50 << 7, 60 << 7, 70 << 7, 80 << 7};
    float params[7] = {};
    std::vector<std::uint8_t> out(20, 0xee);
    ol::fusion33(params, 2, 1, 4, 8, 16, 10, 0, nullptr, fused.data(), nullptr, out.data());
    EXPECT_EQ(std::vector<int>(out.begin(), out.begin() + 10),
              (std::vector<int>{10, 20, 0xee, 40, 50, 60, 0xee, 80, 0xee, 0xee}));
    ol::fusion33(params, 2, 1, 4, 8, 16, 10, 1, nullptr, fused.data(), nullptr, out.data());
    EXPECT_EQ(std::vector<int>(out.begin(), out.begin() + 8), (std::vector<int>{40, 20, 0xee, 10, 80, 60, 0xee, 50}));
    // A float output writes nothing.
    std::vector<std::uint8_t> none(20, 0xee);
    ol::fusion33(params, 2, 1, 4, 32, 16, 10, 0, nullptr, fused.data(), nullptr, none.data());
    EXPECT_EQ(none, std::vector<std::uint8_t>(20, 0xee));
}

// The finishing settings on hand-made fused values (16-bit, the pipeline's
// scale: 8-bit level << 7), one row each.
TEST(FusionFinish, SettingsAsRows) {
    struct Row {
        std::vector<std::uint16_t> fused;
        float sat, white, black, mid;
        int bspOut;
        std::vector<int> want;
        int tolerance = 0;
    };
    const Row rows[] = {
        // Settings at zero truncate.
        {{128 << 7, (128 << 7) + 127, 65535}, 0, 0, 0, 0, 8, {128, 128, 255}},
        {{1000, 1, 40000}, 0, 0, 0, 0, 16, {2000, 2, 65535}},
        // 10% each: black 25.6, stretch 256 / 204.8 = 1.25.
        {{128 << 7, 200 << 7, 20 << 7}, 0, 10, 10, 0, 8, {128, 218, 0}},
        {{250 << 7, 250 << 7, 250 << 7}, 0, 10, 10, 0, 8, {255, 255, 255}},
        // midtone 10: exponent 2^-0.5; 64/256 -> 0.25^0.7071 * 256 = 96.05.
        {{64 << 7, 64 << 7, 64 << 7}, 0, 0, 0, 10, 8, {96, 96, 96}},
        // |value| below 1 is off.
        {{64 << 7, 32 << 7, 32 << 7}, 0.9f, 0, 0, -0.9f, 8, {64, 32, 32}},
        // Saturation 10 doubles S: (0.5, 0.25, 0.25) -> (0.625, 0.125, 0.125);
        // grey stays grey.
        {{128 << 7, 64 << 7, 64 << 7}, 10, 0, 0, 0, 8, {160, 32, 32}, 1},
        {{100 << 7, 100 << 7, 100 << 7}, 10, 0, 0, 0, 8, {100, 100, 100}},
    };
    for (const Row& row : rows) {
        const std::vector<int> got = finish(row.fused, row.sat, row.white, row.black, row.mid, row.bspOut);
        for (std::size_t i = 0; i < got.size(); ++i)
            EXPECT_NEAR(got[i], row.want[i], row.tolerance) << "row " << &row - rows << " sample " << i;
    }
    // The hue's thirds and sixths are double constants: for (0, 3, 3) the
    // blue channel's shifted hue lands below one sixth, where float
    // constants would put it above.
    Job one = sized(8, 8, 3, 1);
    one.params[3] = 2.0f;
    std::vector<std::uint8_t> cyan(8 * 8 * 3);
    for (std::size_t i = 0; i < cyan.size(); i += 3) cyan[i + 1] = cyan[i + 2] = 3;
    ASSERT_GE(one.go(cyan), 0);
    for (std::size_t i = 0; i < cyan.size(); i += 3)
        ASSERT_EQ((std::vector<int>{one.work[i], one.work[i + 1], one.work[i + 2]}), (std::vector<int>{0, 2, 2})) << i / 3;
}

TEST(FusionFinish, FusionParamsReachTheDriver) {
    Job plain = sized(16, 12);
    const auto stack = plain.stack();
    ASSERT_GE(plain.go(stack), 0);
    for (int k = 0; k < 7; ++k) {
        Job r = plain;
        r.params[k] = k == 1 ? 4.0f : 8.0f;
        ASSERT_GE(r.go(stack), 0);
        EXPECT_NE(r.output(), plain.output()) << "fusionParams[" << k << "]";
    }
}

TEST(FusionDriver, NoMemoryInEveryMode) {
    oltest::TempDir dir;
    for (int disk : {0, 1})
        for (int nbProc : {0, 2}) {
            Job base = sized(18, 12).onDisk(dir.path().string());
            base.disk = disk;
            base.nbProc = nbProc;
            const auto stack = base.stack();
            ASSERT_GE(base.go(stack), 0);
            const long count = oltest::countAllocations([&] { Job r = base; r.go(stack); });
            ASSERT_GT(count, 3);
            int reported = 0;
            for (long n = 1; n <= count; ++n) {
                Job r = base;
                {
                    oltest::FailAllocation fail(n);
                    r.go(stack);
                }
                if (r.status == -4) {
                    ++reported;
                    continue;
                }
                EXPECT_GE(r.status, 0) << n;
                // Only the last worker's result is seen: a failure in an
                // earlier slice leaves its weights at 0 and goes unreported.
                if (nbProc == 0) {
                    EXPECT_EQ(r.output(), base.output()) << "disk " << disk << " allocation " << n;
                }
            }
            EXPECT_GE(reported, 3) << disk << " " << nbProc;
        }
}

// Every combination of the modes, on a small stack, as one matrix: each run
// must finish (the sanitizer builds check for leaks and races); thread counts
// give identical bytes, and memory and disk mode agree wherever the clearing
// covers the pyramid (with 8-bit weights it does not: the test below).
// The second size splits every level of the later stages into uneven bands.
TEST(FusionDriver, EveryModeCombinationRuns) {
    oltest::TempDir dir;
    struct Size { int w, h, threads; };
    for (const Size size : {Size{21, 14, 2}, Size{101, 75, 3}})
    for (int bspIn : {8, 16})
        for (int bspOut : {8, 16})
            for (int bdp : {8, 16, 32})
                for (int wrapX : {0, 1})
                    for (int masked : {0, 1}) {
                        const int w = size.w, h = size.h, threads[] = {0, size.threads, 7};
                        SCOPED_TRACE(::testing::Message() << w << "x" << h << " " << bspIn << " " << bspOut << " " << bdp << " " << wrapX << " " << masked);
                        const auto stack = fustest::makeStack(3, w, h, 3, bspIn, bspIn + bdp);
                        // Float weights of three 8-bit photos would not fit in
                        // `images` (and their clearing would run past it): disk
                        // mode then stays in memory.
                        const bool diskRuns = !(bspIn == 8 && bdp == 32);
                        std::vector<std::vector<std::uint8_t>> outputs;
                        for (int disk : {0, 1})
                            for (int nbProc : threads) {
                                Job r = sized(w, h).onDisk(dir.path().string());
                                r.bspIn = bspIn;
                                r.bspOut = bspOut;
                                r.bdp = bdp;
                                r.wrapX = wrapX;
                                r.disk = disk;
                                r.nbProc = nbProc;
                                const float params[7] = {2, 2, 1.5f, 3, 1, 1, -4};
                                std::copy(params, params + 7, r.params);
                                if (masked) {
                                    // Rows of 21 pixels: the slices of the threads start inside mask bytes.
                                    for (int pix = 40; pix < 90; ++pix) fustest::setMaskBit(r.mask, w, h, 0, pix);
                                    for (int pix = 150; pix < 200; pix += 2) fustest::setMaskBit(r.mask, w, h, 1, pix);
                                    r.fixedExpo = {2, 0, -1};
                                }
                                std::filesystem::remove(dir.file("source.tmp"));
                                ASSERT_GE(r.go(stack), 0);
                                outputs.push_back(r.output());
                                // Memory mode leaves the photos alone; disk mode
                                // copies them to the source file and reuses them.
                                if (!masked) EXPECT_EQ(r.photosKept(stack), !(disk && diskRuns));
                                if (disk && nbProc == 0 && !masked) {
                                    EXPECT_EQ(std::filesystem::exists(dir.file("source.tmp")), diskRuns);
                                    if (!diskRuns) continue;
                                    EXPECT_EQ(oltest::readFile(dir.file("source.tmp")), stack);
                                    EXPECT_EQ(oltest::readFile(dir.file("poids.tmp")).size(), std::size_t(3 * w * h * bdp / 8));
                                    EXPECT_EQ(oltest::readFile(dir.file("pyram.tmp")).size(), std::size_t(pyram_len(w, h) * bdp / 8));
                                }
                            }
                        // outputs: memory then disk, each at the three thread counts. Disk
                        // mode runs the weights on the calling thread.
                        for (int t = 1; t < 3; ++t) {
                            if (!masked) EXPECT_EQ(outputs[t], outputs[0]) << "memory, threads " << threads[t];
                            if (diskRuns || !masked) EXPECT_EQ(outputs[3 + t], outputs[3]) << "disk, threads " << threads[t];
                        }
                        if (bdp != 8) EXPECT_EQ(outputs[3], outputs[0]);
                    }
}

// Tiny and odd geometries reach the clamped taps, single-pixel levels and
// empty slices; every one must finish inside its buffers.
TEST(FusionDriver, TinyAndOddGeometriesRun) {
    oltest::TempDir dir;
    for (int w : {1, 2, 3, 5, 8})
        for (int h : {1, 2, 3, 7})
            for (int ch : {1, 4})
                for (int variant = 0; variant < 4; ++variant) {
                    Job r = sized(w, h, ch).onDisk(dir.path().string());
                    r.bspIn = variant & 1 ? 16 : 8;
                    r.bspOut = variant & 2 ? 16 : 8;
                    r.bdp = variant == 3 ? 32 : 8 << (variant & 1);
                    r.wrapX = variant & 1;
                    r.nbProc = variant + 1;
                    r.disk = variant >= 2;
                    if (variant == 1) {
                        fustest::setMaskBit(r.mask, w, h, 0, 0);
                        r.fixedExpo = {1, -1, -1};
                    }
                    // A side of 1 makes nivo -1, which adjust21 hands back as
                    // its result: the call stops there with -1.
                    const int status = r.go(r.stack(w * 31 + h));
                    if (w == 1 || h == 1)
                        EXPECT_EQ(status, -1) << w << "x" << h << " ch " << ch << " variant " << variant;
                    else
                        EXPECT_GE(status, 0) << w << "x" << h << " ch " << ch << " variant " << variant;
                }
}

// The lines that print in every build, byte for byte.
TEST(FusionDriver, AlwaysPrintedLines) {
    const int w = 8, h = 6;
    const auto stack = fustest::flatStack(w, h, {100, 200});
    Job r = sized(w, h, 3, 2);
    oltest::CaptureFd capture(2);
    ASSERT_GE(r.go(stack), 0);
    const std::string text = capture.finish();
    const auto out = r.output();
    const int px = (3 * w + 4) * 3;
    char last[128];
    std::snprintf(last, sizeof last, "fusion33  4 3              %d  %d  %d\n", out[px], out[px + 1], out[px + 2]);
    const std::string blend =
        "fusion21a  8 x 6  ->  4 x 3    bps: 16     initFine: 0  coarse: 48\n"
        "fusion21a  8 x 6  ->  4 x 3    bps: 16     initFine: 0  coarse: 144\n"
        "fusion22et23  up 4 x 3   to  8 x 6    total coarse: 12  fine: 48  -  initFine: 0  coarse: 144  fromDisk: 0  \n";
    const std::string want =
        "ol_fusion:  2 photos  8 x 6  lenPyram: 60  bspIn: 8  out: 8     bitDepthPoids: 16   bitDepthFusion: 16  nbProc: 0\n"
        "photo0 -  perc noisy: 0   sat: 0      surexNivo: 0\n"
        "photo1 -  perc noisy: 0   sat: 0      surexNivo: 0\n"
        "------------- Pyramide laplace et Blending image 1 ------------------\n" +
        blend + "------------- Pyramide laplace et Blending image 0 ------------------\n" + blend + last +
        "retour fusion3 144 \n";
    EXPECT_EQ(text, want);
}

// The five fixed probe pixels print for each photo, samples read as bytes.
TEST(FusionDriver, ProbePixelLines) {
    const int w = 262, h = 346;
    Job r = sized(w, h, 3, 2);
    oltest::CaptureFd capture(2);
    ASSERT_GE(r.go(fustest::flatStack(w, h, {100, 180})), 0);
    const std::string text = capture.finish();
    const std::regex line(
        "photo([01])  (\\d+) (\\d+) (\\d+)   (\\d+\\.\\d\\d) (\\d+\\.\\d\\d) (\\d+\\.\\d\\d)  fval: (\\d+\\.\\d\\d) -> (\\d+)  poids: "
        "(\\d+\\.\\d\\d)    (\\d+),(\\d+)\n");
    std::vector<std::string> where;
    for (auto it = std::sregex_iterator(text.begin(), text.end(), line); it != std::sregex_iterator(); ++it) {
        const auto& m = *it;
        where.push_back(m[1].str() + "@" + m[11].str() + "," + m[12].str());
        EXPECT_EQ(m[2].str(), m[1].str() == "0" ? "100" : "180");
        EXPECT_EQ(m[5].str(), m[6].str());
    }
    EXPECT_EQ(where, (std::vector<std::string>{"0@250,305", "1@250,305", "0@260,305", "1@260,305", "0@250,342",
                                               "1@250,342", "0@250,343", "1@250,343", "0@250,344", "1@250,344"}));

    // 16-bit photos, every sample 0x1234: byte k of the buffer stands for
    // sample k, so the probe shows the low and the high byte in turn.
    std::vector<std::uint8_t> words(2 * w * h * 3 * 2);
    for (std::size_t i = 0; i < words.size(); i += 2) {
        words[i] = 0x34;
        words[i + 1] = 0x12;
    }
    r.bspIn = 16;
    oltest::CaptureFd capture16(2);
    ASSERT_GE(r.go(words), 0);
    const std::string text16 = capture16.finish();
    // Pixel (250,305) is sample 3 * 80160, an even byte; (260,305) the same.
    EXPECT_NE(text16.find("photo0  52 18 52   "), std::string::npos);
    EXPECT_NE(text16.find("photo1  52 18 52   "), std::string::npos);
    // (250,343): pixel 89866, sample 269598, even again; photo 1 starts at
    // sample 3 * 90652, so its bytes are the same.
    EXPECT_EQ(text16.find("photo0  18 52 18"), std::string::npos);
}

}  // namespace
