// Images as the host holds them: interleaved samples, top row first, 8 or
// 16 bits (16-bit samples as native little-endian words, the library's
// layout), and the decoders and encoders that use the system's libraries.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace olhdr {

enum class FileKind { Unknown, Jpeg, Png, Tiff, Psd, Radiance, Missing, Directory };

// Looks at the first bytes of a file (never its name).
FileKind sniff(const std::string& path);
const char* kindName(FileKind kind);

struct Image {
    int width = 0;
    int height = 0;
    int spp = 0;   // samples a pixel
    int bps = 0;   // 8 or 16
    std::vector<std::uint8_t> pixels;
    std::vector<std::uint8_t> icc;  // embedded ICC profile, empty when none
    std::vector<std::uint8_t> exifTiff;  // PNG eXIf chunk (a TIFF structure), empty when none

    std::size_t rowBytes() const { return static_cast<std::size_t>(width) * spp * (bps / 8); }
    std::size_t byteCount() const { return rowBytes() * static_cast<std::size_t>(height); }
    std::uint16_t sample16(std::size_t i) const {
        return static_cast<std::uint16_t>(pixels[2 * i] | (pixels[2 * i + 1] << 8));
    }
};

// Host-side decoders. Each returns an RGB image (spp 3): grey is spread to
// three samples and alpha is dropped. They throw Failure(kExitInput) with a
// one-line reason naming the file.
Image readJpeg(const std::string& path);
Image readPng(const std::string& path);
Image readTiff(const std::string& path);

// Reduces any image to 3 samples a pixel, keeping the depth.
Image toRgb(const Image& src);
// Keeps the high byte of 16-bit samples.
Image to8Bit(const Image& src);

// Encoders. An image of spp 3 (or 1) at 8 bits (JPEG) or 8/16 bits (PNG).
// `exifTiff` is a TIFF-structured Exif block (as for a JPEG APP1 segment,
// without the "Exif\0\0" prefix); it goes into APP1 or an eXIf chunk. They
// throw Failure(kExitOutput).
void writeJpeg(const std::string& path, const Image& image, int quality,
               const std::vector<std::uint8_t>& exifTiff, const std::vector<std::uint8_t>& icc);
void writePng(const std::string& path, const Image& image,
              const std::vector<std::uint8_t>& exifTiff, const std::vector<std::uint8_t>& icc);

}  // namespace olhdr
