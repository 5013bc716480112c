#pragma once

#include <cstdint>
#include <optional>

namespace kavot_tpx3spidr {

/// What a survey finds in the chunks of one chip: its hits, its heartbeats (global timestamps completed by a
/// high-part packet in its chunks) and its TDC packets.
///
/// A heartbeat later than the chip's next one is stale: the clock was reset after it, as when a recording starts
/// with heartbeats of an earlier acquisition. The interval is the mean step between consecutive heartbeats over
/// the steps where the clock did not go backwards, so that a reset does not pull it down.
class ChipSurvey {
public:
    std::uint64_t hits = 0;
    std::uint64_t heartbeats = 0;
    std::uint64_t staleHeartbeats = 0;
    std::uint64_t tdcPackets = 0;
    std::uint64_t tdcCopies = 0; ///< TDC packets that repeat another chip's (see `TdcCopies`)

    void add_heartbeat(std::uint64_t ticks) noexcept {
        ++heartbeats;
        if (latestHeartbeat_ticks) {
            if (*latestHeartbeat_ticks > ticks) {
                ++staleHeartbeats;
            } else {
                ++forwardSteps;
                // A sum of 48-bit steps can pass 2^64 ticks in a recording reset often enough; a double keeps
                // the mean to its 53 bits whatever the count.
                forwardSteps_ticks += static_cast<double>(ticks - *latestHeartbeat_ticks);
            }
        }
        latestHeartbeat_ticks = ticks;
    }

    /// The mean step between consecutive heartbeats that do not go backwards; none without such a pair.
    [[nodiscard]] std::optional<double> heartbeatInterval_ticks() const noexcept {
        if (forwardSteps == 0) {
            return std::nullopt;
        }
        return forwardSteps_ticks / static_cast<double>(forwardSteps);
    }

private:
    std::optional<std::uint64_t> latestHeartbeat_ticks;
    std::uint64_t forwardSteps = 0;
    double forwardSteps_ticks = 0;
};

} // namespace kavot_tpx3spidr
