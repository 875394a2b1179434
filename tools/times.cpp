#include "times.hpp"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>

#include "cli.hpp"

namespace olhdr {

namespace {
std::string trim(const std::string& s) {
    const auto a = s.find_first_not_of(" \t\r\n");
    if (a == std::string::npos) return "";
    return s.substr(a, s.find_last_not_of(" \t\r\n") - a + 1);
}

bool number(const std::string& text, double& v) {
    if (text.empty()) return false;
    errno = 0;
    char* end = nullptr;
    v = std::strtod(text.c_str(), &end);
    return errno == 0 && end != text.c_str() && *end == '\0' && std::isfinite(v);
}
}  // namespace

double parseShutterTime(const std::string& where, const std::string& text) {
    std::string t = trim(text);
    if (!t.empty() && (t.back() == 's' || t.back() == 'S')) t.pop_back();
    const auto slash = t.find('/');
    double v = 0, num = 0, den = 0;
    const bool ok = slash == std::string::npos
                        ? number(t, v)
                        : number(t.substr(0, slash), num) && number(t.substr(slash + 1), den) && den > 0 &&
                              (v = num / den, true);
    if (!ok || !(v > 0) || v > 1e6)
        throw Failure(kExitUsage, where + ": '" + text + "' is not an exposure time in seconds (like 1/250 or 0.5)");
    return v;
}

std::vector<double> parseTimeList(const std::string& text, std::size_t frames) {
    std::vector<double> times;
    std::size_t start = 0;
    for (;;) {
        const auto comma = text.find(',', start);
        times.push_back(parseShutterTime("option --times", text.substr(start, comma - start)));
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    if (times.size() != frames)
        throw Failure(kExitUsage, "option --times: " + std::to_string(times.size()) + " times for " +
                                      std::to_string(frames) + " frames (give one per frame, in their order)");
    return times;
}

std::vector<double> readTimesFile(const std::string& path, const std::vector<std::string>& frames) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw Failure(kExitInput, path + ": cannot open the list of exposure times");
    std::map<std::string, double> named;
    std::vector<double> bare;
    std::string line;
    for (int no = 1; std::getline(in, line); ++no) {
        line = trim(line.substr(0, line.find('#')));
        if (line.empty()) continue;
        const std::string where = path + ":" + std::to_string(no);
        const auto gap = line.find_last_of(" \t");
        if (gap == std::string::npos) {
            bare.push_back(parseShutterTime(where, line));
            continue;
        }
        named[trim(line.substr(0, gap))] = parseShutterTime(where, line.substr(gap + 1));
    }
    if (named.empty() && bare.size() == frames.size()) return bare;
    if (named.empty())
        throw Failure(kExitInput, path + ": " + std::to_string(bare.size()) + " bare times for " +
                                      std::to_string(frames.size()) + " frames (write 'NAME TIME' lines)");
    std::vector<double> times;
    for (const auto& f : frames) {
        auto it = named.find(f);
        if (it == named.end()) it = named.find(std::filesystem::path(f).filename().string());
        if (it == named.end()) throw Failure(kExitInput, path + ": has no time for " + f);
        times.push_back(it->second);
    }
    return times;
}

}  // namespace olhdr
