#include "library.hpp"


#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <future>

#include "cli.hpp"
#include "platform.hpp"
#include "quiet.hpp"

namespace olhdr {

namespace {
[[noreturn]] void badInput(const std::string& path, const std::string& why) {
    throw Failure(kExitInput, path + ": " + why);
}

// Reads the PSD version word: 2 marks the large-document form, whose lengths
// are 64-bit.
int psdLengthBits(const std::string& path) {
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) return 32;
    unsigned char b[6] = {};
    const std::size_t n = std::fread(b, 1, 6, f);
    std::fclose(f);
    return n == 6 && b[4] == 0 && b[5] == 2 ? 64 : 32;
}

// A PNG's Exif lies in an eXIf chunk, which the library does not look for.
// The chunk is a whole TIFF structure, so the library reads it as a TIFF file
// from a scratch copy.
void readExifFromTiffBytes(const std::vector<std::uint8_t>& tiff, Metadata& m) {
    std::string temp = (std::filesystem::path(platform::tempFolder()) / "olhdr-exif-XXXXXX").string();
    if (!platform::makeTempFile(temp)) return;
    const char* name = temp.c_str();
    std::FILE* f = std::fopen(name, "wb");
    const bool ok = f && std::fwrite(tiff.data(), 1, tiff.size(), f) == tiff.size();
    if (f && std::fclose(f) != 0) return void(std::remove(name));
    if (ok) {
        get_exif_data(name, 0, &m.exif, &m.gps);
        if (m.exif.iptcLen > 0 && m.exif.iptcOffset > 0 && m.exif.iptcLen < (1 << 24)) {
            std::vector<std::uint8_t> block(m.exif.iptcLen);
            if (read_iptc(name, m.exif.iptcLen, m.exif.iptcOffset, block.data()) == m.exif.iptcLen)
                m.iptc = std::move(block);
        }
    }
    std::remove(name);
}

bool anyExif(const ExifRecord& e, const GpsRecord& g) {
    return e.exposureNum > 0 || e.apertureNum > 0 || e.iso > 0 || e.focalNum > 0 || e.focal35 > 0 ||
           e.camera[0] != 0 || e.date[0] != 0 || g.lat_ref != 0 || g.latitude[0] != 0;
}
}  // namespace

std::string fieldText(const char* field, std::size_t size) {
    std::size_t n = 0;
    while (n < size && field[n] != 0) ++n;
    std::string s(field, n);
    while (!s.empty() && (s.back() == '\n' || s.back() == '\r' || s.back() == ' ')) s.pop_back();
    return s;
}

std::string rationalText(int num, int den, bool asFraction) {
    if (num <= 0 || den <= 0) return "";
    char buf[48];
    const double v = static_cast<double>(num) / den;
    if (asFraction && v < 1.0) {
        const double inv = den / static_cast<double>(num);
        if (std::fabs(inv - std::round(inv)) < 0.05)
            std::snprintf(buf, sizeof buf, "1/%.0f", inv);
        else
            std::snprintf(buf, sizeof buf, "%.4g", v);
    } else {
        std::snprintf(buf, sizeof buf, "%.4g", v);
    }
    return buf;
}

Metadata readMetadata(const std::string& path, FileKind kind, const Image* decoded, bool verbose) {
    Metadata m;
    m.exif.colorSpace = -1;
    if (decoded) m.icc = decoded->icc;
    {
        LibraryOutput quiet(verbose);
        switch (kind) {
            case FileKind::Jpeg:
            case FileKind::Tiff:
            case FileKind::Psd: {
                const int type = kind == FileKind::Jpeg ? 1 : kind == FileKind::Psd ? 2 : 0;
                get_exif_data(path.c_str(), type, &m.exif, &m.gps);
                const int len = m.exif.iptcLen, off = m.exif.iptcOffset;
                if (len > 0 && off > 0 && len < (1 << 24)) {
                    std::vector<std::uint8_t> block(len);
                    if (read_iptc(path.c_str(), len, off, block.data()) == len) m.iptc = std::move(block);
                }
                break;
            }
            case FileKind::Png:
                if (decoded && !decoded->exifTiff.empty()) readExifFromTiffBytes(decoded->exifTiff, m);
                break;
            case FileKind::Radiance:
                extract_rgbe_exif(path.c_str(), &m.exif);
                break;
            default:
                break;
        }
        if (kind == FileKind::Psd && m.icc.empty()) {
            PsdInfo info{};
            info.lengthBits = psdLengthBits(path);
            if (getPsdInfo(path.c_str(), &info) >= 0 && info.lProfil > 0 && info.lProfil < (1 << 26)) {
                std::vector<std::uint8_t> icc(info.lProfil);
                if (psd_profile(path.c_str(), icc.data()) == info.lProfil) m.icc = std::move(icc);
            }
        }
    }
    m.hasExif = anyExif(m.exif, m.gps);
    if (!m.icc.empty()) m.profileName = profileName(m.icc);
    return m;
}

PsdSummary readPsdSummary(const std::string& path, bool verbose) {
    PsdSummary s;
    s.info.lengthBits = psdLengthBits(path);
    int r;
    {
        LibraryOutput quiet(verbose);
        r = getPsdInfo(path.c_str(), &s.info);
    }
    if (r == -2) badInput(path, "not a PSD file");
    if (r == -3) badInput(path, "only RGB PSD files are supported");
    if (r < 0) badInput(path, "cannot read the PSD header");
    s.depth = s.info.bps;
    if (s.info.width < 1 || s.info.height < 1) badInput(path, "PSD image has no pixels");
    return s;
}

namespace {
// `decoded`, when valid, holds the pixels of a JPEG or PNG frame decoded on
// another thread; everything that calls the library stays on this one (the
// output guard of quiet.hpp is process-wide).
Frame loadFrameWith(const std::string& path, bool verbose, std::future<Image>* decoded) {
    Frame f;
    f.path = path;
    f.kind = sniff(path);
    const bool early = decoded && decoded->valid();
    switch (f.kind) {
        case FileKind::Missing:
            if (std::error_code ec; std::filesystem::exists(path, ec)) badInput(path, std::string("cannot open: ") + std::strerror(EACCES));
            badInput(path, "no such file");
        case FileKind::Directory: badInput(path, "is a folder, not an image");
        case FileKind::Jpeg: f.image = early ? decoded->get() : readJpeg(path); break;
        case FileKind::Png: f.image = early ? decoded->get() : readPng(path); break;
        case FileKind::Tiff: f.image = readTiff(path); break;
        case FileKind::Radiance: badInput(path, "is a Radiance picture, not an exposure frame");
        case FileKind::Psd: {
            PsdSummary s = readPsdSummary(path, verbose);
            if (s.depth == 32) badInput(path, "a 32-bit PSD is a radiance picture, not an exposure frame");
            if (s.depth != 8 && s.depth != 16)
                badInput(path, std::to_string(s.depth) + "-bit PSD files are not supported");
            if (static_cast<double>(s.info.width) * s.info.height > 1.2e9) badInput(path, "image is too large");
            // Even run-length coded, each row of each channel takes a count
            // and two bytes per 128 pixels: a file shorter than that cannot
            // hold its picture, and its size is not worth allocating.
            std::error_code ec;
            const auto fileBytes = std::filesystem::file_size(path, ec);
            const double leastBytes = static_cast<double>(s.info.height) * std::max(1, s.info.channels) *
                                      (2.0 + 2.0 * ((s.info.width + 127) / 128));
            if (ec || static_cast<double>(fileBytes) < leastBytes)
                badInput(path, "damaged PSD: the file is too short for a " + std::to_string(s.info.width) + "x" +
                                   std::to_string(s.info.height) + " picture");
            Image img;
            img.width = s.info.width;
            img.height = s.info.height;
            img.spp = 3;
            img.bps = s.depth;
            img.pixels.resize(img.byteCount());
            int r;
            {
                LibraryOutput quiet(verbose);
                r = load_psd(1, path.c_str(), &s.info, 3 * img.width, img.pixels.data());
            }
            if (r == -4) throw Failure(kExitProcessing, path + ": out of memory reading the PSD");
            if (r < 0) badInput(path, "damaged or unsupported PSD data (code " + std::to_string(r) + ")");
            f.image = std::move(img);
            break;
        }
        default: badInput(path, "not an image format olhdr reads (JPEG, PNG, TIFF, PSD)");
    }
    f.meta = readMetadata(path, f.kind, &f.image, verbose);
    return f;
}
}  // namespace

Frame loadFrame(const std::string& path, bool verbose) { return loadFrameWith(path, verbose, nullptr); }

RadianceFile readRadianceHeader(const std::string& path, bool verbose) {
    RadianceFile rf;
    int dims[8] = {};
    int r;
    {
        LibraryOutput quiet(verbose);
        r = rgbe_dim(path.c_str(), rf.primaries, dims);
        rf.exif.colorSpace = -1;
        if (r >= 0) extract_rgbe_exif(path.c_str(), &rf.exif);
    }
    if (r == -1) badInput(path, "cannot open");
    // The reader looks for the resolution line within fileSize/128 header
    // lines (100 from 12801 bytes): a small picture can have more header
    // lines than that, and is then not read.
    std::error_code ec;
    const auto bytes = std::filesystem::file_size(path, ec);
    if (r < 0 && !ec && bytes < 12801)
        badInput(path, "too small for the library's Radiance reader: it reads at most " +
                           std::to_string(bytes / 128) + " header lines in a file of " + std::to_string(bytes) +
                           " bytes (one per 128) and found no resolution line among them");
    if (r < 0) badInput(path, "not a Radiance picture (no resolution line)");
    rf.width = dims[0];
    rf.height = dims[1];
    rf.hasPrimaries = dims[6] != 0;
    if (rf.width < 1 || rf.height < 1 || static_cast<double>(rf.width) * rf.height > 1.2e9)
        badInput(path, "unusable Radiance picture size");
    return rf;
}

std::vector<std::uint8_t> readRadiancePixels(const std::string& path, const RadianceFile& info,
                                             bool verbose) {
    int dims[8] = {};
    float primaries[8];
    {
        LibraryOutput quiet(verbose);
        rgbe_dim(path.c_str(), primaries, dims);
    }
    std::vector<std::uint8_t> rgbe(static_cast<std::size_t>(info.width) * info.height * 4);
    int r;
    {
        LibraryOutput quiet(verbose);
        r = decomp2(path.c_str(), dims, rgbe.data(), nullptr);
    }
    if (r != info.height) badInput(path, "damaged Radiance data (code " + std::to_string(r) + ")");
    return rgbe;
}

std::vector<std::uint8_t> exifBlock(const ExifRecord& exif, const GpsRecord& gps, int orientation) {
    int exifCount = 0, exifLen = 0, gpsCount = 0, gpsLen = 0, modelLen = 0, dateLen = 0, gpsDateLen = 0;
    get_exif_count(&exif, &exifCount, &exifLen, &gps, &gpsCount, &gpsLen, &modelLen, &dateLen, &gpsDateLen);
    if (exifCount <= 0 && gpsCount <= 0 && modelLen <= 0) return {};
    // Room for the largest block these counts describe, zeroed as required.
    const std::size_t size = 14 + 12 * 4 + modelLen + exifLen + 12 * exifCount + 6 + gpsLen +
                             12 * gpsCount + 6 + 64;
    std::vector<std::uint8_t> out(size, 0);
    const int n = write_exif_buf(exifCount, exifLen, gpsCount, gpsLen, modelLen, dateLen, gpsDateLen,
                                 orientation, &exif, &gps, out.data());
    if (n <= 0 || static_cast<std::size_t>(n) > size) return {};
    out.resize(n);
    return out;
}

std::string profileName(const std::vector<std::uint8_t>& icc) {
    if (icc.empty()) return "";
    char name[33] = {};
    const int n = get_profile_name(static_cast<int>(icc.size()), icc.data(), name);
    if (n <= 0) return "";
    return fieldText(name, 32);
}

std::vector<std::string> iptcKeywords(const std::vector<std::uint8_t>& iptc) {
    std::vector<std::string> words;
    std::size_t i = 0;
    while (i + 5 <= iptc.size()) {
        if (iptc[i] != 0x1C) break;
        const std::size_t len = (static_cast<std::size_t>(iptc[i + 3]) << 8) | iptc[i + 4];
        if (i + 5 + len > iptc.size()) break;
        if (iptc[i + 1] == 2 && iptc[i + 2] == 25)
            words.emplace_back(reinterpret_cast<const char*>(&iptc[i + 5]), len);
        i += 5 + len;
    }
    return words;
}

}  // namespace olhdr

#include "progress.hpp"

namespace olhdr {

namespace {
int meanLevel(const Image& img) {
    // The merge's luminance scale: 54*first + 183*middle + 19*last on the
    // high bytes, sampled on a grid for speed.
    const std::size_t n = static_cast<std::size_t>(img.width) * img.height;
    const std::size_t step = std::max<std::size_t>(1, n / 200000);
    const std::size_t bs = img.bps / 8;
    double sum = 0;
    std::size_t count = 0;
    for (std::size_t i = 0; i < n; i += step) {
        const std::uint8_t* p = img.pixels.data() + i * 3 * bs + (bs - 1);
        sum += 54.0 * p[0] + 183.0 * p[bs] + 19.0 * p[2 * bs];
        ++count;
    }
    return static_cast<int>(sum / static_cast<double>(count));
}
}  // namespace

FrameSet loadFrameSet(const std::vector<std::string>& paths, bool verbose, Progress& progress) {
    FrameSet set;
    const int n = static_cast<int>(paths.size());
    // JPEG and PNG pixels are decoded one frame ahead on a second thread, so
    // two frames decode at once while this thread takes the metadata and
    // fills the block; errors still surface in frame order.
    auto start = [&](int k) {
        std::future<Image> pixels;
        if (k >= n) return pixels;
        const FileKind kind = sniff(paths[k]);
        if (kind == FileKind::Jpeg || kind == FileKind::Png)
            pixels = std::async(std::launch::async, [path = paths[k], kind] {
                return kind == FileKind::Jpeg ? readJpeg(path) : readPng(path);
            });
        return pixels;
    };
    std::future<Image> next = start(0);
    for (int k = 0; k < n; ++k) {
        progress.update(static_cast<double>(k) / n);
        std::future<Image> current = std::move(next);
        next = start(k + 1);
        Frame f = loadFrameWith(paths[k], verbose, &current);
        if (k == 0) {
            set.width = f.image.width;
            set.height = f.image.height;
            set.bps = f.image.bps;
            set.block.resize(set.frameBytes() * n);
        } else if (f.image.width != set.width || f.image.height != set.height) {
            throw Failure(kExitInput, paths[k] + ": is " + std::to_string(f.image.width) + "x" +
                                          std::to_string(f.image.height) + ", but " + paths[0] + " is " +
                                          std::to_string(set.width) + "x" + std::to_string(set.height) +
                                          " (all frames must have one size)");
        } else if (f.image.bps != set.bps) {
            throw Failure(kExitInput, paths[k] + ": has " + std::to_string(f.image.bps) +
                                          "-bit samples, but " + paths[0] + " has " + std::to_string(set.bps) +
                                          " (all frames must have one depth)");
        }
        std::memcpy(set.block.data() + set.frameBytes() * k, f.image.pixels.data(), set.frameBytes());
        set.means.push_back(meanLevel(f.image));
        set.paths.push_back(paths[k]);
        set.meta.push_back(std::move(f.meta));
    }
    progress.update(1.0);
    return set;
}

void applyBlackLevel(FrameSet& frames, double level) {
    if (level <= 0) return;
    const bool wide = frames.bps == 16;
    const double top = wide ? 65535.0 : 255.0;
    const double black = wide ? level * 257.0 : level;
    std::vector<std::uint16_t> table(wide ? 65536 : 256);
    for (std::size_t v = 0; v < table.size(); ++v)
        table[v] = static_cast<std::uint16_t>(
            std::lround(std::clamp((static_cast<double>(v) - black) * top / (top - black), 0.0, top)));
    std::uint8_t* p = frames.block.data();
    const std::size_t samples = frames.block.size() / (wide ? 2 : 1);
    for (std::size_t i = 0; i < samples; ++i) {
        if (wide) {
            const std::uint16_t v = table[p[2 * i] | (p[2 * i + 1] << 8)];
            p[2 * i] = static_cast<std::uint8_t>(v & 0xFF);
            p[2 * i + 1] = static_cast<std::uint8_t>(v >> 8);
        } else {
            p[i] = static_cast<std::uint8_t>(table[p[i]]);
        }
    }
    for (int k = 0; k < frames.count(); ++k) {
        Image view;
        view.width = frames.width;
        view.height = frames.height;
        view.spp = 3;
        view.bps = frames.bps;
        view.pixels.assign(frames.block.begin() + frames.frameBytes() * k,
                           frames.block.begin() + frames.frameBytes() * (k + 1));
        frames.means[k] = meanLevel(view);
    }
}

int shadowFloor(const FrameSet& frames) {
    if (frames.count() == 0) return 0;
    const int k = static_cast<int>(std::min_element(frames.means.begin(), frames.means.end()) - frames.means.begin());
    const std::size_t bs = frames.bps / 8;
    const std::uint8_t* p = frames.block.data() + frames.frameBytes() * k;
    const std::size_t n = static_cast<std::size_t>(frames.width) * frames.height;
    std::size_t histogram[256] = {};
    for (std::size_t i = 0; i < n; ++i) ++histogram[p[(i * 3 + 1) * bs + (bs - 1)]];
    // Level 0 is left out: borders and masks of a scan are pure black.
    const std::size_t lit = n - histogram[0];
    std::size_t seen = 0;
    for (int v = 1; v < 256; ++v)
        if ((seen += histogram[v]) * 50 >= lit) return v;
    return 0;
}

namespace {
std::string nameOf(const std::string& path) { return std::filesystem::path(path).filename().string(); }

// Frames in order of a value, smallest first (stable: equal values keep
// the order given).
std::vector<int> orderBy(const std::vector<double>& v) {
    std::vector<int> order(v.size());
    for (std::size_t k = 0; k < v.size(); ++k) order[k] = static_cast<int>(k);
    std::stable_sort(order.begin(), order.end(), [&](int a, int b) { return v[a] < v[b]; });
    return order;
}

// Brightness levels closer than this (2% of the scale) count as alike: a
// clipped or black pair of frames may swap without meaning anything.
constexpr double kClearlyBrighter = 0.02 * 65280;

void checkExposures(const FrameSet& frames, Exposures& e, bool guessed) {
    const int n = frames.count();
    const std::vector<double> mean(frames.means.begin(), frames.means.end());
    std::vector<double> dt(e.deltaT.begin(), e.deltaT.end());
    if (guessed) {
        // The guess takes the frames by brightness, whatever their order.
        const std::vector<int> bright = orderBy(mean);
        bool ascending = true, descending = true;
        for (int k = 1; k < n; ++k) {
            ascending = ascending && mean[k] >= mean[k - 1];
            descending = descending && mean[k] <= mean[k - 1];
        }
        if (!ascending && !descending) {
            std::string list;
            for (int k : bright) list += (list.empty() ? "" : ", ") + nameOf(frames.paths[k]);
            e.notes.push_back("frames reordered by brightness (darkest first): " + list);
        }
    }
    const std::vector<int> order = orderBy(dt);
    for (int i = 1; i < n; ++i) {
        const int a = order[i - 1], b = order[i];
        const double stops = std::log2(dt[b] / dt[a]);
        char buf[512];
        // Two shots at one exposure differ in mean level by far less than 1%;
        // 2% (and a fifth of an 8-bit level, above noise) is a real difference.
        const double lo = std::min(mean[a], mean[b]), hi = std::max(mean[a], mean[b]);
        if (e.inferred && stops < 0.1 && hi > 1.02 * lo && hi - lo > 0.2 * 256) {
            std::snprintf(buf, sizeof buf,
                          "%s and %s were given exposures %.2f stop apart, yet their brightness differs "
                          "clearly (levels %.0f and %.0f of 65280): the inferred exposures are implausible; "
                          "give --times or --ev-step",
                          nameOf(frames.paths[a]).c_str(), nameOf(frames.paths[b]).c_str(), stops, mean[a], mean[b]);
            e.warnings.push_back(buf);
        }
        if (!guessed && stops > 0.1 && mean[a] > mean[b] + kClearlyBrighter) {
            std::snprintf(buf, sizeof buf,
                          "%s has %.2f stop more exposure than %s but is darker: check the exposure times",
                          nameOf(frames.paths[b]).c_str(), stops, nameOf(frames.paths[a]).c_str());
            e.warnings.push_back(buf);
        }
    }
}
}  // namespace

Exposures frameExposures(const FrameSet& frames, double evStep, const std::vector<double>& times,
                         const std::string& timesSource, bool verbose) {
    const int n = frames.count();
    Exposures e;
    e.deltaT.assign(n, 1.0f);
    bool allTimes = true;
    for (const auto& m : frames.meta) allTimes = allTimes && m.hasExposure();
    const bool given = !times.empty() && evStep <= 0;
    if (evStep > 0 || (!given && !allTimes)) {
        std::vector<int> means = frames.means;
        {
            LibraryOutput quiet(verbose);
            guess_ev(0, n, evStep > 0 ? static_cast<float>(evStep) : 0.0f, means.data(), e.deltaT.data());
        }
        char buf[64];
        std::snprintf(buf, sizeof buf, "%g EV apart", evStep);
        e.inferred = evStep <= 0;
        e.source = evStep > 0 ? std::string("from --ev-step, ") + buf : "inferred from brightness, no Exif times";
        if (e.inferred)
            e.notes.push_back("the frames carry no exposure times: exposures inferred from their brightness "
                              "(give --times, --times-file or --ev-step when you know them)");
        checkExposures(frames, e, true);
        return e;
    }
    // Seven values a frame: time (numerator, denominator), f-number
    // (numerator, denominator), override, ISO. Given times enter as 1/1 and
    // scale the result: the exposure is proportional to the time.
    std::vector<float> data(static_cast<std::size_t>(n) * 7, 0.0f);
    for (int k = 0; k < n; ++k) {
        const ExifRecord& x = frames.meta[k].exif;
        float* d = &data[static_cast<std::size_t>(k) * 7];
        d[0] = given ? 1.0f : static_cast<float>(x.exposureNum);
        d[1] = given ? 1.0f : static_cast<float>(x.exposureDen);
        d[2] = static_cast<float>(std::max(0, x.apertureNum));
        d[3] = static_cast<float>(std::max(0, x.apertureDen));
        d[5] = static_cast<float>(std::max(0, x.iso));
    }
    {
        LibraryOutput quiet(verbose);
        get_ev(n, data.data());
    }
    for (int k = 0; k < n; ++k) e.deltaT[k] = given ? static_cast<float>(data[k] * times[k]) : data[k];
    e.source = given ? timesSource : "from Exif";
    checkExposures(frames, e, false);
    return e;
}

ExifRecord sharedExif(const FrameSet& frames) {
    ExifRecord kept{};
    kept.colorSpace = -1;
    if (frames.meta.empty()) return kept;
    kept = frames.meta[0].exif;
    for (std::size_t k = 1; k < frames.meta.size(); ++k) constant_exif(&kept, &frames.meta[k].exif);
    return kept;
}

}  // namespace olhdr
