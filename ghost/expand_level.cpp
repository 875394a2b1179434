// expand_level: one pyramid level made from the next coarser one by the
// bilinear doubling of the Laplacian blend, stored as it comes.
#include <cstdint>

#include "fusion/expand.hpp"
#include "ghost/ghost.hpp"

namespace ol {
namespace {

template <class T>
void expandInto(int wF, int hF, int wC, int ch, bool wrap, const T* coarse, T* fine) noexcept {
    using Acc = typename Expand<T>::Acc;
    Acc up[kSpanSamples];
    const int span = spanPixels(ch);
    if (span < 2) {  // more channels than a span holds: one row at a time
        for (int y = 0; y < hF; ++y) {
            T* row = fine + static_cast<std::size_t>(y) * wF * ch;
            expandRow(coarse, y, wF, hF, wC, ch, wrap,
                      [&](int x, int c, Acc v) { row[static_cast<std::size_t>(x) * ch + c] = static_cast<T>(v); });
        }
        return;
    }
    for (int y = 0; y < hF; ++y) {
        T* row = fine + static_cast<std::size_t>(y) * wF * ch;
        for (int x0 = 0; x0 < wF; x0 += span) {
            const int n = wF - x0 < span ? wF - x0 : span;
            expandSpanChannels(coarse, y, wF, hF, wC, ch, wrap, x0, n, up);
            T* out = row + static_cast<std::size_t>(x0) * ch;
            const std::size_t count = static_cast<std::size_t>(n) * ch;
            for (std::size_t k = 0; k < count; ++k) out[k] = static_cast<T>(up[k]);
        }
    }
}

}  // namespace

void expand_level(int wFine, int hFine, int wCoarse, int hCoarse, int channels, int bps,
                  int wrapX, int initFine, int initCoarse, const void* coarse,
                  void* fine) noexcept {
    // A level with no pixels, or a coarse level too small for the fine one,
    // has nothing to expand from.
    if (wFine < 1 || hFine < 1 || channels < 1 || wCoarse < (wFine + 1) / 2 ||
        hCoarse < (hFine + 1) / 2)
        return;
    const bool wrap = wrapX != 0;
    if (bps == 8)
        expandInto(wFine, hFine, wCoarse, channels, wrap,
                   static_cast<const std::uint8_t*>(coarse) + initCoarse,
                   static_cast<std::uint8_t*>(fine) + initFine);
    else if (bps == 16)
        expandInto(wFine, hFine, wCoarse, channels, wrap,
                   static_cast<const std::uint16_t*>(coarse) + initCoarse,
                   static_cast<std::uint16_t*>(fine) + initFine);
    else if (bps == 32)
        expandInto(wFine, hFine, wCoarse, channels, wrap,
                   static_cast<const float*>(coarse) + initCoarse,
                   static_cast<float*>(fine) + initFine);
}

}  // namespace ol
