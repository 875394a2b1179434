// Exposure times the user gives: `--times 1/1000,1/250,0.5` or a list file
// with one line per frame, its name and its time ("IMG_1.tif 1/250").
#pragma once

#include <string>
#include <vector>

namespace olhdr {

// Seconds of one written time: "1/250", "0.004", "2", "1/4s". Throws
// Failure(kExitUsage) naming `where` for anything else or a time <= 0.
double parseShutterTime(const std::string& where, const std::string& text);

// Comma-separated times, one per frame in the order the frames are given.
std::vector<double> parseTimeList(const std::string& text, std::size_t frames);

// A list file: lines "NAME TIME" (the name as given on the command line or
// just its file name; '#' starts a comment). Every frame must be listed;
// lines for other files are ignored. A file of bare times, one per line and
// as many as frames, is taken in order.
std::vector<double> readTimesFile(const std::string& path, const std::vector<std::string>& frames);

}  // namespace olhdr
