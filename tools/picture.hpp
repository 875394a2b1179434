// Any input the host reads, for the commands that look at one picture
// (preview, histogram): a photo (JPEG, PNG, TIFF, PSD; 3 samples, 8 or 16
// bits, red first) or a Radiance picture (rgbe planes).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "image.hpp"
#include "library.hpp"

namespace olhdr {

struct Picture {
    FileKind kind = FileKind::Unknown;
    bool radiance() const { return kind == FileKind::Radiance; }
    int width = 0;
    int height = 0;
    Image photo;                     // when not radiance
    std::vector<std::uint8_t> rgbe;  // when radiance: rgbe planes
    Metadata meta;                   // ICC profile of a photo
};

// Throws Failure(kExitInput) naming the file.
Picture loadPicture(const std::string& path, bool verbose);

// "1200x800 8-bit JPEG", "1200x800 Radiance picture".
std::string pictureText(const Picture& p);

}  // namespace olhdr
