// Luminance histograms of the frames and the pixel-count correction.
#include <cstring>

#include "align/align_internal.hpp"
#include "align/luminance.hpp"
#include "frame/clones.hpp"
#include "frame/histogram.hpp"

namespace ol::alignment {
namespace {

// Four interleaved histograms break the chain of increments on one entry that
// a smooth image makes. Luminance is written a chunk at a time (a loop the
// compiler vectorises), then counted while the chunk is in the cache.
template <int Bytes, int Samples>
OL_AVX2_CLONES
void countFrame(const std::uint8_t* frame, std::size_t pixels, int samples, std::uint8_t* plane,
                std::int64_t* hist) noexcept {
    constexpr std::size_t kChunk = 4096;
    std::uint32_t part[4][256];
    std::memset(part, 0, sizeof part);
    std::size_t done = 0, sinceFlush = 0;
    auto flush = [&] {
        for (int k = 0; k < 256; ++k) {
            hist[k] += static_cast<std::int64_t>(part[0][k]) + part[1][k] + part[2][k] + part[3][k];
            part[0][k] = part[1][k] = part[2][k] = part[3][k] = 0;
        }
        sinceFlush = 0;
    };
    while (done < pixels) {
        const std::size_t n = pixels - done < kChunk ? pixels - done : kChunk;
        std::uint8_t* lum = plane + done;
        luminanceRun<Bytes, Samples>(frame + done * (Bytes * static_cast<std::size_t>(samples)), n, samples, lum);
        std::size_t i = 0;
        for (; i + 4 <= n; i += 4) {
            ++part[0][lum[i]];
            ++part[1][lum[i + 1]];
            ++part[2][lum[i + 2]];
            ++part[3][lum[i + 3]];
        }
        for (; i < n; ++i) ++part[0][lum[i]];
        done += n;
        sinceFlush += n;
        if (sinceFlush >= (std::size_t(1) << 30)) flush();  // 32-bit counters
    }
    flush();
}

template <int Bytes>
void countFrameDepth(const std::uint8_t* frame, std::size_t pixels, int samples, std::uint8_t* plane,
                     std::int64_t* hist) noexcept {
    if (samples == 3)
        countFrame<Bytes, 3>(frame, pixels, samples, plane, hist);
    else if (samples == 4)
        countFrame<Bytes, 4>(frame, pixels, samples, plane, hist);
    else
        countFrame<Bytes, 0>(frame, pixels, samples, plane, hist);
}

// One step of the correction, or c itself when the level passed lies in 15..235.
std::int64_t step(const std::int64_t* hist, std::int64_t c) noexcept {
    const int bin = levelPassing(hist, c);
    if (bin > 235) return static_cast<std::int64_t>(static_cast<double>(c) * 0.95);
    if (bin < 15) return static_cast<std::int64_t>(static_cast<double>(c) * 1.05);
    return c;
}

bool settled(const std::int64_t* hist, std::int64_t c) noexcept {
    const int bin = levelPassing(hist, c);
    return bin <= 235 && bin >= 15;
}

}  // namespace

void luminanceHistogram(const Frames& f, int k, std::uint8_t* plane, std::int64_t* hist) noexcept {
    std::memset(hist, 0, 256 * sizeof(std::int64_t));
    const std::size_t pixels = static_cast<std::size_t>(f.width) * static_cast<std::size_t>(f.height);
    if (f.bits == 8)
        countFrameDepth<1>(f.frame(k), pixels, f.samples, plane, hist);
    else if (f.bits == 16)
        countFrameDepth<2>(f.frame(k), pixels, f.samples, plane, hist);
    else if (pixels > 0)
        std::memset(plane, 0, pixels);  // no luminance at other depths
}

std::int64_t adjust_count(const std::int64_t* allhist, int frame, std::int64_t c) noexcept {
    const std::int64_t* hist = allhist + 256 * static_cast<std::size_t>(frame);
    // Brent's cycle search over the run of counts c0, c1, ...: `hare` walks
    // the run, `mark` is an earlier count; meeting it again means a cycle of
    // length `lam`.
    std::int64_t mark = c, hare = c;
    long power = 1, lam = 0;
    for (;;) {
        if (settled(hist, hare)) return hare;
        if (lam == power) {
            mark = hare;
            power *= 2;
            lam = 0;
        }
        hare = step(hist, hare);
        ++lam;
        if (hare == mark) break;
    }
    // The first count taken twice: walk two pointers lam counts apart from
    // the start until they meet.
    std::int64_t lead = c, trail = c;
    for (long i = 0; i < lam; ++i) lead = step(hist, lead);
    while (lead != trail) {
        lead = step(hist, lead);
        trail = step(hist, trail);
    }
    return trail;
}

std::int64_t correctedCount(const std::int64_t* allhist, int frame, std::int64_t c) noexcept {
    const std::int64_t* hist = allhist + 256 * static_cast<std::size_t>(frame);
    const int bin = levelPassing(hist, c);
    if (bin >= 236) return adjust_count(allhist, frame, static_cast<std::int64_t>(static_cast<double>(c) * 0.95));
    if (bin < 15) return adjust_count(allhist, frame, static_cast<std::int64_t>(static_cast<double>(c) * 1.05));
    return c;
}

}  // namespace ol::alignment
