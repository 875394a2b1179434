// Response tables straight from an exponent.
#include <cmath>

#include "Ombrelumen40Lib1.h"

extern "C" {

// 256 entries of scale * i^(gamma1000 / 1000); entry 0 copies entry 1, so
// level 0 does not map to 0.
OL_API int gen_courbe(int gamma1000, float scale, float* curve) {
    const double e = gamma1000 / 1000.0;
    for (int i = 1; i < 256; ++i)
        curve[i] = static_cast<float>(std::pow(static_cast<double>(i), e) * static_cast<double>(scale));
    curve[0] = curve[1];
    return 256;
}

// n entries of (i / (n-1))^e * (n-1), e being 1 for a straight line and 2.2
// otherwise; entry 0 copies entry 1. With fewer than two entries there is no
// step to take: the table is left alone and the result is 1.
OL_API int camcurve(int linear, int n, float* curve) {
    if (n < 2) return 1;
    const double e = linear > 0 ? 1.0 : 2.2;
    const float step = static_cast<float>(1.0 / (n - 1));
    const double top = static_cast<double>(n - 1);
    for (int i = 1; i < n; ++i)
        curve[i] = static_cast<float>(std::pow(static_cast<double>(static_cast<float>(i) * step), e) * top);
    curve[0] = curve[1];
    return n;
}

}  // extern "C"
