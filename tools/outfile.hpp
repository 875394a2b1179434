// Output files are written under a temporary name in the target's folder and
// renamed into place only when complete, so that a failure or an interrupt
// never leaves a partial file under the name the user asked for.
#pragma once

#include <string>

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

// SIGINT/SIGTERM remove the temporary files of the pending outputs and end
// the program with kExitInterrupted.
void installSignalCleanup();

}  // namespace olhdr

#include <functional>

namespace olhdr {

// Runs `write` on a temporary name and renames the result into place.
inline void writeAtomically(const std::string& target, const std::function<void(const std::string&)>& write) {
    OutputFile out(target);
    write(out.temp());
    out.commit();
}

// Lower-case extension of a path, without the dot ("" when none).
std::string extensionOf(const std::string& path);

}  // namespace olhdr
