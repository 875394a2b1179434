// Bands of rows on the host's threads, for the stages after the weights:
// every band writes only its own rows, so the result does not depend on the
// number of bands. The calling thread takes the last band and joins the
// others before returning; a band whose thread will not start runs on the
// calling thread too. Small jobs stay on the calling thread, where starting
// a thread would cost more than it saves.
#pragma once

#include <cstddef>
#include <type_traits>

namespace ol {

// More bands than this gain nothing on any machine the library targets; a
// job never runs in more.
inline constexpr int kMaxBands = 64;

// Calls fn(ctx, band, first, count) for consecutive bands 0, 1, ... covering
// rows [0, rows), on up to `threads` threads (never more bands than that).
// `workPerRow` (samples, say) decides whether the job is worth splitting.
void runBandsRaw(int threads, int rows, std::size_t workPerRow, void (*fn)(void*, int, int, int),
                 void* ctx) noexcept;

// The same with a side job: every band goes to a thread of its own while
// the calling thread runs side(sideCtx); then it takes the bands whose
// thread would not start, and joins the others.
void runBandsBesideRaw(int threads, int rows, void (*fn)(void*, int, int, int), void* ctx,
                       void (*side)(void*), void* sideCtx) noexcept;

// f(band, first, count) in bands while s() runs on the calling thread.
template <class F, class Side>
void runBandsBeside(int threads, int rows, F&& f, Side&& s) noexcept {
    runBandsBesideRaw(
        threads, rows,
        [](void* c, int band, int first, int count) { (*static_cast<std::remove_reference_t<F>*>(c))(band, first, count); },
        const_cast<void*>(static_cast<const void*>(&f)),
        [](void* c) { (*static_cast<std::remove_reference_t<Side>*>(c))(); },
        const_cast<void*>(static_cast<const void*>(&s)));
}

// f(band, first, count).
template <class F>
void runBandsIndexed(int threads, int rows, std::size_t workPerRow, F&& f) noexcept {
    runBandsRaw(
        threads, rows, workPerRow,
        [](void* c, int band, int first, int count) { (*static_cast<std::remove_reference_t<F>*>(c))(band, first, count); },
        const_cast<void*>(static_cast<const void*>(&f)));
}

// f(first, count).
template <class F>
void runBands(int threads, int rows, std::size_t workPerRow, F&& f) noexcept {
    runBandsIndexed(threads, rows, workPerRow, [&f](int, int first, int count) { f(first, count); });
}

}  // namespace ol
