// olhdr histogram: counts a picture's levels through the library and draws
// them as a PNG plot, or prints the counts as JSON. Photos: 256 bins of
// luminance and of each colour (and, for 16-bit photos, 512 finer luminance
// bins); Radiance pictures: 512 bins of log luminance with the library's
// percentile marks.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "args.hpp"
#include "commands.hpp"
#include "outfile.hpp"
#include "picture.hpp"
#include "quiet.hpp"

namespace olhdr {

const char* const kHistogramHelp =
    "usage: olhdr histogram IN [-o OUT.png] [--json] [--percentiles LO,HI]\n"
    "\n"
    "Counts the levels of IN (JPEG, PNG, TIFF, PSD or Radiance). A photo gives 256\n"
    "bins of luminance (0.21 R + 0.71 G + 0.07 B, in integers) and of red, green\n"
    "and blue (16-bit samples by their high byte), and a 16-bit photo also 512\n"
    "bins of its full-depth luminance with its range. A Radiance picture gives 512\n"
    "bins of log luminance between its darkest and brightest pixel, with the\n"
    "mean, the median and two percentiles.\n"
    "\n"
    "options:\n"
    "  -o, --out FILE          draw the histogram into this PNG (512 bins wide)\n"
    "      --json              print the counts on stdout as JSON\n"
    "      --percentiles LO,HI percentiles marked on a Radiance histogram\n"
    "                          (default 1,99)\n"
    "  -q, --quiet  -v, --verbose  -h, --help\n";

namespace {

using Counts = std::vector<std::int32_t>;

struct Histograms {
    Counts lum, red, green, blue;  // photos, 256 bins
    Counts lum512;                 // 16-bit photos and Radiance pictures
    float range[2] = {0, 0};       // 16-bit: luminance range; Radiance: the axis
    float info[10] = {};           // Radiance: hist32info's results
    int total = 0;
};

Histograms photoHistograms(const Image& img) {
    Histograms hs;
    hs.lum.assign(256, 0);
    hs.red.assign(256, 0);
    hs.green.assign(256, 0);
    hs.blue.assign(256, 0);
    // The library's luminance weights read the samples as blue, green, red.
    Image bgr = img;
    const std::size_t bytes = img.bps / 8, n = static_cast<std::size_t>(img.width) * img.height;
    for (std::size_t i = 0; i < n; ++i)
        for (std::size_t b = 0; b < bytes; ++b) std::swap(bgr.pixels[i * 3 * bytes + b], bgr.pixels[(i * 3 + 2) * bytes + b]);
    const int stride = img.width * 3;
    histcolors(img.width, img.height, stride, 3, img.bps, bgr.pixels.data(), hs.red.data(), hs.green.data(),
               hs.blue.data());
    histlum(img.width, img.height, stride, 3, img.bps, bgr.pixels.data(), hs.lum.data());
    if (img.bps == 16) {
        hs.lum512.assign(512, 0);
        hist16(img.width, img.height, stride, 3, reinterpret_cast<const std::uint16_t*>(bgr.pixels.data()), hs.range,
               hs.lum512.data());
    }
    hs.total = img.width * img.height;
    return hs;
}

Histograms radianceHistograms(const Picture& pic, float low, float high, bool verbose) {
    Histograms hs;
    hs.lum512.assign(512, 0);
    // The axis runs from the darkest to the brightest counted pixel, in the
    // library's units (mantissa level times 2^(E-128)).
    double lo = 0, hi = 0;
    const std::size_t w = pic.width;
    for (int y = 0; y < pic.height; ++y) {
        const std::uint8_t* row = pic.rgbe.data() + static_cast<std::size_t>(y) * w * 4;
        for (std::size_t x = 0; x < w; ++x) {
            const int e = row[3 * w + x];
            const int level = (54 * row[x] + 183 * row[w + x] + 19 * row[2 * w + x]) >> 8;
            if (e == 0 || level == 0) continue;
            const double v = std::ldexp(static_cast<double>(level), e - 128);
            if (lo == 0 || v < lo) lo = v;
            if (v > hi) hi = v;
        }
    }
    if (lo == 0) lo = hi = 1;  // nothing lit: any axis does
    if (hi <= lo) hi = lo * 2;
    hs.range[0] = static_cast<float>(lo);
    hs.range[1] = static_cast<float>(hi);
    hs.info[0] = low;
    hs.info[1] = high;
    {
        LibraryOutput quiet(verbose);
        const int r = getHisto32(pic.width, pic.height, pic.rgbe.data(), hs.range, hs.lum512.data());
        if (r != pic.height) throw Failure(kExitProcessing, "the histogram failed (code " + std::to_string(r) + ")");
        hs.total = hist32info(hs.range, 32, hs.lum512.data(), hs.info);
    }
    return hs;
}

std::string jsonArray(const Counts& c) {
    std::string s = "[";
    for (std::size_t i = 0; i < c.size(); ++i) {
        if (i) s += ',';
        s += std::to_string(c[i]);
    }
    return s + "]";
}

std::string jsonNumber(double v) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.6g", v);
    return buf;
}

std::string jsonText(const std::string& t) {
    std::string s = "\"";
    for (char c : t) {
        if (c == '"' || c == '\\') s += '\\';
        if (static_cast<unsigned char>(c) < 0x20) {
            char buf[8];
            std::snprintf(buf, sizeof buf, "\\u%04x", c);
            s += buf;
        } else {
            s += c;
        }
    }
    return s + "\"";
}

// The bin of a value of hist32info on its logarithmic axis.
int binOf(const Histograms& hs, float value) {
    const double lo = std::log(hs.range[0]), span = std::log(hs.range[1]) - lo;
    return std::clamp(static_cast<int>(std::lround((std::log(value) - lo) / span * 512)), 0, 511);
}

// The plot: 10-pixel margins around 512 x 200, bars scaled to the largest bin.
Image plot(const Histograms& hs, bool radiance) {
    constexpr int kMargin = 10, kW = 512, kH = 200;
    Image img;
    img.width = kW + 2 * kMargin;
    img.height = kH + 2 * kMargin;
    img.spp = 3;
    img.bps = 8;
    img.pixels.assign(img.byteCount(), 32);
    auto put = [&](int x, int y, int r, int g, int b) {
        if (x < 0 || y < 0 || x >= kW || y >= kH) return;
        std::uint8_t* p = &img.pixels[((static_cast<std::size_t>(y) + kMargin) * img.width + x + kMargin) * 3];
        p[0] = static_cast<std::uint8_t>(r);
        p[1] = static_cast<std::uint8_t>(g);
        p[2] = static_cast<std::uint8_t>(b);
    };
    auto heightOf = [&](std::int32_t count, std::int32_t top) {
        return top > 0 ? static_cast<int>(static_cast<std::int64_t>(count) * kH / top) : 0;
    };
    for (int y = 0; y < kH; ++y)
        for (int x = 0; x < kW; ++x) put(x, y, 0, 0, 0);
    if (radiance) {
        const Counts& c = hs.lum512;
        const std::int32_t top = *std::max_element(c.begin(), c.end());
        for (int x = 0; x < kW; ++x)
            for (int y = kH - heightOf(c[x], top); y < kH; ++y) put(x, y, 200, 200, 200);
        auto mark = [&](float value, int r, int g, int b) {
            const int x = binOf(hs, value);
            for (int y = 0; y < kH; y += 2) put(x, y, r, g, b);
        };
        if (hs.total > 0) {
            mark(hs.info[6], 80, 140, 255);   // low percentile
            mark(hs.info[5], 255, 220, 0);    // median
            mark(hs.info[7], 255, 80, 80);    // high percentile
        }
        for (int m = 1; m < 4; ++m)
            for (int y = kH - 6; y < kH; ++y) put(m * 128, y, 255, 255, 255);  // the axis marks at 128, 256, 384
        return img;
    }
    std::int32_t top = 1;
    for (const Counts* c : {&hs.lum, &hs.red, &hs.green, &hs.blue})
        top = std::max(top, *std::max_element(c->begin(), c->end()));
    for (int b = 0; b < 256; ++b)
        for (int y = kH - heightOf(hs.lum[b], top); y < kH; ++y) {
            put(2 * b, y, 150, 150, 150);
            put(2 * b + 1, y, 150, 150, 150);
        }
    const int colour[3][3] = {{255, 60, 60}, {60, 220, 60}, {80, 120, 255}};
    const Counts* curves[3] = {&hs.red, &hs.green, &hs.blue};
    for (int k = 0; k < 3; ++k)
        for (int b = 0; b < 256; ++b) {
            const int y0 = kH - 1 - heightOf((*curves[k])[b], top);
            const int y1 = kH - 1 - heightOf((*curves[k])[std::min(b + 1, 255)], top);
            for (int y = std::min(y0, y1); y <= std::max(y0, y1); ++y) put(2 * b + 1, y, colour[k][0], colour[k][1], colour[k][2]);
            put(2 * b, y0, colour[k][0], colour[k][1], colour[k][2]);
        }
    return img;
}

void parsePercentiles(const Args& args, float& low, float& high) {
    low = 1;
    high = 99;
    const auto text = args.value("percentiles");
    if (!text) return;
    char tail = 0;
    if (std::sscanf(text->c_str(), "%f,%f%c", &low, &high, &tail) != 2 || !(low > 0) || !(high > low) || !(high <= 100))
        throw Failure(kExitUsage, "option --percentiles: LO,HI with 0 < LO < HI <= 100, not '" + *text + "'");
}

}  // namespace

int cmdHistogram(const std::vector<std::string>& argv) {
    const Args args(argv, {OLHDR_COMMON_OPTIONS, {"out", 'o', true}, {"json", 0, false}, {"percentiles", 0, true}});
    if (printHelpIfAsked(args, kHistogramHelp)) return kExitOk;
    const Common common = commonOptions(args);
    float low, high;
    parsePercentiles(args, low, high);
    if (args.positional().empty()) throw Failure(kExitUsage, "no input given (olhdr histogram --help)");
    if (args.positional().size() > 1) throw Failure(kExitUsage, "one input at a time");
    const std::string in = args.positional()[0];
    const std::string out = args.text("out", "");
    const bool json = args.has("json");
    if (out.empty() && !json) throw Failure(kExitUsage, "no output given: -o OUT.png or --json");
    if (!out.empty()) {
        if (extensionOf(out) != "png") throw Failure(kExitUsage, out + ": the plot is a .png file");
        checkWritable(out);
        refuseInputsAsOutputs({out}, {in});
    }

    const Picture pic = loadPicture(in, common.verbose);
    const Histograms hs = pic.radiance() ? radianceHistograms(pic, low, high, common.verbose) : photoHistograms(pic.photo);
    if (!out.empty()) {
        const Image img = plot(hs, pic.radiance());
        writeAtomically(out, [&](const std::string& temp) { writePng(temp, img, {}, {}); });
    }
    if (json) {
        std::string s = "{\"file\": " + jsonText(in) + ", \"kind\": \"" + kindName(pic.kind) +
                        "\", \"width\": " + std::to_string(pic.width) + ", \"height\": " + std::to_string(pic.height);
        if (pic.radiance()) {
            s += ", \"range\": [" + jsonNumber(hs.range[0]) + ", " + jsonNumber(hs.range[1]) + "]";
            s += ", \"total\": " + std::to_string(hs.total) + ", \"stops\": " + jsonNumber(hs.info[9]);
            s += ", \"mean\": " + jsonNumber(hs.info[4]) + ", \"median\": " + jsonNumber(hs.info[5]);
            s += ", \"low\": [" + jsonNumber(low) + ", " + jsonNumber(hs.info[6]) + "]";
            s += ", \"high\": [" + jsonNumber(high) + ", " + jsonNumber(hs.info[7]) + "]";
            s += ", \"marks\": [" + jsonNumber(hs.info[0]) + ", " + jsonNumber(hs.info[1]) + ", " +
                 jsonNumber(hs.info[2]) + ", " + jsonNumber(hs.info[3]) + "]";
            s += ", \"bins\": " + jsonArray(hs.lum512);
        } else {
            s += ", \"bits\": " + std::to_string(pic.photo.bps);
            s += ", \"luminance\": " + jsonArray(hs.lum) + ", \"red\": " + jsonArray(hs.red) +
                 ", \"green\": " + jsonArray(hs.green) + ", \"blue\": " + jsonArray(hs.blue);
            if (pic.photo.bps == 16)
                s += ", \"luminance512\": " + jsonArray(hs.lum512) + ", \"range\": [" + jsonNumber(hs.range[0]) +
                     ", " + jsonNumber(hs.range[1]) + "]";
        }
        std::printf("%s}\n", s.c_str());
    }
    if (!out.empty()) {
        char line[512];
        if (pic.radiance())
            std::snprintf(line, sizeof line,
                          "wrote %s: histogram of %s (%s), 512 bins of log luminance over %.4g stops; median %.4g, "
                          "%g%% %.4g, %g%% %.4g",
                          out.c_str(), in.c_str(), pictureText(pic).c_str(), hs.info[9], hs.info[5], low, hs.info[6],
                          high, hs.info[7]);
        else
            std::snprintf(line, sizeof line, "wrote %s: histogram of %s (%s), luminance and red, green, blue in 256 bins",
                          out.c_str(), in.c_str(), pictureText(pic).c_str());
        if (!json) report(common, line);
        else if (!common.quiet) std::fprintf(stderr, "%s\n", line);
    }
    return kExitOk;
}

}  // namespace olhdr
