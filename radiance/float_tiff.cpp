// Float TIFF in and out of rgbe planes: little-endian, 32-bit float RGB,
// one strip.
#include <cstdio>
#include <cstring>

#include "Ombrelumen40Lib1.h"
#include "frame/bytes.hpp"
#include "frame/file.hpp"
#include "frame/rgbe.hpp"
#include "frame/tiff_tags.hpp"

namespace ol::radiance {
namespace {

// Directories visited at most. TIFF lets directories chain anywhere in the
// file, so a damaged chain can loop; a repeated offset also ends the walk.
inline constexpr int kMaxDirectories = 64;

// Walks the directory chain for the StripOffsets value. A read that comes up
// short ends the walk with what was found so far.
void findStripOffset(std::FILE* f, std::uint32_t dirOffset, long long* dataOffset) noexcept {
    std::uint32_t seen[kMaxDirectories];
    int visited = 0;
    while (dirOffset != 0 && visited < kMaxDirectories) {
        for (int i = 0; i < visited; ++i)
            if (seen[i] == dirOffset) return;
        seen[visited++] = dirOffset;
        if (!platform::seekTo(f, dirOffset)) return;
        std::uint16_t count;
        if (!readU16LE(f, count)) return;
        for (unsigned k = 0; k < count; ++k) {
            std::uint8_t e[12];
            if (!readExact(f, e, 12)) return;
            const std::uint16_t tag = getU16LE(e);
            const std::uint16_t type = getU16LE(e + 2);
            const std::uint32_t n = getU32LE(e + 4);
            const std::uint32_t value = (type == kTiffShort && n < 3) ? getU16LE(e + 8) : getU32LE(e + 8);
            if (tag == ol::tag::kStripOffsets) *dataOffset = value;
        }
        if (!readU32LE(f, dirOffset)) return;
    }
}

}  // namespace
}  // namespace ol::radiance

using namespace ol;
using namespace ol::radiance;

extern "C" {

OL_API int fp2rgbe(const char* path, int width, int height, float* stats, unsigned char* rgbe) {
    if (height < 1) return 0;
    File file = openFile(path, "rb");
    if (!file) return -1;
    std::FILE* f = file.get();

    // A file too short for the mark or the magic number fails those tests.
    std::uint8_t head[8] = {0, 0, 0, 0, 0, 0, 0, 0};
    if (std::fread(head, 1, 2, f) != 2 || head[0] != 'I' || head[1] != 'I') return -3;
    if (std::fread(head + 2, 1, 2, f) != 2 || getU16LE(head + 2) != 42) return -4;
    std::uint32_t dir = 0;
    if (!readU32LE(f, dir)) dir = 0;
    long long dataOffset = width;  // stands until a StripOffsets entry is seen
    findStripOffset(f, dir, &dataOffset);
    if (!platform::seekTo(f, dataOffset)) return -1;

    // Pixels in blocks. At the end of the file the last pixel read repeats
    // (a cut pixel keeps the bytes of the one before where it is short).
    float minLum = 1e11f;
    float maxLum = 0.0f;
    double sum = 0.0;
    std::uint8_t px[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    constexpr std::size_t kBlockPixels = 4096;
    std::uint8_t block[kBlockPixels * 12];
    std::size_t have = 0, used = 0;
    bool atEnd = false;
    for (int y = 0; y < height; ++y) {
        const RgbeRow row = rgbeRow(rgbe, width, y);
        for (int x = 0; x < width; ++x) {
            if (used == have && !atEnd) {
                have = std::fread(block, 1, sizeof block, f);
                used = 0;
                if (have < sizeof block) atEnd = true;
            }
            if (have - used >= 12) {
                std::memcpy(px, block + used, 12);
                used += 12;
            } else if (have > used) {
                std::memcpy(px, block + used, have - used);
                used = have;
            }
            const float r = getF32LE(px);
            const float g = getF32LE(px + 4);
            const float b = getF32LE(px + 8);
            const float lum = static_cast<float>(0.3 * r + 0.6 * g + 0.1 * b);
            if (lum > maxLum) maxLum = lum;
            if (lum > 0.0f && lum < minLum) minLum = lum;
            sum += lum;
            storeRgbe(row, x, encodeRgbe(r, g, b, RgbeForm::Wrapped));
        }
    }
    stats[0] = 256.0f * minLum;
    stats[1] = 256.0f * maxLum;
    const long long count = static_cast<long long>(width) * height;
    if (count > 0) stats[2] = static_cast<float>(256.0 * sum / static_cast<double>(count));
    return height;
}

OL_API int fp_save(const char* path, int width, int height, const unsigned char* rgbe) {
    File file = openFile(path, "wb");
    if (!file) return -2;  // nothing could be written
    std::FILE* f = file.get();
    float table[256];
    fillRgbeExpTable(table);

    const std::uint32_t w = static_cast<std::uint32_t>(width);
    const std::uint32_t h = static_cast<std::uint32_t>(height);
    const std::uint32_t dataBytes = 12u * w * h;
    const std::uint32_t dir = 8u + dataBytes;
    std::uint8_t head[8] = {'I', 'I', 0, 0, 0, 0, 0, 0};
    putU16LE(head + 2, 42);
    putU32LE(head + 4, dir);
    if (!writeExact(f, head, 8)) return -2;

    constexpr std::size_t kBlockPixels = 4096;
    std::uint8_t block[kBlockPixels * 12];
    std::size_t n = 0;
    const int rows = width > 0 ? height : 0;
    for (int y = 0; y < rows; ++y) {
        const RgbeRow row = rgbeRow(const_cast<unsigned char*>(rgbe), width, y);
        for (int x = 0; x < width; ++x) {
            const std::uint8_t e = row.e[x];
            std::uint8_t* o = block + 12 * n;
            putF32LE(o, decodeRgbeChannel(row.r[x], e, table));
            putF32LE(o + 4, decodeRgbeChannel(row.g[x], e, table));
            putF32LE(o + 8, decodeRgbeChannel(row.b[x], e, table));
            if (++n == kBlockPixels) {
                if (!writeExact(f, block, sizeof block)) return -2;
                n = 0;
            }
        }
    }
    if (n && !writeExact(f, block, 12 * n)) return -2;

    // The directory: 11 entries, then the next-directory offset 0, then the
    // BitsPerSample and SampleFormat arrays at block offsets 138 and 144.
    std::uint8_t ifd[150];
    std::memset(ifd, 0, sizeof ifd);
    putU16LE(ifd, 11);
    struct Entry {
        std::uint16_t tag, type;
        std::uint32_t count, value;
    };
    const Entry entries[11] = {
        {ol::tag::kImageWidth, ol::kTiffShort, 1, w & 0xFFFFu},  // ImageWidth and ImageLength as 16-bit values
        {ol::tag::kImageLength, ol::kTiffShort, 1, h & 0xFFFFu},
        {ol::tag::kBitsPerSample, ol::kTiffShort, 3, dir + 138},
        {ol::tag::kCompression, ol::kTiffShort, 1, 1},
        {ol::tag::kPhotometric, ol::kTiffShort, 1, 2},
        {ol::tag::kStripOffsets, ol::kTiffLong, 1, 8},
        {ol::tag::kSamplesPerPixel, ol::kTiffShort, 1, 3},
        {ol::tag::kRowsPerStrip, ol::kTiffShort, 1, h & 0xFFFFu},
        {ol::tag::kStripByteCounts, ol::kTiffLong, 1, dataBytes},
        {ol::tag::kPlanarConfig, ol::kTiffShort, 1, 1},
        {ol::tag::kSampleFormat, ol::kTiffShort, 3, dir + 144},
    };
    for (int i = 0; i < 11; ++i) {
        std::uint8_t* e = ifd + 2 + 12 * i;
        putU16LE(e, entries[i].tag);
        putU16LE(e + 2, entries[i].type);
        putU32LE(e + 4, entries[i].count);
        putU32LE(e + 8, entries[i].value);
    }
    for (int i = 0; i < 3; ++i) {
        putU16LE(ifd + 138 + 2 * i, 32);
        putU16LE(ifd + 144 + 2 * i, 3);
    }
    if (!writeExact(f, ifd, sizeof ifd)) return -2;
    if (std::fclose(file.release()) != 0) return -2;
    return height;
}

}  // extern "C"
