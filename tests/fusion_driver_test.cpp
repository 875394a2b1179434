// ol_fusion end to end: memory and disk mode on every thread count as one
// matrix, scratch files and their failures, depth combinations, progress,
// the finishing settings, failed allocations and the lines printed in every
// build.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "fusion/scratch.hpp"
#include "fusion/stages.hpp"
#include "support/stacks.hpp"
#include "support/testsupport.hpp"

namespace {

using fustest::Job;
using fustest::sized;

TEST(FusionDriver, OnePhotoFlatStackTinyAndEmpty) {
    // One photo, 16-bit weights: every weight is 65535/65536, and the
    // Laplacian pyramid gives the photo back up to rounding.
    Job one = sized(40, 24, 3, 1);
    const auto stack = one.stack();
    ASSERT_GE(one.go(stack), 0);
    for (std::size_t i = 0; i < stack.size(); ++i) ASSERT_LE(std::abs(one.work[i] - stack[i]), 3) << i;
    // A flat grey stack stays grey; the border kernels lose a little per level.
    Job grey = sized(32, 16);
    ASSERT_GE(grey.go(fustest::flatStack(32, 16, {128, 128, 128})), 0);
    for (std::uint8_t v : grey.output()) ASSERT_TRUE(v >= 124 && v <= 128) << int(v);
    // 3 x 3: nivo 0. Only the low-pass blend runs and fusion3 writes nothing,
    // so work still holds photo 0 on the pipeline scale.
    Job tiny = sized(3, 3);
    const auto small = tiny.stack();
    EXPECT_EQ(tiny.go(small), 0);
    for (int i = 0; i < 27; ++i) EXPECT_EQ(tiny.work[2 * i] | tiny.work[2 * i + 1] << 8, small[i] << 7) << i;
    // No photos: straight to the reconstruction of a cleared pyramid.
    Job none = sized(10, 8, 3, 0);
    none.workFill = 0x77;
    EXPECT_GE(none.go({}), 0);
    EXPECT_EQ(none.output(), std::vector<std::uint8_t>(10 * 8 * 3, 0));
}

// Every combination of the modes, on a small stack, as one matrix: each run
// must finish (the sanitizer builds check for leaks and races). Within a
// mode, thread counts and the block size of the disk reads give identical
// bytes, the output and the three scratch files (the printed lines: the
// test at the end). Disk mode runs row by row on the calling
// thread, by blocks of `block` bytes on t1 threads (1 is raised to one row of
// every photo; 4999 leaves a short last block) and by the default blocks on
// t2. Memory and disk mode agree wherever the clearing covers the pyramid
// (with 8-bit weights it does not: the test below). The second size splits
// every level of the later stages into uneven bands.
TEST(FusionDriver, EveryModeCombinationRuns) {
    oltest::TempDir dir;
    struct Size { int w, h, t1, t2; std::size_t block; };
    using Run = std::array<std::vector<std::uint8_t>, 4>;  // the output and the three scratch files
    const auto scratch = [&](const char* name) { return oltest::readFile(dir.file(name)); };
    for (const Size size : {Size{21, 14, 2, 7, 1}, Size{101, 75, 3, 7, 4999}})
    for (int bspIn : {8, 16})
        for (int bspOut : {8, 16})
            for (int bdp : {8, 16, 32})
                for (int wrapX : {0, 1})
                    for (int masked : {0, 1}) {
                        const int w = size.w, h = size.h, threads[] = {0, size.t1, size.t2};
                        SCOPED_TRACE(::testing::Message() << w << "x" << h << " " << bspIn << " " << bspOut << " " << bdp << " " << wrapX << " " << masked);
                        const auto stack = fustest::makeStack(3, w, h, 3, bspIn, bspIn + bdp);
                        // Float weights of three 8-bit photos would not fit in
                        // `images` (and their clearing would run past it): disk
                        // mode then stays in memory.
                        const bool diskRuns = !(bspIn == 8 && bdp == 32);
                        std::vector<Run> runs;  // memory then disk, each at the three thread counts
                        for (int disk : {0, 1})
                            for (int k = 0; k < 3; ++k) {
                                Job r = sized(w, h).onDisk(dir.path().string());
                                r.bspIn = bspIn, r.bspOut = bspOut, r.bdp = bdp, r.wrapX = wrapX, r.disk = disk, r.nbProc = threads[k];
                                const float params[7] = {2, 2, 1.5f, 3, 1, 1, -4};
                                std::copy(params, params + 7, r.params);
                                if (masked) {
                                    // Rows of 21 pixels: the slices of the threads start inside mask bytes.
                                    for (int pix = 40; pix < 90; ++pix) fustest::setMaskBit(r.mask, w, h, 0, pix);
                                    for (int pix = 150; pix < 200; pix += 2) fustest::setMaskBit(r.mask, w, h, 1, pix);
                                    r.fixedExpo = {2, 0, -1};
                                }
                                for (const char* f : {"source.tmp", "poids.tmp", "pyram.tmp"}) std::filesystem::remove(dir.file(f));
                                if (k < 2) ol::testing::setScratchBlockBytes(k == 0 ? 0 : size.block);
                                ASSERT_GE(r.go(stack), 0);
                                ol::testing::resetScratchBlockBytes();
                                runs.push_back({r.output(), scratch("source.tmp"), scratch("poids.tmp"), scratch("pyram.tmp")});
                                // Memory mode leaves the photos alone; disk mode
                                // copies them to the source file and reuses them.
                                EXPECT_TRUE(masked || r.photosKept(stack) == !(disk && diskRuns)) << "disk " << disk;
                                if (disk && k == 0 && !masked) {
                                    EXPECT_EQ(runs.back()[1], diskRuns ? stack : std::vector<std::uint8_t>{});
                                    EXPECT_EQ(runs.back()[2].size(), diskRuns ? std::size_t(3 * w * h * bdp / 8) : 0);
                                    EXPECT_EQ(runs.back()[3].size(), diskRuns ? std::size_t(pyram_len(w, h) * bdp / 8) : 0);
                                }
                            }
                        // Disk mode weighs on the calling thread; where it falls
                        // back to memory, the slices of a mask differ.
                        for (int t = 1; t < 3; ++t) {
                            EXPECT_TRUE(masked || runs[t] == runs[0]) << "memory, threads " << threads[t];
                            EXPECT_TRUE((masked && !diskRuns) || runs[3 + t] == runs[3]) << "disk, threads " << threads[t];
                        }
                        EXPECT_TRUE(bdp == 8 || runs[3][0] == runs[0][0]) << "memory against disk";
                    }
}

TEST(FusionDriver, DiskModeWithByteWeightsClearsOnlyPartOfTheFusedPyramid) {
    // The clearing counts bytes with the weight depth: with 8-bit weights
    // only half of a 16-bit fused pyramid is cleared, and its low-pass level
    // starts from what `images` held there. Where `images` holds zeros under
    // the low-pass level, disk mode agrees again (those bytes are also part
    // of the last photo, so memory mode runs on the same input).
    oltest::TempDir dir;
    Job mem = sized(26, 18);
    mem.bdp = 8;
    Job disk = mem.onDisk(dir.path().string());
    auto stack = mem.stack(5);
    ASSERT_GE(mem.go(stack), 0);
    ASSERT_GE(disk.go(stack), 0);
    EXPECT_NE(disk.output(), mem.output());
    const int lowPixels = 4 * 3;  // 26x18 -> 13x9 -> 7x5 -> 4x3
    const std::size_t lowStart = std::size_t(pyram_len(26, 18) - lowPixels) * 3 * 2;
    std::fill(stack.begin() + lowStart, stack.begin() + lowStart + lowPixels * 3 * 2, 0);
    ASSERT_GE(disk.go(stack), 0);
    ASSERT_GE(mem.go(stack), 0);
    EXPECT_EQ(disk.output(), mem.output());
}

// Disk mode asked for: where it cannot run the call ends in memory mode (the
// photos left alone, no source scratch file); on the other side of each
// boundary it runs. Either way the output is that of memory mode (but for
// 8-bit weights on disk: the test above). /dev/full opens but takes no byte:
// a large write falls short at once, so the copy of the photos falls back to
// memory and the weights or a weight pyramid end the call with -2; a small
// write only fills the stream's buffer, and the flush that fails is a failed
// seek: -3.
TEST(FusionDriver, DiskModeRunsFallsBackOrFails) {
    oltest::TempDir dir;
    const std::string folder = dir.path().string(), bad = dir.file("missing/folder.tmp");
    auto job = [&](int w, int ch, int n, int bdp, int bspIn) {
        Job j = sized(w, 12, ch, n).onDisk(folder);
        j.bdp = bdp, j.bspIn = bspIn;
        return j;
    };
    struct Case { const char* what; Job job; bool runs; int status; };
    std::vector<Case> cases = {
        {"one 8-bit channel: 16-bit weight planes need twice its bytes", job(20, 1, 3, 16, 8), false, 0},
        {"one 8-bit channel, 8-bit weights", job(20, 1, 3, 8, 8), true, 0},
        {"two 8-bit photos", job(16, 3, 2, 16, 8), false, 0},
        {"two 16-bit photos", job(16, 3, 2, 16, 16), true, 0},
        {"missing names", sized(20, 14), false, 0}};
    cases.back().job.disk = 1;
    cases.back().job.nameSource = dir.file("s.tmp");
    for (std::string Job::*name : {&Job::nameSource, &Job::namePoids, &Job::namePyramPoids}) {
        // A scratch file that cannot be opened: the call keeps its two threads,
        // which show through a ghost mask read by byte-aligned slices (the
        // second starts at pixel 60, and reads the bit set there for pixel 64).
        Job r = sized(12, 10).onDisk(folder);
        r.nbProc = 2;
        r.fixedExpo = {0, -1, -1};
        fustest::setMaskBit(r.mask, 12, 10, 0, 60);
        r.*name = bad;
        cases.push_back({"unopened scratch file", r, false, 0});
        for (int size : {80, 8}) {
            if (!std::filesystem::exists("/dev/full")) break;
            Job full = sized(size, size * 3 / 4).onDisk(folder);
            full.*name = "/dev/full";
            const bool copy = name == &Job::nameSource && size == 80;
            cases.push_back({"/dev/full", full, false, copy ? 0 : size == 80 ? -2 : -3});
        }
    }
    for (auto& [what, job, runs, status] : cases) {
        Job mem = job;
        mem.disk = 0;
        const auto stack = mem.stack();
        ASSERT_GE(mem.go(stack), 0) << what;
        std::filesystem::remove(dir.file("source.tmp"));
        if (status < 0) {
            EXPECT_EQ(job.go(stack), status) << what << " " << job.w;
            continue;
        }
        ASSERT_GE(job.go(stack), 0) << what;
        EXPECT_TRUE(job.output() == mem.output() || (runs && job.bdp == 8)) << what;
        EXPECT_EQ(job.photosKept(stack), !runs) << what;
        const bool sourceFile = std::filesystem::exists(dir.file("source.tmp")) || std::filesystem::exists(dir.file("s.tmp"));
        EXPECT_TRUE(!job.mask.empty() || sourceFile == runs) << what;
    }
}

TEST(FusionDriver, RefusedAndUnservedDepthCombinations) {
    // bspIn, bspOut, bitDepthFusion, shortened pyramid length: the status and
    // whether the call refuses before any allocation. Float in and out passes
    // the checks but gives no image; a float fused pyramid from 8-bit photos
    // is accepted too (its 16-bit samples are read as floats, so only the
    // status is defined).
    const struct Row {
        int in, out, bdf, shortLen, status;
        bool refusedEarly;
    } rows[] = {{32, 8, 32, 0, -2, true}, {32, 16, 32, 0, -2, true}, {32, 32, 16, 0, -2, true}, {32, 32, 32, 0, 0, false},
                {8, 8, 32, 0, 0, false},  {8, 32, 32, 0, 0, false},  {8, 8, 16, 1, -1, true}};
    for (const Row& r : rows) {
        Job j = sized(16, 12);
        j.bspIn = r.in, j.bspOut = r.out, j.bdf = r.bdf, j.workFill = 0xab;
        j.lenPyram = pyram_len(16, 12) - r.shortLen;
        const auto stack = r.in == 32 ? std::vector<std::uint8_t>(3 * 16 * 12 * 3 * 4, 0) : j.stack();
        const long made = oltest::countAllocations([&] { j.go(stack); });
        EXPECT_EQ(made == 0, r.refusedEarly) << r.in << " " << r.out << " " << r.bdf;
        EXPECT_TRUE(r.status < 0 ? j.status == r.status : j.status >= 0) << r.in << " " << r.out << " " << r.bdf;
    }
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
    // Start at 0.3 (0.1 for a float fused pyramid), one point a photo up to
    // 0.8 (in float, over the span 1 - (start + 0.2)), then 0.95. A callback
    // that sets the cancel word or throws (which counts as cancel) changes
    // nothing.
    for (int bdf : {16, 32}) {
        gFractions.clear();
        Job r = plain;
        r.bdf = bdf;
        r.progress = record;
        ASSERT_GE(r.go(stack), 0);
        EXPECT_TRUE(bdf != 16 || r.output() == plain.output());
        const float s = bdf == 16 ? 0.3f : 0.1f, span = 1.0f - (s + 0.2f);
        EXPECT_EQ(gFractions, (std::vector<float>{s, s + span * 1 / 3, s + span * 2 / 3, s + span * 3 / 3, 0.95f})) << bdf;
    }
    Job t = plain;
    t.progress = throwing;
    ASSERT_GE(t.go(stack), 0);
    EXPECT_EQ(t.output(), plain.output());
    EXPECT_EQ(ol::fusion_progress(nullptr, 0.5f), 1);
    EXPECT_EQ(ol::fusion_progress(record, 0.5f), 0);
    EXPECT_EQ(ol::fusion_progress(throwing, 0.5f), 0);
    EXPECT_EQ(ol::fusion_progress([](float, std::int32_t*) {}, 0.5f), 1);
}

TEST(FusionDriver, ArgumentsReachTheStages) {
    // Every setting of fusionParams changes the output, and so do the output
    // swap and wrapX; a 16-bit output is the 8-bit one refined (v * 2
    // against v >> 7 of the same fused value).
    Job plain = sized(16, 12);
    plain.bspIn = 16;
    const auto stack = plain.stack();
    ASSERT_GE(plain.go(stack), 0);
    for (int k = 0; k < 9; ++k) {
        Job r = plain;
        if (k < 7) r.params[k] = k == 1 ? 4.0f : 8.0f;
        (k == 7 ? r.outSwap : r.wrapX) = k >= 7;
        ASSERT_GE(r.go(stack), 0);
        EXPECT_NE(r.output(), plain.output()) << "argument " << k;
    }
    Job wide = plain;
    wide.bspOut = 16;
    ASSERT_GE(wide.go(stack), 0);
    for (std::size_t i = 0; i < plain.output().size(); ++i) ASSERT_EQ(wide.work[2 * i + 1], plain.work[i]) << i;
}

// fusion33 alone on a hand-made full-size level (16-bit, the pipeline's
// scale: 8-bit level << 7), as rows of settings.
TEST(FusionFinish, SettingsAsRows) {
    struct Row {
        std::vector<std::uint16_t> fused;
        float sat, white, black, mid;
        int bspOut;
        std::vector<int> want;  // the output row; 0xee: left alone
        int width = 1, ch = 3, stride = 3, swap = 0;
    };
    // Two pixels of four samples; rows of 10 samples.
    const std::vector<std::uint16_t> two = {10 << 7, 20 << 7, 30 << 7, 40 << 7, 50 << 7, 60 << 7, 70 << 7, 80 << 7};
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
        // limited to 1: a blue hue (0.648) at L 0.43 gives (0, 0.095, 0.86);
        // grey stays grey.
        {{128 << 7, 64 << 7, 64 << 7}, 10, 0, 0, 0, 8, {160, 32, 32}},
        {{20 << 7, 40 << 7, 200 << 7}, 10, 0, 0, 0, 8, {0, 24, 220}},
        {{100 << 7, 100 << 7, 100 << 7}, 10, 0, 0, 0, 8, {100, 100, 100}},
        // The hue's thirds and sixths are double constants: for (0, 2.99,
        // 2.99) the blue channel's shifted hue lands below one sixth, where
        // float constants would put it above.
        {{0, 383, 383}, 2, 0, 0, 0, 8, {0, 2, 2}},
        // Samples 0, 1 and 3 of four are written (0 and 3 traded with
        // outSwap); sample 2 and the padding stay. A float output writes
        // nothing.
        {two, 0, 0, 0, 0, 8, {10, 20, 0xee, 40, 50, 60, 0xee, 80, 0xee, 0xee}, 2, 4, 10},
        {two, 0, 0, 0, 0, 8, {40, 20, 0xee, 10, 80, 60, 0xee, 50, 0xee, 0xee}, 2, 4, 10, 1},
        {two, 0, 0, 0, 0, 32, std::vector<int>(10, 0xee), 2, 4, 10},
    };
    for (const Row& row : rows) {
        const float params[7] = {0, 0, 0, row.sat, row.white, row.black, row.mid};
        const int bytes = row.bspOut == 16 ? 2 : 1;
        std::vector<std::uint8_t> out(row.stride * 4, 0xee);
        ol::fusion33(params, row.width, 1, row.ch, row.bspOut, 16, row.stride, row.swap, nullptr, row.fused.data(), nullptr, out.data());
        std::vector<int> got;
        for (int i = 0; i < row.stride; ++i) got.push_back(bytes == 1 ? out[i] : out[2 * i] | out[2 * i + 1] << 8);
        EXPECT_EQ(got, row.want) << "row " << &row - rows;
    }
}

TEST(FusionDriver, NoMemoryInEveryMode) {
    // Every allocation fails in turn: -4, or a call that works around it
    // with the same output on one thread. Only the last worker's result is
    // seen: a failure in an earlier slice leaves its weights at 0 and goes
    // unreported.
    oltest::TempDir dir;
    for (int disk : {0, 1})
        for (int nbProc : {0, 2}) {
            Job base = sized(18, 12).onDisk(dir.path().string());
            base.disk = disk;
            base.nbProc = nbProc;
            const auto stack = base.stack();
            ASSERT_GE(base.go(stack), 0);
            const long count = oltest::countAllocations([&] { Job r = base; r.go(stack); });
            int reported = 0;
            for (long n = 1; n <= count; ++n) {
                Job r = base;
                {
                    oltest::FailAllocation fail(n);
                    r.go(stack);
                }
                reported += r.status == -4;
                EXPECT_TRUE(r.status == -4 || r.status >= 0) << n;
                EXPECT_TRUE(r.status == -4 || nbProc != 0 || r.output() == base.output()) << "disk " << disk << " allocation " << n;
            }
            EXPECT_GE(reported, 3) << disk << " " << nbProc;
        }
}

// Tiny and odd geometries reach the clamped taps, single-pixel levels and
// empty slices; every one must finish inside its buffers. A side of 1 makes
// nivo -1, which adjust21 hands back as its result: the call stops with -1.
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
                    const int status = r.go(r.stack(w * 31 + h));
                    EXPECT_TRUE(w == 1 || h == 1 ? status == -1 : status >= 0) << w << "x" << h << " ch " << ch << " variant " << variant;
                }
}

// Every line a plain build prints, byte for byte (tests/fixtures/fusion/), on
// flat photos of 262 x 346 so that the five fixed probe pixels print for each
// photo. The probe reads samples as bytes: of 16-bit photos, every sample
// 0x1234, each line shows a low byte, a high byte, a low byte (the probe
// pixels stand at even pixel numbers). A mask forcing photo 1 at 250,343 ends
// that pixel's lines before it. Disk mode prints "fromDisk: 1"; by blocks of
// rows weighed on the host's threads it prints what it prints row by row,
// but for the thread count of the first line (1 byte is raised to one row of
// every photo; 4999 leaves a short last block).
TEST(FusionDriver, PrintedLines) {
    oltest::TempDir dir;
    const int w = 262, h = 346;
    std::vector<std::uint8_t> words(3 * w * h * 3 * 2);
    for (std::size_t i = 0; i < words.size(); i += 2) words[i] = 0x34, words[i + 1] = 0x12;
    struct Mode { int disk; std::size_t block; int threads; };
    for (int bspIn : {8, 16}) {
        std::string rowByRow;
        for (const Mode m : {Mode{0, 0, 0}, Mode{1, 0, 0}, Mode{1, 1, 3}, Mode{1, 4999, 2}}) {
            Job r = sized(w, h).onDisk(dir.path().string());
            r.bspIn = bspIn, r.disk = m.disk, r.nbProc = m.threads;
            fustest::setMaskBit(r.mask, w, h, 0, 343 * w + 250);
            r.fixedExpo = {1, -1, -1};
            ol::testing::setScratchBlockBytes(m.block);
            oltest::CaptureFd capture(2);
            ASSERT_GE(r.go(bspIn == 8 ? fustest::flatStack(w, h, {100, 140, 180}) : words), 0);
            const std::string text = capture.finish();
            ol::testing::resetScratchBlockBytes();
            if (m.threads == 0) {
                const std::string name = "fusion/printed" + std::to_string(bspIn) + (m.disk ? "_disk.txt" : ".txt");
                EXPECT_TRUE(oltest::matchesFixture(name, std::vector<std::uint8_t>(text.begin(), text.end())));
                rowByRow = text;
            } else {
                EXPECT_EQ(text.substr(text.find('\n')), rowByRow.substr(rowByRow.find('\n'))) << bspIn << " block " << m.block;
            }
        }
    }
}

}  // namespace
