#include "outfile.hpp"

#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "cli.hpp"
#include "platform.hpp"

namespace olhdr {

namespace {
// Pending temporary names, readable from a signal handler: fixed slots of
// plain characters, each published through an atomic flag.
constexpr int kSlots = 16;
constexpr std::size_t kPathMax = 4096;
char gPending[kSlots][kPathMax];
bool gFolder[kSlots];
std::atomic<bool> gUsed[kSlots];
// Where the user's standard error is while fd 2 points elsewhere around a
// library call.
std::atomic<int> gUserStderr{2};
// Outputs renamed into place so far.
std::atomic<int> gCommitted{0};

void say(const char* text) {
    long r = platform::writeFd(gUserStderr.load(), text, std::strlen(text));
    (void)r;
}

void onSignal(int) {
    // Files first, then the folders that held them. Only a temporary that was
    // still there counts as a partial output: one renamed into place a moment
    // before is complete and stays.
    bool removed = false;
    for (int i = 0; i < kSlots; ++i)
        if (gUsed[i].load() && !gFolder[i] && platform::removeFile(gPending[i]) == 0) removed = true;
    for (int i = 0; i < kSlots; ++i)
        if (gUsed[i].load() && gFolder[i]) platform::removeFolder(gPending[i]);
    say(removed                  ? "olhdr: interrupted, partial output removed\n"
        : gCommitted.load() > 0 ? "olhdr: interrupted; every output written so far is complete\n"
                                : "olhdr: interrupted before any output was written\n");
    platform::exitNow(kExitInterrupted);
}

}  // namespace

// The program is single-threaded where it registers paths; the flag is
// atomic so that the handler never reads a half-written slot.
int registerCleanup(const std::string& path, bool folder) {
    if (path.size() >= kPathMax) return -1;
    for (int i = 0; i < kSlots; ++i) {
        if (gUsed[i].load()) continue;
        std::memcpy(gPending[i], path.c_str(), path.size() + 1);
        gFolder[i] = folder;
        gUsed[i].store(true);
        return i;
    }
    return -1;
}

void unregisterCleanup(int slot) {
    if (slot >= 0 && slot < kSlots) gUsed[slot].store(false);
}

namespace {
std::string folderOf(const std::string& target) {
    const std::filesystem::path p(target);
    const auto parent = p.parent_path();
    return parent.empty() ? std::string(".") : parent.string();
}
}  // namespace

OutputFile::OutputFile(std::string target) : target_(std::move(target)) {
    const std::filesystem::path p(target_);
    const std::string name = p.filename().string();
    const std::string dir = folderOf(target_);
    temp_ = (std::filesystem::path(dir) / ("." + name + ".part-" + std::to_string(platform::processId()))).string();
    slot_ = registerCleanup(temp_, false);
}

OutputFile::~OutputFile() {
    if (!committed_) std::remove(temp_.c_str());
    unregisterCleanup(slot_);
}

void OutputFile::commit() {
    if (platform::replaceFile(temp_.c_str(), target_.c_str()) != 0) {
        const std::string why = std::strerror(errno);
        throw Failure(kExitOutput, target_ + ": cannot write: " + why);
    }
    committed_ = true;
    gCommitted.fetch_add(1);
}

void checkWritable(const std::string& target) {
    if (target.empty()) throw Failure(kExitUsage, "an output name is needed");
    std::error_code ec;
    if (std::filesystem::is_directory(target, ec))
        throw Failure(kExitOutput, target + ": is a folder, not a file name");
    const std::string dir = folderOf(target);
    if (!std::filesystem::is_directory(dir, ec))
        throw Failure(kExitOutput, target + ": folder " + dir + " does not exist");
    if (!platform::canWriteIn(dir))
        throw Failure(kExitOutput, target + ": cannot write in folder " + dir + ": " + std::strerror(errno));
}

void setUserStderr(int fd) { gUserStderr.store(fd >= 0 ? fd : 2); }

void refuseInputsAsOutputs(const std::vector<std::string>& outputs, const std::vector<std::string>& inputs) {
    for (std::size_t i = 0; i < outputs.size(); ++i) {
        std::error_code ec;
        for (std::size_t j = i + 1; j < outputs.size(); ++j)
            if (outputs[i] == outputs[j] || std::filesystem::equivalent(outputs[i], outputs[j], ec))
                throw Failure(kExitUsage, outputs[j] + ": named for two outputs; give each its own name");
        // An output that does not exist yet cannot be an input.
        if (!std::filesystem::exists(outputs[i], ec)) continue;
        for (const auto& in : inputs)
            if (std::filesystem::equivalent(outputs[i], in, ec))
                throw Failure(kExitUsage, outputs[i] + ": is the input " + in +
                                              "; writing there would destroy it (choose another output name)");
    }
}

std::vector<std::pair<std::string, std::string>> sameFiles(const std::vector<std::string>& paths) {
    std::vector<std::pair<std::string, std::string>> pairs;
    for (std::size_t i = 0; i < paths.size(); ++i)
        for (std::size_t j = i + 1; j < paths.size(); ++j) {
            std::error_code ec;
            if (std::filesystem::equivalent(paths[i], paths[j], ec)) pairs.emplace_back(paths[i], paths[j]);
        }
    return pairs;
}

void installSignalCleanup() {
    platform::onInterrupt(onSignal);
}

}  // namespace olhdr

namespace olhdr {
void writeAtomically(const std::string& target, const std::function<void(const std::string&)>& write) {
    // A device, pipe or socket (/dev/stdout, /dev/full) is written in place:
    // a rename would replace the node itself with a regular file.
    std::error_code ec;
    const auto st = std::filesystem::status(target, ec);
    if (!ec && std::filesystem::exists(st) && !std::filesystem::is_regular_file(st) &&
        !std::filesystem::is_directory(st)) {
        write(target);
        return;
    }
    OutputFile out(target);
    try {
        write(out.temp());
    } catch (const Failure& f) {
        std::string message = f.what();
        for (auto at = message.find(out.temp()); at != std::string::npos; at = message.find(out.temp()))
            message.replace(at, out.temp().size(), target);
        throw Failure(f.code(), message);
    }
    out.commit();
}

std::string extensionOf(const std::string& path) {
    std::string ext = std::filesystem::path(path).extension().string();
    if (!ext.empty() && ext[0] == '.') ext.erase(0, 1);
    for (auto& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return ext;
}
}  // namespace olhdr
