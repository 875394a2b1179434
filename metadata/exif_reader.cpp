// The Exif walker: TIFF IFDs in either byte order, the Exif and GPS sub-IFDs,
// Photoshop "8BIM" blocks, and the conversion of the values found into the
// shared ExifRecord and GpsRecord.
#include "metadata/exif_reader.hpp"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "frame/alloc.hpp"
#include "frame/numeric.hpp"
#include "frame/tiff_tags.hpp"
#include "frame/trace.hpp"

namespace ol {

namespace {

struct IfdEntry {
    std::uint16_t tag;
    std::uint16_t type;
    std::uint32_t count;
    std::uint32_t value;
};

// One 12-byte entry. A SHORT with one or two values is taken from the first
// 16-bit word of the value field; everything else as the 32-bit field.
IfdEntry readEntry(ReadStream& s) noexcept {
    IfdEntry e;
    e.tag = s.u16();
    e.type = s.u16();
    e.count = s.u32();
    if (e.type == 3 && e.count < 3) {
        e.value = s.u16();
        s.u16();
    } else {
        e.value = s.u32();
    }
    return e;
}

struct Rational {
    std::int32_t num;
    std::int32_t den;
};

Rational readRational(ReadStream& s) noexcept {
    Rational r;
    r.num = static_cast<std::int32_t>(s.u32());
    r.den = static_cast<std::int32_t>(s.u32());
    return r;
}

// The standard line read: stops after a newline, stores at most limit-1
// characters and a terminator; a limit below 1 reads nothing.
void readLineInto(ReadStream& s, char* dst, std::uint32_t limit) noexcept {
    if (limit < 1) return;
    std::fgets(dst, static_cast<int>(limit), s.file());
}

std::int64_t bytesLeft(ReadStream& s) noexcept {
    std::FILE* f = s.file();
    const long here = std::ftell(f);
    if (here < 0 || std::fseek(f, 0, SEEK_END) != 0) return 0;
    const long end = std::ftell(f);
    std::fseek(f, here, SEEK_SET);
    return end > here ? end - here : 0;
}

// Reads up to `count` bytes at the current position into new zeroed memory of
// count+1 bytes; a count beyond the end of the file is cut to what is there.
Owned<char> readBlock(ReadStream& s, std::uint32_t count, std::size_t* got, RawExif& raw) noexcept {
    std::int64_t n = count;
    const std::int64_t left = bytesLeft(s);
    if (n > left) n = left;
    if (n > raw.blockBytesLeft) n = raw.blockBytesLeft > 0 ? raw.blockBytesLeft : 0;
    raw.blockBytesLeft -= n;
    Owned<char> buf = makeOwnedZeroed<char>(static_cast<std::size_t>(n) + 1);
    if (!buf) return buf;
    *got = std::fread(buf.get(), 1, static_cast<std::size_t>(n), s.file());
    return buf;
}

void parseExifIfd(ReadStream& s, std::int64_t base, RawExif& raw) noexcept {
    const int count = s.u16();
    if (s.atEnd()) return;
    if constexpr (traceFiles) std::fprintf(stdout, "parseExif  entries:%d\n", count);
    float spare = 0.0f;
    for (int i = 0; i < count; ++i) {
        if (--raw.entriesLeft < 0) break;
        const IfdEntry e = readEntry(s);
        if (s.atEnd()) break;
        if constexpr (traceFiles)
            std::fprintf(stdout, " Parse Exif tag:%x  type:%d  len:%d  val:%d  valx %x\n", e.tag, e.type,
                         static_cast<int>(e.count), static_cast<int>(e.value), e.value);
        const std::int64_t next = s.tell();
        if (!s.seek(base + e.value)) continue;
        switch (e.tag) {
            case ol::tag::kExposureTime: {
                const Rational r = readRational(s);
                if constexpr (traceFiles) std::fprintf(stdout, "exp. time - numer=%d   denom=%d\n", r.num, r.den);
                if (r.den > 0) raw.exposure = static_cast<float>(r.num) / static_cast<float>(r.den);
                break;
            }
            case ol::tag::kFNumber: {
                const Rational r = readRational(s);
                if (r.den > 0) raw.fnumber = static_cast<float>(r.num) / static_cast<float>(r.den);
                break;
            }
            case ol::tag::kIso:
                raw.iso = static_cast<std::int32_t>(e.value);
                break;
            case ol::tag::kDateTimeOriginal:
                readLineInto(s, raw.date, 20);
                if constexpr (traceFiles) std::fprintf(stdout, "Date_time: %s\n", raw.date);
                break;
            case ol::tag::kShutterSpeed: {
                // APEX Tv: the exposure is 2^-Tv. Kept aside, and used only when
                // no ExposureTime turns up in the whole IFD.
                const Rational r = readRational(s);
                const float v = r.den != 0 ? static_cast<float>(r.num) / static_cast<float>(r.den) : 0.0f;
                if (v != 0.0f)
                    spare = static_cast<float>(1.0 / std::exp(std::log(2.0) * static_cast<double>(v)));
                break;
            }
            case ol::tag::kAperture:
            case ol::tag::kMaxAperture:
                // Taken as the F-number as it stands, with no APEX conversion.
                if (raw.fnumber == 0.0f) {
                    const Rational r = readRational(s);
                    if (r.den > 0) raw.fnumber = static_cast<float>(r.num) / static_cast<float>(r.den);
                }
                break;
            case ol::tag::kFocalLength: {
                const Rational r = readRational(s);
                if (r.den > 0) raw.focal = static_cast<float>(r.num) / static_cast<float>(r.den);
                if constexpr (traceFiles) std::fprintf(stdout, "focalLegnth %1.2f\n", static_cast<double>(raw.focal));
                break;
            }
            case ol::tag::kPlaneXRes: {
                const Rational r = readRational(s);
                if (r.den > 0) raw.planeRes = static_cast<float>(r.num) / static_cast<float>(r.den);
                if constexpr (traceFiles)
                    std::fprintf(stdout, "FP XRes=%d/%d  -  %1.2f\n", r.num, r.den, static_cast<double>(raw.planeRes));
                break;
            }
            case ol::tag::kPlaneResUnit:
                raw.planeResUnit = static_cast<std::int32_t>(e.value);
                if constexpr (traceFiles) std::fprintf(stdout, "Unit=%d\n", raw.planeResUnit);
                break;
            case ol::tag::kExposureIndex:
                if (raw.iso == 0) {
                    const Rational r = readRational(s);
                    raw.iso = r.den < 1 ? r.num : r.num / r.den;
                }
                break;
            case ol::tag::kFocal35:
                raw.focal35 = static_cast<std::int32_t>(e.value);
                if constexpr (traceFiles) std::fprintf(stdout, "focal35=%d\n", raw.focal35);
                break;
            default:
                break;
        }
        s.seek(next);
    }
    if (raw.exposure == 0.0f && spare > 0.0f) raw.exposure = spare;
}

void readGpsRationals(ReadStream& s, std::uint32_t* dst, std::uint32_t n) noexcept {
    for (std::uint32_t k = 0; k < n; ++k) {
        dst[2 * k] = s.u32();
        dst[2 * k + 1] = s.u32();
    }
}

void parseGpsIfd(ReadStream& s, std::int64_t base, RawExif& raw) noexcept {
    const int count = s.u16();
    if (s.atEnd()) return;
    for (int i = 0; i < count; ++i) {
        if (--raw.entriesLeft < 0) break;
        const std::uint16_t tag = s.u16();
        const std::uint16_t type = s.u16();
        const std::uint32_t cnt = s.u32();
        const std::int64_t valueField = s.tell();
        const std::uint32_t value = s.u32();
        if (s.atEnd()) break;
        if constexpr (traceFiles)
            std::fprintf(stdout, " Parse GPS tag:%x  type:%d  len:%d   val: %d %x\n", tag, type, static_cast<int>(cnt),
                         static_cast<int>(value), value);
        if (tag < 1 || tag > 29) continue;
        const std::int64_t next = s.tell();
        if (!s.seek(base + value)) continue;
        const std::uint32_t n = cnt < 3 ? cnt : 3;
        // A reference is the first byte of the value field; a position is
        // three rationals at the offset.
        const auto readRef = [&](char& ref, const char* label) {
            s.seek(valueField);
            ref = static_cast<char>(s.u8());
            if constexpr (traceFiles) std::fprintf(stdout, "%s: %c\n", label, ref);
        };
        const auto readTriple = [&](std::uint32_t* r, const char* label) {
            readGpsRationals(s, r, n);
            if constexpr (traceFiles)
                std::fprintf(stdout, "%s: %d/%d %d/%d %d/%d\n", label, r[0], r[1], r[2], r[3], r[4], r[5]);
        };
        switch (tag) {
            case ol::tag::kGpsLatRef:
                readRef(raw.lat_ref, "latitude_ref");
                break;
            case ol::tag::kGpsLongRef:
                readRef(raw.long_ref, "long_ref");
                break;
            case ol::tag::kGpsAltRef:
                readRef(raw.alt_ref, "alt_ref");
                break;
            case ol::tag::kGpsLat:
                readTriple(raw.latitude, "Latitude");
                break;
            case ol::tag::kGpsLong:
                readTriple(raw.longitude, "Longitude");
                break;
            case ol::tag::kGpsTime:
                readTriple(raw.timestamp, "GPS timestamp");
                break;
            case ol::tag::kGpsAlt:
                readGpsRationals(s, raw.altitude, 1);
                if constexpr (traceFiles) std::fprintf(stdout, "Altitude: %d/%d\n", raw.altitude[0], raw.altitude[1]);
                break;
            case ol::tag::kGpsDate:
                readLineInto(s, raw.datestamp, cnt >= 11 ? 11 : cnt);
                break;
            default:
                break;
        }
        s.seek(next);
    }
}

bool isDigit(char c) noexcept { return c >= '0' && c <= '9'; }

// A number of the description: digits by decimal position up to one of the
// stop characters or the end; a '.' ends the conversion (the rest of the part
// is passed over), and a part longer than `maxChars` is refused.
struct DescNumber {
    long value = 0;
    bool ok = false;
    std::size_t end = 0;  // position of the stop character (or the end)
};

DescNumber readDescNumber(const char* t, std::size_t n, std::size_t i, const char* stops, std::size_t maxChars) noexcept {
    DescNumber r;
    bool converting = true;
    std::size_t chars = 0;
    while (i < n && t[i] != '\0' && std::strchr(stops, t[i]) == nullptr) {
        if (++chars > maxChars) {
            r.end = i;
            return r;
        }
        if (t[i] == '.') converting = false;
        if (converting && isDigit(t[i])) r.value = r.value * 10 + (t[i] - '0');
        ++i;
    }
    r.ok = true;
    r.end = i;
    return r;
}

}  // namespace

void parseDescription(const char* t, std::size_t n, RawExif& raw) noexcept {
    int fields = 1;
    int separators = 0;
    long a = 0, b = 0;
    long colour[3] = {0, 0, 0};
    bool have[3] = {false, false, false};
    long lastColour = 0;
    bool done = false;
    std::size_t i = 0;
    while (i < n && t[i] != '\0' && !done) {
        if (!(t[i] == ',' && i + 1 < n && t[i + 1] == ' ' && separators < 10)) {
            ++i;
            continue;
        }
        ++separators;
        ++fields;
        i += 2;
        if (separators == 7) {
            // The exposure, "a/b" or "a", ending in a blank or 's'.
            const DescNumber na = readDescNumber(t, n, i, "/s ", 6);
            if (na.ok) {
                if (na.end < n && t[na.end] == '/') {
                    const DescNumber nb = readDescNumber(t, n, na.end + 1, "s ", 6);
                    if (nb.ok) {
                        a = na.value;
                        b = nb.value;
                        i = nb.end;
                    }
                } else {
                    a = na.value;
                    b = 1;
                    i = na.end;
                }
            }
        } else if (separators >= 8) {
            // White balance multipliers: 'R', 'G', 'B' each followed by digits.
            while (i < n && t[i] != '\0' && !(t[i] == ',' && i + 1 < n && t[i + 1] == ' ')) {
                const char c = t[i];
                const int k = c == 'R' ? 0 : c == 'G' ? 1 : c == 'B' ? 2 : -1;
                if (k < 0) {
                    ++i;
                    continue;
                }
                const DescNumber v = readDescNumber(t, n, i + 1, "., ", 6);
                colour[k] = v.value;
                have[k] = true;
                lastColour = v.value;
                i = v.end;
                if (k == 2) {
                    done = true;
                    break;
                }
            }
        }
    }
    if (fields < 2 || !have[0] || !have[1] || !have[2]) return;
    if (b > 0) raw.exposure = static_cast<float>(a) / static_cast<float>(b);
    long hi = colour[0], lo = colour[0];
    for (long v : colour) {
        if (v > hi) hi = v;
        if (v < lo) lo = v;
    }
    const std::int32_t m = truncToInt(static_cast<double>(hi + lo) * 0.5);
    // Large colour numbers overflow the product: it wraps in unsigned
    // arithmetic (the low 32 bits) instead of being undefined.
    raw.iso = static_cast<std::int32_t>(
        200u * static_cast<std::uint32_t>(truncToInt(std::pow(2.0, static_cast<double>(m) / 30.0))));
    if (a >= 1 && a <= 99998 && b > 0 && lastColour >= 1 && lastColour <= 99998) raw.mark = 2;
}

void read8bim(ReadStream& s, std::int64_t count, RawExif& raw) noexcept {
    if (count <= 26) return;
    const std::int64_t start = s.tell();
    if (start < 0) return;
    std::size_t got = 0;
    Owned<char> block = readBlock(s, static_cast<std::uint32_t>(count > 0xFFFFFFFFll ? 0xFFFFFFFFll : count), &got, raw);
    if (!block) return;
    const auto* p = reinterpret_cast<const std::uint8_t*>(block.get());
    // Only bytes actually read are scanned: a block cut short by the end of
    // the file is scanned as far as it goes.
    const std::int64_t scanned = static_cast<std::int64_t>(got) < count ? static_cast<std::int64_t>(got) : count;
    for (std::int64_t i = 0; i < scanned - 26; ++i) {
        if (std::memcmp(p + i, "8BIM", 4) != 0) continue;
        if constexpr (traceFiles)
            std::fprintf(stdout, "8BIM entries at %d   %x%x\n", static_cast<int>(i), p[i + 4], p[i + 5]);
        if (p[i + 4] == 0x04 && p[i + 5] == 0x04) {
            s.seek(start + i + 8);
            raw.iptcLen = static_cast<std::int32_t>(s.u32be());
            raw.iptcOffset = static_cast<std::int32_t>(s.tell());
            if constexpr (traceFiles) std::fprintf(stdout, "IPTC len: %d  offset: %d\n", raw.iptcLen, raw.iptcOffset);
        } else if (p[i + 4] == 0x04 && p[i + 5] == 0x0C) {
            s.seek(start + i + 16);
            raw.thumbWidth = static_cast<std::int32_t>(s.u32be());
            raw.thumbHeight = static_cast<std::int32_t>(s.u32be());
            raw.thumbRowBytes = static_cast<std::int32_t>(s.u32be());
            s.u32be();
            raw.thumbLen = static_cast<std::int32_t>(s.u32be());
            s.u32be();
            raw.thumbOffset = static_cast<std::int32_t>(s.tell());
            if constexpr (traceFiles)
                std::fprintf(stdout, "thumbnail: %d x %d  %d  len: %d  offset: %d\n", raw.thumbWidth, raw.thumbHeight,
                             raw.thumbRowBytes, raw.thumbLen, raw.thumbOffset);
            break;
        }
    }
}

void walkTiff(ReadStream& s, std::int64_t base, int fileType, RawExif& raw) noexcept {
    if (!s.seek(base)) return;
    const std::uint8_t m0 = s.u8();
    const std::uint8_t m1 = s.u8();
    if (m0 == 'I' && m1 == 'I') {
        s.setOrder(ByteOrder::Little);
    } else if (m0 == 'M' && m1 == 'M') {
        s.setOrder(ByteOrder::Big);
    } else {
        return;
    }
    if (s.u16() != 42) return;
    std::uint32_t offset = s.u32();
    if (s.atEnd()) return;
    // At most three IFDs (0, 1, 2) of the main chain, which also ends any
    // loop in it; an IFD of exactly 255 entries ends the chain as well.
    for (int ifd = 0; offset != 0; ++ifd) {
        if (!s.seek(base + offset)) return;
        const int count = s.u16();
        if (s.atEnd()) return;
        const bool last = ifd >= 2 || count == 255;
        for (int i = 0; i < count; ++i) {
            if (--raw.entriesLeft < 0) return;
            const IfdEntry e = readEntry(s);
            if (s.atEnd()) return;
            const std::int64_t next = s.tell();
            if (!s.seek(base + e.value)) continue;
            switch (e.tag) {
                case ol::tag::kImageDescription:
                    if (fileType == kMetaTiff) {
                        std::size_t got = 0;
                        Owned<char> text = readBlock(s, e.count, &got, raw);
                        if (text) parseDescription(text.get(), got, raw);
                    }
                    break;
                case ol::tag::kModel:
                    readLineInto(s, raw.camera, e.count > 64 ? 64 : e.count);
                    break;
                case ol::tag::kOrientation:
                    if (e.type == 3) raw.orientation = static_cast<std::int32_t>(e.value);
                    break;
                case ol::tag::kThumbOffset:
                    if (ifd >= 1) raw.thumbOffset = static_cast<std::int32_t>(base + e.value);
                    break;
                case ol::tag::kThumbLength:
                    if (ifd >= 1) raw.thumbLen = static_cast<std::int32_t>(e.value);
                    break;
                case ol::tag::kXmp:
                    raw.xmpLen = static_cast<std::int32_t>(e.count);
                    raw.xmpOffset = static_cast<std::int32_t>(e.value);
                    if constexpr (tracePreview)
                        std::fprintf(stdout, "getExifData - XMP len: %d  val:%d  %x\n", raw.xmpLen, raw.xmpOffset,
                                     e.value);
                    break;
                case ol::tag::kIptc:
                    raw.iptcOffset = static_cast<std::int32_t>(e.value);
                    if (e.type == 4)
                        raw.iptcLen = static_cast<std::int32_t>(e.count * 4u);
                    else if (e.type == 7)
                        raw.iptcLen = static_cast<std::int32_t>(e.count);
                    break;
                case ol::tag::kPhotoshop:
                    if (fileType == kMetaTiff) read8bim(s, e.count, raw);
                    break;
                case ol::tag::kExifIfd:
                    parseExifIfd(s, base, raw);
                    break;
                case ol::tag::kGpsIfd:
                    parseGpsIfd(s, base, raw);
                    break;
                default:
                    break;
            }
            s.seek(next);
        }
        if (last) return;
        offset = s.u32();
        if (s.atEnd()) return;
    }
}

namespace {

// Truncation of a product that comes from a float value. 1/125 s is held as
// the float nearest 0.008, a hair above it, and a literal truncation of 100/t
// would give 12499 (1/180 s: 17999, f/5.6: 559). A product that lies just
// below an integer, within the float's own precision of it (relative 2^-24,
// doubled for the double arithmetic), counts as that integer; anything else
// truncates, so whole values above 2^23 stay as they are.
std::int32_t truncScaled(double product) noexcept {
    const double up = std::ceil(product);
    if (up - product <= product * 0x1p-23) return truncToInt(up);
    return truncToInt(product);
}

}  // namespace

bool floatToRational(float t, std::int32_t& num, std::int32_t& den) noexcept {
    if (t >= 1.0f) {
        num = truncScaled(static_cast<double>(t) * 100.0);
        den = 100;
        return true;
    }
    if (t > 0.0f) {
        num = 100;
        den = truncScaled((1.0 / static_cast<double>(t)) * 100.0);
        return true;
    }
    return false;
}

void exifFromRaw(const RawExif& raw, ExifRecord* exif, GpsRecord* gps) noexcept {
    if (exif) {
        floatToRational(raw.exposure, exif->exposureNum, exif->exposureDen);
        floatToRational(raw.fnumber, exif->apertureNum, exif->apertureDen);
        floatToRational(raw.focal, exif->focalNum, exif->focalDen);
        floatToRational(raw.planeRes, exif->planeResNum, exif->planeResDen);
        exif->iso = raw.iso;
        exif->descriptionMark = raw.mark;
        exif->focal35 = raw.focal35;
        exif->planeResUnit = raw.planeResUnit;
        exif->thumbOffset = raw.thumbOffset;
        exif->thumbLen = raw.thumbLen;
        exif->iptcOffset = raw.iptcOffset;
        exif->iptcLen = raw.iptcLen;
        exif->orientation = raw.orientation;
        exif->xmpOffset = raw.xmpOffset;
        exif->xmpLen = raw.xmpLen;
        std::memcpy(exif->camera, raw.camera, sizeof exif->camera);
        std::memcpy(exif->date, raw.date, sizeof exif->date);
    }
    if (gps) {
        std::memcpy(gps->latitude, raw.latitude, sizeof gps->latitude);
        std::memcpy(gps->longitude, raw.longitude, sizeof gps->longitude);
        std::memcpy(gps->altitude, raw.altitude, sizeof gps->altitude);
        std::memcpy(gps->timestamp, raw.timestamp, sizeof gps->timestamp);
        gps->lat_ref = raw.lat_ref;
        gps->long_ref = raw.long_ref;
        gps->alt_ref = raw.alt_ref;
        std::memcpy(gps->datestamp, raw.datestamp, sizeof gps->datestamp);
    }
}

}  // namespace ol

extern "C" {

OL_API int get_exif_data(const char* path, int fileType, ExifRecord* exif, GpsRecord* gps) {
    ol::RawExif raw;
    ol::scanMeta(path, fileType, raw);
    ol::exifFromRaw(raw, exif, gps);
    return exif ? exif->exposureNum : 0;
}

OL_API int constant_exif(ExifRecord* kept, const ExifRecord* other) {
    if (kept->exposureNum != other->exposureNum || kept->exposureDen != other->exposureDen) {
        kept->exposureNum = 0;
        kept->exposureDen = 0;
    }
    if (kept->apertureNum != other->apertureNum || kept->apertureDen != other->apertureDen) {
        kept->apertureNum = 0;
        kept->apertureDen = 0;
    }
    if (kept->iso != other->iso) kept->iso = 0;
    return 1;
}

}  // extern "C"
