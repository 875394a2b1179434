#include "frame/rgbe.hpp"

namespace ol {

const RgbeExpTable& rgbeExpTable() noexcept {
    static const RgbeExpTable table = [] {
        RgbeExpTable t{};
        fillRgbeExpTable(t.v);
        return t;
    }();
    return table;
}

}  // namespace ol
