// Records and a small little-endian IFD reader for the metadata writer tests.
#pragma once

#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "Ombrelumen40Lib1.h"

namespace mwtest {

struct Entry {
    std::uint16_t tag;
    std::uint16_t type;
    std::uint32_t count;
    std::uint32_t value;  // the four value bytes read as a LONG
    std::uint16_t shortValue() const { return static_cast<std::uint16_t>(value & 0xFFFF); }
};

inline std::uint16_t u16(const std::vector<std::uint8_t>& b, std::size_t at) {
    return static_cast<std::uint16_t>(b.at(at) | (b.at(at + 1) << 8));
}
inline std::uint32_t u32(const std::vector<std::uint8_t>& b, std::size_t at) {
    return b.at(at) | (b.at(at + 1) << 8) | (b.at(at + 2) << 16) | (static_cast<std::uint32_t>(b.at(at + 3)) << 24);
}

// Entries of the IFD at `at` (count, entries); `base` is subtracted from
// nothing: offsets are returned as stored.
inline std::vector<Entry> readIfd(const std::vector<std::uint8_t>& b, std::size_t at) {
    std::vector<Entry> out;
    const std::uint16_t n = u16(b, at);
    for (std::size_t i = 0; i < n; ++i) {
        const std::size_t e = at + 2 + 12 * i;
        out.push_back({u16(b, e), u16(b, e + 2), u32(b, e + 4), u32(b, e + 8)});
    }
    return out;
}

inline std::vector<int> tagsOf(const std::vector<Entry>& ifd) {
    std::vector<int> t;
    for (const auto& e : ifd) t.push_back(e.tag);
    return t;
}

// The entry of `tag`, by value (the IFD may be a temporary).
inline std::optional<Entry> find(const std::vector<Entry>& ifd, int tag) {
    for (const auto& e : ifd)
        if (e.tag == tag) return e;
    return std::nullopt;
}

inline std::string text(const std::vector<std::uint8_t>& b, std::size_t at, std::size_t n) {
    return std::string(reinterpret_cast<const char*>(b.data() + at), n);
}

// A record with every Exif value the writers use.
inline ExifRecord fullExif() {
    ExifRecord e;
    std::memset(&e, 0, sizeof e);
    e.exposureNum = 1;
    e.exposureDen = 125;
    e.apertureNum = 56;
    e.apertureDen = 10;
    e.iso = 200;
    e.focalNum = 35;
    e.focalDen = 1;
    std::strcpy(e.camera, "TestCam 5");
    std::strcpy(e.date, "2024:05:06 07:08:09");
    return e;
}

inline ExifRecord emptyExif() {
    ExifRecord e;
    std::memset(&e, 0, sizeof e);
    return e;
}

inline GpsRecord emptyGps() {
    GpsRecord g;
    std::memset(&g, 0, sizeof g);
    return g;
}

inline GpsRecord fullGps() {
    GpsRecord g = emptyGps();
    const std::uint32_t lat[6] = {48, 1, 51, 1, 2400, 100};
    const std::uint32_t lon[6] = {2, 1, 21, 1, 0, 1};
    const std::uint32_t tim[6] = {7, 1, 8, 1, 9, 1};
    std::memcpy(g.latitude, lat, sizeof lat);
    std::memcpy(g.longitude, lon, sizeof lon);
    std::memcpy(g.timestamp, tim, sizeof tim);
    g.altitude[0] = 3500;
    g.altitude[1] = 100;
    g.lat_ref = 'N';
    g.long_ref = 'E';
    g.alt_ref = '0';
    std::memcpy(g.datestamp, "2024:05:06", 11);
    return g;
}

// A minimal ICC profile header of the given colour space ("RGB ", "GRAY",
// "CMYK") and size, no tags.
inline std::vector<std::uint8_t> iccHeader(const char* space, std::size_t size = 132) {
    std::vector<std::uint8_t> p(size, 0);
    const auto be32 = [&](std::size_t at, std::uint32_t v) {
        p[at] = static_cast<std::uint8_t>(v >> 24);
        p[at + 1] = static_cast<std::uint8_t>(v >> 16);
        p[at + 2] = static_cast<std::uint8_t>(v >> 8);
        p[at + 3] = static_cast<std::uint8_t>(v);
    };
    be32(0, static_cast<std::uint32_t>(size));
    std::memcpy(&p[4], "none", 4);
    be32(8, 0x02100000);
    std::memcpy(&p[12], "mntr", 4);
    std::memcpy(&p[16], space, 4);
    std::memcpy(&p[20], "XYZ ", 4);
    std::memcpy(&p[36], "acsp", 4);
    be32(68, 0x0000F6D6);  // D50 illuminant
    be32(72, 0x00010000);
    be32(76, 0x0000D32D);
    be32(128, 0);  // tag count
    return p;
}

inline tif_info makeInfo(int width, int height, int samples, int bits, int mode = 0) {
    tif_info t;
    std::memset(&t, 0, sizeof t);
    t.width = width;
    t.height = height;
    t.samples = samples;
    t.bits = bits;
    t.dpi = 300;
    t.mode = mode;
    t.orientation = 1;
    return t;
}

}  // namespace mwtest
