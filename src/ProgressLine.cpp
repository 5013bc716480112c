#include "ProgressLine.hpp"

#include <algorithm>
#include <cstdio>

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

ProgressLine::ProgressLine(int fd_, const kavot_tpx3spidr::Tpx3Census& census, Clock::time_point start_)
    : fd(fd_), start(start_), drawn(start_ - redraw_interval) { // the first photon draws the line at once
    std::uint64_t hits = 0;
    for (const auto& block : census.blocks) {
        hits += block.pixelCount;
        blockEnds.push_back(block.minAfter);
        hitsThrough.push_back(hits);
    }
}

ProgressLine::~ProgressLine() {
    if (shown) {
        write_all(fd, erase_line);
    }
}

std::string ProgressLine::text(std::uint64_t done, std::uint64_t total, Clock::duration elapsed) {
    const double seconds = std::chrono::duration<double>(elapsed).count();
    const double share = total == 0 ? 1.0 : static_cast<double>(done) / static_cast<double>(total);
    char line[96];
    if (done == 0 || seconds <= 0) {
        std::snprintf(line, sizeof line, "vundrel: %3.0f %% of the hits", 100 * share);
    } else {
        std::snprintf(line, sizeof line, "vundrel: %3.0f %% of the hits, %.1f M hits/s, %.0f s left", 100 * share,
                      static_cast<double>(done) / seconds / 1e6, seconds * (1 - share) / share);
    }
    return line;
}

void ProgressLine::draw(long toa, Clock::time_point now) {
    // The hits of a block are behind the photon once the photon's time reaches the blocks after it (their
    // smallest times grow from block to block); near enough for a progress line, and never going back.
    const auto done = static_cast<std::size_t>(
        std::partition_point(blockEnds.begin(), blockEnds.end(), [toa](long end) { return end <= toa; }) -
        blockEnds.begin());
    const std::uint64_t total = hitsThrough.empty() ? 0 : hitsThrough.back();
    write_all(fd, erase_line + text(done == 0 ? 0 : hitsThrough[done - 1], total, now - start));
    shown = true;
    drawn = now;
}
