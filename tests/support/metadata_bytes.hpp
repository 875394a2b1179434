// Builders of small TIFF, JPEG, PSD, IPTC and ICC byte streams, a reader of
// little-endian IFDs, the reader of the interop data files, and the records
// and calls the metadata tests share.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Ombrelumen40Lib1.h"
#include "frame/bytes.hpp"
#include "frame/tiff_tags.hpp"
#include "support/records.hpp"
#include "support/testsupport.hpp"

namespace metatest {

using namespace oltest::records;
namespace tag = ol::tag;

using Bytes = std::vector<std::uint8_t>;

inline Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const auto& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

// Appends numbers in the chosen byte order.
struct Writer {
    bool little;
    Bytes* out;
    void put(std::uint32_t v, int n) {
        for (int k = 0; k < n; ++k) out->push_back(static_cast<std::uint8_t>(v >> 8 * (little ? k : n - 1 - k)));
    }
    void u8(std::uint32_t v) { put(v, 1); }
    void u16(std::uint32_t v) { put(v, 2); }
    void u32(std::uint32_t v) { put(v, 4); }
};

// A copy of `b` with `with` written at `at` (grown with zeros when needed).
inline Bytes patched(Bytes b, std::size_t at, const Bytes& with) {
    if (b.size() < at + with.size()) b.resize(at + with.size(), 0);
    std::copy(with.begin(), with.end(), b.begin() + static_cast<std::ptrdiff_t>(at));
    return b;
}

// ---- TIFF ----------------------------------------------------------------

// One IFD entry. `words` are SHORT/LONG/RATIONAL parts and `text` ASCII or
// UNDEFINED bytes, written in the file's byte order; when `raw` is set the
// 32-bit value field is written as given instead (for crafted offsets).
struct Entry {
    std::uint16_t tag;
    std::uint16_t type;
    std::uint32_t count;
    std::vector<std::uint32_t> words;
    std::string text;
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
    std::vector<std::vector<Entry>> ifds = {};  // the main chain
    std::vector<Entry> exif = {};               // Exif sub-IFD (pointer added to IFD0)
    std::vector<Entry> gps = {};                // GPS sub-IFD (pointer added to IFD0)
    long loopTo = -1;                           // last IFD's next pointer goes to this IFD
};

inline Bytes valueBytes(const Entry& e, bool little) {
    Bytes b;
    Writer w{little, &b};
    if (!e.text.empty() || e.type == 2 || e.type == 7 || e.type == 1) {
        b.assign(e.text.begin(), e.text.end());
    } else {
        for (auto v : e.words) e.type == 3 ? w.u16(v) : w.u32(v);
    }
    return b;
}

// A TIFF stream (header first). Offsets are relative to its start.
inline Bytes buildTiff(TiffSpec spec) {
    if (spec.ifds.empty()) spec.ifds.emplace_back();
    std::vector<std::vector<Entry>*> all;
    for (auto& i : spec.ifds) all.push_back(&i);
    const std::size_t nMain = all.size();
    for (auto* sub : {&spec.exif, &spec.gps})  // each sub-IFD gets a pointer at the end of IFD0
        if (!sub->empty()) all.push_back(sub), spec.ifds[0].push_back(longE(sub == &spec.exif ? tag::kExifIfd : tag::kGpsIfd, 0));
    std::vector<std::uint32_t> at;
    std::uint32_t pos = 8;
    for (auto* ifd : all) {
        at.push_back(pos);
        pos += 2 + 12 * static_cast<std::uint32_t>(ifd->size()) + 4;
    }
    for (std::size_t k = nMain; k < all.size(); ++k) spec.ifds[0][spec.ifds[0].size() - all.size() + k].words = {at[k]};

    Bytes out(2, spec.little ? 'I' : 'M');
    Writer w{spec.little, &out};
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

// ---- JPEG segments, Photoshop resources, IPTC ------------------------------

inline void appendSegment(Bytes& jpg, std::uint8_t marker, const Bytes& payload) {
    const std::size_t len = payload.size() + 2;
    jpg = cat({jpg, {0xFF, marker, static_cast<std::uint8_t>(len >> 8), static_cast<std::uint8_t>(len)}, payload});
}

inline Bytes exifPayload(const Bytes& tiff) { return cat({{'E', 'x', 'i', 'f', 0, 0}, tiff}); }

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
    return cat({Bytes(id, id + 14), resources});  // the name with its terminator
}

// One IPTC record 2 dataset: marker, record, number, big-endian length, data.
inline Bytes iptcDataset(std::uint8_t number, const std::string& data) {
    const auto n = data.size();
    return cat({{0x1C, 0x02, number, static_cast<std::uint8_t>(n >> 8), static_cast<std::uint8_t>(n)}, Bytes(data.begin(), data.end())});
}

// The record version dataset (2:00, version 4).
inline const Bytes kIptcVersion = {0x1C, 0x02, 0x00, 0x00, 0x02, 0x00, 0x04};

// SOI, the segments, a token scan and EOI.
inline Bytes jpegWith(const std::vector<std::pair<std::uint8_t, Bytes>>& segments) {
    Bytes j = {0xFF, 0xD8};
    for (const auto& [m, p] : segments) appendSegment(j, m, p);
    j.insert(j.end(), {0xFF, 0xDA, 0x00, 0x02, 0x11, 0x22, 0xFF, 0xD9});
    return j;
}

// ---- PSD -------------------------------------------------------------------

// A flat PSD. `image` holds the composite data as it is stored after the
// compression word (row table included for RLE).
struct PsdSpec {
    int version = 1;
    int channels = 3;
    int width = 2;
    int height = 2;
    int depth = 8;
    int mode = 3;
    Bytes colorData{};
    Bytes resources{};
    Bytes layerSection{};  // contents, its length is written before it
    int compression = 0;
    Bytes image{};
};

inline Bytes buildPsd(const PsdSpec& s) {
    Bytes b = {'8', 'B', 'P', 'S'};
    Writer w{false, &b};
    // The header fields and their widths; six reserved bytes after the version.
    for (auto [v, n] : {std::pair{s.version, 2}, {0, 4}, {0, 2}, {s.channels, 2}, {s.height, 4}, {s.width, 4},
                        {s.depth, 2}, {s.mode, 2}})
        w.put(static_cast<std::uint32_t>(v), n);
    for (const Bytes* section : {&s.colorData, &s.resources}) {
        w.u32(static_cast<std::uint32_t>(section->size()));
        b.insert(b.end(), section->begin(), section->end());
    }
    if (s.version == 2) w.u32(0);
    w.u32(static_cast<std::uint32_t>(s.layerSection.size()));
    b.insert(b.end(), s.layerSection.begin(), s.layerSection.end());
    w.u16(static_cast<std::uint32_t>(s.compression));
    b.insert(b.end(), s.image.begin(), s.image.end());
    return b;
}

// ---- ICC -------------------------------------------------------------------

// A minimal ICC profile header of the given colour space ("RGB ", "GRAY",
// "CMYK") and size, no tags.
inline Bytes iccHeader(const char* space, std::size_t size = 132) {
    Bytes p(size, 0);
    for (auto [at, v] : {std::pair{0, static_cast<std::uint32_t>(size)}, {8, 0x02100000u}, {68, 0xF6D6u}, {72, 0x10000u}, {76, 0xD32Du}})
        ol::putU32BE(&p[at], v);  // size, version, D50 illuminant
    for (auto [at, text] : {std::pair{4, "none"}, {12, "mntr"}, {16, space}, {20, "XYZ "}, {36, "acsp"}}) std::memcpy(&p[at], text, 4);
    return p;  // tag count 0
}

// ---- reading back little-endian IFDs ---------------------------------------

struct IfdEntry {
    std::uint16_t tag;
    std::uint16_t type;
    std::uint32_t count;
    std::uint32_t value;  // the four value bytes read as a LONG
    std::uint16_t shortValue() const { return static_cast<std::uint16_t>(value & 0xFFFF); }
};

// Little-endian numbers at `at`, bounds-checked.
inline std::uint32_t u32(const Bytes& b, std::size_t at) { return ol::getU32LE(&b.at(at + 3) - 3); }
inline std::uint16_t u16(const Bytes& b, std::size_t at) { return ol::getU16LE(&b.at(at + 1) - 1); }

// The entries of the IFD at `at`, offsets as stored.
inline std::vector<IfdEntry> readIfd(const Bytes& b, std::size_t at) {
    std::vector<IfdEntry> out;
    const std::uint16_t n = u16(b, at);
    for (std::size_t i = 0; i < n; ++i) {
        const std::size_t e = at + 2 + 12 * i;
        out.push_back({u16(b, e), u16(b, e + 2), u32(b, e + 4), u32(b, e + 8)});
    }
    return out;
}

// The entry of `tag`, by value (the IFD may be a temporary).
inline std::optional<IfdEntry> find(const std::vector<IfdEntry>& ifd, int tag) {
    for (const auto& e : ifd)
        if (e.tag == tag) return e;
    return std::nullopt;
}

// ---- records and calls -----------------------------------------------------

// A census of the records, then the Exif block it sizes, into `out`.
inline int exifBlockInto(const ExifRecord& ex, const GpsRecord& gps, int orientation, std::uint8_t* out) {
    int c[7];
    get_exif_count(&ex, &c[0], &c[1], &gps, &c[2], &c[3], &c[4], &c[5], &c[6]);
    return write_exif_buf(c[0], c[1], c[2], c[3], c[4], c[5], c[6], orientation, &ex, &gps, out);
}

struct Records {
    ExifRecord exif;
    GpsRecord gps;
    int result;
};

// get_exif_data on zeroed records.
inline Records readExif(const std::string& path, int type) {
    Records r{emptyExif(), emptyGps(), 0};
    r.result = get_exif_data(path.c_str(), type, &r.exif, &r.gps);
    return r;
}

inline Records readExifBytes(const Bytes& bytes, int type) {
    oltest::TempDir dir;
    oltest::writeFile(dir.file("in.bin"), bytes);
    return readExif(dir.file("in.bin"), type);
}

// A fixed-size text field up to its terminator.
inline std::string field(const char* f, std::size_t n) { return std::string(f, strnlen(f, n)); }

// Degrees (or hours), minutes and seconds as one number; a zero
// denominator leaves its part out.
inline double dms(const std::uint32_t* r) {
    double v = 0, scale = 1;
    for (int k = 0; k < 3; ++k, scale *= 60)
        if (r[2 * k + 1] != 0) v += static_cast<double>(r[2 * k]) / r[2 * k + 1] / scale;
    return v;
}

// The IPTC block the record points at, read with read_iptc.
inline std::string iptcBlock(const std::string& path, const ExifRecord& e) {
    if (e.iptcLen <= 0) return {};
    std::vector<unsigned char> b(static_cast<std::size_t>(e.iptcLen));
    EXPECT_EQ(read_iptc(path.c_str(), e.iptcLen, e.iptcOffset, b.data()), e.iptcLen);
    return std::string(b.begin(), b.end());
}

// The sections of a data file of tests/interop: "@ name" lines start each;
// blank lines and "#" lines are left out.
inline std::map<std::string, std::vector<std::string>> interopSections(const std::string& file) {
    std::map<std::string, std::vector<std::string>> out;
    std::ifstream in(std::string(OL_SOURCE_DIR) + "/tests/interop/" + file);
    std::vector<std::string>* cur = nullptr;
    for (std::string l; std::getline(in, l);) {
        if (l.rfind("@ ", 0) == 0) cur = &out[l.substr(2)];
        else if (cur && !l.empty() && l[0] != '#') cur->push_back(l);
    }
    return out;
}

// Every reader over one file the way a host would, sizing its buffers from
// what the readers report (bounded, as a host would refuse a huge size),
// quietly; the composite is loaded when it has at most `maxPixels` pixels.
// Returns the codes of the PSD, BMP and ICC readers.
struct Outcome {
    int psdInfo = 0;
    int psdLoad = 0;
    int bmp = 0;
    int icc = 0;
};

inline Outcome runAllReaders(const std::string& path, long long maxPixels = 1 << 20) {
    Outcome o;
    const Bytes bytes = oltest::readFile(path);
    const std::size_t fileSize = bytes.size();
    oltest::CaptureFd quietOut(1);
    oltest::CaptureFd quietErr(2);
    for (int type : {0, 1, 2}) {
        const Records r = readExif(path, type);
        if (r.exif.iptcLen > 0 && static_cast<std::size_t>(r.exif.iptcLen) <= fileSize) {
            std::vector<unsigned char> block(static_cast<std::size_t>(r.exif.iptcLen));
            read_iptc(path.c_str(), r.exif.iptcLen, r.exif.iptcOffset, block.data());
        }
    }
    PsdInfo info{};
    o.psdInfo = getPsdInfo(path.c_str(), &info);
    std::vector<unsigned char> prof(fileSize + 1);
    if (o.psdInfo > 0) {
        psd_profile(path.c_str(), prof.data());
        const long long pixels = static_cast<long long>(info.width) * info.height;
        if (info.width > 0 && info.height > 0 && pixels <= maxPixels) {
            Bytes out(static_cast<std::size_t>(pixels) * 6 + 16);
            o.psdLoad = load_psd(1, path.c_str(), &info, 3 * info.width, out.data());
        }
    }
    int dims[3];
    o.bmp = olbmp_dim(path.c_str(), dims);
    o.icc = extract_profile(path.c_str(), prof.data());
    char name[32];
    get_profile_name(static_cast<int>(fileSize), bytes.data(), name);
    return o;
}

}  // namespace metatest
