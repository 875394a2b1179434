// A small JSON reader for the truth files beside the shared test data: the
// first object of a file (or of its top-level array), values as text.
#pragma once

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <optional>
#include <string>

#include "support/testsupport.hpp"

namespace oltest {

struct Json {
    std::map<std::string, std::string> values;  // strings unescaped, arrays joined by '\x1f'
    bool has(const std::string& k) const { return values.count(k) != 0; }
    std::string str(const std::string& k) const { return has(k) ? values.at(k) : std::string(); }
    std::optional<double> num(const std::string& k) const {
        const std::string s = str(k);
        char* end = nullptr;
        const double v = std::strtod(s.c_str(), &end);
        return end == s.c_str() ? std::nullopt : std::optional<double>(v);
    }
};

class JsonParser {
public:
    explicit JsonParser(std::string t) : t_(std::move(t)) {}
    Json firstObject() {
        Json j;
        skipWs();
        if (peek() == '[') ++i_;
        skipWs();
        if (peek() == '{') value(&j);
        return j;
    }

private:
    char peek() const { return i_ < t_.size() ? t_[i_] : '\0'; }
    void skipWs() {
        while (i_ < t_.size() && std::isspace(static_cast<unsigned char>(t_[i_]))) ++i_;
    }
    std::string stringValue() {
        std::string s;
        ++i_;  // opening quote
        while (i_ < t_.size() && t_[i_] != '"') {
            char c = t_[i_++];
            if (c == '\\') {
                const char e = t_[i_++];
                if (e == 'u') {
                    const long code = std::strtol(t_.substr(i_, 4).c_str(), nullptr, 16);
                    i_ += 4;
                    c = static_cast<char>(code < 128 ? code : '?');
                } else {
                    c = e == 'n' ? '\n' : e == 't' ? '\t' : e;
                }
            }
            s += c;
        }
        ++i_;
        return s;
    }
    // The value at i_ as text: an object or an array gives its items (the
    // values of an object's members) joined by '\x1f'; the members of an
    // object also go into `members` when one is given.
    std::string value(Json* members = nullptr) {
        skipWs();
        const char open = peek();
        if (open == '"') return stringValue();
        if (open != '[' && open != '{') {
            const std::size_t start = i_;
            while (i_ < t_.size() && !std::strchr(",}] \t\r\n", t_[i_])) ++i_;
            return t_.substr(start, i_ - start);
        }
        std::string joined;
        for (++i_, skipWs(); i_ < t_.size() && peek() != (open == '{' ? '}' : ']'); skipWs()) {
            std::string key;
            if (open == '{') {
                key = stringValue();
                skipWs();
                ++i_;  // ':'
            }
            const std::string v = value();
            if (members) members->values[key] = v;
            joined += (joined.empty() ? "" : "\x1f") + v;
            skipWs();
            if (peek() == ',') ++i_;
        }
        ++i_;
        return joined;
    }
    std::string t_;
    std::size_t i_ = 0;
};

inline Json loadJson(const std::filesystem::path& p) { return JsonParser(readText(p)).firstObject(); }

}  // namespace oltest
