// ICC profile helpers: loading a profile file and naming a profile.
#include <cstring>

#include "Ombrelumen40Lib1.h"
#include "frame/bytes.hpp"
#include "frame/file.hpp"

namespace {

// The names the library knows, tried in this order at each text position.
struct KnownName {
    const char* text;
    int length;
};
constexpr KnownName kKnownNames[] = {{"sRGB", 4}, {"Adobe RGB", 9}, {"ProPhoto RGB", 12}};

bool matchesAt(const unsigned char* profile, long size, long at, const KnownName& n) {
    if (at < 0 || at + n.length > size) return false;
    return std::memcmp(profile + at, n.text, static_cast<std::size_t>(n.length)) == 0;
}

}  // namespace

extern "C" {

OL_API int extract_profile(const char* path, unsigned char* buffer) {
    using namespace ol;
    if (!path) return -1;
    File file = openFile(path, "rb");
    if (!file) return -2;
    std::FILE* f = file.get();
    std::uint8_t head[4];
    // The file is closed on this path too (File closes itself).
    if (!readExact(f, head, 4)) return -3;
    const std::int32_t size = static_cast<std::int32_t>(getU32BE(head));
    if (size < 1) return -4;
    if (std::fseek(f, 0, SEEK_SET) != 0) return -5;
    if (!readExact(f, buffer, static_cast<std::size_t>(size))) return -5;
    return size;
}

OL_API int get_profile_name(int size, const unsigned char* profile, char* name) {
    std::memset(name, 0, 32);
    const long limit = static_cast<long>(size) - 16;
    if (limit < 33) return -1;
    // The first "desc" type signature followed by the four reserved zero bytes
    // and the three high bytes of the ASCII count, all zero; the tag table is
    // not consulted.
    static const unsigned char kDesc[11] = {'d', 'e', 's', 'c', 0, 0, 0, 0, 0, 0, 0};
    for (long i = 32; i < limit; ++i) {
        if (i + 11 > size || std::memcmp(profile + i, kDesc, 11) != 0) continue;
        const int n = profile[i + 11];
        const long text = i + 12;
        for (int j = 0; j < n; ++j) {
            for (const auto& known : kKnownNames) {
                if (matchesAt(profile, size, text + j, known)) {
                    std::memcpy(name, known.text, static_cast<std::size_t>(known.length));
                    return known.length;
                }
            }
        }
        // No known name: the first 32 bytes of the text, whatever its length.
        // Bytes past the end of the profile stay 0.
        long avail = static_cast<long>(size) - text;
        if (avail > 32) avail = 32;
        if (avail > 0) std::memcpy(name, profile + text, static_cast<std::size_t>(avail));
        return 32;
    }
    return -1;
}

}  // extern "C"
