// olhdr bracket and olhdr demo: a synthetic bracketed scene written as
// ordinary camera files, and the whole road from it to a Radiance picture and
// a fused image.
#include <cstdlib>

#include <cstdio>
#include <cstring>
#include <filesystem>

#include "args.hpp"
#include "handheld.hpp"
#include "commands.hpp"
#include "library.hpp"
#include "orient.hpp"
#include "outfile.hpp"
#include "platform.hpp"
#include "progress.hpp"
#include "quiet.hpp"
#include "roads.hpp"
#include "scene.hpp"

namespace olhdr {

const char* const kBracketHelp =
    "usage: olhdr bracket [--out DIR] [options]\n"
    "\n"
    "Writes a synthetic bracket: one scene (sky, sun, shadowed facade, textured\n"
    "ground, colour patches) rendered at several exposure times through a\n"
    "camera-like response, with Exif values (exposure time, f/8, ISO 100, focal\n"
    "length, camera, date), a GPS position, IPTC keywords and an ICC profile.\n"
    "Frames are named frame-1 (darkest) to frame-N (brightest).\n"
    "\n"
    "options:\n"
    "  -o, --out DIR        folder to write into (default ./olhdr-bracket)\n"
    "      --size WxH       frame size (default 1200x800)\n"
    "      --frames N       number of frames, 1..9 (default 3)\n"
    "      --ev-step S      stops between frames (default 2)\n"
    "      --format F       jpg, png, tif or psd (default jpg)\n"
    "  -b, --bits 8|16      sample depth for png, tif and psd (default 8)\n"
    "      --no-metadata    write the frames without Exif, GPS and IPTC\n"
    "      --orientation N  store the frames as a camera held that way would\n"
    "                       (Exif orientation 1..8, default 1)\n"
    "      --shift LIST     as a handheld camera: frame k's content moved by\n"
    "                       X,Y pixels (right, down), e.g. 0,0:3,-2:-1,4\n"
    "      --moving         add a red square that moves from frame to frame\n"
    "  -q, --quiet  -v, --verbose  -h, --help\n";

const char* const kDemoHelp =
    "usage: olhdr demo [--out DIR]\n"
    "\n"
    "Generates a synthetic bracketed scene (three JPEG frames, two stops apart,\n"
    "with Exif values), merges it into a Radiance picture with a preview, fuses\n"
    "it into a 16-bit TIFF and a JPEG, and lists what it wrote.\n"
    "\n"
    "options:\n"
    "  -o, --out DIR     folder to write into (default ./olhdr-demo)\n"
    "      --size WxH    frame size (default 1200x800)\n"
    "  -q, --quiet  -v, --verbose  -h, --help\n";

namespace {

struct BracketOptions {
    BracketSpec spec;
    std::string format = "jpg";
    bool metadata = true;
    int orientation = 1;
    Handheld handheld;  // --shift, --moving
};

void makeFolder(const std::string& dir) {
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    if (!std::filesystem::is_directory(dir, ec))
        throw Failure(kExitOutput, dir + ": cannot make the folder");
    checkWritable((std::filesystem::path(dir) / "x").string());
}

void fillExif(const SceneFrame& f, ExifRecord& exif, GpsRecord& gps) {
    exif = ExifRecord{};
    exif.colorSpace = 0;
    exif.exposureNum = f.exposureNum;
    exif.exposureDen = f.exposureDen;
    exif.apertureNum = 8;
    exif.apertureDen = 1;
    exif.iso = 100;
    exif.focalNum = 35;
    exif.focalDen = 1;
    exif.focal35 = 52;
    exif.orientation = 1;
    std::snprintf(exif.camera, sizeof exif.camera, "%s", "olhdr synthetic camera");
    std::memcpy(exif.date, "2026:06:21 12:00:00", 19);
    gps = GpsRecord{};
    const std::uint32_t lat[6] = {48, 1, 51, 1, 3012, 100}, lon[6] = {2, 1, 17, 1, 4020, 100};
    std::memcpy(gps.latitude, lat, sizeof lat);
    std::memcpy(gps.longitude, lon, sizeof lon);
    gps.altitude[0] = 35;
    gps.altitude[1] = 1;
    gps.lat_ref = 'N';
    gps.long_ref = 'E';
    gps.alt_ref = 0;
}

std::vector<std::uint8_t> keywordBlock() {
    std::vector<std::uint8_t> iptc;
    for (const char* word : {"olhdr", "synthetic bracket"}) {
        std::vector<std::uint8_t> next(iptc.size() + std::strlen(word) + 16, 0);
        const int at = add_iptc_keyword(static_cast<int>(iptc.size()), iptc.data(),
                                        static_cast<int>(std::strlen(word)),
                                        reinterpret_cast<const unsigned char*>(word), next.data());
        if (at < 0) return iptc;
        const std::size_t len = iptc.empty() ? 7 + std::strlen(word) + 5 : iptc.size() + std::strlen(word) + 5;
        next.resize(len);
        iptc = std::move(next);
    }
    return iptc;
}

void put16be(std::vector<std::uint8_t>& b, unsigned v) {
    b.push_back(static_cast<std::uint8_t>(v >> 8));
    b.push_back(static_cast<std::uint8_t>(v));
}
void put32be(std::vector<std::uint8_t>& b, std::uint32_t v) {
    put16be(b, v >> 16);
    put16be(b, v & 0xFFFF);
}

void putResource(std::vector<std::uint8_t>& res, unsigned id, const std::vector<std::uint8_t>& data) {
    if (data.empty()) return;
    res.insert(res.end(), {'8', 'B', 'I', 'M'});
    put16be(res, id);
    put16be(res, 0);
    put32be(res, static_cast<std::uint32_t>(data.size()));
    res.insert(res.end(), data.begin(), data.end());
    if (res.size() % 2) res.push_back(0);
}

// A flat RGB PSD: header, no colour data, the image resources (ICC profile
// 1039, Exif 1058, IPTC 1028), no layers, then the raw composite planes.
void writePsd(const std::string& path, const Image& img, const std::vector<std::uint8_t>& exif,
              const std::vector<std::uint8_t>& iptc) {
    std::vector<std::uint8_t> b = {'8', 'B', 'P', 'S'};
    put16be(b, 1);
    b.resize(b.size() + 6, 0);
    put16be(b, 3);
    put32be(b, static_cast<std::uint32_t>(img.height));
    put32be(b, static_cast<std::uint32_t>(img.width));
    put16be(b, static_cast<unsigned>(img.bps));
    put16be(b, 3);
    put32be(b, 0);
    std::vector<std::uint8_t> res;
    putResource(res, 1039, img.icc);
    putResource(res, 1058, exif);
    putResource(res, 1028, iptc);
    put32be(b, static_cast<std::uint32_t>(res.size()));
    b.insert(b.end(), res.begin(), res.end());
    put32be(b, 0);  // layer and mask section
    put16be(b, 0);  // raw planes
    const std::size_t n = static_cast<std::size_t>(img.width) * img.height;
    const std::size_t bs = img.bps / 8;
    for (int c = 0; c < 3; ++c)
        for (std::size_t i = 0; i < n; ++i) {
            const std::uint8_t* s = img.pixels.data() + (i * 3 + c) * bs;
            if (bs == 1)
                b.push_back(s[0]);
            else {
                b.push_back(s[1]);
                b.push_back(s[0]);
            }
        }
    std::FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) throw Failure(kExitOutput, path + ": cannot create");
    const bool ok = std::fwrite(b.data(), 1, b.size(), f) == b.size();
    if (std::fclose(f) != 0 || !ok) throw Failure(kExitOutput, path + ": write failed");
}

std::vector<std::string> writeBracket(const BracketOptions& opt, const std::string& dir, const Common& common,
                                      Progress& progress) {
    makeFolder(dir);
    if (opt.format == "jpg" && opt.spec.bits != 8) throw Failure(kExitUsage, "JPEG frames have 8-bit samples");
    const std::vector<SceneFrame> frames = opt.handheld.shifts.empty() && !opt.handheld.moving
                                               ? renderBracket(opt.spec)
                                               : renderHandheld(opt.spec, opt.handheld);
    std::vector<std::string> paths;
    const std::vector<std::uint8_t> iptc = opt.metadata ? keywordBlock() : std::vector<std::uint8_t>{};
    for (std::size_t k = 0; k < frames.size(); ++k) {
        progress.update(static_cast<double>(k) / frames.size());
        SceneFrame f = frames[k];
        // Stored as the camera would: turned so that the tag brings it upright.
        f.image.pixels = orientPixels(f.image.pixels, f.image.width, f.image.height,
                                      static_cast<std::size_t>(3 * f.image.bps / 8), opt.orientation, true);
        ExifRecord exif{};
        GpsRecord gps{};
        fillExif(f, exif, gps);
        exif.orientation = opt.orientation;
        const std::string path = (std::filesystem::path(dir) / ("frame-" + std::to_string(k + 1) + "." + opt.format)).string();
        writeAtomically(path, [&](const std::string& temp) {
            if (opt.format == "tif") {
                tif_info info{};
                info.width = f.image.width;
                info.height = f.image.height;
                info.samples = 3;
                info.bits = f.image.bps;
                info.dpi = 300;
                info.lProfil = static_cast<int32_t>(f.image.icc.size());
                info.orientation = opt.metadata ? opt.orientation : 1;
                const float tm[16] = {};
                ExifRecord none{};
                GpsRecord noGps{};
                int r;
                {
                    LibraryOutput quiet(common.verbose);
                    r = buf2tifOld(f.image.pixels.data(), &info, static_cast<int>(f.image.rowBytes()),
                                   f.image.icc.data(), opt.metadata ? &exif : &none, opt.metadata ? &gps : &noGps,
                                   static_cast<int>(iptc.size()), iptc.empty() ? nullptr : iptc.data(), 0, tm,
                                   temp.c_str());
                }
                if (r < 0) throw Failure(kExitOutput, path + ": cannot write (code " + std::to_string(r) + ")");
            } else {
                std::vector<std::uint8_t> block;
                if (opt.metadata) {
                    LibraryOutput quiet(common.verbose);
                    block = exifBlock(exif, gps, opt.orientation);
                }
                if (opt.format == "psd") {
                    writePsd(temp, f.image, block, iptc);
                    return;
                }
                if (opt.format == "png") {
                    writePng(temp, f.image, block, f.image.icc);
                } else {
                    writeJpeg(temp, f.image, 95, block, f.image.icc);
                    if (!iptc.empty()) {
                        // IPTC goes into an APP13 Photoshop block, spliced in after SOI.
                        std::FILE* in = std::fopen(temp.c_str(), "rb");
                        std::vector<std::uint8_t> bytes;
                        if (in) {
                            std::uint8_t buf[65536];
                            std::size_t got;
                            while ((got = std::fread(buf, 1, sizeof buf, in)) > 0) bytes.insert(bytes.end(), buf, buf + got);
                            std::fclose(in);
                        }
                        std::vector<std::uint8_t> seg = {0xFF, 0xED, 0, 0};
                        const char* ps = "Photoshop 3.0";
                        seg.insert(seg.end(), ps, ps + 14);
                        const std::uint8_t res[] = {'8', 'B', 'I', 'M', 0x04, 0x04, 0, 0};
                        seg.insert(seg.end(), res, res + sizeof res);
                        put32be(seg, static_cast<std::uint32_t>(iptc.size()));
                        seg.insert(seg.end(), iptc.begin(), iptc.end());
                        if (iptc.size() % 2) seg.push_back(0);
                        const std::size_t segLen = seg.size() - 2;
                        seg[2] = static_cast<std::uint8_t>(segLen >> 8);
                        seg[3] = static_cast<std::uint8_t>(segLen);
                        bytes.insert(bytes.begin() + 2, seg.begin(), seg.end());
                        std::FILE* out = std::fopen(temp.c_str(), "wb");
                        const bool ok = out && std::fwrite(bytes.data(), 1, bytes.size(), out) == bytes.size();
                        if (out && std::fclose(out) != 0) throw Failure(kExitOutput, path + ": write failed");
                        if (!ok) throw Failure(kExitOutput, path + ": write failed");
                    }
                }
            }
        });
        paths.push_back(path);
    }
    progress.update(1.0);
    return paths;
}

std::string sizeText(const std::string& path) {
    std::error_code ec;
    const auto bytes = std::filesystem::file_size(path, ec);
    if (ec) return "?";
    char buf[32];
    if (bytes >= 1024 * 1024)
        std::snprintf(buf, sizeof buf, "%.1f MB", bytes / 1048576.0);
    else
        std::snprintf(buf, sizeof buf, "%.0f kB", bytes / 1024.0);
    return buf;
}

// "olhdr" when that name on PATH is this program, else its full path, so
// that the lines the demo prints work when pasted.
std::string invocationName() {
    std::error_code ec;
    const std::filesystem::path self = platform::selfPath();
    if (self.empty()) return "olhdr";
    const char* path = std::getenv("PATH");
    std::string dirs = path ? path : "";
    for (std::size_t start = 0; start <= dirs.size();) {
        const auto colon = std::min(dirs.find(platform::pathListSeparator(), start), dirs.size());
        const std::string dir = dirs.substr(start, colon - start);
        start = colon + 1;
        const auto candidate = std::filesystem::path(dir.empty() ? "." : dir) / platform::programFile("olhdr");
        if (platform::isExecutable(candidate.string())) {
            return std::filesystem::equivalent(candidate, self, ec) ? "olhdr" : self.string();
        }
    }
    return self.string();
}

}  // namespace

int cmdBracket(const std::vector<std::string>& argv) {
    const Args args(argv, {OLHDR_COMMON_OPTIONS, {"out", 'o', true}, {"size", 0, true}, {"frames", 0, true},
                           {"ev-step", 0, true}, {"format", 0, true}, {"bits", 'b', true},
                           {"no-metadata", 0, false}, {"orientation", 0, true}, {"shift", 0, true},
                           {"moving", 0, false}});
    if (printHelpIfAsked(args, kBracketHelp)) return kExitOk;
    if (!args.positional().empty()) throw Failure(kExitUsage, "unexpected argument '" + args.positional()[0] + "'");
    const Common common = commonOptions(args);
    BracketOptions opt;
    if (args.has("size")) parseSize("size", *args.value("size"), 8, 20000, opt.spec.width, opt.spec.height);
    opt.spec.frames = args.integer("frames", 3, 1, 9);
    opt.spec.evStep = args.number("ev-step", 2, 0.1, 6);
    opt.spec.bits = args.integer("bits", 8, 8, 16);
    if (opt.spec.bits != 8 && opt.spec.bits != 16) throw Failure(kExitUsage, "option --bits: 8 or 16");
    opt.format = args.text("format", "jpg");
    if (opt.format == "jpeg") opt.format = "jpg";
    if (opt.format == "tiff") opt.format = "tif";
    if (opt.format != "jpg" && opt.format != "png" && opt.format != "tif" && opt.format != "psd")
        throw Failure(kExitUsage, "option --format: jpg, png, tif or psd");
    opt.metadata = !args.has("no-metadata");
    opt.orientation = args.integer("orientation", 1, 1, 8);
    if (opt.orientation != 1 && !opt.metadata)
        throw Failure(kExitUsage, "--orientation is an Exif tag: it needs the metadata (drop --no-metadata)");
    if (args.has("shift")) opt.handheld.shifts = parseShifts(*args.value("shift"), opt.spec.frames);
    opt.handheld.moving = args.has("moving");
    const std::string dir = args.text("out", "olhdr-bracket");
    Progress progress(!common.quiet, 2);
    progress.stage("rendering frames", 1.0);
    const auto paths = writeBracket(opt, dir, common, progress);
    progress.finish();
    for (const auto& p : paths) report(common, "wrote " + p + " (" + sizeText(p) + ")");
    return kExitOk;
}

int cmdDemo(const std::vector<std::string>& argv) {
    const Args args(argv, {OLHDR_COMMON_OPTIONS, {"out", 'o', true}, {"size", 0, true}});
    if (printHelpIfAsked(args, kDemoHelp)) return kExitOk;
    if (!args.positional().empty()) throw Failure(kExitUsage, "unexpected argument '" + args.positional()[0] + "'");
    const Common common = commonOptions(args);
    const std::string dir = args.text("out", "olhdr-demo");
    BracketOptions opt;
    if (args.has("size")) parseSize("size", *args.value("size"), 8, 20000, opt.spec.width, opt.spec.height);
    const auto file = [&](const char* name) { return (std::filesystem::path(dir) / name).string(); };

    Progress progress(!common.quiet, 2);
    progress.stage("rendering frames", 0.2);
    const auto frames = writeBracket(opt, (std::filesystem::path(dir) / "frames").string(), common, progress);
    progress.finish();
    report(common, "scene: " + std::to_string(opt.spec.width) + "x" + std::to_string(opt.spec.height) +
                       ", 3 frames two stops apart (1/240, 1/60 and 1/15 s at f/8, ISO 100)");
    for (const auto& p : frames) report(common, "wrote " + p + " (" + sizeText(p) + ")");

    MergeRequest merge;
    merge.frames = frames;
    merge.out = file("scene.hdr");
    merge.preview = file("scene-preview.jpg");
    {
        Progress p(!common.quiet, 2);
        runMerge(merge, common, p);
    }
    FuseRequest fuse;
    fuse.frames = frames;
    fuse.out = file("scene-fused.tif");
    fuse.bits = 16;
    {
        Progress p(!common.quiet, 2);
        runFuse(fuse, common, p);
    }
    fuse.out = file("scene-fused.jpg");
    fuse.bits = 8;
    {
        Progress p(!common.quiet, 2);
        runFuse(fuse, common, p);
    }
    report(common, "");
    report(common, "the same with the commands:");
    const std::string list = file("frames/frame-1.jpg") + " " + file("frames/frame-2.jpg") + " " +
                             file("frames/frame-3.jpg");
    const std::string me = invocationName();
    report(common, "  " + me + " merge " + list + " -o " + merge.out + " --preview " + merge.preview);
    report(common, "  " + me + " fuse " + list + " -o " + file("scene-fused.tif") + " --bits 16");
    report(common, "  " + me + " info " + merge.out + " " + file("scene-fused.tif"));
    return kExitOk;
}

}  // namespace olhdr
