#include "fusion/expand.hpp"

#include "frame/clones.hpp"

namespace ol {

OL_AVX2_CLONES
void expandSpan16(const std::uint16_t* coarse, int y, int wF, int hF, int wC, int ch, bool wrap, int x0,
                  int n, std::int32_t* up) noexcept {
    expandSpanChannels(coarse, y, wF, hF, wC, ch, wrap, x0, n, up);
}

}  // namespace ol
