// Finding the Exif data in a file: the JPEG marker scan (APP1 Exif, then the
// Photoshop APP13 block in a second pass), the PSD resource walk to the Exif
// resource, or a bare TIFF.
#include <cstdio>
#include <cstring>

#include "frame/file.hpp"
#include "metadata/exif_reader.hpp"

namespace ol {

namespace {

constexpr int kMarkerEoi = 0xD9;
constexpr int kMarkerSos = 0xDA;
constexpr int kMarkerApp1 = 0xE1;
constexpr int kMarkerApp13 = 0xED;
constexpr int kPsdExifResource = 1058;

// Walks the JPEG segments up to the first APP1 and checks its Exif header.
// True with the stream at the TIFF header; false when the scan stops.
bool findJpegExif(ReadStream& s) noexcept {
    const std::uint8_t soi0 = s.u8();
    const std::uint8_t soi1 = s.u8();
    if (soi0 != 0xFF || soi1 != 0xD8) return false;
    for (;;) {
        // Up to four 0xFF bytes before a marker; the 0xFF itself is optional.
        int marker = -1;
        for (int pad = 0;;) {
            const std::uint8_t c = s.u8();
            if (s.atEnd()) return false;
            if (c != 0xFF) {
                marker = c;
                break;
            }
            if (++pad == 5) {
                std::fprintf(stdout, "too many padding bytes\n");
                return false;
            }
        }
        if (marker == kMarkerEoi || marker == kMarkerSos) return false;
        const int length = s.u16be();
        if (s.atEnd()) return false;
        if (length < 2) {
            std::fprintf(stdout, "invalid marker\n");
            return false;
        }
        if (marker == kMarkerApp1) {
            std::uint8_t id[6];
            if (!s.bytes(id, 6)) return false;
            if (std::memcmp(id, "Exif\0\0", 6) != 0) {
                std::fprintf(stdout, "APP1 does not contain valid Exif header\n");
                return false;
            }
            return true;
        }
        if (!s.skip(length - 2)) return false;
    }
}

// Second pass over a JPEG for the Photoshop APP13 segment and its IPTC block
// and thumbnail. Here every marker must follow exactly one 0xFF.
void scanJpegApp13(ReadStream& s, RawExif& raw) noexcept {
    if (!s.seek(0)) return;
    const std::uint8_t soi0 = s.u8();
    const std::uint8_t soi1 = s.u8();
    if (soi0 != 0xFF || soi1 != 0xD8) return;
    for (;;) {
        const std::uint8_t ff = s.u8();
        const int marker = s.u8();
        if (s.atEnd() || ff != 0xFF) return;
        if (marker == kMarkerEoi || marker == kMarkerSos) return;
        const int length = s.u16be();
        if (s.atEnd()) return;
        if (length < 2) {
            std::fprintf(stdout, "invalid marker\n");
            return;
        }
        if (marker == kMarkerApp13) {
            std::uint8_t id[14];
            if (!s.bytes(id, 14)) return;
            // The block scan takes as many bytes as the length field gives,
            // counted from behind the identifier, so it reaches 16 bytes
            // past the segment.
            if (std::memcmp(id, "Photoshop 3.0\0", 14) == 0) read8bim(s, length, raw);
            return;
        }
        if (!s.skip(length - 2)) return;
    }
}

// Walks a flat RGB PSD's resources to the Exif resource; true with the stream
// at its data (a TIFF header).
bool findPsdExif(ReadStream& s) noexcept {
    std::uint8_t sig[4];
    if (!s.bytes(sig, 4) || std::memcmp(sig, "8BPS", 4) != 0) return false;
    s.skip(8);  // version and reserved bytes
    const int channels = s.u16be();
    if (s.atEnd() || channels < 3) return false;
    s.skip(10);  // rows, columns, depth
    const int mode = s.u16be();
    if (s.atEnd() || mode != 3) return false;
    const std::uint32_t colorData = s.u32be();
    if (!s.skip(colorData)) return false;
    const std::int32_t sectionLength = static_cast<std::int32_t>(s.u32be());
    if (s.atEnd() || sectionLength < 1) return false;
    std::int64_t total = 0;
    for (;;) {
        const std::int64_t at = s.tell();
        if (!s.bytes(sig, 4) || std::memcmp(sig, "8BIM", 4) != 0) return false;
        const int id = s.u16be();
        s.u16be();  // name field
        const std::uint32_t size = s.u32be();
        if (s.atEnd()) return false;
        if (id == kPsdExifResource) return true;
        const std::int64_t step = (static_cast<std::int64_t>(size) + 1) / 2 * 2 + 12;
        if (!s.seek(at + step)) return false;
        total += step;
        if (total >= sectionLength) return false;
    }
}

}  // namespace

void scanMeta(const char* path, int fileType, RawExif& raw) noexcept {
    // Every field is cleared, the camera, date, orientation and XMP fields
    // included, so a file without those tags gives zeros.
    std::memset(&raw, 0, sizeof raw);
    raw.entriesLeft = kMaxIfdEntriesPerCall;
    raw.blockBytesLeft = kMaxBlockBytesPerCall;
    File file = openFile(path, "rb");
    if (!file) return;
    ReadStream s(file.get());
    if (fileType == kMetaJpeg) {
        if (!findJpegExif(s)) return;
        walkTiff(s, s.tell(), fileType, raw);
        s.clearEnd();
        scanJpegApp13(s, raw);
    } else if (fileType == kMetaPsd) {
        if (!findPsdExif(s)) return;
        walkTiff(s, s.tell(), fileType, raw);
    } else {
        walkTiff(s, 0, fileType, raw);
    }
}

}  // namespace ol
