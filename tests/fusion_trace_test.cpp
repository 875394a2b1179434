// The diagnostic lines of exposure fusion, with every switch on.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fusion_stack.hpp"
#include "support/testsupport.hpp"

namespace {

using fustest::Job;

// Runs the job with stderr captured; the call must succeed and print
// `lines` in this order (other lines may come between).
void expectTrace(Job& job, const std::vector<std::uint8_t>& stack, const std::vector<std::string>& lines) {
    oltest::CaptureFd capture(2);
    job.go(stack);
    const std::string text = capture.finish();
    EXPECT_GE(job.status, 0);
    std::size_t from = 0;
    for (const auto& l : lines) {
        const std::size_t at = text.find(l, from);
        EXPECT_NE(at, std::string::npos) << "missing or out of order: [" << l << "]";
        if (at != std::string::npos) from = at + l.size();
    }
}

// Three flat 8-bit photos at 100, 150 and 200.
std::vector<std::uint8_t> steppedStack(int w, int h) { return fustest::flatStack(w, h, {100, 150, 200}); }

TEST(FusionTrace, DiskRunPrintsEveryStage) {
    oltest::TempDir dir;
    Job job = fustest::sized(8, 6).onDisk(dir.path().string());
    expectTrace(job, steppedStack(8, 6), {
        "ol_fusion:  3 photos  8 x 6  lenPyram: 60  bspIn: 8  out: 8     bitDepthPoids: 16   bitDepthFusion: 16  nbProc: 0\n",
        "exposureTimes0:  1.0000\n",
        "exposureTimes1:  1.0000\n",
        "retour dump: 432     readFromDisk: 1\n",
        "photo0 -  perc noisy: 0   sat: 0      surexNivo: 0\n",
        "photo2 -  perc noisy: 0   sat: 0      surexNivo: 0\n",
        "0  indexFixedExpo: -1   indexPhotoNotMerged: -1\n",
        "2  indexFixedExpo: -1   indexPhotoNotMerged: -1\n",
        "aj1b_orig 3 photos 8 x 6   bps: 8    removeGhost: 0\n",
        " cntZero: 0\n",
        "retour adjust1: 0\n",
        "retour dump poids: 144\n",
        "------------- Pyramide laplace et Blending image 2 ------------------\n",
        "adjust21  - rangMax: 1\n",
        "gauss_pyram nivo0  nivFine 8 x 6   nivCoarse 4 x 3\n",
        "fusion21a  8 x 6  ->  4 x 3    bps: 16     initFine: 0  coarse: 48\n",
        "2,1 1   Fine: ",
        "adjust21a 8x6    ",
        "retour adjust21: 1\n",
        "retour dump pyramPoids: 60\n",
        "== lapl nivo0  nivFine 8 x 6   nivCoarse 4 x 3  fin: 4 3\n",
        "fusion21a  8 x 6  ->  4 x 3    bps: 16     initFine: 0  coarse: 144\n",
        "fusion22et23  up 4 x 3   to  8 x 6    total coarse: 12  fine: 48  -  initFine: 0  coarse: 144  fromDisk: 1  \n",
        "retour fusion22et23: 0\n",
        "low pass fusion22\n",
        "retour fread low pass fusion22  12\n",
        "low pass fusion 22   4 x 3  -  positPoidsPyram: 48     initCoarse: 144\n",
        "------------- Pyramide laplace et Blending image 0 ------------------\n",
        "Reconstruction nivo0  Fine: 0  8 x 6  Coarse: 144   4 x 3\n",
        "fusion31et32  up 4 x 3   to  8 x 6    total coarse: 12  fine: 48  -  initFine: 0  coarse: 144\n",
        "fusion33  4 3 ",
        "retour fusion3 144 \n",
    });
}

TEST(FusionTrace, OddLevelsAndHighlightCurve) {
    Job job = fustest::sized(9, 7);
    job.params[2] = 2.0f;
    // highlightCut 2 without saturation: powers 2 and 3, multHigh
    // 1 / 0.640625^3 = 3.8. 9x7 -> 5x4: the last coarse column and row lie
    // on the odd borders.
    expectTrace(job, steppedStack(9, 7), {" mult : 1  4   puissance: 2  3\n", "== lapl nivo0  nivFine 9 x 7   nivCoarse 5 x 4  fin: 4 3\n"});
}

TEST(FusionTrace, HighlightCurveOfASaturatedStack) {
    // Every pixel saturated: r = 1 > 0.2 for each photo, so powerLow is c + 1
    // and powerHigh (c - 1) * 0.5 + 2 = 2.5, multHigh 1 / 0.640625^2.5.
    Job job = fustest::sized(8, 6);
    job.params[2] = 2.0f;
    expectTrace(job, fustest::flatStack(8, 6, {255, 255, 255}), {"photo0 -  perc noisy: 0   sat: 100      surexNivo: 48\n",
                       "photo2 -  perc noisy: 0   sat: 100      surexNivo: 144\n",
                       " mult : 1  3   puissance: 3  2\n", " mult : 1  3   puissance: 3  2\n",
                       " mult : 1  3   puissance: 3  2\n"});
}

TEST(FusionTrace, BlownPixelsCountAsZeroWeight) {
    // A float output makes the sharpening linear, so fval 0 weighs nothing:
    // with highlightCut every curve is 0 at 240, and no photo weighs any
    // pixel.
    Job job = fustest::sized(8, 6);
    job.bspOut = 32;
    job.params[2] = 1.5f;
    expectTrace(job, fustest::flatStack(8, 6, {240, 240, 240}), {"photo2 -  perc noisy: 0   sat: 100      surexNivo: 0\n", " cntZero: 48\n"});
}

TEST(FusionTrace, GhostMaskAndSampledPixels) {
    Job job = fustest::sized(8, 6);
    fustest::setMaskBit(job.mask, 8, 6, 0, 0);
    job.fixedExpo = {1, -1, -1};
    expectTrace(job, steppedStack(8, 6), {"1  indexFixedExpo: -1   indexPhotoNotMerged: 0\n",
                       "aj1b_orig 3 photos 8 x 6   bps: 8    removeGhost: 1\n",
                       "photo0  100 100 100   ",
                       "*** ghostMask for photo1  at  0,0\n"});
}

TEST(FusionTrace, FloatStackBound) {
    Job job = fustest::sized(8, 6);
    job.bspIn = job.bspOut = job.bdf = 32;
    // Exposure times are all 1 here: the bound stays at 32768 * 1^(1/2.2).
    expectTrace(job, std::vector<std::uint8_t>(3 * 8 * 6 * 3 * 4, 0), {"ol_fusion:  3 photos  8 x 6  lenPyram: 60  bspIn: 32  out: 32     bitDepthPoids: 16   bitDepthFusion: 32  nbProc: 0\n",
                       "minExpo: 1.0000  scaleToMax7:  32768.00\n"});
}

}  // namespace
