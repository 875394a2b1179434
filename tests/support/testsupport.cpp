#include "support/testsupport.hpp"

#include "frame/bytes.hpp"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <regex>
#include <utility>

namespace oltest {

TempDir::TempDir() {
    std::string templ = (fs::temp_directory_path() / "oltest-XXXXXX").string();
    std::vector<char> buf(templ.begin(), templ.end());
    buf.push_back('\0');
    if (!mkdtemp(buf.data())) throw std::runtime_error("mkdtemp failed");
    path_ = buf.data();
}

TempDir::~TempDir() {
    std::error_code ec;
    fs::remove_all(path_, ec);
}

fs::path testdataDir() {
    fs::path p = OL_TESTDATA_DIR;
    std::error_code ec;
    if (fs::is_directory(p, ec)) return fs::canonical(p, ec);
    return {};
}

std::vector<std::uint8_t> readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<std::uint8_t>(std::istreambuf_iterator<char>(in), {});
}

std::string readText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void writeFile(const std::string& path, const std::vector<std::uint8_t>& bytes) {
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

void writeText(const std::string& path, const std::string& text) { writeFile(path, {text.begin(), text.end()}); }

int runCommand(const std::string& command, std::string* out) {
    std::FILE* p = popen(command.c_str(), "r");
    if (!p) return -1;
    std::string text;
    char buf[4096];
    std::size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) text.append(buf, n);
    const int status = pclose(p);
    if (out) *out = text;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string shellQuote(const std::string& s) {
    std::string q = "'";
    for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

HostRun runOlhdr(const std::string& args) {
    const TempDir errDir;
    HostRun r;
    r.code = runCommand(shellQuote(std::string(OL_TOOLS_DIR) + "/olhdr") + " " + args + " 2>" +
                            shellQuote(errDir.file("err")),
                        &r.out);
    r.err = readText(errDir.file("err"));
    return r;
}

bool haveProgram(const std::string& name) {
    return runCommand("command -v " + name + " >/dev/null 2>&1") == 0;
}

std::string systemPython() { return "/usr/bin/python3"; }

bool havePythonModule(const std::string& module) {
    return runCommand(systemPython() + " -c 'import " + module + "' >/dev/null 2>&1") == 0;
}

CaptureFd::CaptureFd(int fd) : fd_(fd), file_(std::tmpfile()) {
    if (!file_) throw std::runtime_error("tmpfile failed");
    std::fflush(nullptr);
    saved_ = dup(fd_);
    dup2(fileno(file_), fd_);
}

std::string CaptureFd::finish() {
    if (!file_) return {};
    std::fflush(nullptr);
    dup2(saved_, fd_);
    close(saved_);
    std::rewind(file_);  // the captured descriptor shares the file's offset
    std::string text;
    char buf[4096];
    for (std::size_t n; (n = std::fread(buf, 1, sizeof buf, file_)) > 0;) text.append(buf, n);
    std::fclose(std::exchange(file_, nullptr));
    return text;
}

CaptureFd::~CaptureFd() { finish(); }

std::size_t Npy::count() const {
    std::size_t n = 1;
    for (auto v : shape) n *= v;
    return n;
}

float Npy::f32(std::size_t i) const {
    float v = 0.0f;
    if (4 * i + 4 <= data.size()) std::memcpy(&v, data.data() + 4 * i, 4);
    return v;
}

Npy readNpy(const std::string& path) {
    Npy n;
    const std::vector<std::uint8_t> f = readFile(path);
    if (f.size() < 10 || std::memcmp(f.data(), "\x93NUMPY", 6) != 0) return n;
    // Version 1 has a 2-byte header length, versions 2 and 3 a 4-byte one.
    const bool v1 = f[6] == 1;
    const std::size_t start = v1 ? 10 : 12;
    if (f.size() < start) return n;
    const std::size_t headerLen = v1 ? ol::getU16LE(&f[8]) : ol::getU32LE(&f[8]);
    if (headerLen > f.size() - start) return n;
    const std::string header(f.begin() + static_cast<long>(start), f.begin() + static_cast<long>(start + headerLen));
    std::smatch d, s;
    if (!std::regex_search(header, d, std::regex("'descr': '([^']*)'")) ||
        !std::regex_search(header, s, std::regex("'shape': \\(([^)]*)\\)")))
        return n;
    n.descr = d[1];
    const std::string dims = s[1];
    const std::regex number("[0-9]+");
    for (std::sregex_iterator i(dims.begin(), dims.end(), number), e; i != e; ++i) n.shape.push_back(std::stoul(i->str()));
    n.data.assign(f.begin() + static_cast<long>(start + headerLen), f.end());
    return n;
}

std::vector<std::uint8_t> randomBytes(std::size_t n, std::uint32_t seed) {
    std::mt19937 rng(seed);
    std::vector<std::uint8_t> v(n);
    for (auto& b : v) b = static_cast<std::uint8_t>(rng() >> 24);
    return v;
}

std::vector<std::uint8_t> fixture(const std::string& name) {
    return readFile((fs::path(OL_SOURCE_DIR) / "tests" / "fixtures" / name).string());
}

::testing::AssertionResult matchesFixture(const std::string& name, const std::vector<std::uint8_t>& bytes) {
    const fs::path path = fs::path(OL_SOURCE_DIR) / "tests" / "fixtures" / name;
    if (const char* w = std::getenv("OL_WRITE_FIXTURES"); w && std::string(w) == "1") {
        fs::create_directories(path.parent_path());
        writeFile(path.string(), bytes);
        return ::testing::AssertionSuccess();
    }
    if (!fs::exists(path)) return ::testing::AssertionFailure() << name << " is missing";
    const std::vector<std::uint8_t> want = readFile(path.string());
    if (want == bytes) return ::testing::AssertionSuccess();
    const auto at = std::mismatch(want.begin(), want.end(), bytes.begin(), bytes.end()).first - want.begin();
    return ::testing::AssertionFailure() << name << ": first difference at byte " << at << " (" << bytes.size()
                                         << " bytes written, " << want.size() << " kept)";
}

}  // namespace oltest
