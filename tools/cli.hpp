// Shared pieces of the olhdr host program: exit codes, the error type that
// carries one, and the options common to every command.
#pragma once

#include <stdexcept>
#include <string>

namespace olhdr {

// Exit codes a script can test. They are documented in `olhdr --help`.
enum Exit : int {
    kExitOk = 0,
    kExitUsage = 1,         // bad command line
    kExitInput = 2,         // an input file is missing, unreadable or unsuitable
    kExitOutput = 3,        // an output file could not be written
    kExitProcessing = 4,    // the library refused the work or ran out of memory
    kExitUnavailable = 5,   // a feature that this version does not offer yet
    kExitInterrupted = 130  // stopped by a signal
};

// Every failure the program reports: one line of text and the exit code.
class Failure : public std::runtime_error {
public:
    Failure(Exit code, const std::string& message) : std::runtime_error(message), code_(code) {}
    Exit code() const { return code_; }

private:
    Exit code_;
};

struct Common {
    bool quiet = false;    // nothing on stderr but errors
    bool verbose = false;  // let the library's own diagnostic lines through
};

}  // namespace olhdr
