// Luminance histograms of 256 levels: the level at which a pixel count is
// passed, the brightness key of a frame, and the order of frames by key.
// Shared by the fusion statistics and the alignment.
#pragma once

#include <cstdint>

namespace ol {

// First level at which the running sum of the histogram exceeds `limit`, or
// 256 when none does.
int levelPassing(const std::int64_t* histo, std::int64_t limit) noexcept;

// Brightness key of a frame of `pixels` pixels: the median level times 256,
// or, when the median level is below 5, the level of the 95th percentile
// (unscaled), so that a nearly black frame sorts below every other frame and
// among such frames by its brighter pixels. `median` receives the median level.
int brightnessKey(const std::int64_t* histo, std::int64_t pixels, int* median = nullptr) noexcept;

// Frame numbers by falling key, by repeated selection of the strictly
// greatest remaining key (so equal keys keep frame order); a selected key is
// marked with -999999. A number listed twice (only possible with keys at the
// marker or below) gives way to the numbers not listed, in rising order.
// `work` holds n ints.
void orderByFallingKey(int n, const int* key, int* work, int* order) noexcept;

}  // namespace ol
