#include "frame/compressor_mask.hpp"

namespace ol {

const CompressorMaskTables& compressorMaskTables() noexcept {
    static const CompressorMaskTables tables = [] {
        CompressorMaskTables t{};
        for (int y = 0; y < 256; ++y) t.ofLuminance[y] = compressorMaskOfLuminance(y);
        for (int s = 0; s < 766; ++s) t.ofLevelSum[s] = compressorMaskOfLevelSum(s);
        return t;
    }();
    return tables;
}

}  // namespace ol
