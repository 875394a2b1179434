// A reduced picture read straight from a Radiance file: nearest-neighbour
// decimation while decoding, keeping only the bytes that land in the preview
// and stopping as soon as its last row is stored.
#include <cstdio>
#include <cstring>
#include <limits>

#include "Ombrelumen40Lib1.h"
#include "frame/alloc.hpp"
#include "frame/file.hpp"
#include "frame/numeric.hpp"
#include "frame/byte_source.hpp"
#include "frame/status.hpp"
#include "radiance/header.hpp"

namespace ol::radiance {
namespace {

// Decodes one component stream of a row. When `out` is given, the byte at
// source column c is stored at output column i when c == trunc(i*xRatio),
// and i then moves on; other bytes are passed over. Results: 0, -1 at the end
// of the file, -202 for a run or literal that is empty or would pass the row.
int previewComponent(ByteSource& src, int width, float xRatio, int outWidth,
                     std::uint8_t* out) noexcept {
    int i = 0;
    int want = out ? truncToInt(static_cast<float>(i) * xRatio) : -1;
    int x = 0;
    while (x < width) {
        const int code = src.get();
        if (code < 0) return status::kOpen;
        if (code > 128) {
            const int n = code - 128;
            if (x + n > width) return status::kPreviewRun;
            const int v = src.get();
            if (v < 0) return status::kOpen;
            if (out) {
                for (int c = x; c < x + n; ++c) {
                    if (c == want) {
                        // The preview width bounds the stores: rounding of
                        // i*xRatio must not let i run past the row.
                        if (i < outWidth) out[i] = static_cast<std::uint8_t>(v);
                        ++i;
                        want = truncToInt(static_cast<float>(i) * xRatio);
                    }
                }
            }
            x += n;
        } else {
            if (code == 0 || x + code > width) return status::kPreviewRun;
            if (!out) {
                if (src.skip(static_cast<std::size_t>(code)) != static_cast<std::size_t>(code))
                    return status::kOpen;
            } else {
                for (int c = x; c < x + code; ++c) {
                    const int v = src.get();
                    if (v < 0) return status::kOpen;
                    if (c == want) {
                        if (i < outWidth) out[i] = static_cast<std::uint8_t>(v);
                        ++i;
                        want = truncToInt(static_cast<float>(i) * xRatio);
                    }
                }
            }
            x += code;
        }
    }
    return 0;
}

// width/wanted as a float. A wanted size of 0 gives an infinite (or, for 0/0,
// not-a-number) ratio, as IEEE division would, without dividing by zero:
// no column or row then matches and nothing is stored.
float ratio(int size, int wanted) noexcept {
    if (wanted != 0) return static_cast<float>(size) / static_cast<float>(wanted);
    if (size > 0) return std::numeric_limits<float>::infinity();
    if (size < 0) return -std::numeric_limits<float>::infinity();
    return std::numeric_limits<float>::quiet_NaN();
}

}  // namespace
}  // namespace ol::radiance

using namespace ol;
using namespace ol::radiance;

extern "C" {

OL_API int ol_io_read_preview_rgbe(int width, int height, int previewWidth, int previewHeight,
                                   const char* path, unsigned char* preview) {
    const float xRatio = ratio(width, previewWidth);
    const float yRatio = ratio(height, previewHeight);

    File file = openFile(path, "rb");
    if (!file) return status::kOpen;
    std::FILE* f = file.get();
    const long size = fileSize(f);
    if (size < 0) return status::kOpen;
    const long budget = previewLineBudget(size);
    if (budget < 2) return status::kOpen;

    int h = 0, w = 0;
    if (findResolutionLine(f, budget, &h, &w) < 0) return status::kOpen;
    if (h != height || w != width) return status::kPreviewSize;

    Owned<std::uint8_t> head = makeOwned<std::uint8_t>(4);
    if (!head) return status::kNoMemory;
    const long start = std::ftell(f);
    if (start < 0) return status::kOpen;
    if (!readExact(f, head.get(), 4)) return status::kOpen;
    if (std::fseek(f, start, SEEK_SET) != 0) return status::kOpen;
    std::uint8_t* hd = head.get();
    const bool runLength = hd[0] == 2 && hd[1] == 2 && hd[2] < 128;

    const std::size_t pw = previewWidth > 0 ? static_cast<std::size_t>(previewWidth) : 0;
    ByteSource src(f);
    int j = 0;
    int wantRow = truncToInt(static_cast<float>(j) * yRatio);
    long long y = 0;  // wide enough for height+1
    if (runLength) {
        for (y = 0; y < height; ++y) {
            if (src.read(hd, 4) != 4) return status::kOpen;
            if (hd[2] >= 128) return status::kPreviewRowHeader;
            if (((hd[2] << 8) | hd[3]) != width) return status::kRowWidth;
            const bool store = y == wantRow;
            std::uint8_t* row = store ? preview + static_cast<std::size_t>(j) * 4u * pw : nullptr;
            for (int c = 0; c < 4; ++c) {
                const int r = previewComponent(src, width, xRatio, previewWidth,
                                               row ? row + c * pw : nullptr);
                if (r != 0) return r;
            }
            if (store) {
                ++j;
                wantRow = truncToInt(static_cast<float>(j) * yRatio);
                if (j == previewHeight) y = height;
            }
        }
    } else {
        const std::size_t rowBytes = width > 0 ? 4u * static_cast<std::size_t>(width) : 0;
        Owned<std::uint8_t> line = makeOwned<std::uint8_t>(rowBytes);
        if (!line) return status::kNoMemory;
        const std::uint8_t* px = line.get();
        for (y = 0; y < height; ++y) {
            if (src.read(line.get(), rowBytes) != rowBytes) return status::kOpen;
            if (y != wantRow) continue;
            std::uint8_t* row = preview + static_cast<std::size_t>(j) * 4u * pw;
            // A row of no width has no column to take (the limit width-1
            // would point before it): the output is left as it was.
            for (std::size_t i = 0; width > 0 && i < pw; ++i) {
                int c = truncToInt(static_cast<float>(i) * xRatio);
                if (c > width - 1) c = width - 1;
                if (c < 0) c = 0;  // only for a ratio that is not a number
                for (int k = 0; k < 4; ++k) row[k * pw + i] = px[4 * static_cast<std::size_t>(c) + k];
            }
            ++j;
            wantRow = truncToInt(static_cast<float>(j) * yRatio);
            if (j == previewHeight) y = height;
        }
    }
    return static_cast<int>(static_cast<std::uint32_t>(y));
}

}  // extern "C"
