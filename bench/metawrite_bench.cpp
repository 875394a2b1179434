// TIFF writer pixel paths, 4000 x 3000 pixels, written to a scratch file.
//
// The row path writes whole rows. The sample-dropping path (4 samples in, 3
// out) and the high-byte path (16-bit in, 8-bit out) pick bytes one pixel or
// one sample at a time; the library stages them through a chunk buffer. The
// "Reference" cases do the same picking with one fwrite per pixel and one
// fputc per byte, the plain form of those loops, for comparison.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <unistd.h>

#include "Ombrelumen40Lib1.h"
#include "tests/support/records.hpp"

namespace {

constexpr int kW = 4000, kH = 3000;

std::string scratch() { return "/tmp/metawrite-bench-" + std::to_string(getpid()) + ".tif"; }

tif_info info(int samples, int bits, int mode) {
    return oltest::records::makeInfo(kW, kH, samples, bits, mode);
}

void run(benchmark::State& state, int samples, int inBytes, int bits, int mode) {
    std::vector<std::uint8_t> px(static_cast<std::size_t>(kW) * kH * samples * inBytes);
    for (std::size_t i = 0; i < px.size(); ++i) px[i] = static_cast<std::uint8_t>(i * 31);
    const tif_info ti = info(samples, bits, mode);
    const std::string path = scratch();
    for (auto _ : state) {
        const int r = buf2tifOld(px.data(), &ti, kW * samples * (bits / 8), nullptr, nullptr, nullptr, 0, nullptr, 0,
                                 nullptr, path.c_str());
        benchmark::DoNotOptimize(r);
    }
    std::remove(path.c_str());
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(px.size()));
}

void BM_RowPath_Rgb8(benchmark::State& s) { run(s, 3, 1, 8, 0); }
void BM_RowPath_Rgb16(benchmark::State& s) { run(s, 3, 2, 16, 0); }
void BM_DropSample_Rgba8(benchmark::State& s) { run(s, 4, 1, 8, 0); }
void BM_HighByte_Rgb16to8(benchmark::State& s) { run(s, 3, 2, 8, 1); }

// The plain loops, one library call per pixel or byte.
void BM_Reference_DropSample_Rgba8(benchmark::State& state) {
    std::vector<std::uint8_t> px(static_cast<std::size_t>(kW) * kH * 4);
    for (std::size_t i = 0; i < px.size(); ++i) px[i] = static_cast<std::uint8_t>(i * 31);
    const std::string path = scratch();
    for (auto _ : state) {
        std::FILE* f = std::fopen(path.c_str(), "wb");
        const std::uint8_t* p = px.data();
        for (int r = 0; r < kH; ++r)
            for (int c = 0; c < kW; ++c, p += 4) std::fwrite(p, 3, 1, f);
        std::fclose(f);
    }
    std::remove(path.c_str());
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(px.size()));
}

void BM_Reference_HighByte_Rgb16to8(benchmark::State& state) {
    std::vector<std::uint8_t> px(static_cast<std::size_t>(kW) * kH * 3 * 2);
    for (std::size_t i = 0; i < px.size(); ++i) px[i] = static_cast<std::uint8_t>(i * 31);
    const std::string path = scratch();
    for (auto _ : state) {
        std::FILE* f = std::fopen(path.c_str(), "wb");
        const std::uint8_t* p = px.data();
        for (std::size_t i = 0; i < px.size() / 2; ++i) std::fputc(p[2 * i + 1], f);
        std::fclose(f);
    }
    std::remove(path.c_str());
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(px.size()));
}

}  // namespace

BENCHMARK(BM_RowPath_Rgb8)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RowPath_Rgb16)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DropSample_Rgba8)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Reference_DropSample_Rgba8)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_HighByte_Rgb16to8)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Reference_HighByte_Rgb16to8)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
