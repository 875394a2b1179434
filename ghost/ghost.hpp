// Ghost detection: the pieces of ol_ghost_detect, one file per topic.
//
// The photos are reduced to a small coarsest pyramid level, placed from dark
// to bright, and each place is predicted from the one before it by the ratio
// of their exposures taken into gamma space. Coarse pixels where the
// prediction fails by more than a threshold are ghosts; the coarse mask is
// expanded back to full size (which dilates it) and packed into one bit plane.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ol {

// Reductions of the ghost pyramid, set by the longer side: the coarsest level
// stays some 250 to 500 pixels across.
int ghostLevels(int width, int height) noexcept;

// The places of the photos, dark to bright, and the limits of each place.
// All arrays hold nbPhotos entries (evMult nbPhotos - 1) and belong to the
// caller.
struct GhostPlaces {
    int* rising;           // photo at place j
    int* saturationLevel;  // lum above this at place j: the brighter photo is clipped
    int* noiseLevel;       // lum below this at place j: the photo is dark
    float* evMult;         // gamma-space brightness ratio of places j and j + 1
};

// Fills `places` from the order of the photos by falling median level
// (photoOrder) and their exposures. Prints the limits of each place.
void ghostPlaces(int nbPhotos, const int* photoOrder, const float* deltaT,
                 GhostPlaces& places) noexcept;

// Marks the ghosts of the coarsest level: `stack` holds nbPhotos slots of
// wCoarse * hCoarse * channels bytes, slot p for photo p; `expected` holds
// (nbPhotos - 1) * 256 ints, filled here. Each byte of coarseMask becomes
// 255 for a ghost and 0 otherwise. Returns the row counter after the last
// coarse row (hCoarse).
int ghostCompare(int nbPhotos, int wCoarse, int hCoarse, int channels, int seuil,
                 const GhostPlaces& places, const std::uint8_t* stack, std::int32_t* expected,
                 std::uint8_t* coarseMask) noexcept;

// Writes the fine level (wFine x hFine) at sample offset initFine of `fine`
// as the bilinear expansion of the coarse level at initCoarse of `coarse`,
// with the borders of the Laplacian blend. bps 8, 16 (unsigned) or 32
// (float); other depths write nothing.
void expand_level(int wFine, int hFine, int wCoarse, int hCoarse, int channels, int bps,
                  int wrapX, int initFine, int initCoarse, const void* coarse,
                  void* fine) noexcept;

// Sampled pixels of the diagnostic lines, at either level.
inline bool ghostSampled(int x, int y) noexcept { return x % 100 == 0 && y % 100 == 0; }

}  // namespace ol
