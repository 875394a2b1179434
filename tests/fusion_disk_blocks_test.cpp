// Disk mode reads its scratch files by blocks of rows and hands the rows to
// the host's threads, and writes the weight file block by block beside them.
// Whatever the block size and thread count, a call must give what the
// calling thread gives reading row by row: the output, the three scratch
// files and every printed line (the probe pixels need 262 x 346).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "fusion/scratch.hpp"
#include "support/stacks.hpp"
#include "support/testsupport.hpp"

namespace {

struct Outcome {
    int status;
    std::vector<std::uint8_t> output, source, poids, pyram;
    std::string printed;
};

Outcome runWith(fustest::Job job, const std::vector<std::uint8_t>& stack, const std::string& dir, std::size_t blockBytes) {
    ol::testing::setScratchBlockBytes(blockBytes);
    Outcome r;
    {
        oltest::CaptureFd capture(2);
        r.status = job.go(stack);
        r.printed = capture.finish();
    }
    ol::testing::resetScratchBlockBytes();
    r.output = job.output();
    r.source = oltest::readFile(dir + "/source.tmp");
    r.poids = oltest::readFile(dir + "/poids.tmp");
    r.pyram = oltest::readFile(dir + "/pyram.tmp");
    return r;
}

TEST(FusionDiskBlocks, AnyBlockSizeAndThreadCountGivesTheRowByRowCall) {
    oltest::TempDir dir;
    struct Case { int bspIn, bdp; bool masked; };
    // Block sizes: one row of every photo (1 is raised to it), an odd size
    // that leaves a short last block, and the default.
    struct Split { std::size_t bytes; int threads; };
    for (const Case c : {Case{8, 16, false}, Case{16, 8, true}, Case{16, 32, false}}) {
        fustest::Job job = fustest::sized(262, 346).onDisk(dir.path().string());
        job.bspIn = c.bspIn;
        job.bdp = c.bdp;
        const float params[7] = {2, 2, 1.5f, 0, 0, 0, 0};
        std::copy(params, params + 7, job.params);
        if (c.masked) {
            // Planes of photos 2 and 0; bits on and off byte boundaries,
            // one of them a probe pixel.
            for (std::size_t pix = 301 * 262 + 3; pix < 302 * 262 + 40; pix += 3) fustest::setMaskBit(job.mask, 262, 346, 0, pix);
            fustest::setMaskBit(job.mask, 262, 346, 1, 342 * 262 + 250);
            job.fixedExpo = {2, 0, -1};
        }
        const auto stack = job.stack(7);
        const Outcome ref = runWith(job, stack, dir.path().string(), 0);
        ASSERT_GE(ref.status, 0);
        for (const Split s : {Split{1, 3}, Split{4999, 2}, Split{std::size_t(4) << 20, 2}}) {
            SCOPED_TRACE(::testing::Message() << c.bspIn << " " << c.bdp << " block " << s.bytes << " threads " << s.threads);
            fustest::Job j = job;
            j.nbProc = s.threads;
            const Outcome r = runWith(j, stack, dir.path().string(), s.bytes);
            EXPECT_EQ(r.status, ref.status);
            EXPECT_EQ(r.output, ref.output);
            EXPECT_EQ(r.source, ref.source);
            EXPECT_EQ(r.poids, ref.poids);
            EXPECT_EQ(r.pyram, ref.pyram);
            // The first line names the host's thread count.
            EXPECT_EQ(r.printed.substr(r.printed.find('\n')), ref.printed.substr(ref.printed.find('\n')));
        }
    }
}

}  // namespace
