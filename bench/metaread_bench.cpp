// Metadata and PSD reading: load_psd on a 3000x2000 composite at 8 bits
// (PackBits), 16 bits (raw) and 32 bits (raw floats), and get_exif_data on a
// JPEG with Exif, GPS and a Photoshop APP13 block.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "Ombrelumen40Lib1.h"
#include "frame/tiff_tags.hpp"
#include "metadata/psd_reader.hpp"
#include <cmath>
#include <cstring>

namespace {

using Bytes = std::vector<std::uint8_t>;

void be16(Bytes& b, std::uint32_t v) {
    b.push_back(static_cast<std::uint8_t>(v >> 8));
    b.push_back(static_cast<std::uint8_t>(v));
}
void be32(Bytes& b, std::uint32_t v) {
    be16(b, v >> 16);
    be16(b, v & 0xFFFF);
}

constexpr int kW = 3000, kH = 2000;

// A photo-like composite: smooth gradients with some texture, so that
// PackBits has both runs and literals to decode.
std::uint8_t texel(int c, int y, int x) {
    const int v = (x * (c + 1) / 12 + y / 8 + ((x * 7 + y * 13) % 5 == 0 ? 3 : 0)) & 0xFF;
    return static_cast<std::uint8_t>((x / 64) % 3 == 0 ? 128 : v);
}

std::string writePsd(int depth, bool rle) {
    Bytes b = {'8', 'B', 'P', 'S'};
    be16(b, 1);
    b.resize(b.size() + 6, 0);
    be16(b, 3);
    be32(b, kH);
    be32(b, kW);
    be16(b, static_cast<std::uint32_t>(depth));
    be16(b, 3);
    be32(b, 0);
    be32(b, 0);
    be32(b, 0);
    be16(b, rle ? 1 : 0);
    if (rle) {
        Bytes table, data;
        for (int c = 0; c < 3; ++c)
            for (int y = 0; y < kH; ++y) {
                Bytes row;
                int x = 0;
                while (x < kW) {
                    int run = 1;
                    while (x + run < kW && run < 128 && texel(c, y, x + run) == texel(c, y, x)) ++run;
                    if (run >= 3) {
                        row.push_back(static_cast<std::uint8_t>(1 - run));
                        row.push_back(texel(c, y, x));
                        x += run;
                    } else {
                        int lit = 0;
                        while (x + lit < kW && lit < 128 &&
                               !(x + lit + 2 < kW && texel(c, y, x + lit) == texel(c, y, x + lit + 1) &&
                                 texel(c, y, x + lit) == texel(c, y, x + lit + 2)))
                            ++lit;
                        if (lit == 0) lit = 1;
                        row.push_back(static_cast<std::uint8_t>(lit - 1));
                        for (int k = 0; k < lit; ++k) row.push_back(texel(c, y, x + k));
                        x += lit;
                    }
                }
                be16(table, static_cast<std::uint32_t>(row.size()));
                data.insert(data.end(), row.begin(), row.end());
            }
        b.insert(b.end(), table.begin(), table.end());
        b.insert(b.end(), data.begin(), data.end());
    } else {
        for (int c = 0; c < 3; ++c)
            for (int y = 0; y < kH; ++y)
                for (int x = 0; x < kW; ++x) {
                    const std::uint8_t t = texel(c, y, x);
                    if (depth == 8) {
                        b.push_back(t);
                    } else if (depth == 16) {
                        be16(b, t * 257u + static_cast<std::uint32_t>(x & 0xFF));
                    } else {
                        const float f = static_cast<float>(t) / 64.0f;
                        std::uint32_t u;
                        static_assert(sizeof u == sizeof f);
                        __builtin_memcpy(&u, &f, 4);
                        be32(b, u);
                    }
                }
    }
    const std::string path = "/tmp/metaread_bench_" + std::to_string(depth) + (rle ? "rle" : "raw") + ".psd";
    std::FILE* f = std::fopen(path.c_str(), "wb");
    std::fwrite(b.data(), 1, b.size(), f);
    std::fclose(f);
    return path;
}

void loadPsd(benchmark::State& state, int depth, bool rle) {
    const std::string path = writePsd(depth, rle);
    PsdInfo info{};
    if (getPsdInfo(path.c_str(), &info) <= 0) {
        state.SkipWithError("getPsdInfo failed");
        return;
    }
    std::vector<std::uint8_t> out(static_cast<std::size_t>(kW) * kH * (depth == 32 ? 4 : 3 * depth / 8));
    for (auto _ : state) {
        const int r = load_psd(1, path.c_str(), &info, 3 * kW, out.data());
        benchmark::DoNotOptimize(r);
    }
    state.SetItemsProcessed(state.iterations() * kW * kH);
    std::remove(path.c_str());
}

void BM_LoadPsd8Rle(benchmark::State& s) { loadPsd(s, 8, true); }
void BM_LoadPsd8Raw(benchmark::State& s) { loadPsd(s, 8, false); }
void BM_LoadPsd16Raw(benchmark::State& s) { loadPsd(s, 16, false); }
void BM_LoadPsd32Raw(benchmark::State& s) { loadPsd(s, 32, false); }

std::string writeJpeg() {
    // TIFF block (II): IFD0 with Model and Orientation, an Exif IFD with
    // ExposureTime, FNumber, ISO and DateTimeOriginal.
    Bytes t = {'I', 'I', 42, 0, 8, 0, 0, 0};
    auto le16 = [&](std::uint32_t v) {
        t.push_back(static_cast<std::uint8_t>(v));
        t.push_back(static_cast<std::uint8_t>(v >> 8));
    };
    auto le32 = [&](std::uint32_t v) {
        le16(v & 0xFFFF);
        le16(v >> 16);
    };
    auto entry = [&](std::uint32_t tag, std::uint32_t type, std::uint32_t count, std::uint32_t value) {
        le16(tag);
        le16(type);
        le32(count);
        le32(value);
    };
    const std::uint32_t exifAt = 8 + 2 + 3 * 12 + 4, dataAt = exifAt + 2 + 4 * 12 + 4;
    le16(3);
    entry(ol::tag::kModel, ol::kTiffAscii, 8, dataAt);
    entry(ol::tag::kOrientation, ol::kTiffShort, 1, 1);
    entry(ol::tag::kExifIfd, ol::kTiffLong, 1, exifAt);
    le32(0);
    le16(4);
    entry(ol::tag::kExposureTime, ol::kTiffRational, 1, dataAt + 8);
    entry(ol::tag::kFNumber, ol::kTiffRational, 1, dataAt + 16);
    entry(ol::tag::kIso, ol::kTiffShort, 1, 200);
    entry(ol::tag::kDateTimeOriginal, ol::kTiffAscii, 20, dataAt + 24);
    le32(0);
    for (char c : std::string("BenchCam", 8)) t.push_back(static_cast<std::uint8_t>(c));
    le32(1);
    le32(125);
    le32(56);
    le32(10);
    for (char c : std::string("2024:01:02 03:04:05")) t.push_back(static_cast<std::uint8_t>(c));
    t.push_back(0);
    Bytes j = {0xFF, 0xD8, 0xFF, 0xE1};
    be16(j, static_cast<std::uint32_t>(t.size() + 8));
    for (char c : std::string("Exif\0\0", 6)) j.push_back(static_cast<std::uint8_t>(c));
    j.insert(j.end(), t.begin(), t.end());
    Bytes res = {'8', 'B', 'I', 'M', 4, 4, 0, 0};
    be32(res, 64);
    res.resize(res.size() + 64, 0x1C);
    j.push_back(0xFF);
    j.push_back(0xED);
    be16(j, static_cast<std::uint32_t>(res.size() + 16));
    for (char c : std::string("Photoshop 3.0\0", 14)) j.push_back(static_cast<std::uint8_t>(c));
    j.insert(j.end(), res.begin(), res.end());
    j.insert(j.end(), {0xFF, 0xDA, 0, 2, 0xFF, 0xD9});
    const std::string path = "/tmp/metaread_bench.jpg";
    std::FILE* f = std::fopen(path.c_str(), "wb");
    std::fwrite(j.data(), 1, j.size(), f);
    std::fclose(f);
    return path;
}

void BM_GetExifJpeg(benchmark::State& state) {
    const std::string path = writeJpeg();
    for (auto _ : state) {
        ExifRecord e{};
        GpsRecord g{};
        benchmark::DoNotOptimize(get_exif_data(path.c_str(), 1, &e, &g));
    }
    std::remove(path.c_str());
}

// psdFloat against the formula written out (sign, 8-bit exponent with bias
// 128, 23-bit fraction, through ldexp in double), over 6M samples.
std::vector<std::uint8_t> floatSamples() {
    std::vector<std::uint8_t> b(4u * kW * kH);
    std::uint32_t x = 12345;
    for (std::size_t i = 0; i < b.size(); i += 4) {
        x = x * 1664525u + 1013904223u;
        const float f = static_cast<float>(x >> 8) / 65536.0f;
        std::uint32_t u;
        std::memcpy(&u, &f, 4);
        b[i] = static_cast<std::uint8_t>(u >> 24);
        b[i + 1] = static_cast<std::uint8_t>(u >> 16);
        b[i + 2] = static_cast<std::uint8_t>(u >> 8);
        b[i + 3] = static_cast<std::uint8_t>(u);
    }
    return b;
}

float psdFloatFormula(const std::uint8_t* b) {
    const int sign = b[0] >> 7;
    const int e = ((b[0] & 0x7F) << 1) | (b[1] >> 7);
    const std::uint32_t fr = (static_cast<std::uint32_t>(b[1] & 0x7F) << 16) | (b[2] << 8) | b[3];
    if ((e == 0 || e == 255) && !(b[0] | b[1] | b[2] | b[3])) return 0.0f;
    const float f = static_cast<float>(std::ldexp(static_cast<double>(0x800000u | fr), e - 151));
    return sign ? -f : f;
}

void BM_PsdFloatFormula(benchmark::State& state) {
    const auto b = floatSamples();
    for (auto _ : state) {
        float sum = 0;
        for (std::size_t i = 0; i < b.size(); i += 4) sum += psdFloatFormula(&b[i]);
        benchmark::DoNotOptimize(sum);
    }
}

void BM_PsdFloat(benchmark::State& state) {
    const auto b = floatSamples();
    for (auto _ : state) {
        float sum = 0;
        for (std::size_t i = 0; i < b.size(); i += 4) sum += ol::psdFloat(&b[i]);
        benchmark::DoNotOptimize(sum);
    }
}

// A PSD named by the environment (METAREAD_PSD), for side-by-side runs
// against other readers (bench/compare_psd.sh).
void BM_LoadPsdFile(benchmark::State& state) {
    const char* path = std::getenv("METAREAD_PSD");
    PsdInfo info{};
    if (!path || getPsdInfo(path, &info) <= 0 || info.bps == 32) {
        state.SkipWithError("set METAREAD_PSD to an 8 or 16-bit RGB PSD");
        return;
    }
    std::vector<std::uint8_t> out(static_cast<std::size_t>(info.width) * info.height * 3 * (info.bps / 8));
    for (auto _ : state) benchmark::DoNotOptimize(load_psd(1, path, &info, 3 * info.width, out.data()));
}

BENCHMARK(BM_LoadPsdFile)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PsdFloatFormula)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PsdFloat)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LoadPsd8Rle)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LoadPsd8Raw)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LoadPsd16Raw)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LoadPsd32Raw)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_GetExifJpeg)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
