// Flat RGB PSD reading: size and resource queries, the ICC profile, and the
// merged composite image at 8, 16 and 32 bits (raw or PackBits).
//
// Only the composite at the end of the file is read; layers are skipped. 8 and
// 16-bit files give an interleaved 3-sample ldr image, 32-bit files go straight
// to rgbe planes.
#include "metadata/psd_reader.hpp"

#include <cmath>
#include <cstdio>
#include <cstring>

#include "Ombrelumen40Lib1.h"
#include "frame/alloc.hpp"
#include "frame/bytes.hpp"
#include "frame/file.hpp"
#include "frame/rgbe.hpp"
#include "frame/trace.hpp"
#include "frame/read_stream.hpp"

namespace ol {

float psdFloat(const std::uint8_t b[4]) noexcept {
    const std::uint32_t u = getU32BE(b);
    const std::uint32_t e = (u >> 23) & 0xFF;
    if (e != 0 && e != 255) {
        // 2^(e-128) * (1 + fraction * 2^-23) is the IEEE value of the same
        // bits halved: one rounding of the same exact value either way (the
        // halving can only round for e == 1, into the subnormals).
        float f;
        std::memcpy(&f, &u, 4);
        return f * 0.5f;
    }
    if (u == 0) return 0.0f;
    // Exponents 0 and 255 are ordinary exponents here: 2^(e-128) times
    // (1 + fraction * 2^-23), a 24-bit integer scaled by a power of two, exact
    // in double and rounded once to float (e 255 with every fraction bit set
    // is exactly FLT_MAX).
    const std::uint32_t fraction = u & 0x7FFFFFu;
    const double v = std::ldexp(static_cast<double>(0x800000u | fraction), static_cast<int>(e) - 128 - 23);
    const float f = static_cast<float>(v);
    return (u >> 31) ? -f : f;
}

bool unpackBitsPlane(const std::uint8_t* rle, std::size_t rleSize, std::size_t* pos,
                     std::uint8_t* plane, std::size_t planeSize, std::size_t* written) noexcept {
    std::size_t p = *pos;
    std::size_t k = 0;
    bool ok = true;
    while (k < planeSize) {
        if (p >= rleSize) {
            ok = false;
            break;
        }
        const int n = static_cast<std::int8_t>(rle[p++]);
        if (n >= 0) {
            const std::size_t count = static_cast<std::size_t>(n) + 1;
            if (count > rleSize - p) {
                ok = false;
                break;
            }
            const std::size_t take = count < planeSize - k ? count : planeSize - k;
            std::memcpy(plane + k, rle + p, take);
            p += count;
            k += count;
        } else if (n != -128) {
            const std::size_t count = static_cast<std::size_t>(1 - n);
            if (p >= rleSize) {
                ok = false;
                break;
            }
            const std::uint8_t v = rle[p++];
            const std::size_t take = count < planeSize - k ? count : planeSize - k;
            std::memset(plane + k, v, take);
            k += count;
        }
    }
    *pos = p;
    if (written) *written = k;
    return ok;
}

namespace {

constexpr int kResResolution = 1005;
constexpr int kResIccProfile = 1039;
constexpr int kResExif = 1058;

enum class WalkMode { Info, Profile };

// Reads 4 bytes into the walk's word buffer as fread does: a short read
// leaves the bytes it could not fill as they were.
bool read4(std::FILE* f, std::uint8_t* word) noexcept { return std::fread(word, 1, 4, f) == 4; }

struct HeaderWalk {
    std::uint8_t word[4] = {0, 0, 0, 0};  // the last four bytes read as one word
};

// The header and resource walk shared by getPsdInfo and psd_profile. In Info
// mode it fills `info` and returns dataStart; in Profile mode it stops at the
// ICC profile resource, reads it into `dest` and returns its length.
int walkPsd(const char* path, PsdInfo* info, unsigned char* dest, WalkMode mode) noexcept {
    File file = openFile(path, "rb");
    if (!file) return -1;
    std::FILE* f = file.get();
    ReadStream s(f, ByteOrder::Big);
    HeaderWalk w;
    if (!read4(f, w.word)) return -1;
    if (std::memcmp(w.word, "8BPS", 4) != 0) return -2;
    if (!s.skip(8)) return -2;
    const int channels = s.u16be();
    if (s.atEnd()) return -2;
    if (mode == WalkMode::Info) {
        info->channels = channels;
        if constexpr (traceFlow) std::fprintf(stderr, "getPsdInfo - channels:%d \n", channels);
    }
    if (channels < 3) return -3;
    if (!read4(f, w.word)) return -2;
    const std::int32_t height = static_cast<std::int32_t>(getU32BE(w.word));
    if (!read4(f, w.word)) return -2;
    const std::int32_t width = static_cast<std::int32_t>(getU32BE(w.word));
    const int bps = s.u16be();
    const int colorMode = s.u16be();
    if (s.atEnd()) return -2;
    if (mode == WalkMode::Info) {
        info->height = height;
        info->width = width;
        info->bps = bps;
        if constexpr (traceFlow) {
            std::fprintf(stderr, "getPsdInfo - h:%d \n", height);
            std::fprintf(stderr, "getPsdInfo - w:%d \n", width);
            std::fprintf(stderr, "getPsdInfo - bps:%d \n", bps);
            std::fprintf(stderr, "getPsdInfo - mode:%d \n", colorMode);
        }
    }
    if (colorMode != 3) return -3;

    if (!read4(f, w.word)) return -2;
    const std::uint32_t colorDataLen = getU32BE(w.word);
    if constexpr (traceFlow)
        if (mode == WalkMode::Info) std::fprintf(stderr, "color mode:%d \n", static_cast<int>(colorDataLen));
    if (!s.skip(colorDataLen)) return -2;
    if (!read4(f, w.word)) return -2;
    const std::uint32_t resLen = getU32BE(w.word);
    const std::int64_t dataStart = static_cast<std::int64_t>(resLen) + s.tell();
    if (mode == WalkMode::Info) {
        info->dataStart = static_cast<std::int32_t>(dataStart);
        if constexpr (traceFlow) std::fprintf(stderr, "getPsdInfo - start data:%d \n", info->dataStart);
    }

    // Resources: "8BIM", id, a 2-byte (empty) name, size, data padded to even.
    std::uint64_t sum = 0;
    while (sum < resLen) {
        const std::int64_t at = s.tell();
        if (at < 0) break;
        if (!read4(f, w.word) || std::memcmp(w.word, "8BIM", 4) != 0) break;
        const int id = s.u16be();
        s.skip(2);
        read4(f, w.word);
        const std::uint32_t size = getU32BE(w.word);
        if (s.atEnd()) break;
        if (id == kResResolution) {
            if (mode == WalkMode::Info) {
                info->resH = s.u16be();
                s.skip(6);
                info->resV = s.u16be();
            }
        } else if (id == kResIccProfile) {
            if (mode == WalkMode::Profile) {
                // The caller sized dest from lProfil, the same size field.
                if (dest && !s.bytes(dest, size)) return -2;
                return static_cast<int>(size);
            }
            info->lProfil = static_cast<std::int32_t>(size);
        } else if (id == kResExif) {
            if (mode == WalkMode::Info) info->exifStart = static_cast<std::int32_t>(s.tell());
        }
        const std::uint64_t step = (static_cast<std::uint64_t>(size) + 1u) / 2u * 2u + 12u;
        if (!s.seek(at + static_cast<std::int64_t>(step))) break;
        sum += step;
    }

    if (mode == WalkMode::Profile) {
        // No profile resource: the result is the walk's last word, read as a
        // little-endian integer. A host tells it from a length by comparing
        // with lProfil.
        return static_cast<int>(getU32LE(w.word));
    }
    if constexpr (traceFlow)
        std::fprintf(stderr, "psd info - w:%d h:%d  bps:%d  res=%d  lProfil=%d\n", info->width,
                     info->height, info->bps, info->resH, info->lProfil);
    return info->dataStart;
}

// The 32-bit composite: three planes of big-endian floats, one row of each
// read at a time, encoded to rgbe planes.
int loadPsd32(std::FILE* f, std::int64_t start, int width, int height, std::uint8_t* dest) noexcept {
    const std::size_t rowBytes = 4u * static_cast<std::size_t>(width);
    Owned<std::uint8_t> rows = makeOwned<std::uint8_t>(3 * rowBytes);
    if (!rows) return -1;
    const std::int64_t planeBytes = static_cast<std::int64_t>(rowBytes) * height;
    ReadStream s(f);
    for (int y = 0; y < height; ++y) {
        const std::int64_t p = start + static_cast<std::int64_t>(y) * static_cast<std::int64_t>(rowBytes);
        for (int c = 0; c < 3; ++c) {
            if (!s.seek(p + c * planeBytes)) return -1;
            if (!readExact(f, rows.get() + c * rowBytes, rowBytes)) return -1;
        }
        const RgbeRow out = rgbeRow(dest, width, y);
        const std::uint8_t* r = rows.get();
        const std::uint8_t* g = r + rowBytes;
        const std::uint8_t* b = g + rowBytes;
        for (int x = 0; x < width; ++x) {
            const float vr = psdFloat(r + 4 * x);
            const float vg = psdFloat(g + 4 * x);
            const float vb = psdFloat(b + 4 * x);
            storeRgbe(out, x, encodeRgbe(vr, vg, vb, RgbeForm::Wrapped, ZeroGuard::On));
        }
    }
    return height;
}

// Places one plane into every third sample of the destination.
void scatterPlane(const std::uint8_t* plane, int bps, int width, int height, std::size_t first,
                  std::size_t spare, std::uint8_t* dest) noexcept {
    std::size_t idx = first;
    std::size_t k = 0;
    if (bps == 8) {
        for (int y = 0; y < height; ++y) {
            for (int x = 0; x < width; ++x, idx += 3) dest[idx] = plane[k++];
            idx += spare;
        }
    } else {
        // Big-endian in the file, little-endian words in memory.
        for (int y = 0; y < height; ++y) {
            for (int x = 0; x < width; ++x, idx += 3, k += 2) {
                dest[2 * idx] = plane[k + 1];
                dest[2 * idx + 1] = plane[k];
            }
            idx += spare;
        }
    }
}

}  // namespace

}  // namespace ol

extern "C" {

OL_API int getPsdInfo(const char* path, PsdInfo* info) {
    if (!info) return -1;
    return ol::walkPsd(path, info, nullptr, ol::WalkMode::Info);
}

OL_API int psd_profile(const char* path, unsigned char* dest) {
    return ol::walkPsd(path, nullptr, dest, ol::WalkMode::Profile);
}

OL_API int load_psd(int order, const char* path, PsdInfo* info, int rowStride, void* dest) {
    using namespace ol;
    if (!info) return -1;
    const int bps = info->bps;
    if (bps != 8 && bps != 16 && bps != 32) return -1;
    const int width = info->width;
    const int height = info->height;
    // Nothing to read (and a negative size would make no plane).
    if (width < 1 || height < 1) return 0;
    const std::size_t planeSize =
        static_cast<std::size_t>(bps / 8) * static_cast<std::size_t>(width) * static_cast<std::size_t>(height);

    File file = openFile(path, "rb");
    if (!file) return -1;
    std::FILE* f = file.get();
    ReadStream s(f, ByteOrder::Big);

    // The large-document form (version 2) has 64-bit section lengths and
    // 32-bit RLE row lengths. A host that leaves lengthBits at 0 gets it from
    // the version word.
    int lengthBits = info->lengthBits;
    if (lengthBits == 0 && s.seek(4) && s.u16be() == 2 && !s.atEnd()) lengthBits = 64;

    if (info->dataStart < 0 || std::fseek(f, info->dataStart, SEEK_SET) != 0) {
        std::fprintf(stderr, "load_psd fseek %d failed \n", info->dataStart);
        return -1;
    }
    s.clearEnd();
    std::int32_t layerLen;
    if (lengthBits == 64) {
        const std::uint64_t hi = s.u32be();
        const std::uint64_t lo = s.u32be();
        layerLen = static_cast<std::int32_t>(static_cast<std::uint32_t>((hi << 32) | lo));
    } else {
        layerLen = static_cast<std::int32_t>(s.u32be());
    }
    if (s.atEnd()) return -1;
    if (std::fseek(f, layerLen, SEEK_CUR) != 0) return -1;
    const int compression = s.u16be();
    if (s.atEnd()) return -1;
    if (compression != 0 && bps == 32) {
        std::fprintf(stderr, "load_psd rle %d not supported for 32-bit PSD\n", compression);
        return -2;
    }
    if constexpr (traceFlow)
        std::fprintf(stderr, "layer info starts at: %d %x   compression:%d\n", info->dataStart,
                     static_cast<unsigned>(info->dataStart), compression);

    auto* out = static_cast<std::uint8_t*>(dest);
    if (bps == 32) return loadPsd32(f, s.tell(), width, height, out);

    Owned<std::uint8_t> plane = makeOwned<std::uint8_t>(planeSize);
    if (!plane) return -4;

    Owned<std::uint8_t> rle;
    std::size_t rleSize = 0;
    std::size_t rlePos = 0;
    if (compression == 1) {
        const std::int64_t table = static_cast<std::int64_t>(height) * info->channels * (lengthBits == 64 ? 4 : 2);
        if (!s.skip(table)) return -1;
        const std::int64_t begin = s.tell();
        if (begin < 0 || std::fseek(f, 0, SEEK_END) != 0) return -3;
        const std::int64_t end = s.tell();
        if (end < begin || !s.seek(begin)) return -3;
        rleSize = static_cast<std::size_t>(end - begin);
        rle = makeOwned<std::uint8_t>(rleSize ? rleSize : 1);
        if (!rle) return -4;
        if (!readExact(f, rle.get(), rleSize)) return -3;
        if constexpr (traceFlow) {
            std::fprintf(stderr, "debut: %d  %x     RLE data: %d  %x\n", static_cast<int>(begin),
                         static_cast<unsigned>(begin), static_cast<int>(rleSize), static_cast<unsigned>(rleSize));
            std::fprintf(stderr, "dataSize: %d    colorPlaneSize: %d  imageSize: %d\n", static_cast<int>(rleSize),
                         static_cast<int>(planeSize), static_cast<int>(3 * planeSize));
        }
    }

    const std::size_t rowSamples = 3u * static_cast<std::size_t>(width);
    const std::size_t spare =
        rowStride > 0 && static_cast<std::size_t>(rowStride) > rowSamples ? static_cast<std::size_t>(rowStride) - rowSamples : 0;
    for (int c = 0; c < 3; ++c) {
        if (compression == 1) {
            std::size_t written = 0;
            const bool ok = unpackBitsPlane(rle.get(), rleSize, &rlePos, plane.get(), planeSize, &written);
            if constexpr (traceFlow)
                std::fprintf(stderr,
                             "fin decoding channel %d -  positRle: %d  of dataSize: %d   -  positKleur: %d of "
                             "colorPlaneSize: %d \n",
                             c, static_cast<int>(rlePos), static_cast<int>(rleSize), static_cast<int>(written),
                             static_cast<int>(planeSize));
            // The run-length data ran out before the plane was full.
            if (!ok) return -3;
        } else if (!readExact(f, plane.get(), planeSize)) {
            return -1;
        }
        const std::size_t first = order > 0 ? static_cast<std::size_t>(c) : static_cast<std::size_t>(2 - c);
        scatterPlane(plane.get(), bps, width, height, first, spare, out);
    }
    return height;
}

}  // extern "C"
