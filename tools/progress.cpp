#include "progress.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "platform.hpp"

namespace olhdr {

Progress* Progress::current = nullptr;

Progress::Progress(bool enabled, int fd)
    : enabled_(enabled && platform::isTerminal(fd)), fd_(fd), start_(std::chrono::steady_clock::now()) {
    current = this;
}

Progress::~Progress() {
    finish();
    if (current == this) current = nullptr;
}

void Progress::stage(const std::string& name, double weight) {
    base_ = std::min(1.0, base_ + weight_);
    weight_ = std::clamp(weight, 0.0, 1.0 - base_);
    name_ = name;
    update(0);
}

void Progress::update(double fraction) {
    if (!(fraction >= 0)) fraction = 0;  // NaN from a caller counts as 0
    fraction = std::min(fraction, 1.0);
    done_ = std::max(done_, base_ + weight_ * fraction);
    draw(fraction == 0);
}

void Progress::finish() {
    if (!enabled_ || !drawn_) return;
    const std::string clear = "\r\033[K";
    long r = platform::writeFd(fd_, clear.data(), clear.size());
    (void)r;
    drawn_ = false;
}

void Progress::draw(bool force) {
    if (!enabled_) return;
    const auto now = std::chrono::steady_clock::now();
    if (!force && drawn_ && now - last_ < std::chrono::milliseconds(80)) return;
    last_ = now;
    int columns = 80;
    if (const int c = platform::terminalColumns(fd_); c > 20) columns = c;
    const double seconds = std::chrono::duration<double>(now - start_).count();
    // Appended rather than concatenated: GCC 12 warns (-Wrestrict) on the
    // inlined operator+ chain in the mingw build.
    std::string line = "\r";
    line += progressLine(name_, done_, seconds, columns - 1);
    line += "\033[K";
    long r = platform::writeFd(fd_, line.data(), line.size());
    (void)r;
    drawn_ = true;
}

std::string progressLine(const std::string& name, double fraction, double seconds, int columns) {
    if (!(fraction >= 0)) fraction = 0;
    fraction = std::min(fraction, 1.0);
    char tail[48];
    std::snprintf(tail, sizeof tail, " %3d%% %5.1fs", static_cast<int>(std::floor(fraction * 100)),
                  seconds);
    std::string label = name.substr(0, 24);
    label.resize(24, ' ');
    const int barWidth = std::max(10, columns - static_cast<int>(label.size()) - 3 -
                                          static_cast<int>(std::string(tail).size()));
    const int full = static_cast<int>(std::floor(fraction * barWidth));
    std::string bar = label + " [";
    bar.append(full, '#');
    bar.append(barWidth - full, '.');
    bar += "]";
    bar += tail;
    return bar;
}

}  // namespace olhdr
