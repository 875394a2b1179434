// olhdr rank: the frames of a bracket from dark to bright, with the spacing
// in stops that the library's ranking (rankvig) estimates from their levels.
#include <cstdio>
#include <filesystem>

#include "args.hpp"
#include "commands.hpp"
#include "library.hpp"
#include "progress.hpp"
#include "quiet.hpp"

namespace olhdr {

const char* const kRankHelp =
    "usage: olhdr rank FRAME FRAME...\n"
    "\n"
    "Orders frames from dark to bright by their mean level and estimates, in\n"
    "whole stops, how far each lies from the middle frame. Exif is not used:\n"
    "this is what the pixels say (16-bit frames count by their top byte).\n"
    "\n"
    "options:\n"
    "  -q, --quiet  -v, --verbose  -h, --help\n";

int cmdRank(const std::vector<std::string>& argv) {
    const Args args(argv, {OLHDR_COMMON_OPTIONS});
    if (printHelpIfAsked(args, kRankHelp)) return kExitOk;
    Common common = commonOptions(args);
    const auto& paths = args.positional();
    if (paths.empty()) throw Failure(kExitUsage, "no frames given (olhdr rank --help)");
    Progress progress(!common.quiet, 2);
    progress.stage("reading frames", 1.0);
    FrameSet frames = loadFrameSet(paths, common.verbose, progress);
    progress.finish();
    const int n = frames.count(), w = frames.width, h = frames.height;
    std::vector<std::uint8_t> block8;
    if (frames.bps == 16) {
        block8.resize(frames.block.size() / 2);
        for (std::size_t i = 0; i < block8.size(); ++i) block8[i] = frames.block[2 * i + 1];
    } else {
        block8.swap(frames.block);
    }
    std::vector<int> order(n), stops(n);
    {
        LibraryOutput quiet(common.verbose);
        rankvig(n, w, h, w * 3, 3, block8.data(), order.data(), stops.data());
    }
    // A black frame beside a brighter one has no finite ratio: its stops
    // come back as the integer conversion's marker.
    auto known = [](int s) { return s > -100 && s < 100; };
    std::printf("dark to bright by mean level, stops from the middle frame:\n");
    for (int r = n - 1; r >= 0; --r) {
        const std::string name = std::filesystem::path(paths[order[r]]).filename().string();
        if (known(stops[r]))
            std::printf("  %+3d  %s\n", stops[r], name.c_str());
        else
            std::printf("    ?  %s (too dark to compare)\n", name.c_str());
    }
    std::string spacing;
    bool even = n > 1;
    for (int r = n - 1; r > 0; --r) {
        if (!known(stops[r]) || !known(stops[r - 1]) || stops[r - 1] - stops[r] != stops[n - 2] - stops[n - 1])
            even = false;
    }
    if (n > 1 && even)
        std::printf("spacing: %d stop%s\n", stops[n - 2] - stops[n - 1], stops[n - 2] - stops[n - 1] == 1 ? "" : "s");
    else if (n > 1)
        std::printf("spacing: uneven\n");
    std::fflush(stdout);
    return kExitOk;
}

}  // namespace olhdr
