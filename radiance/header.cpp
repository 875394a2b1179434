// Reading the Radiance header: the size query and the photographic values.
#include <cstdio>
#include <cstring>

#include "Ombrelumen40Lib1.h"
#include "frame/file.hpp"
#include "frame/numeric.hpp"
#include "frame/status.hpp"
#include "radiance/header.hpp"

namespace ol::radiance {

bool scanResolution(const char* text, int* height, int* width) noexcept {
    int h = 0, w = 0;
    if (std::sscanf(text, "-Y %d +X %d", &h, &w) != 2) return false;
    *height = h;
    *width = w;
    return true;
}

int findResolutionLine(std::FILE* f, long budget, int* height, int* width) noexcept {
    char line[kLineBytes];
    for (long i = 0; i < budget; ++i) {
        if (!readLine(f, line, kLineBytes)) return status::kOpen;
        if (scanResolution(line, height, width)) return 1;
    }
    return 0;
}

namespace {

// Copies the text after a key up to its line feed (or the end of the line as
// read), at most `cap` bytes, into a zero-filled field of `cap` bytes. Returns
// the number of bytes copied.
std::size_t copyField(const char* text, char* field, std::size_t cap) noexcept {
    std::memset(field, 0, cap);
    std::size_t n = 0;
    while (n < cap && text[n] != '\0' && text[n] != '\n') ++n;
    std::memcpy(field, text, n);
    return n;
}

// A positive decimal value back to a fraction: v >= 1 gives trunc(v*100)/100,
// 0 < v < 1 gives 100/trunc(100/v). Float arithmetic, as the value was read.
bool toFraction(float v, std::int32_t* num, std::int32_t* den) noexcept {
    if (!(v > 0.0f)) return false;
    if (v >= 1.0f) {
        *num = truncToInt(v * 100);
        *den = 100;
    } else {
        *num = 100;
        *den = truncToInt(100 / v);
    }
    return true;
}

bool startsWith(const char* s, const char* prefix) noexcept {
    return std::strncmp(s, prefix, std::strlen(prefix)) == 0;
}

}  // namespace
}  // namespace ol::radiance

using namespace ol;
using namespace ol::radiance;

extern "C" {

OL_API int rgbe_dim(const char* path, float* primaries, int* rgbeDims) {
    File file = openFile(path, "rb");
    if (!file) return status::kOpen;
    std::FILE* f = file.get();
    const long size = fileSize(f);
    if (size < 0) return status::kOpen;

    const long budget = headerLineBudget(size);
    float prim[8] = {0, 0, 0, 0, 0, 0, 0, 0};
    int width = 0, height = 0;
    long lines = 0;
    char line[kLineBytes];
    for (; lines < budget; ++lines) {
        if (!readLine(f, line, kLineBytes)) return status::kShort;
        float p[8];
        if (std::sscanf(line, "PRIMARIES= %f %f %f %f %f %f %f %f", &p[0], &p[1], &p[2], &p[3],
                        &p[4], &p[5], &p[6], &p[7]) == 8) {
            std::memcpy(prim, p, sizeof prim);
            rgbeDims[6] = 32;
        }
        if (scanResolution(line, &height, &width)) break;
    }
    if (width == 0 || height == 0) return status::kContent;
    rgbeDims[0] = width;
    rgbeDims[1] = height;
    rgbeDims[2] = static_cast<int>(size);
    const bool has = rgbeDims[6] >= 1;
    if (primaries)
        for (int i = 0; i < 8; ++i) primaries[i] = has ? prim[i] : 0.0f;
    return static_cast<int>(lines);
}

OL_API int extract_rgbe_exif(const char* path, ExifRecord* exif) {
    char camera[64];
    char date[20];
    std::memset(camera, 0, sizeof camera);
    std::memset(date, 0, sizeof date);
    exif->colorSpace = -1;

    File file = openFile(path, "rb");
    if (!file) return status::kOpen;
    std::FILE* f = file.get();

    char line[kLineBytes];
    int lines = 0;
    for (; lines < 100; ++lines) {
        if (!readLine(f, line, kLineBytes)) return status::kOpen;
        int h, w;
        if (scanResolution(line, &h, &w)) break;
        if (startsWith(line, "CAMERA=")) {
            if (copyField(line + 7, camera, sizeof camera) > 0)
                std::memcpy(exif->camera, camera, sizeof camera);
        } else if (startsWith(line, "CAPDATE=")) {
            copyField(line + 8, date, sizeof date);
            std::memcpy(exif->date, date, sizeof date);
        } else if (startsWith(line, "ICC_PROFILE=")) {
            const char* name = line + 12;
            if (startsWith(name, "sRGB"))
                exif->colorSpace = 0;
            else if (startsWith(name, "Adobe RGB"))
                exif->colorSpace = 1;
            else if (startsWith(name, "ProPhoto RGB"))
                exif->colorSpace = 2;
        } else {
            float v = 0.0f;
            int iso = 0;
            if (std::sscanf(line, "SHUTTER=%f", &v) == 1)
                toFraction(v, &exif->exposureNum, &exif->exposureDen);
            else if (std::sscanf(line, "APERTURE=%f", &v) == 1)
                toFraction(v, &exif->apertureNum, &exif->apertureDen);
            else if (std::sscanf(line, "FOCAL_LENGTH=%f", &v) == 1)
                toFraction(v, &exif->focalNum, &exif->focalDen);
            else if (std::sscanf(line, "ISO=%d", &iso) == 1)
                exif->iso = iso;
        }
    }
    return lines;
}

}  // extern "C"
