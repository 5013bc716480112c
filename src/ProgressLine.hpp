#pragma once

// One line on a terminal that tells how far the run has come: the share of the recording's hits behind the
// latest photon, the rate, and the time left. It exists only while standard error is a terminal; it is redrawn
// at most a few times a second and erased when it ends, so that the terminal keeps exactly the run's log.

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "Tpx3Census.hpp"

/// How many of a recording's hits lie behind a photon: photons come in time order, so every hit of the blocks
/// whose later blocks start no earlier than the photon is behind the run (the smallest times of later blocks grow
/// from block to block); near enough for progress, and never going back.
class HitsBehind {
public:
    explicit HitsBehind(const kavot_tpx3spidr::Tpx3Census& census);

    [[nodiscard]] std::uint64_t total() const noexcept { return hitsThrough.empty() ? 0 : hitsThrough.back(); }
    /// The hits behind a photon at time `toa` (ticks).
    [[nodiscard]] std::uint64_t at(long toa) const noexcept;

private:
    std::vector<long> blockEnds;            ///< per block: no later hit is earlier (`Tpx3Block::minAfter`)
    std::vector<std::uint64_t> hitsThrough; ///< per block: the hits up to its end
};

class ProgressLine {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::milliseconds redraw_interval{250};

    /// Draws on `fd`, which must be a terminal (see `for_standardError`), from `start` on; the line begins with
    /// the program's name, `label`.
    ProgressLine(int fd_,
                 const kavot_tpx3spidr::Tpx3Census& census,
                 Clock::time_point start_,
                 std::string label_ = "vundrel");
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
    [[nodiscard]] static std::string
    text(std::uint64_t done, std::uint64_t total, Clock::duration elapsed, const std::string& label = "vundrel");

private:
    void draw(long toa, Clock::time_point now);

    int fd;
    Clock::time_point start;
    Clock::time_point drawn;
    bool shown = false;
    HitsBehind behind;
    std::string label;
};
