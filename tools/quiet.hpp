// The library prints diagnostic lines of its own: the fusion always writes
// probe lines to stderr, and the metadata reader writes some messages to
// stdout. The program's stdout carries its results (and JSON), so around each
// library call both streams are sent to /dev/null, or with --verbose to
// stderr. Restored when the guard goes.
#pragma once

#include <cstdio>

#include "outfile.hpp"
#include "platform.hpp"
#include "progress.hpp"

namespace olhdr {

class LibraryOutput {
public:
    explicit LibraryOutput(bool verbose) {
        std::fflush(stdout);
        std::fflush(stderr);
        savedOut_ = platform::dupFd(1);
        savedErr_ = platform::dupFd(2);
        setUserStderr(savedErr_);  // an interrupt still reaches the user
        if (verbose) {
            platform::dup2Fd(2, 1);
        } else {
            const int devnull = platform::openNullDevice();
            if (devnull >= 0) {
                platform::dup2Fd(devnull, 1);
                platform::dup2Fd(devnull, 2);
                platform::closeFd(devnull);
            }
        }
        if (Progress::current) Progress::current->setFd(savedErr_);
    }
    ~LibraryOutput() {
        std::fflush(stdout);
        std::fflush(stderr);
        if (savedOut_ >= 0) {
            platform::dup2Fd(savedOut_, 1);
            platform::closeFd(savedOut_);
        }
        if (savedErr_ >= 0) {
            platform::dup2Fd(savedErr_, 2);
            setUserStderr(2);
            platform::closeFd(savedErr_);
        }
        if (Progress::current) Progress::current->setFd(2);
    }
    LibraryOutput(const LibraryOutput&) = delete;
    LibraryOutput& operator=(const LibraryOutput&) = delete;

private:
    int savedOut_ = -1;
    int savedErr_ = -1;
};

}  // namespace olhdr
