// Per-photo histogram statistics and the order of the photos by brightness,
// used by the fusion weights and by ghost detection.
#pragma once

namespace ol {

// For each of nbPhotos photos of width x height x channels samples at bps 8
// or 16 (photo p at sample p*width*height*channels of `images`):
//   percNoisy[p]   percent of pixels whose luminance level is 0..15
//   percSat[p]     percent of pixels at levels 233..255
//   surexNivo[p]   running count of saturated pixels over photos 0..p
//   medianLevel[p] median luminance level << 8, or the 95th percentile level
//                  (unshifted) when the median is below 5
//   photoOrder     the photos by falling medianLevel, ties in index order
// The histograms are counted by slices of rows on up to `threads` threads.
// Returns nbPhotos, or -4 when memory runs out.
int photo_stats(int nbPhotos, int width, int height, int channels, int bps, const void* images,
                int* percNoisy, int* percSat, int* surexNivo, int* medianLevel,
                int* photoOrder, int threads = 1) noexcept;

}  // namespace ol
