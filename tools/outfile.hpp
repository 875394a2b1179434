// Output files are written under a temporary name in the target's folder and
// renamed into place only when complete, so that a failure or an interrupt
// never leaves a partial file under the name the user asked for.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace olhdr {

class OutputFile {
public:
    explicit OutputFile(std::string target);
    ~OutputFile();  // removes the temporary file unless committed
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    const std::string& temp() const { return temp_; }
    const std::string& target() const { return target_; }
    // Renames the temporary file to the target; throws Failure(kExitOutput).
    void commit();

private:
    std::string target_;
    std::string temp_;
    int slot_ = -1;
    bool committed_ = false;
};

// Checks before any work that the folder of `target` exists and accepts new
// files, so that a long merge does not end in a write error.
void checkWritable(const std::string& target);

// Paths an interrupt must remove (a folder after the files): a slot number
// for unregisterCleanup, or -1 when the table is full.
int registerCleanup(const std::string& path, bool folder);
void unregisterCleanup(int slot);

// SIGINT/SIGTERM remove the temporary files of the pending outputs, say so
// on the user's standard error and end the program with kExitInterrupted.
void installSignalCleanup();
// The descriptor of the user's standard error while fd 2 is redirected.
void setUserStderr(int fd);

// Refuses (kExitUsage) an output that is one of the inputs, through any
// spelling of its path or a link, and two outputs of one name; checked
// before any work.
void refuseInputsAsOutputs(const std::vector<std::string>& outputs, const std::vector<std::string>& inputs);

// Pairs of paths that name one file.
std::vector<std::pair<std::string, std::string>> sameFiles(const std::vector<std::string>& paths);

}  // namespace olhdr

#include <functional>

namespace olhdr {

// Runs `write` on a temporary name and renames the result into place. A
// failure names the user's path, never the temporary one.
void writeAtomically(const std::string& target, const std::function<void(const std::string&)>& write);

// Lower-case extension of a path, without the dot ("" when none).
std::string extensionOf(const std::string& path);

}  // namespace olhdr
