// The window sums of interior pixels, 8 pixels a vector and 4 vectors at a
// time. Each lane keeps its pixel's own sum in the window's order, so the
// float results are those of the plain loop; only the pixels run side by
// side.
#include <immintrin.h>

#include "combine/intensive.hpp"

#define OL_TARGET_AVX2 __attribute__((target("avx2")))

namespace ol::intensive {

bool haveAvx2() noexcept { return __builtin_cpu_supports("avx2"); }

namespace {

template <int V>
OL_TARGET_AVX2 inline void block(const RowWindow& win, long x, float* out) noexcept {
    const std::uint8_t* centre = win.plane + win.y * win.w + x;
    __m256i c[V];
    __m256 acc[V];
    for (int j = 0; j < V; ++j) {
        c[j] = _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(centre + 8 * j)));
        acc[j] = _mm256_cvtepi32_ps(c[j]);
    }
    const float* sp = win.spatial;
    for (long dy = win.dyLo; dy <= win.dyHi; dy += win.step) {
        const std::uint8_t* row = win.plane + (win.y + dy) * win.w + x;
        for (long dx = -win.r; dx <= win.r; dx += win.step, ++sp) {
            const __m256 s = _mm256_broadcast_ss(sp);
            for (int j = 0; j < V; ++j) {
                const __m256i u =
                    _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(row + dx + 8 * j)));
                const __m256i d = _mm256_abs_epi32(_mm256_sub_epi32(u, c[j]));
                const __m256 rv = _mm256_i32gather_ps(win.range, d, 4);
                acc[j] = _mm256_add_ps(acc[j], _mm256_mul_ps(_mm256_mul_ps(rv, s), _mm256_cvtepi32_ps(u)));
            }
        }
    }
    for (int j = 0; j < V; ++j) _mm256_storeu_ps(out + 8 * j, acc[j]);
}

}  // namespace

OL_TARGET_AVX2 long interiorAccAvx2(const RowWindow& win, long x0, long x1, float* acc) noexcept {
    long x = x0;
    for (; x + 32 <= x1; x += 32) block<4>(win, x, acc + x);
    for (; x + 8 <= x1; x += 8) block<1>(win, x, acc + x);
    return x;
}

}  // namespace ol::intensive
