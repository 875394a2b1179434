// Strip and byte copying, and the folder and file helpers a host uses to fill
// and empty the library's buffers piece by piece. None of these allocates;
// the copy functions trust their arguments, as a memcpy would.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "Ombrelumen40Lib1.h"
#include "frame/file.hpp"
#include "frame/platform.hpp"

namespace {
using std::ptrdiff_t;
using Byte = std::uint8_t;

inline ptrdiff_t mul(long a, long b) { return static_cast<ptrdiff_t>(a) * static_cast<ptrdiff_t>(b); }
}  // namespace

extern "C" {

int save_buffer(const char* path, const void* buf, int size) {
    ol::File f = ol::openFile(path, "wb");
    if (!f) return -1;
    const std::size_t n = size > 0 ? static_cast<std::size_t>(size) : 0;
    if (!ol::writeExact(f.get(), buf, n)) return -1;
    // A short dump stays in the stream's buffer until the close, which is
    // where a full device reports it.
    if (std::fclose(f.release()) != 0) return -1;
    return size;
}

int load_buffer(const char* path, void* buf, int size) {
    ol::File f = ol::openFile(path, "rb");
    if (!f) return -1;
    const std::size_t n = size > 0 ? static_cast<std::size_t>(size) : 0;
    if (!ol::readExact(f.get(), buf, n)) return -1;
    return size;
}

int extractbuf(int index, int length, const void* src, void* dst) {
    std::memcpy(dst, static_cast<const Byte*>(src) + mul(index, length), static_cast<std::size_t>(length));
    return 1;
}

int loadbuf(int index, int length, const void* src, void* dst) {
    std::memcpy(static_cast<Byte*>(dst) + mul(index, length), src, static_cast<std::size_t>(length));
    return 1;
}

int vkmemcpyint(void* dst, int dstOffset, const void* src, int srcOffset, int length) {
    std::memcpy(static_cast<Byte*>(dst) + dstOffset, static_cast<const Byte*>(src) + srcOffset,
                static_cast<std::size_t>(length));
    return 1;
}

int loadrows(int stripIndex, int width, int rows, int rowStride, int spp, int bps,
             const void* src, void* dst) {
    if (rows < 1) return 0;
    const ptrdiff_t bytesPerSample = bps / 8;
    const ptrdiff_t rowBytes = bytesPerSample * mul(width, spp);
    const ptrdiff_t srcStep = bytesPerSample * rowStride;  // rowStride counts samples
    const Byte* s = static_cast<const Byte*>(src);
    Byte* d = static_cast<Byte*>(dst) + rowBytes * mul(stripIndex, rows);
    for (int y = 0; y < rows; ++y) {
        std::memcpy(d, s, static_cast<std::size_t>(rowBytes));
        d += rowBytes;
        s += srcStep;
    }
    return rows;
}

int load16to8(int stripIndex, int width, int rows, int rowStride, int spp, const void* src, void* dst) {
    if (rows < 1) return 0;
    const ptrdiff_t n = mul(width, spp);
    const Byte* s = static_cast<const Byte*>(src);
    Byte* d = static_cast<Byte*>(dst) + n * mul(stripIndex, rows);
    for (int y = 0; y < rows; ++y) {
        for (ptrdiff_t i = 0; i < n; ++i) d[i] = s[2 * i + 1];  // high byte of a little-endian word
        d += n;
        s += 2 * static_cast<ptrdiff_t>(rowStride);
    }
    return rows;
}

int from16to8copy(int, int rows, int, int rowBytes, const void* src, void* dst) {
    if (rows < 1) return 0;
    const ptrdiff_t words = (static_cast<ptrdiff_t>(rowBytes) + 1) / 2;
    const Byte* s = static_cast<const Byte*>(src);
    Byte* d = static_cast<Byte*>(dst);
    for (int y = 0; y < rows; ++y) {
        const Byte* row = s + mul(y, rowBytes);
        for (ptrdiff_t i = 0; i < words; ++i) *d++ = row[2 * i + 1];
    }
    return rows;
}

int from16to8(int unused1, int rows, int unused2, int rowBytes, void* buf) {
    // In place: the write position never passes the read position.
    return from16to8copy(unused1, rows, unused2, rowBytes, buf, buf);
}

int bgr2rgb(int width, int height, int rowStride, int spp, int bps, void* buf) {
    if (height < 1) return 0;
    const ptrdiff_t pixelsPerRow = width;
    const ptrdiff_t skip = rowStride > width * spp ? rowStride - static_cast<ptrdiff_t>(width) * spp : 0;
    if (bps == 8) {
        Byte* p = static_cast<Byte*>(buf);
        for (int y = 0; y < height; ++y) {
            for (ptrdiff_t x = 0; x < pixelsPerRow; ++x, p += spp) {
                const Byte t = p[0];
                p[0] = p[2];
                p[2] = t;
            }
            p += skip;
        }
        return height;
    }
    if (bps == 16) {
        std::uint16_t* p = static_cast<std::uint16_t*>(buf);
        for (int y = 0; y < height; ++y) {
            for (ptrdiff_t x = 0; x < pixelsPerRow; ++x, p += spp) {
                const std::uint16_t t = p[0];
                p[0] = p[2];
                p[2] = t;
            }
            p += skip;
        }
        return height;
    }
    return bps;
}

int renverse(int height, int rowBytes, int, void* buf) {
    const int pairs = static_cast<int>(height * 0.5);
    if (pairs < 1) return 0;
    Byte* b = static_cast<Byte*>(buf);
    for (int y = 0; y < pairs; ++y) {
        Byte* top = b + mul(y, rowBytes);
        Byte* bottom = b + mul(height - 1 - y, rowBytes);
        for (int i = 0; i < rowBytes; ++i) {
            const Byte t = top[i];
            top[i] = bottom[i];
            bottom[i] = t;
        }
    }
    return pairs;
}

int ol_makefolder(const char* parent, const char* name) {
    const int changed = ol::platform::changeDirectory(parent);
    if (changed != 0) return changed;
    return ol::platform::makeDirectory(name) ? 0 : -1;
}

int ol_checkfolder(const char* path) {
    return (path && ol::platform::pathExists(path)) ? 0 : -1;
}

int ol_deletef(const char* path) {
    return (path && ol::platform::deleteFile(path)) ? 0 : -1;
}

}  // extern "C"
