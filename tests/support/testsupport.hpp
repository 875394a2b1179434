// Shared helpers for the tests.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "Ombrelumen40Lib1.h"
#include "frame/alloc.hpp"

namespace oltest {

namespace fs = std::filesystem;

// A fresh folder under the system temporary folder, removed with its contents
// when the object goes.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const fs::path& path() const { return path_; }
    std::string file(const std::string& name) const { return (path_ / name).string(); }

private:
    fs::path path_;
};

// The folder of third-party files beside the checkout, or an empty path when
// it is absent (tests then skip).
fs::path testdataDir();
#define OL_REQUIRE_TESTDATA()                                                   \
    do {                                                                        \
        if (::oltest::testdataDir().empty()) GTEST_SKIP() << "no shared testdata"; \
    } while (0)

std::vector<std::uint8_t> readFile(const std::string& path);
std::string readText(const std::string& path);
void writeFile(const std::string& path, const std::vector<std::uint8_t>& bytes);
void writeText(const std::string& path, const std::string& text);

// Runs a shell command; returns its exit status and fills `out` with stdout.
int runCommand(const std::string& command, std::string* out = nullptr);
// A word for the shell, in single quotes.
std::string shellQuote(const std::string& s);
// What a run of the command-line host printed and returned.
struct HostRun {
    int code = -1;
    std::string out, err;
};
// Runs `olhdr ARGS` (ARGS already quoted for the shell), capturing both streams.
HostRun runOlhdr(const std::string& args);
// True when the program is on PATH.
bool haveProgram(const std::string& name);
// Python 3 from the system packages (the one with numpy, OpenCV, tifffile).
std::string systemPython();
bool havePythonModule(const std::string& module);

// Captures what a block prints on stdout (fd 1) or stderr (fd 2).
class CaptureFd {
public:
    explicit CaptureFd(int fd);
    ~CaptureFd();
    std::string finish();  // stops capturing and returns the text

private:
    int fd_;
    int saved_ = -1;
    std::FILE* file_;  // an anonymous temporary file, null once finished
};

// Makes the nth allocation in the scope fail; switches the hook off after.
class FailAllocation {
public:
    explicit FailAllocation(long n) { ol::testing::failAllocationAt(n); }
    ~FailAllocation() { ol::testing::failAllocationAt(0); }
};

// Counts the allocations a call makes (the hook never fires).
template <class F>
long countAllocations(F&& f) {
    ol::testing::failAllocationAt(0);
    f();
    return ol::testing::allocationCount();
}

// A .npy array (numpy's file format) as stored: the dtype text, the shape and
// the raw data bytes in C order. A file that is not a well-formed .npy gives
// an empty shape.
struct Npy {
    std::string descr;
    std::vector<std::size_t> shape;
    std::vector<std::uint8_t> data;
    std::size_t count() const;
    float f32(std::size_t i) const;  // element i of a little-endian float32 array
};
Npy readNpy(const std::string& path);

// A checked-in file of tests/fixtures (one note each in tests/fixtures/README.md).
std::vector<std::uint8_t> fixture(const std::string& name);
// Compares bytes with tests/fixtures/NAME, naming the first byte that differs.
// With OL_WRITE_FIXTURES=1 in the environment it writes the file instead: run
// so once after a deliberate change of a writer, then review the diff.
::testing::AssertionResult matchesFixture(const std::string& name, const std::vector<std::uint8_t>& bytes);

// Deterministic pseudo-random bytes.
std::vector<std::uint8_t> randomBytes(std::size_t n, std::uint32_t seed);

}  // namespace oltest
