#include "frame/box_mean.hpp"

namespace ol {

void clippedBoxMeanRows(ConstBytePlane src, BytePlane dst, int width, int height, int before,
                        int after) noexcept {
    if (width < 1 || height < 1) return;
    const long w = width;
    for (long y = 0; y < height; ++y) {
        const std::uint8_t* in = src.base + y * src.rowStep;
        std::uint8_t* out = dst.base + y * dst.rowStep;
        const std::ptrdiff_t ps = src.pixelStep, pd = dst.pixelStep;
        // Window of x = 0.
        std::uint32_t sum = 0;
        {
            long lo = -static_cast<long>(before), hi = after;
            if (lo < 1) lo = 1;
            if (hi > w - 1) hi = w - 1;
            for (long p = lo; p <= hi; ++p) sum += in[p * ps];
        }
        int count = clippedCount(0, w, before, after);
        WindowDivider div(static_cast<std::uint32_t>(count));
        for (long x = 0; x < w; ++x) {
            const int c = clippedCount(x, w, before, after);
            if (c != count) {
                count = c;
                div = WindowDivider(static_cast<std::uint32_t>(c));
            }
            out[x * pd] = static_cast<std::uint8_t>(div(sum));
            const long leave = x - before, enter = x + after + 1;
            if (leave >= 1 && leave < w) sum -= in[leave * ps];
            if (enter >= 1 && enter < w) sum += in[enter * ps];
        }
    }
}

namespace {

// Columns [x0, x0 + n) of the column pass, with their running sums.
template <bool Packed>
void columnBlock(ConstBytePlane src, BytePlane dst, long x0, int n, long h, long before, long after,
                 std::uint32_t* sum) noexcept {
    const std::ptrdiff_t ps = Packed ? 1 : src.pixelStep, pd = Packed ? 1 : dst.pixelStep;
    for (int i = 0; i < n; ++i) sum[i] = 0;
    {
        long lo = -before, hi = after;
        if (lo < 1) lo = 1;
        if (hi > h - 1) hi = h - 1;
        for (long r = lo; r <= hi; ++r) {
            const std::uint8_t* in = src.base + r * src.rowStep + x0 * src.pixelStep;
            for (int i = 0; i < n; ++i) sum[i] += in[i * ps];
        }
    }
    for (long y = 0; y < h; ++y) {
        const WindowDivider div(static_cast<std::uint32_t>(clippedCount(y, h, before, after)));
        std::uint8_t* out = dst.base + y * dst.rowStep + x0 * dst.pixelStep;
        if (div.divisor() == 1) {
            for (int i = 0; i < n; ++i) out[i * pd] = static_cast<std::uint8_t>(sum[i]);
        } else {
            for (int i = 0; i < n; ++i) out[i * pd] = static_cast<std::uint8_t>(div(sum[i]));
        }
        const long leave = y - before, enter = y + after + 1;
        if (leave >= 1 && leave < h) {
            const std::uint8_t* in = src.base + leave * src.rowStep + x0 * src.pixelStep;
            for (int i = 0; i < n; ++i) sum[i] -= in[i * ps];
        }
        if (enter >= 1 && enter < h) {
            const std::uint8_t* in = src.base + enter * src.rowStep + x0 * src.pixelStep;
            for (int i = 0; i < n; ++i) sum[i] += in[i * ps];
        }
    }
}

}  // namespace

void clippedBoxMeanColumns(ConstBytePlane src, BytePlane dst, int width, int height, int before,
                           int after) noexcept {
    if (width < 1 || height < 1) return;
    // Column sums for a block of columns at a time, on the stack: the pass
    // walks down the rows with every row's bytes of the block contiguous.
    constexpr int kBlock = 1024;
    std::uint32_t sum[kBlock];
    const bool packed = src.pixelStep == 1 && dst.pixelStep == 1;
    for (long x0 = 0; x0 < width; x0 += kBlock) {
        const int n = static_cast<int>(width - x0 < kBlock ? width - x0 : kBlock);
        if (packed)
            columnBlock<true>(src, dst, x0, n, height, before, after, sum);
        else
            columnBlock<false>(src, dst, x0, n, height, before, after, sum);
    }
}

}  // namespace ol
