#pragma once

// The physically true conversion of a recording: the engine vundrel runs (census, time order with spilling, parts
// on every CPU, the three algorithms, acceptance and centroid) with a clock per chip that the heartbeats move, the
// chips placed on one canvas by a layout, and every trigger counted once. Photons come out in time order with
// the measures of their clusters and their time since the latest trigger, to any number of outputs.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "ChipLayout.hpp"
#include "PhotonMeasures.hpp"
#include "ReconstructionParameters_PhotonEvents.hpp"
#include "Reconstruction_switch.hpp"
#include "Spill.hpp"
#include "Tpx3ChipClocks.hpp"
#include "Tpx3Packet.hpp"

namespace kavot_tool {

/// What a conversion is asked to do. The defaults are vundrel's: 100 ns, 2 pixels, 2 to 200 hits, weight 1 to
/// 5000, the full-chain search.
struct ConversionSettings {
    kavot_tpx3spidr::ReconstructionParameters_PhotonEvents clustering{
        2.0, kavot_tpx3spidr::Time(64), 2, 200, 1.0, 5000.0, true};
    Algorithm algorithm = Algorithm::fullChain_direct;
    std::string algorithmName = "default";
    /// None: chosen from the chips of the recording (`ChipLayout::for_chips`).
    std::optional<kavot_tpx3spidr::ChipLayout> layout;
    kavot_tpx3spidr::tpx3::TdcKind trigger = kavot_tpx3spidr::tpx3::TdcKind::tdc1Rising;
    /// 0: every CPU the process may run on.
    unsigned threads = 0;
    /// A progress line on standard error while it is a terminal.
    bool progress = false;
};

/// One photon as a conversion reports it.
struct ConvertedPhoton {
    kavot_tpx3spidr::PhotonMeasures measures;
    long tof_ticks; ///< since the latest trigger at or before the photon; -1 before the first trigger
    long trigger;   ///< the index of that trigger among the distinct trigger times; -1 before the first
};

/// What a conversion found out about the recording and did with it.
struct ConversionFacts {
    std::string input;
    std::uint64_t inputSize_bytes = 0;
    std::uint64_t hits = 0;
    std::uint64_t triggerPackets =
        0;                      ///< TDC packets of the chosen edge, copies of one trigger by several chips included
    std::uint64_t triggers = 0; ///< distinct trigger times
    std::uint64_t photons = 0;
    std::uint64_t photonsBeforeFirstTrigger = 0;
    long firstPhoton_ticks = 0; ///< the times of the first and the last photon, when there are any
    long lastPhoton_ticks = 0;
    kavot_tpx3spidr::ChipLayout layout = kavot_tpx3spidr::ChipLayout::single();
    std::vector<unsigned> chips; ///< in the recording, ascending
    bool followsData = false;    ///< no heartbeat: every chip's clock follows its own packets
    std::uint64_t staleHeartbeats = 0;
    std::vector<kavot_tpx3spidr::ClockGap> gaps; ///< the first ones found
    std::uint64_t gapCount = 0;
};

/// An output of a conversion: it is told the facts once the recording's census is done, gets the photons in
/// time order a batch at a time, and at the end the distinct trigger times, ascending.
class ConversionOutput {
public:
    ConversionOutput() = default;
    ConversionOutput(const ConversionOutput&) = delete;
    ConversionOutput& operator=(const ConversionOutput&) = delete;
    virtual ~ConversionOutput() = default;

    virtual void begin(const ConversionFacts& /*facts*/) {}
    virtual void photons(const ConvertedPhoton* first, std::size_t count) = 0;
    virtual void finish(const ConversionFacts& facts,
                        const kavot_tpx3spidr::SpillingList<kavot_tpx3spidr::Time>& triggers) = 0;
};

/// What a caller of a conversion is told while it runs, on the calling thread.
struct ConversionHooks {
    /// Called now and then: before each block of the census and of the decode, after each batch of photons, and
    /// at least every 50 ms while the run waits for the photons of parts. It may throw to stop the conversion.
    std::function<void()> checkpoint;
    /// Called after each batch of photons with the hits behind the run and all hits of the recording.
    std::function<void(std::uint64_t done, std::uint64_t total)> progress;
};

/// Converts the recording `input` into `outputs`. What does not fit in memory waits in temporary files in
/// `spillFolder`. Throws `std::invalid_argument` (and the decoder's `std::logic_error`) with one line for anything
/// that keeps the recording from being converted.
ConversionFacts convert_recording(const std::string& input,
                                  const ConversionSettings& settings,
                                  const std::vector<ConversionOutput*>& outputs,
                                  const std::string& spillFolder,
                                  const ConversionHooks& hooks = {});

} // namespace kavot_tool
