// Decoding a Radiance picture into rgbe planes: from a copy of the whole file
// in memory (decomp_rle) or streaming from the file (decomp2).
#include <cstdio>
#include <cstring>

#include "Ombrelumen40Lib1.h"
#include "frame/alloc.hpp"
#include "frame/file.hpp"
#include "frame/status.hpp"
#include "frame/trace.hpp"
#include "frame/byte_source.hpp"
#include "frame/read_window.hpp"
#include "radiance/header.hpp"
#include "radiance/rle.hpp"

namespace ol::radiance {
namespace {

// The run-length form is recognised by the first row alone: 2, 2 and a byte
// below 128.
inline bool isRunLengthStart(const std::uint8_t* h) noexcept {
    return h[0] == 2 && h[1] == 2 && h[2] < 128;
}

inline std::uint8_t* rowStart(unsigned char* rgbe, int width, int y) noexcept {
    return rgbe + static_cast<std::size_t>(y) * 4u * static_cast<std::size_t>(width);
}

// Deals interleaved R, G, B, E pixels to the four planes of a row.
void dealPixels(const std::uint8_t* src, int width, std::uint8_t* row) noexcept {
    std::uint8_t* r = row;
    std::uint8_t* g = row + width;
    std::uint8_t* b = row + 2 * static_cast<std::size_t>(width);
    std::uint8_t* e = row + 3 * static_cast<std::size_t>(width);
    for (int x = 0; x < width; ++x) {
        r[x] = src[4 * x];
        g[x] = src[4 * x + 1];
        b[x] = src[4 * x + 2];
        e[x] = src[4 * x + 3];
    }
}

// Copies at most 255 bytes starting at p (stopping at a zero byte or at end)
// into a terminated buffer, so that scanning a resolution line never reads
// past the block.
bool scanResolutionAt(const std::uint8_t* p, const std::uint8_t* end, int* height,
                      int* width) noexcept {
    char text[256];
    std::size_t n = 0;
    while (n < sizeof text - 1 && p + n < end && p[n] != 0) {
        text[n] = static_cast<char>(p[n]);
        ++n;
    }
    text[n] = '\0';
    return scanResolution(text, height, width);
}

// One component stream read from the file: -1 at the end of the file, -5 for
// a run and -6 for a literal that would pass the end of the row.
int streamComponent(ByteSource& src, int width, std::uint8_t* dst) noexcept {
    int x = 0;
    while (x < width) {
        // Fast path: a whole packet lies in the block already read.
        std::size_t avail = src.buffered();
        if (avail >= 2) {
            const std::uint8_t* p = src.peek();
            const int code = p[0];
            if (code > 128) {
                const int n = code - 128;
                if (x + n > width) return status::kRunOverrun;
                fillPacket(dst + x, p[1], n);
                src.advance(2);
                x += n;
                continue;
            }
            if (code == 0 || x + code > width) return status::kBadLiteral;
            if (avail > static_cast<std::size_t>(code)) {
                copyPacket(dst + x, p + 1, code);
                src.advance(static_cast<std::size_t>(code) + 1);
                x += code;
                continue;
            }
        }
        const int code = src.get();
        if (code < 0) return status::kOpen;
        if (code > 128) {
            const int n = code - 128;
            if (x + n > width) return status::kRunOverrun;
            const int v = src.get();
            if (v < 0) return status::kOpen;
            std::memset(dst + x, v, static_cast<std::size_t>(n));
            x += n;
        } else {
            if (code == 0 || x + code > width) return status::kBadLiteral;
            if (src.read(dst + x, static_cast<std::size_t>(code)) != static_cast<std::size_t>(code))
                return status::kOpen;
            x += code;
        }
    }
    return 0;
}

inline void traceStage(const char* line) noexcept {
    if constexpr (traceFiles) std::fprintf(stdout, "%s", line);
    std::fflush(stdout);
}

}  // namespace
}  // namespace ol::radiance

using namespace ol;
using namespace ol::radiance;

extern "C" {

OL_API int decomp_rle(const char* path, const int* rgbeDims, unsigned char* rgbe) {
    const int width = rgbeDims[0];
    const int height = rgbeDims[1];
    const int size = rgbeDims[2];
    if constexpr (traceFiles)
        std::fprintf(stdout, "in decomp-rle, infos=%d,%d,%d\n", width, height, size);

    File file = openFile(path, "rb");
    if (!file) return status::kOpen;
    const std::size_t bytes = size > 0 ? static_cast<std::size_t>(size) : 0;
    // The first `bytes` bytes of the file are decoded from memory, read in
    // order through a window of 512 KiB or four worst rows (a row of one-byte
    // literals is 4 + 8*width bytes) rather than into one block of the whole
    // file: the pages of a fresh block of the file's size cost more to fault
    // in than the decoding itself (72 MB: about four times the decoding's CPU
    // time), and the window stays in the cache. Each step sees at least the
    // bytes it would see in the whole block, so results and codes are the
    // same.
    const std::size_t worstRow = 4 + 8 * static_cast<std::size_t>(width > 0 ? width : 0);
    std::size_t capacity = worstRow * 4 > (std::size_t(1) << 19) ? worstRow * 4 : std::size_t(1) << 19;
    if (capacity > bytes) capacity = bytes;
    Owned<std::uint8_t> block = makeOwned<std::uint8_t>(capacity);
    if (!block) return status::kNoMemory;
    // A file shorter than `bytes` is a short read before anything is decoded.
    const long actual = fileSize(file.get());
    if (actual >= 0 && static_cast<std::size_t>(actual) < bytes) return status::kShort;
    ReadWindow in(file.get(), block.get(), capacity, bytes);

    // Every step below is bounded by the data read. The data running out (no
    // resolution line, nothing after it, or a row cut short) is a read that
    // fell short: -2. A file that could not be measured and ends early is a
    // short read too, wherever that shows.
    const auto fail = [&](int code) { return in.cut() ? status::kShort : code; };
    for (;;) {
        const std::uint8_t* lf = in.find('\n');
        if (!lf) return fail(status::kContent);
        in.take(lf);
        in.fill(1 + 256);  // the line feed and the text scanned after it
        int h = 0, w = 0;
        if (scanResolutionAt(in.p + 1, in.end, &h, &w)) {
            if (h != height || w != width) return fail(status::kContent);
            break;
        }
        ++in.p;
    }
    // Past the resolution line: 6 bytes on from its line feed, then to the
    // line feed that ends it, and over one blank line if there is one.
    if (!in.fill(7)) return status::kShort;
    in.p += 6;
    const std::uint8_t* lf = in.find('\n');
    if (!lf) return status::kShort;
    in.take(lf + 1);
    if (in.fill(1) && *in.p == '\n') ++in.p;

    const bool runLength = in.fill(3) && isRunLengthStart(in.p);
    if (runLength) {
        for (int y = 0; y < height; ++y) {
            in.fill(worstRow);
            if (in.end - in.p < 4) return status::kShort;
            if (((in.p[2] << 8) | in.p[3]) != width) return fail(status::kRowWidth);
            in.p += 4;
            std::uint8_t* row = rowStart(rgbe, width, y);
            for (int c = 0; c < 4; ++c) {
                switch (decodeComponent(in.p, in.end, width, row + static_cast<std::size_t>(c) * width)) {
                    case RleStatus::Ok: break;
                    case RleStatus::RunOverrun: return fail(status::kRunOverrun);
                    case RleStatus::BadLiteral: return fail(status::kBadLiteral);
                    case RleStatus::Truncated: return status::kShort;
                }
            }
        }
    } else {
        const std::size_t rowBytes = width > 0 ? 4u * static_cast<std::size_t>(width) : 0;
        for (int y = 0; y < height; ++y) {
            if (!in.fill(rowBytes)) return status::kShort;
            dealPixels(in.p, width, rowStart(rgbe, width, y));
            in.p += rowBytes;
        }
    }
    return height;
}

OL_API int decomp2(const char* path, const int* rgbeDims, unsigned char* rgbe, void* /*unused*/) {
    const int width = rgbeDims[0];
    const int height = rgbeDims[1];
    const long size = rgbeDims[2];
    traceStage("in decomp2-0\n");

    File file = openFile(path, "rb");
    if (!file) return status::kOpen;
    std::FILE* f = file.get();

    int h = 0, w = 0;
    if (findResolutionLine(f, headerLineBudget(size), &h, &w) < 0) return status::kShort;
    if (h != height || w != width) return status::kContent;
    traceStage("in decomp2-1\n");

    Owned<std::uint8_t> head = makeOwned<std::uint8_t>(4);
    if (!head) return status::kNoMemory;
    const long start = std::ftell(f);
    if (start < 0) return status::kOpen;
    if (!readExact(f, head.get(), 4)) return status::kShort;
    if (std::fseek(f, start, SEEK_SET) != 0) return status::kOpen;
    const bool runLength = isRunLengthStart(head.get());
    traceStage("in decomp2-2\n");

    ByteSource src(f);
    if (runLength) {
        traceStage("in decomp2-3\n");
        for (int y = 0; y < height; ++y) {
            std::uint8_t* hd = head.get();
            if (src.read(hd, 4) != 4) return status::kShort;
            if (hd[2] >= 128) return status::kBadLiteral;
            if (((hd[2] << 8) | hd[3]) != width) return status::kRowWidth;
            std::uint8_t* row = rowStart(rgbe, width, y);
            for (int c = 0; c < 4; ++c) {
                const int r = streamComponent(src, width, row + static_cast<std::size_t>(c) * width);
                if (r != 0) return r;
            }
        }
    } else {
        traceStage("in decomp2-3\n");
        const std::size_t rowBytes = width > 0 ? 4u * static_cast<std::size_t>(width) : 0;
        Owned<std::uint8_t> line = makeOwned<std::uint8_t>(rowBytes);
        if (!line) return status::kNoMemory;
        // A picture of fewer than four rows reports every row.
        const int quarter = height / 4 > 0 ? height / 4 : 1;
        for (int y = 0; y < height; ++y) {
            if (src.read(line.get(), rowBytes) != rowBytes) return status::kShort;
            dealPixels(line.get(), width, rowStart(rgbe, width, y));
            if constexpr (traceFiles)
                if (y % quarter == 0) std::fprintf(stdout, "ligne=%d\n", y);
        }
    }
    traceStage("in decomp2-3-7\n");
    return height;
}

}  // extern "C"
