// Exposure estimation shared by the merges: ranking of frames by exposure and
// the inference of exposures from a fixed step or from mean levels.
#pragma once

#include <cstddef>

namespace ol {

// Slope factor of guess_ev at a mean level on the 16-bit scale (0..65535),
// interpolated between the nine knots exactly as the expanded table holds it.
// Levels outside the table (above 65280 or negative) give 0.
float guessEvFactor(long level) noexcept;

// Linear interpolation between knots (ascending levels on the 16-bit scale,
// the last at most 65535), as the exposure tables are expanded: for i in
// [l(j), l(j+1)) the value is i*a + b with a = (v(j+1)-v(j)) / (l(j+1)-l(j))
// and b = v(j) - l(j)*a, in float; the last knot holds its own value and
// levels outside the knots give 0. knotValue gives one entry, fillKnotTable
// all 65536.
float knotValue(const int* levels, const float* values, int knots, long level) noexcept;
void fillKnotTable(const int* levels, const float* values, int knots, float* table) noexcept;

// Scratch needed by the cores below, in ints/floats per frame.
inline constexpr std::size_t kGuessEvScratchPerFrame = 3;        // rang, work copy, E
inline constexpr std::size_t kClassementScratchPerFrame = 3;     // work copy, list, repair

// The cores of guess_ev and fClassementCroissant. `scratch` holds at least
// n * k*ScratchPerFrame 32-bit words. They never allocate.
int guessEvCore(int mode, int n, float evStep, int* moyBuf, float* deltaT, void* scratch) noexcept;
int classementCroissantCore(int n, const float* values, int* ordre, void* scratch) noexcept;

// Replaces the repeats of a list of frame numbers by the numbers it lacks.
// A repeat is an entry equal to the one before it in the list as built; the
// lacking numbers are used in ascending order. `seen` holds n ints.
void repairDuplicateRanks(int n, int* list, int* seen) noexcept;

}  // namespace ol
