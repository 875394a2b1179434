// The library prints diagnostic lines of its own: the fusion always writes
// probe lines to stderr, and the metadata reader writes some messages to
// stdout. The program's stdout carries its results (and JSON), so around each
// library call both streams are sent to /dev/null, or with --verbose to
// stderr. Restored when the guard goes.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include "outfile.hpp"
#include "progress.hpp"

namespace olhdr {

class LibraryOutput {
public:
    explicit LibraryOutput(bool verbose) {
        std::fflush(stdout);
        std::fflush(stderr);
        savedOut_ = dup(1);
        savedErr_ = dup(2);
        setUserStderr(savedErr_);  // an interrupt still reaches the user
        if (verbose) {
            dup2(2, 1);
        } else {
            const int devnull = open("/dev/null", O_WRONLY);
            if (devnull >= 0) {
                dup2(devnull, 1);
                dup2(devnull, 2);
                close(devnull);
            }
        }
        if (Progress::current) Progress::current->setFd(savedErr_);
    }
    ~LibraryOutput() {
        std::fflush(stdout);
        std::fflush(stderr);
        if (savedOut_ >= 0) {
            dup2(savedOut_, 1);
            close(savedOut_);
        }
        if (savedErr_ >= 0) {
            dup2(savedErr_, 2);
            setUserStderr(2);
            close(savedErr_);
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
