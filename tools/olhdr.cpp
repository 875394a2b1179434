// olhdr: merges bracketed exposures into a Radiance picture, fuses them into
// a displayable TIFF, PNG or JPEG, and shows what the library reads from a
// file. Run `olhdr --help`.
#include <clocale>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "args.hpp"
#include "commands.hpp"
#include "outfile.hpp"
#include "platform.hpp"
#include "times.hpp"

namespace olhdr {

static const char* const kMainHelp =
    "usage: olhdr COMMAND [OPTIONS] [FILES]\n"
    "\n"
    "High dynamic range photography from bracketed exposures.\n"
    "\n"
    "commands:\n"
    "  demo      generate a synthetic bracketed scene, merge and fuse it\n"
    "  merge     merge frames into a Radiance (.hdr) picture\n"
    "  fuse      fuse frames into an 8 or 16-bit TIFF, PNG or JPEG\n"
    "  info      show a file's size, depth and metadata\n"
    "  bracket   write a synthetic bracket of frames (for trials and tests)\n"
    "  preview   write a screen-size JPEG or PNG of any input\n"
    "  histogram draw a picture's histogram as a PNG, or print it (--json)\n"
    "  response  estimate the camera's response gamma, or read it from a profile\n"
    "  compress  bring a 16-bit TIFF or PNG to 8 bits, shadows lifted\n"
    "  rank      order frames from dark to bright, with their spacing in stops\n"
    "  panorama  turn a mirror-ball picture into a latitude-longitude panorama\n"
    "  ghosts    show where frames disagree because something moved\n"
    "\n"
    "Frames may be JPEG, PNG, 8 or 16-bit TIFF, or 8 or 16-bit RGB PSD files of one\n"
    "size and depth. `olhdr COMMAND --help` describes a command.\n"
    "\n"
    "common options:\n"
    "  -q, --quiet     print nothing but errors\n"
    "  -v, --verbose   also show the library's diagnostic lines (on stderr)\n"
    "  -h, --help      show help\n"
    "      --version   show the version\n"
    "\n"
    "exit codes:\n"
    "  0  success\n"
    "  1  bad command line\n"
    "  2  an input file is missing, unreadable, or does not fit the others\n"
    "  3  an output file could not be written (nothing is left behind)\n"
    "  4  the library failed (for example out of memory)\n"
    "  5  the feature asked for is not available yet\n"
    "  130  interrupted (partial outputs are removed)\n";

bool printHelpIfAsked(const Args& args, const char* help) {
    if (!args.has("help")) return false;
    std::fputs(help, stdout);
    return true;
}

Common commonOptions(const Args& args) {
    Common common;
    common.quiet = args.has("quiet");
    common.verbose = args.has("verbose");
    return common;
}

void requireFramesAndOutput(const Args& args, const std::string& command, const std::string& outExample) {
    if (args.positional().empty()) throw Failure(kExitUsage, "no frames given (olhdr " + command + " --help)");
    if (args.positional().size() == 1)
        throw Failure(kExitUsage, "one frame given: " + command + " needs two or more exposures of the scene");
    if (args.text("out", "").empty()) throw Failure(kExitUsage, "no output given: -o " + outExample);
    for (const auto& [a, b] : sameFiles(args.positional()))
        warn(a == b ? a + " is given twice" : a + " and " + b + " are the same file");
}

void report(const Common& common, const std::string& line) {
    if (!common.quiet) std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

static std::string gCommand = "olhdr";

void setCommandName(const std::string& name) { gCommand = "olhdr " + name; }

void note(const Common& common, const std::string& text) {
    if (common.quiet) return;
    std::fflush(stdout);
    std::fprintf(stderr, "%s: note: %s\n", gCommand.c_str(), text.c_str());
}

void warn(const std::string& text) {
    std::fflush(stdout);
    std::fprintf(stderr, "%s: warning: %s\n", gCommand.c_str(), text.c_str());
}

GivenTimes givenTimes(const Args& args, const std::vector<std::string>& frames) {
    GivenTimes g;
    if (args.has("times") && args.has("times-file"))
        throw Failure(kExitUsage, "give the exposure times once: --times or --times-file");
    if (args.has("times")) {
        g.seconds = parseTimeList(*args.value("times"), frames.size());
        g.source = "from --times";
    } else if (args.has("times-file")) {
        g.seconds = readTimesFile(*args.value("times-file"), frames);
        g.source = "from " + *args.value("times-file");
    }
    return g;
}

std::string writeFailure(int code) {
    if (code == -1) return "cannot create or write the file";
    if (code == -2) return "the file was cut short (is the disk full?)";
    if (code == -4) return "out of memory while writing";
    return "writing failed (library code " + std::to_string(code) + ")";
}

std::string counted(int n, const std::string& noun) {
    return std::to_string(n) + " " + noun + (n == 1 ? "" : "s");
}

}  // namespace olhdr

int main(int argc, char** argv) {
    using namespace olhdr;
    platform::initialise();
    std::setlocale(LC_ALL, "C");
    installSignalCleanup();
    std::vector<std::string> args(argv + 1, argv + argc);
    if (args.empty()) {
        std::fputs(kMainHelp, stderr);
        return kExitUsage;
    }
    const std::string command = args.front();
    args.erase(args.begin());
    setCommandName(command);
    try {
        if (command == "-h" || command == "--help" || command == "help") {
            if (!args.empty()) {
                const std::string& c = args.front();
                const char* text = c == "merge" ? kMergeHelp : c == "fuse" ? kFuseHelp
                                 : c == "info" ? kInfoHelp : c == "demo" ? kDemoHelp
                                 : c == "bracket" ? kBracketHelp : c == "ghosts" ? kGhostsHelp
                                 : c == "preview" ? kPreviewHelp : c == "histogram" ? kHistogramHelp
                                 : c == "response" ? kResponseHelp : c == "compress" ? kCompressHelp
                                 : c == "rank" ? kRankHelp : c == "panorama" ? kPanoramaHelp : nullptr;
                if (!text) throw Failure(kExitUsage, "unknown command '" + c + "'");
                std::fputs(text, stdout);
                return kExitOk;
            }
            std::fputs(kMainHelp, stdout);
            return kExitOk;
        }
        if (command == "--version") {
            std::printf("olhdr 4.0.0\n");
            return kExitOk;
        }
        if (command == "merge") return cmdMerge(args);
        if (command == "fuse") return cmdFuse(args);
        if (command == "info") return cmdInfo(args);
        if (command == "demo") return cmdDemo(args);
        if (command == "bracket") return cmdBracket(args);
        if (command == "preview") return cmdPreview(args);
        if (command == "histogram") return cmdHistogram(args);
        if (command == "response") return cmdResponse(args);
        if (command == "compress") return cmdCompress(args);
        if (command == "rank") return cmdRank(args);
        if (command == "panorama") return cmdPanorama(args);
        if (command == "ghosts") return cmdGhosts(args);
        throw Failure(kExitUsage, "unknown command '" + command + "' (try olhdr --help)");
    } catch (const Failure& f) {
        std::fflush(stdout);
        std::fprintf(stderr, "olhdr %s: %s\n", command.c_str(), f.what());
        return f.code();
    } catch (const std::bad_alloc&) {
        std::fflush(stdout);
        std::fprintf(stderr, "olhdr %s: out of memory\n", command.c_str());
        return kExitProcessing;
    } catch (const std::exception& e) {
        std::fflush(stdout);
        std::fprintf(stderr, "olhdr %s: %s\n", command.c_str(), e.what());
        return kExitProcessing;
    }
}
