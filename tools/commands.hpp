// The commands of olhdr. Each takes the arguments after its name, prints its
// results on stdout and returns an exit code; failures are thrown as Failure.
#pragma once

#include <string>
#include <vector>

#include "cli.hpp"

namespace olhdr {

int cmdMerge(const std::vector<std::string>& args);
int cmdFuse(const std::vector<std::string>& args);
int cmdInfo(const std::vector<std::string>& args);
int cmdDemo(const std::vector<std::string>& args);
int cmdBracket(const std::vector<std::string>& args);

extern const char* const kMergeHelp;
extern const char* const kFuseHelp;
extern const char* const kInfoHelp;
extern const char* const kDemoHelp;
extern const char* const kBracketHelp;

// Options shared by the commands.
#define OLHDR_COMMON_OPTIONS                                                   \
    {"help", 'h', false}, {"quiet", 'q', false}, {"verbose", 'v', false}

// `--align` and `--deghost` are accepted on the command line and refused
// with kExitUnavailable until frame alignment and ghost handling are wired in.
void refuseUnavailable(bool align, bool deghost);

// Prints one result line on stdout ("wrote ..."), unless quiet.
void report(const Common& common, const std::string& line);

}  // namespace olhdr
