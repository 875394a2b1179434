// One picture in, one picture out: the pieces shared by the single-image
// commands (response, compress, panorama) and the fuse post-processing.
#pragma once

#include <string>

#include "cli.hpp"
#include "library.hpp"

namespace olhdr {

// Writes an 8 or 16-bit RGB picture as TIFF, PNG or JPEG (by the name's
// extension), with `meta`'s ICC profile, Exif (at `orientation`), GPS and
// IPTC where the format holds them; under a temporary name, renamed when
// complete. Returns the format's name ("TIFF", "PNG", "JPEG").
std::string writePicture(const std::string& target, const Image& image, const Metadata& meta,
                         int orientation, const Common& common);

// Refuses (kExitUsage) an output name that is not .tif/.tiff, .png or
// .jpg/.jpeg, or a JPEG for 16-bit samples.
void checkPictureName(const std::string& target, int bits);

// Finishing touches of a fused picture, in this order: a 16-bit picture
// brought to 8 bits by comp16 (`compress` >= 0), a contrast curve
// (lumcontr, `contrast` != 0), Laplacian sharpening (sharpen or sharp16,
// `sharpen` != 0). Throws Failure(kExitProcessing) when the library fails.
void finishPicture(Image& image, int compress, float contrast, float sharpen, bool verbose);

}  // namespace olhdr
