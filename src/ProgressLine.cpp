#include "ProgressLine.hpp"

#include <algorithm>
#include <cstdio>
#include <utility>

#include <unistd.h>

namespace {

/// Erases the line the cursor is on: back to its start, then clear to its end.
constexpr char erase_line[] = "\r\033[K";

void write_all(int fd, const std::string& text) {
    for (std::size_t at = 0; at < text.size();) {
        const ssize_t written = ::write(fd, text.data() + at, text.size() - at);
        if (written <= 0) {
            return; // a terminal that refuses the line only loses the progress line
        }
        at += static_cast<std::size_t>(written);
    }
}

} // namespace

HitsBehind::HitsBehind(const kavot_tpx3spidr::Tpx3Census& census) {
    std::uint64_t hits = 0;
    for (const auto& block : census.blocks) {
        hits += block.pixelCount;
        blockEnds.push_back(block.minAfter);
        hitsThrough.push_back(hits);
    }
}

std::uint64_t HitsBehind::at(long toa) const noexcept {
    const auto done = static_cast<std::size_t>(
        std::partition_point(blockEnds.begin(), blockEnds.end(), [toa](long end) { return end <= toa; }) -
        blockEnds.begin());
    return done == 0 ? 0 : hitsThrough[done - 1];
}

ProgressLine::ProgressLine(int fd_,
                           const kavot_tpx3spidr::Tpx3Census& census,
                           Clock::time_point start_,
                           std::string label_)
    : fd(fd_), start(start_), drawn(start_ - redraw_interval), // the first photon draws the line at once
      behind(census), label(std::move(label_)) {}

ProgressLine::~ProgressLine() {
    if (shown) {
        write_all(fd, erase_line);
    }
}

std::string
ProgressLine::text(std::uint64_t done, std::uint64_t total, Clock::duration elapsed, const std::string& label) {
    const double seconds = std::chrono::duration<double>(elapsed).count();
    const double share = total == 0 ? 1.0 : static_cast<double>(done) / static_cast<double>(total);
    char line[96];
    if (done == 0 || seconds <= 0) {
        std::snprintf(line, sizeof line, ": %3.0f %% of the hits", 100 * share);
    } else {
        std::snprintf(line, sizeof line, ": %3.0f %% of the hits, %.1f M hits/s, %.0f s left", 100 * share,
                      static_cast<double>(done) / seconds / 1e6, seconds * (1 - share) / share);
    }
    return label + line;
}

void ProgressLine::draw(long toa, Clock::time_point now) {
    write_all(fd, erase_line + text(behind.at(toa), behind.total(), now - start, label));
    shown = true;
    drawn = now;
}
