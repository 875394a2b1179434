// The shift and crop of the frames, rewritten in place.
//
// Frame k's pixel (x, y) comes from its pixel (x + dx[k], y + dy[k]), with
// dx, dy >= 0 and the new size no larger than the old. A destination row
// therefore never starts after its source row, and never reaches a source
// row (of this frame or a later one) that is still to be read, so the rows
// can be rewritten in ascending order straight into the block, with no
// output frame between.
#include <bit>
#include <cstdio>
#include <cstring>
#include <type_traits>

#include "align/align_internal.hpp"
#include "frame/trace.hpp"

namespace ol::alignment {
namespace {

// One output row: `copy` pixels from src, then white up to `count` pixels.
// Samples past the third are 0. Pixel i of dst never lies after pixel i of
// src, so a forward walk reading each pixel before writing it is safe.
template <int Bytes, int Samples>
void writeRow(const std::uint8_t* src, std::uint8_t* dst, int copy, int count, int samples) noexcept {
    const std::size_t spp = Samples ? Samples : static_cast<std::size_t>(samples);
    const std::size_t ps = spp * Bytes;
    constexpr std::size_t colour = 3 * Bytes;
    if (count <= 0) return;  // an empty crop (the block may then be null)
    if constexpr (Samples == 3) {
        if (dst != src) std::memmove(dst, src, static_cast<std::size_t>(copy) * ps);
        std::memset(dst + static_cast<std::size_t>(copy) * ps, 0xFF, static_cast<std::size_t>(count - copy) * ps);
    } else if constexpr (Samples == 4 && std::endian::native == std::endian::little) {
        using Word = std::conditional_t<Bytes == 1, std::uint32_t, std::uint64_t>;
        constexpr Word keep = Bytes == 1 ? Word(0x00FFFFFFu) : Word(0x0000FFFFFFFFFFFFull);
        for (int x = 0; x < copy; ++x) {
            Word w;
            std::memcpy(&w, src + x * ps, sizeof w);
            w &= keep;
            std::memcpy(dst + x * ps, &w, sizeof w);
        }
        for (int x = copy; x < count; ++x) {
            const Word w = keep;
            std::memcpy(dst + x * ps, &w, sizeof w);
        }
    } else {
        for (int x = 0; x < copy; ++x) {
            std::uint8_t c[colour];
            std::memcpy(c, src + x * ps, colour);
            std::memcpy(dst + x * ps, c, colour);
            std::memset(dst + x * ps + colour, 0, ps - colour);
        }
        for (int x = copy; x < count; ++x) {
            std::memset(dst + x * ps, 0xFF, colour);
            std::memset(dst + x * ps + colour, 0, ps - colour);
        }
    }
}

template <int Bytes, int Samples>
void rewriteFrame(const std::uint8_t* src, std::uint8_t* dst, int width, int height, int samples, int X,
                  int Y, int newWidth, int newHeight) noexcept {
    const std::size_t ps = static_cast<std::size_t>(Samples ? Samples : samples) * Bytes;
    int copy = width - X;  // pixels of a row that lie inside the frame
    if (copy > newWidth) copy = newWidth;
    if (copy < 0) copy = 0;
    for (int y = 0; y < newHeight; ++y) {
        std::uint8_t* out = dst + static_cast<std::size_t>(y) * newWidth * ps;
        const int sy = y + Y;
        if (sy < height)
            writeRow<Bytes, Samples>(src + (static_cast<std::size_t>(sy) * width + X) * ps, out, copy, newWidth,
                                     samples);
        else
            writeRow<Bytes, Samples>(out, out, 0, newWidth, samples);
    }
}

template <int Bytes>
void rewriteFrameDepth(const std::uint8_t* src, std::uint8_t* dst, int width, int height, int samples, int X,
                       int Y, int newWidth, int newHeight) noexcept {
    if (samples == 3)
        rewriteFrame<Bytes, 3>(src, dst, width, height, samples, X, Y, newWidth, newHeight);
    else if (samples == 4)
        rewriteFrame<Bytes, 4>(src, dst, width, height, samples, X, Y, newWidth, newHeight);
    else
        rewriteFrame<Bytes, 0>(src, dst, width, height, samples, X, Y, newWidth, newHeight);
}

}  // namespace

void rearrange(int nimages, int width, int height, int samples, int bits, const int* dx,
               const int* dy, int newWidth, int newHeight, std::uint8_t* block) noexcept {
    const std::size_t bytes = static_cast<std::size_t>(bits / 8);
    const std::size_t inFrame = static_cast<std::size_t>(width) * height * samples * bytes;
    const std::size_t outFrame = static_cast<std::size_t>(newWidth) * newHeight * samples * bytes;
    for (int k = 0; k < nimages; ++k) {
        if constexpr (traceFiles != 0)
            std::fprintf(stdout, "Rearangement image k=%d  deplX=%d  deplY=%d\n", k, dx[k], dy[k]);
        const std::uint8_t* src = block + k * inFrame;
        std::uint8_t* dst = block + k * outFrame;
        if (bits == 8)
            rewriteFrameDepth<1>(src, dst, width, height, samples, dx[k], dy[k], newWidth, newHeight);
        else if (bits == 16)
            rewriteFrameDepth<2>(src, dst, width, height, samples, dx[k], dy[k], newWidth, newHeight);
        else if (outFrame > 0)
            std::memset(dst, 0, outFrame);  // no sample is copied at other depths
    }
}

}  // namespace ol::alignment
