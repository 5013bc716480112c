#pragma once

// One line on a terminal that tells how far the run has come: the share of the recording's hits behind the
// latest photon, the rate, and the time left. It exists only while standard error is a terminal; it is redrawn
// at most a few times a second and erased when it ends, so that the terminal keeps exactly the run's log.

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "Tpx3Census.hpp"

class ProgressLine {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::milliseconds redraw_interval{250};

    /// Draws on `fd`, which must be a terminal (see `for_standardError`), from `start` on.
    ProgressLine(int fd_, const kavot_tpx3spidr::Tpx3Census& census, Clock::time_point start_);
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;
    /// Erases the line: the terminal shows what it showed before.
    ~ProgressLine();

    /// A photon at time `toa` (in ticks) was found: photons come in time order, so every hit of the blocks
    /// that end before it is behind the run. Redraws when the last drawing is old enough.
    void photonAt(long toa, Clock::time_point now) {
        if (now - drawn >= redraw_interval) {
            draw(toa, now);
        }
    }

    /// The text of the line for `done` of `total` hits after `elapsed`.
    [[nodiscard]] static std::string text(std::uint64_t done, std::uint64_t total, Clock::duration elapsed);

private:
    void draw(long toa, Clock::time_point now);

    int fd;
    Clock::time_point start;
    Clock::time_point drawn;
    bool shown = false;
    std::vector<long> blockEnds;            ///< per block: no later hit is earlier (`Tpx3Block::minAfter`)
    std::vector<std::uint64_t> hitsThrough; ///< per block: the hits up to its end
};
