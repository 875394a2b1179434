#include "args.hpp"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace olhdr {

namespace {
[[noreturn]] void usage(const std::string& message) { throw Failure(kExitUsage, message); }

const OptionSpec* findLong(const std::vector<OptionSpec>& specs, const std::string& name) {
    for (const auto& s : specs)
        if (s.name == name) return &s;
    return nullptr;
}
const OptionSpec* findShort(const std::vector<OptionSpec>& specs, char c) {
    for (const auto& s : specs)
        if (s.alias != 0 && s.alias == c) return &s;
    return nullptr;
}

double parseNumber(const std::string& option, const std::string& text) {
    if (text.empty()) usage("option --" + option + " needs a number");
    errno = 0;
    char* end = nullptr;
    const double v = std::strtod(text.c_str(), &end);
    if (errno != 0 || end == text.c_str() || *end != '\0' || !std::isfinite(v))
        usage("option --" + option + ": '" + text + "' is not a number");
    return v;
}
}  // namespace

Args::Args(const std::vector<std::string>& argv, const std::vector<OptionSpec>& specs) {
    bool onlyPositional = false;
    for (std::size_t i = 0; i < argv.size(); ++i) {
        const std::string& a = argv[i];
        if (onlyPositional || a.size() < 2 || a[0] != '-') {
            positional_.push_back(a);
            continue;
        }
        if (a == "--") {
            onlyPositional = true;
            continue;
        }
        const OptionSpec* spec = nullptr;
        std::optional<std::string> inlineValue;
        if (a[1] == '-') {
            std::string name = a.substr(2);
            const auto eq = name.find('=');
            if (eq != std::string::npos) {
                inlineValue = name.substr(eq + 1);
                name.resize(eq);
            }
            spec = findLong(specs, name);
            if (!spec) usage("unknown option --" + name);
        } else {
            if (a.size() != 2) usage("unknown option " + a + " (long options take two dashes)");
            spec = findShort(specs, a[1]);
            if (!spec) usage("unknown option " + a);
        }
        if (spec->takesValue) {
            if (inlineValue) {
                values_[spec->name] = *inlineValue;
            } else {
                if (i + 1 >= argv.size()) usage("option --" + spec->name + " needs a value");
                values_[spec->name] = argv[++i];
            }
        } else {
            if (inlineValue) usage("option --" + spec->name + " takes no value");
            values_[spec->name] = "";
        }
    }
}

std::optional<std::string> Args::value(const std::string& name) const {
    const auto it = values_.find(name);
    if (it == values_.end()) return std::nullopt;
    return it->second;
}

std::string Args::text(const std::string& name, const std::string& fallback) const {
    const auto v = value(name);
    return v ? *v : fallback;
}

double Args::number(const std::string& name, double fallback, double lo, double hi) const {
    const auto v = value(name);
    if (!v) return fallback;
    const double d = parseNumber(name, *v);
    if (d < lo || d > hi) {
        char buf[160];
        std::snprintf(buf, sizeof buf, "option --%s: %s is outside %g..%g", name.c_str(), v->c_str(),
                      lo, hi);
        usage(buf);
    }
    return d;
}

int Args::integer(const std::string& name, int fallback, int lo, int hi) const {
    const auto v = value(name);
    if (!v) return fallback;
    const double d = parseNumber(name, *v);
    if (d != std::floor(d)) usage("option --" + name + ": '" + *v + "' is not a whole number");
    if (d < lo || d > hi)
        usage("option --" + name + ": " + *v + " is outside " + std::to_string(lo) + ".." +
              std::to_string(hi));
    return static_cast<int>(d);
}

void parseSize(const std::string& option, const std::string& text, int lo, int hi, int& width,
               int& height) {
    const auto x = text.find_first_of("xX");
    if (x == std::string::npos) usage("option --" + option + ": '" + text + "' is not WIDTHxHEIGHT");
    char* end = nullptr;
    const std::string ws = text.substr(0, x), hs = text.substr(x + 1);
    const long w = std::strtol(ws.c_str(), &end, 10);
    const bool wOk = !ws.empty() && *end == '\0';
    const long h = std::strtol(hs.c_str(), &end, 10);
    const bool hOk = !hs.empty() && *end == '\0';
    if (!wOk || !hOk) usage("option --" + option + ": '" + text + "' is not WIDTHxHEIGHT");
    if (w < lo || w > hi || h < lo || h > hi)
        usage("option --" + option + ": each side must be " + std::to_string(lo) + ".." +
              std::to_string(hi));
    width = static_cast<int>(w);
    height = static_cast<int>(h);
}

}  // namespace olhdr
