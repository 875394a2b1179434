// The commands of olhdr. Each takes the arguments after its name, prints its
// results on stdout and returns an exit code; failures are thrown as Failure.
#pragma once

#include <string>
#include <vector>

#include "cli.hpp"

namespace olhdr {

class Args;

int cmdMerge(const std::vector<std::string>& args);
int cmdFuse(const std::vector<std::string>& args);
int cmdInfo(const std::vector<std::string>& args);
int cmdDemo(const std::vector<std::string>& args);
int cmdBracket(const std::vector<std::string>& args);
int cmdPreview(const std::vector<std::string>& args);
int cmdHistogram(const std::vector<std::string>& args);
int cmdResponse(const std::vector<std::string>& args);
int cmdCompress(const std::vector<std::string>& args);
int cmdRank(const std::vector<std::string>& args);
int cmdPanorama(const std::vector<std::string>& args);
int cmdGhosts(const std::vector<std::string>& args);

extern const char* const kMergeHelp;
extern const char* const kFuseHelp;
extern const char* const kInfoHelp;
extern const char* const kDemoHelp;
extern const char* const kBracketHelp;
extern const char* const kPreviewHelp;
extern const char* const kHistogramHelp;
extern const char* const kResponseHelp;
extern const char* const kCompressHelp;
extern const char* const kRankHelp;
extern const char* const kPanoramaHelp;
extern const char* const kGhostsHelp;

// Options shared by the commands.
#define OLHDR_COMMON_OPTIONS                                                   \
    {"help", 'h', false}, {"quiet", 'q', false}, {"verbose", 'v', false}

// Prints `help` on stdout when --help was given, and says whether it was.
bool printHelpIfAsked(const Args& args, const char* help);

// The common options (--quiet, --verbose) as given.
Common commonOptions(const Args& args);

// The last checks of a command that turns frames into one output, once its
// options are read: the frames (two or more; a
// frame named twice is warned about), then -o (`outExample` names the
// output in the message, e.g. "OUT.hdr").
void requireFramesAndOutput(const Args& args, const std::string& command, const std::string& outExample);

// Prints one result line on stdout ("wrote ..."), unless quiet.
void report(const Common& common, const std::string& line);

// Lines on stderr, "olhdr COMMAND: note: ..." (not when quiet) and
// "olhdr COMMAND: warning: ..." (always).
void note(const Common& common, const std::string& text);
void warn(const std::string& text);
// The command being run, for those lines.
void setCommandName(const std::string& name);

// Exposure times given on the command line: --times LIST or --times-file
// FILE, one time a frame (empty when neither), and how to name their source.
struct GivenTimes {
    std::vector<double> seconds;
    std::string source;
};
GivenTimes givenTimes(const Args& args, const std::vector<std::string>& frames);

// What a failed write of the library's file functions means, in words.
std::string writeFailure(int code);

// "1 frame", "3 frames".
std::string counted(int n, const std::string& noun);

struct FrameSet;
// The response exponent of a bracket (calc_courbe) times 1000; `curve`
// receives its 256-entry table. Throws Failure when the frames can't tell.
int estimateResponse(const FrameSet& frames, const std::vector<float>& deltaT, std::vector<float>& curve,
                     bool verbose);

}  // namespace olhdr
