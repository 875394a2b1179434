// The stages of exposure fusion: weight maps, Laplacian blending and
// reconstruction. Sample pointers are untyped; their element type follows
// the depth arguments (8 and 16 bits unsigned, 32 bits float).
#pragma once

#include <cstddef>
#include <cstdio>

#include "Ombrelumen40Lib1.h"

namespace ol {

// Calls the host's progress function with a fraction and a cleared cancel
// word. 1 if the word is still 0 (or there is no function), 0 if the callee
// set it or let an exception out.
int fusion_progress(OlProgressFn progress, float fraction) noexcept;

// What disk mode lends its weight stage, which nbProc leaves to the calling
// thread: the host's threads, a buffer for blocks of rows, and the weight
// file. With a block buffer that holds a row of every photo, the rows are
// read by blocks and weighed in bands on `threads` threads, with the results
// of one thread. With `fpPoids` too, the weights of each block go to their
// place in that file while the next block is weighed; `poidsWritten` then
// tells that every plane went there whole, and the driver's single write of
// the planes is left out (the file's bytes are those it would have written).
struct DiskRows {
    int threads = 1;
    unsigned char* block = nullptr;
    std::size_t blockBytes = 0;
    std::FILE* fpPoids = nullptr;
    bool poidsWritten = false;
    // The statistics of photo_stats when they were counted already (five
    // runs of nbPhotos values in the order of its arguments), and its result.
    const int* stats = nullptr;
    int statsResult = 0;
};

// One weight plane per photo into `poids`; 0 or a negative status. The
// statistics count on diskRows->threads threads too.
int adjust1(int nbProc, const float* fusionParams, int nbPhotos, int width, int height,
            int channels, int bspIn, int bitDepthPoids, int outIsFloat, float unusedScale,
            const float* exposureTimes, int disk, std::FILE* fpSource, void* rowBuffer,
            const void* images, const int* indexFixedExpo, const unsigned char* ghostMask,
            void* work, void* poids, DiskRows* diskRows = nullptr) noexcept;

// Weights of `rows` rows starting at the rows `images`, `ghostMask` and
// `poids` point at; `height` is the whole image's (photo and mask plane
// strides). 0, -3 on a failed scratch read, -4 without memory. `diskRows`:
// see above (disk mode over the whole image only).
int aj1b_orig(int nbPhotos, int width, int rows, int height, int channels, int bspIn,
              int bitDepthPoids, const float* fvalCurve, const float* sharpen,
              const float* photoFactor, int disk, std::FILE* fpSource, void* rowBuffer,
              const void* images, const int* indexFixedExpo, const unsigned char* ghostMask,
              void* poids, DiskRows* diskRows = nullptr) noexcept;

// `threads` in the stages below: the rows of each level are split into bands
// on up to that many threads; the result does not depend on it. `block`, in
// disk mode: room for reading the finest level's weights several rows at a
// time instead of row by row (same results, same failures).

// Adds one photo (its level 0 in `work`) into the fused pyramid.
int fusion22(int nivo, int width, int height, int channels, int bspOut, int bitDepthFusion,
             int bitDepthPoids, int wrapX, const void* pyrPoids, std::FILE* fpPyramPoids,
             void* rowBuffer, void* work, void* fused, int threads = 1, void* block = nullptr,
             std::size_t blockBytes = 0) noexcept;

int fusion22et23(int wFine, int hFine, int wCoarse, int hCoarse, int channels, int bitDepthFusion,
                 int bitDepthPoids, int wrapX, int diskRows, std::FILE* fpPyramPoids,
                 void* rowBuffer, int offPoids, int initFine, int initCoarse, void* scratch,
                 const void* pyrPoids, const void* work, void* fused, int threads = 1,
                 void* block = nullptr, std::size_t blockBytes = 0) noexcept;

// Collapses the fused pyramid and writes the finished image into `work`.
int fusion3(const float* fusionParams, int nivo, int width, int height, int channels, int bspOut,
            int bitDepthFusion, int outStride, int outSwap, int wrapX, void* fused,
            void* outFloat, void* work, int threads = 1) noexcept;

void fusion31et32(int wFine, int hFine, int wCoarse, int hCoarse, int channels,
                  int bitDepthFusion, int wrapX, int initFine, int initCoarse, void* scratch,
                  void* fused, int threads = 1) noexcept;

void fusion33(const float* fusionParams, int width, int height, int channels, int bspOut,
              int bitDepthFusion, int outStride, int outSwap, void* scratch, const void* fused,
              void* outFloat, void* work, int threads = 1) noexcept;

int rgb_to_hsl(const float* rgb, float* hsl) noexcept;
int hsl_to_rgb(const float* hsl, float* rgb) noexcept;
float hue_to_channel(float p, float q, float t) noexcept;

}  // namespace ol
