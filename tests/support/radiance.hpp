// Helpers shared by the Radiance tests: building planes, decoding packets,
// and composing files byte by byte.
#pragma once

#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "frame/rgbe.hpp"
#include "support/records.hpp"
#include "support/testsupport.hpp"

namespace radtest {

using namespace oltest::records;

using Bytes = std::vector<std::uint8_t>;

// rgbe planes of a smooth picture with some noise, every exponent non-zero.
inline Bytes photoPlanes(int width, int height, std::uint32_t seed) {
    Bytes p(static_cast<std::size_t>(width) * height * 4);
    std::uint32_t s = seed * 2654435761u + 1;
    for (int y = 0; y < height; ++y) {
        std::uint8_t* row = p.data() + static_cast<std::size_t>(y) * 4 * width;
        for (int x = 0; x < width; ++x) {
            s = s * 1664525u + 1013904223u;
            const int noise = static_cast<int>((s >> 24) & 3);
            row[x] = static_cast<std::uint8_t>(128 + (x * 127 / (width > 1 ? width : 1)) / 2 + noise);
            row[width + x] = static_cast<std::uint8_t>(128 + (y * 127 / (height > 1 ? height : 1)) / 2 + noise);
            row[2 * width + x] = static_cast<std::uint8_t>(128 + ((x + y) & 63) + noise);
            row[3 * width + x] = static_cast<std::uint8_t>(120 + (x / 64) % 16);
        }
    }
    return p;
}

// Parses one component stream of packets; returns the packet lengths
// (positive: literal, negative: run) and appends the decoded bytes.
struct Packets { std::vector<int> lengths; Bytes bytes; std::size_t consumed = 0; };
inline Packets parsePackets(const std::uint8_t* p, std::size_t n, int width) {
    Packets out;
    std::size_t& i = out.consumed;
    while (static_cast<int>(out.bytes.size()) < width && i < n) {
        const int code = p[i++];
        const std::size_t count = static_cast<std::size_t>(code > 128 ? code - 128 : code);
        out.lengths.push_back(code > 128 ? -code + 128 : code);
        if (code > 128) out.bytes.insert(out.bytes.end(), count, p[i++]);
        else out.bytes.insert(out.bytes.end(), p + i, p + i + count), i += count;
    }
    return out;
}

// Offset of the first scanline byte in a file the library wrote.
inline std::size_t dataOffset(const Bytes& file) {
    const std::string s(file.begin(), file.end());
    const std::size_t r = s.find("\n-Y ");
    const std::size_t e = s.find('\n', r + 1);
    return e + 1;
}

// A run-length file in memory: header text then the given scanline bytes.
inline Bytes radianceFile(const std::string& header, const Bytes& data) {
    Bytes f(header.begin(), header.end());
    f.insert(f.end(), data.begin(), data.end());
    return f;
}

// Run-length rows that code each component of every row as literals of at
// most 127 bytes, from planes.
inline Bytes literalRows(const Bytes& planes, int width, int height) {
    Bytes d;
    for (int y = 0; y < height; ++y) {
        d.insert(d.end(), {2, 2, static_cast<std::uint8_t>(width >> 8), static_cast<std::uint8_t>(width & 255)});
        for (int c = 0; c < 4; ++c) {
            const std::uint8_t* src = planes.data() + (static_cast<std::size_t>(y) * 4 + c) * width;
            for (int x = 0; x < width;) {
                const int n = width - x < 127 ? width - x : 127;
                d.push_back(static_cast<std::uint8_t>(n));
                d.insert(d.end(), src + x, src + x + n);
                x += n;
            }
        }
    }
    return d;
}

inline std::string resolution(int width, int height) {
    return "-Y " + std::to_string(height) + " +X " + std::to_string(width) + "\n";
}

// The two full decoders with the caller's width, height and file size (the
// file's own size unless `size` is given).
inline int decodeRle(const std::string& path, int width, int height, Bytes& out, int size = -1, bool stream = false) {
    const int dims[7] = {width, height, size >= 0 ? size : static_cast<int>(oltest::fs::file_size(path)), 0, 0, 0, 0};
    return stream ? decomp2(path.c_str(), dims, out.data(), nullptr) : decomp_rle(path.c_str(), dims, out.data());
}
inline int decodeStream(const std::string& path, int width, int height, Bytes& out, int size = -1) {
    return decodeRle(path, width, height, out, size, true);
}

// The library's own decoding of a whole file: both full decoders, and the
// preview reader at the same size where the file is large enough, agree.
inline Bytes decodeAll(const std::string& path, int width, int height) {
    Bytes a(4u * width * height, 0xCD), b(a.size(), 0xCD), p(a.size(), 0xCD);
    EXPECT_EQ(decodeRle(path, width, height, a), height);
    EXPECT_EQ(decodeStream(path, width, height, b), height);
    EXPECT_EQ(a, b);
    if (oltest::fs::file_size(path) >= 16640) {
        EXPECT_EQ(ol_io_read_preview_rgbe(width, height, width, height, path.c_str(), p.data()), height + 1);
        EXPECT_EQ(p, a);
    }
    return a;
}

// Pixel (x, y) of rgbe planes: r, g, b, e.
inline std::array<std::uint8_t, 4> pixelAt(const Bytes& planes, int width, int x, int y) {
    const std::uint8_t* row = planes.data() + static_cast<std::size_t>(y) * 4 * width;
    return {row[x], row[width + x], row[2 * width + x], row[3 * width + x]};
}

// Planes as flat pixels: R, G, B, E interleaved.
inline Bytes interleave(const Bytes& planes, int width, int height) {
    Bytes d;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const auto p = pixelAt(planes, width, x, y);
            d.insert(d.end(), p.begin(), p.end());
        }
    return d;
}

// RGB floats of planes as other programs decode them: mantissa * 2^(E-136),
// plus `offset` mantissa steps; 0 when E is 0.
inline std::vector<float> decodedRgb(const Bytes& planes, int width, int height, double offset = 0.0) {
    std::vector<float> v;
    v.reserve(3u * width * height);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const auto p = pixelAt(planes, width, x, y);
            for (int c = 0; c < 3; ++c)
                v.push_back(p[3] == 0 ? 0.0f : static_cast<float>((p[c] + offset) * std::ldexp(1.0, p[3] - 136)));
        }
    return v;
}

// Pixels of planes that differ from the wrapped encoding of interleaved
// RGB floats.
inline long encodingMismatches(const Bytes& planes, int width, int height, const std::vector<float>& rgb) {
    long bad = 0;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const float* v = &rgb[(static_cast<std::size_t>(y) * width + x) * 3];
            const ol::RgbePixel p = ol::encodeRgbe(v[0], v[1], v[2], ol::RgbeForm::Wrapped);
            bad += pixelAt(planes, width, x, y) != std::array<std::uint8_t, 4>{p.r, p.g, p.b, p.e};
        }
    return bad;
}

// Runs every reader over a file and returns when all have; the results must
// be a success or a family code.
inline void runAllReaders(const std::string& path) {
    float prim[8];
    int dims[7] = {};
    const int r = rgbe_dim(path.c_str(), prim, dims);
    EXPECT_TRUE(r >= 0 || r == -1 || r == -2 || r == -3) << r;
    std::vector<std::pair<int, int>> sizes = {{16, 16}, {1, 1}, {64, 80}};
    if (r >= 0 && dims[0] > 0 && dims[1] > 0 && static_cast<long long>(dims[0]) * dims[1] <= (1 << 22))
        sizes.emplace_back(dims[0], dims[1]);
    for (auto [w, h] : sizes) {
        Bytes out(4u * w * h);
        for (const int a : {decodeRle(path, w, h, out), decodeStream(path, w, h, out)})
            EXPECT_TRUE(a == h || (a <= -1 && a >= -6)) << a;
        const int p = ol_io_read_preview_rgbe(w, h, (w + 1) / 2, (h + 1) / 2, path.c_str(), out.data());
        EXPECT_TRUE(p == h || p == h + 1 || p == -1 || p == -4 || (p <= -200 && p >= -202)) << p;
    }
    ExifRecord e = emptyExif();
    Bytes planes(4u * 16 * 16);
    const int x = extract_rgbe_exif(path.c_str(), &e), f = fp2rgbe(path.c_str(), 16, 16, prim, planes.data());
    EXPECT_TRUE(x >= -1 && x <= 100) << x;
    EXPECT_TRUE(f == 16 || f == -1 || f == -3 || f == -4) << f;
}


}  // namespace radtest
