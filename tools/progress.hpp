// Progress on the terminal: one bar redrawn in place on stderr, with the
// name of the current stage. Work is split into stages with weights; a stage
// reports its own fraction (the fusion's callback does so) and the bar shows
// the whole. Nothing is drawn when stderr is not a terminal or in quiet mode.
#pragma once

#include <chrono>
#include <string>

namespace olhdr {

class Progress {
public:
    Progress(bool enabled, int fd);
    ~Progress();

    // Starts a stage that covers `weight` of the remaining bar.
    void stage(const std::string& name, double weight);
    // Fraction 0..1 of the current stage.
    void update(double fraction);
    // Clears the bar line (before normal output is printed).
    void finish();

    // Where the bar is drawn; kept when stderr is redirected around
    // library calls.
    void setFd(int fd) { fd_ = fd; }
    bool enabled() const { return enabled_; }

    // The one instance the fusion's C callback reaches.
    static Progress* current;

private:
    void draw(bool force);

    bool enabled_;
    int fd_;
    std::string name_;
    double base_ = 0;    // overall fraction at the start of the stage
    double weight_ = 0;  // overall fraction the stage covers
    double done_ = 0;    // overall fraction drawn
    bool drawn_ = false;
    std::chrono::steady_clock::time_point last_{};
    std::chrono::steady_clock::time_point start_;
};

// Renders the bar line for a fraction, for tests and for draw().
std::string progressLine(const std::string& name, double fraction, double seconds, int columns);

}  // namespace olhdr
