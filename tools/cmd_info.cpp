// olhdr info: what the library reads from a file.
#include <cstdio>
#include <cstring>

#include "args.hpp"
#include "commands.hpp"
#include "library.hpp"
#include "orient.hpp"
#include "quiet.hpp"

namespace olhdr {

const char* const kInfoHelp =
    "usage: olhdr info FILE... [--json]\n"
    "\n"
    "Shows each file's format, size and sample depth, and the metadata the\n"
    "library reads from it: Exif values, GPS position, IPTC keywords and the ICC\n"
    "profile's name. JPEG, PNG, TIFF, PSD and Radiance files are understood.\n"
    "\n"
    "options:\n"
    "      --json      one JSON array with an object per file, on stdout\n"
    "  -q, --quiet  -v, --verbose  -h, --help\n";

namespace {

struct Field {
    std::string key;
    std::string text;   // for people
    std::string json;   // JSON value
};

// Length of a well-formed UTF-8 sequence at s[i], or 0.
std::size_t utf8Length(const std::string& s, std::size_t i) {
    const auto c = static_cast<unsigned char>(s[i]);
    const std::size_t n = c >= 0xF0 && c <= 0xF4 ? 4 : c >= 0xE0 ? 3 : c >= 0xC2 && c <= 0xDF ? 2 : 0;
    if (n == 0 || i + n > s.size()) return 0;
    for (std::size_t k = 1; k < n; ++k)
        if ((static_cast<unsigned char>(s[i + k]) & 0xC0) != 0x80) return 0;
    return n;
}

// Text fields of files may hold UTF-8 or, in older files, Latin-1 bytes:
// UTF-8 passes through and any other byte is taken as Latin-1.
std::string jsonString(const std::string& s) {
    std::string out = "\"";
    for (std::size_t i = 0; i < s.size(); ++i) {
        const auto c = static_cast<unsigned char>(s[i]);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c >= 0x80) {
            const std::size_t n = utf8Length(s, i);
            if (n > 0) {
                out.append(s, i, n);
                i += n - 1;
            } else {
                char buf[8];
                std::snprintf(buf, sizeof buf, "\\u%04x", c);
                out += buf;
            }
        } else if (c < 0x20 || c == 0x7F) {
            char buf[8];
            std::snprintf(buf, sizeof buf, "\\u%04x", c);
            out += buf;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

std::string num(double v) {
    char buf[40];
    std::snprintf(buf, sizeof buf, "%.6g", v);
    return buf;
}

std::string gpsAngle(const std::uint32_t* r) {
    double v = 0, scale = 1;
    for (int i = 0; i < 3; ++i) {
        if (r[2 * i + 1] == 0) break;
        v += static_cast<double>(r[2 * i]) / r[2 * i + 1] / scale;
        scale *= 60;
    }
    return num(v);
}

std::vector<Field> describe(const std::string& path, bool verbose) {
    std::vector<Field> f;
    const FileKind kind = sniff(path);
    f.push_back({"file", path, jsonString(path)});
    f.push_back({"format", kindName(kind), jsonString(kindName(kind))});
    Image decoded;
    Metadata meta;
    int width = 0, height = 0, samples = 0, depth = 0;
    switch (kind) {
        case FileKind::Missing: throw Failure(kExitInput, path + ": no such file");
        case FileKind::Directory: throw Failure(kExitInput, path + ": is a folder, not an image");
        case FileKind::Unknown:
            throw Failure(kExitInput, path + ": not an image format olhdr reads (JPEG, PNG, TIFF, PSD, Radiance)");
        case FileKind::Radiance: {
            const RadianceFile rf = readRadianceHeader(path, verbose);
            width = rf.width;
            height = rf.height;
            samples = 3;
            depth = 32;
            meta.exif = rf.exif;
            break;
        }
        case FileKind::Psd: {
            const PsdSummary s = readPsdSummary(path, verbose);
            width = s.info.width;
            height = s.info.height;
            samples = s.info.channels;
            depth = s.depth;
            meta = readMetadata(path, kind, nullptr, verbose);
            break;
        }
        default: {
            const Frame fr = loadFrame(path, verbose);
            width = fr.image.width;
            height = fr.image.height;
            samples = 3;
            depth = fr.image.bps;
            meta = fr.meta;
            break;
        }
    }
    f.push_back({"width", std::to_string(width), std::to_string(width)});
    f.push_back({"height", std::to_string(height), std::to_string(height)});
    f.push_back({"samples", std::to_string(samples), std::to_string(samples)});
    f.push_back({"bits", std::to_string(depth) + (depth == 32 ? " (RGBE)" : ""), std::to_string(depth)});
    const ExifRecord& e = meta.exif;
    if (e.exposureNum > 0 && e.exposureDen > 0)
        f.push_back({"exposure", rationalText(e.exposureNum, e.exposureDen, true) + " s",
                     num(static_cast<double>(e.exposureNum) / e.exposureDen)});
    if (e.apertureNum > 0 && e.apertureDen > 0)
        f.push_back({"fnumber", "f/" + rationalText(e.apertureNum, e.apertureDen, false),
                     num(static_cast<double>(e.apertureNum) / e.apertureDen)});
    if (e.iso > 0) f.push_back({"iso", std::to_string(e.iso), std::to_string(e.iso)});
    if (e.focalNum > 0 && e.focalDen > 0)
        f.push_back({"focal", rationalText(e.focalNum, e.focalDen, false) + " mm",
                     num(static_cast<double>(e.focalNum) / e.focalDen)});
    if (e.focal35 > 0) f.push_back({"focal35", std::to_string(e.focal35) + " mm", std::to_string(e.focal35)});
    const std::string camera = fieldText(e.camera, sizeof e.camera);
    if (!camera.empty()) f.push_back({"camera", camera, jsonString(camera)});
    const std::string date = fieldText(e.date, sizeof e.date);
    if (!date.empty()) f.push_back({"date", date, jsonString(date)});
    if (e.orientation >= 1 && e.orientation <= 8 && kind != FileKind::Radiance)
        f.push_back({"orientation",
                     std::to_string(e.orientation) +
                         (e.orientation == 1 ? "" : " (to view: " + orientationText(e.orientation) +
                                                        "; merge turns its picture upright)"),
                     std::to_string(e.orientation)});
    const GpsRecord& g = meta.gps;
    if (g.latitude[1] > 0 && g.longitude[1] > 0) {
        const std::string lat = gpsAngle(g.latitude), lon = gpsAngle(g.longitude);
        const char latRef = g.lat_ref ? g.lat_ref : 'N', lonRef = g.long_ref ? g.long_ref : 'E';
        f.push_back({"gps", lat + " " + latRef + ", " + lon + " " + lonRef,
                     "{\"latitude\": " + std::string(latRef == 'S' ? "-" : "") + lat + ", \"longitude\": " +
                         std::string(lonRef == 'W' ? "-" : "") + lon + "}"});
    }
    if (g.altitude[1] > 0)
        f.push_back({"altitude", num(static_cast<double>(g.altitude[0]) / g.altitude[1]) + " m",
                     num(static_cast<double>(g.altitude[0]) / g.altitude[1])});
    const std::vector<std::string> words = iptcKeywords(meta.iptc);
    if (!words.empty()) {
        std::string text, json = "[";
        for (std::size_t i = 0; i < words.size(); ++i) {
            text += (i ? ", " : "") + words[i];
            json += (i ? ", " : "") + jsonString(words[i]);
        }
        f.push_back({"keywords", text, json + "]"});
    }
    if (!meta.icc.empty()) {
        f.push_back({"icc_profile", meta.profileName + " (" + std::to_string(meta.icc.size()) + " bytes)",
                     jsonString(meta.profileName)});
    } else if (kind == FileKind::Radiance && e.colorSpace >= 0 && e.colorSpace <= 2) {
        static const char* names[] = {"sRGB", "Adobe RGB", "ProPhoto RGB"};
        f.push_back({"icc_profile", names[e.colorSpace], jsonString(names[e.colorSpace])});
    }
    return f;
}

}  // namespace

int cmdInfo(const std::vector<std::string>& argv) {
    const Args args(argv, {OLHDR_COMMON_OPTIONS, {"json", 0, false}});
    if (printHelpIfAsked(args, kInfoHelp)) return kExitOk;
    const bool verbose = args.has("verbose");
    const bool json = args.has("json");
    if (args.positional().empty()) throw Failure(kExitUsage, "no file given (olhdr info --help)");
    // Every file is read before anything is printed; a file that cannot be
    // read gets its error line and the others are still listed. The exit
    // code is that of the first failure.
    std::vector<std::vector<Field>> all;
    int status = kExitOk;
    for (const auto& path : args.positional()) {
        try {
            all.push_back(describe(path, verbose));
        } catch (const Failure& f) {
            std::fprintf(stderr, "olhdr info: %s\n", f.what());
            if (status == kExitOk) status = f.code();
        }
    }
    std::string out = json ? "[\n" : "";
    for (std::size_t i = 0; i < all.size(); ++i) {
        if (json) {
            out += "  {";
            for (std::size_t k = 0; k < all[i].size(); ++k)
                out += (k ? ", " : "") + jsonString(all[i][k].key) + ": " + all[i][k].json;
            out += i + 1 < all.size() ? "},\n" : "}\n";
        } else {
            if (i) out += "\n";
            for (const auto& fld : all[i]) {
                std::string key = fld.key;
                key.resize(12, ' ');
                out += key + " " + fld.text + "\n";
            }
        }
    }
    if (json) out += "]\n";
    if (!args.has("quiet") || json) std::fputs(out.c_str(), stdout);
    return status;
}

}  // namespace olhdr
