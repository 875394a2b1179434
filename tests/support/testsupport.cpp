#include "support/testsupport.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>

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

void writeFile(const std::string& path, const std::vector<std::uint8_t>& bytes) {
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

void writeText(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary);
    out << text;
}

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

bool haveProgram(const std::string& name) {
    return runCommand("command -v " + name + " >/dev/null 2>&1") == 0;
}

std::string systemPython() { return "/usr/bin/python3"; }

bool havePythonModule(const std::string& module) {
    return runCommand(systemPython() + " -c 'import " + module + "' >/dev/null 2>&1") == 0;
}

CaptureFd::CaptureFd(int fd) : fd_(fd) {
    std::fflush(nullptr);
    char templ[] = "/tmp/olcapture-XXXXXX";
    const int tmp = mkstemp(templ);
    if (tmp < 0) throw std::runtime_error("mkstemp failed");
    path_ = templ;
    saved_ = dup(fd_);
    dup2(tmp, fd_);
    close(tmp);
}

std::string CaptureFd::finish() {
    if (done_) return {};
    done_ = true;
    std::fflush(nullptr);
    dup2(saved_, fd_);
    close(saved_);
    std::ifstream in(path_, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    std::remove(path_.c_str());
    return ss.str();
}

CaptureFd::~CaptureFd() { finish(); }

std::vector<std::uint8_t> randomBytes(std::size_t n, std::uint32_t seed) {
    std::mt19937 rng(seed);
    std::vector<std::uint8_t> v(n);
    for (auto& b : v) b = static_cast<std::uint8_t>(rng() >> 24);
    return v;
}

}  // namespace oltest
