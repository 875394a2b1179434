// The clipped box mean as the operators and the two-image blend define it,
// summed afresh for each position: the values at positions p of one line of
// n with i - before <= p <= i + after and 1 <= p < n (position 0 never
// counts), divided by the positions taken; 0 when none is.
#pragma once

#include <algorithm>
#include <functional>

namespace oltest {

inline int boxMean(const std::function<int(long)>& value, long i, long n, long before, long after) {
    long sum = 0, count = 0;
    for (long p = std::max(1L, i - before); p <= std::min(n - 1, i + after); ++p) sum += value(p), ++count;
    return count ? static_cast<int>(sum / count) : 0;
}

}  // namespace oltest
