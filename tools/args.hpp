// A small command-line parser: long options (--name VALUE or --name=VALUE),
// single-letter aliases, flags, and positional arguments. Anything it does
// not know is a usage error, reported as a Failure with kExitUsage.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "cli.hpp"

namespace olhdr {

struct OptionSpec {
    std::string name;      // long name without the dashes
    char alias = 0;        // short alias, 0 for none
    bool takesValue = false;
};

class Args {
public:
    Args(const std::vector<std::string>& argv, const std::vector<OptionSpec>& specs);

    bool has(const std::string& name) const { return values_.count(name) != 0; }
    std::optional<std::string> value(const std::string& name) const;
    std::string text(const std::string& name, const std::string& fallback) const;
    // Numbers are checked whole ("3x" is refused) and against a range.
    double number(const std::string& name, double fallback, double lo, double hi) const;
    int integer(const std::string& name, int fallback, int lo, int hi) const;
    const std::vector<std::string>& positional() const { return positional_; }

private:
    std::map<std::string, std::string> values_;
    std::vector<std::string> positional_;
};

// Parses "WxH" (e.g. 1200x800) with both sides in lo..hi.
void parseSize(const std::string& option, const std::string& text, int lo, int hi, int& width,
               int& height);

}  // namespace olhdr
