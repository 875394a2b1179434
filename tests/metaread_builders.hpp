// Builders of small TIFF, JPEG and PSD files for the metadata reader tests.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace mrtest {

using Bytes = std::vector<std::uint8_t>;

struct Writer {
    bool little;
    Bytes* out;
    void u8(std::uint32_t v) { out->push_back(static_cast<std::uint8_t>(v)); }
    void u16(std::uint32_t v) {
        if (little) {
            u8(v);
            u8(v >> 8);
        } else {
            u8(v >> 8);
            u8(v);
        }
    }
    void u32(std::uint32_t v) {
        if (little) {
            u16(v & 0xFFFF);
            u16(v >> 16);
        } else {
            u16(v >> 16);
            u16(v & 0xFFFF);
        }
    }
    void put16(std::size_t at, std::uint32_t v) {
        Bytes tmp;
        Writer w{little, &tmp};
        w.u16(v);
        std::memcpy(out->data() + at, tmp.data(), 2);
    }
    void put32(std::size_t at, std::uint32_t v) {
        Bytes tmp;
        Writer w{little, &tmp};
        w.u32(v);
        std::memcpy(out->data() + at, tmp.data(), 4);
    }
};

// One IFD entry. `data` holds the value bytes in the file's byte order (filled
// by the helpers below); when `raw` is set the 32-bit value field is written
// as given instead (for crafted offsets).
struct Entry {
    std::uint16_t tag;
    std::uint16_t type;
    std::uint32_t count;
    std::vector<std::uint32_t> words;  // SHORT/LONG/RATIONAL parts
    std::string text;                  // ASCII or UNDEFINED bytes
    bool raw = false;
    std::uint32_t rawValue = 0;
};

inline Entry shortE(std::uint16_t tag, std::uint32_t v) { return {tag, 3, 1, {v}, {}}; }
inline Entry longE(std::uint16_t tag, std::uint32_t v) { return {tag, 4, 1, {v}, {}}; }
inline Entry rationalE(std::uint16_t tag, std::uint32_t n, std::uint32_t d) { return {tag, 5, 1, {n, d}, {}}; }
inline Entry srationalE(std::uint16_t tag, std::int32_t n, std::int32_t d) {
    return {tag, 10, 1, {static_cast<std::uint32_t>(n), static_cast<std::uint32_t>(d)}, {}};
}
inline Entry rationalsE(std::uint16_t tag, std::vector<std::uint32_t> parts) {
    const auto n = static_cast<std::uint32_t>(parts.size() / 2);
    return {tag, 5, n, std::move(parts), {}};
}
// ASCII with its terminator counted.
inline Entry asciiE(std::uint16_t tag, const std::string& s) {
    return {tag, 2, static_cast<std::uint32_t>(s.size() + 1), {}, s + std::string(1, '\0')};
}
inline Entry bytesE(std::uint16_t tag, std::uint16_t type, const std::string& s) {
    return {tag, type, static_cast<std::uint32_t>(s.size()), {}, s};
}
inline Entry rawE(std::uint16_t tag, std::uint16_t type, std::uint32_t count, std::uint32_t value) {
    Entry e{tag, type, count, {}, {}};
    e.raw = true;
    e.rawValue = value;
    return e;
}

struct TiffSpec {
    bool little = true;
    std::vector<std::vector<Entry>> ifds;  // the main chain
    std::vector<Entry> exif;               // Exif sub-IFD (pointer added to IFD0)
    std::vector<Entry> gps;                // GPS sub-IFD (pointer added to IFD0)
    long loopTo = -1;                      // last IFD's next pointer goes to this IFD
};

inline Bytes valueBytes(const Entry& e, bool little) {
    Bytes b;
    Writer w{little, &b};
    if (!e.text.empty() || e.type == 2 || e.type == 7 || e.type == 1) {
        b.assign(e.text.begin(), e.text.end());
    } else if (e.type == 3) {
        for (auto v : e.words) w.u16(v);
    } else {
        for (auto v : e.words) w.u32(v);
    }
    return b;
}

// A TIFF stream (header first). Offsets are relative to its start.
inline Bytes buildTiff(TiffSpec spec) {
    if (spec.ifds.empty()) spec.ifds.emplace_back();
    const bool hasExif = !spec.exif.empty();
    const bool hasGps = !spec.gps.empty();
    if (hasExif) spec.ifds[0].push_back(longE(34665, 0));
    if (hasGps) spec.ifds[0].push_back(longE(34853, 0));
    std::vector<std::vector<Entry>*> all;
    for (auto& i : spec.ifds) all.push_back(&i);
    if (hasExif) all.push_back(&spec.exif);
    if (hasGps) all.push_back(&spec.gps);
    std::vector<std::uint32_t> at;
    std::uint32_t pos = 8;
    for (auto* ifd : all) {
        at.push_back(pos);
        pos += 2 + 12 * static_cast<std::uint32_t>(ifd->size()) + 4;
    }
    const std::size_t nMain = spec.ifds.size();
    if (hasExif) spec.ifds[0][spec.ifds[0].size() - (hasGps ? 2 : 1)].words = {at[nMain]};
    if (hasGps) spec.ifds[0].back().words = {at[nMain + (hasExif ? 1 : 0)]};

    Bytes out;
    Writer w{spec.little, &out};
    out.push_back(spec.little ? 'I' : 'M');
    out.push_back(spec.little ? 'I' : 'M');
    w.u16(42);
    w.u32(8);
    Bytes data;
    for (std::size_t k = 0; k < all.size(); ++k) {
        auto& ifd = *all[k];
        w.u16(static_cast<std::uint32_t>(ifd.size()));
        for (auto& e : ifd) {
            w.u16(e.tag);
            w.u16(e.type);
            w.u32(e.count);
            if (e.raw) {
                w.u32(e.rawValue);
                continue;
            }
            Bytes v = valueBytes(e, spec.little);
            if (v.size() <= 4) {
                v.resize(4, 0);
                out.insert(out.end(), v.begin(), v.end());
            } else {
                w.u32(pos + static_cast<std::uint32_t>(data.size()));
                data.insert(data.end(), v.begin(), v.end());
                if (data.size() % 2) data.push_back(0);
            }
        }
        std::uint32_t next = 0;
        if (k + 1 < nMain) next = at[k + 1];
        if (k + 1 == nMain && spec.loopTo >= 0) next = at[static_cast<std::size_t>(spec.loopTo)];
        w.u32(next);
    }
    out.insert(out.end(), data.begin(), data.end());
    return out;
}

inline void appendSegment(Bytes& jpg, std::uint8_t marker, const Bytes& payload) {
    jpg.push_back(0xFF);
    jpg.push_back(marker);
    const std::size_t len = payload.size() + 2;
    jpg.push_back(static_cast<std::uint8_t>(len >> 8));
    jpg.push_back(static_cast<std::uint8_t>(len));
    jpg.insert(jpg.end(), payload.begin(), payload.end());
}

inline Bytes exifPayload(const Bytes& tiff) {
    Bytes p = {'E', 'x', 'i', 'f', 0, 0};
    p.insert(p.end(), tiff.begin(), tiff.end());
    return p;
}

// A Photoshop image resource block ("8BIM", id, empty name, size, data).
inline Bytes resource8bim(std::uint16_t id, const Bytes& data) {
    Bytes r = {'8', 'B', 'I', 'M'};
    Writer w{false, &r};
    w.u16(id);
    w.u16(0);
    w.u32(static_cast<std::uint32_t>(data.size()));
    r.insert(r.end(), data.begin(), data.end());
    if (data.size() % 2) r.push_back(0);
    return r;
}

inline Bytes app13Payload(const Bytes& resources) {
    const char* id = "Photoshop 3.0";
    Bytes p(id, id + 14);  // with its terminator
    p.insert(p.end(), resources.begin(), resources.end());
    return p;
}

// An IPTC record 2 with one keyword per entry (dataset 2:25).
inline Bytes iptcKeywords(const std::vector<std::string>& words) {
    Bytes b = {0x1C, 2, 0, 0, 2, 0, 4};
    for (const auto& k : words) {
        b.insert(b.end(), {0x1C, 2, 25, static_cast<std::uint8_t>(k.size() >> 8), static_cast<std::uint8_t>(k.size())});
        b.insert(b.end(), k.begin(), k.end());
    }
    return b;
}

inline Bytes jpegWith(const std::vector<std::pair<std::uint8_t, Bytes>>& segments) {
    Bytes j = {0xFF, 0xD8};
    for (const auto& [m, p] : segments) appendSegment(j, m, p);
    j.insert(j.end(), {0xFF, 0xDA, 0x00, 0x02, 0x11, 0x22, 0xFF, 0xD9});
    return j;
}

// A flat PSD. `planes` holds the composite data as it is stored after the
// compression word (row table included for RLE).
struct PsdSpec {
    int version = 1;
    int channels = 3;
    int width = 2;
    int height = 2;
    int depth = 8;
    int mode = 3;
    Bytes colorData;
    Bytes resources;
    Bytes layerSection;  // contents, its length is written before it
    int compression = 0;
    Bytes image;  // after the compression word
};

inline Bytes buildPsd(const PsdSpec& s) {
    Bytes b = {'8', 'B', 'P', 'S'};
    Writer w{false, &b};
    w.u16(static_cast<std::uint32_t>(s.version));
    for (int i = 0; i < 6; ++i) b.push_back(0);
    w.u16(static_cast<std::uint32_t>(s.channels));
    w.u32(static_cast<std::uint32_t>(s.height));
    w.u32(static_cast<std::uint32_t>(s.width));
    w.u16(static_cast<std::uint32_t>(s.depth));
    w.u16(static_cast<std::uint32_t>(s.mode));
    w.u32(static_cast<std::uint32_t>(s.colorData.size()));
    b.insert(b.end(), s.colorData.begin(), s.colorData.end());
    w.u32(static_cast<std::uint32_t>(s.resources.size()));
    b.insert(b.end(), s.resources.begin(), s.resources.end());
    if (s.version == 2) w.u32(0);
    w.u32(static_cast<std::uint32_t>(s.layerSection.size()));
    b.insert(b.end(), s.layerSection.begin(), s.layerSection.end());
    w.u16(static_cast<std::uint32_t>(s.compression));
    b.insert(b.end(), s.image.begin(), s.image.end());
    return b;
}

}  // namespace mrtest
