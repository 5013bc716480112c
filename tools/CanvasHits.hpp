#pragma once

// The hits of a recording as kavot convert sees them (continuous times, the chips placed on the canvas), read a
// batch at a time in bounded memory; and clustering of hits someone made or chose, with the conversion's rules.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ChipLayout.hpp"
#include "Conversion.hpp"
#include "PixelActivation.hpp"
#include "Spill.hpp"

namespace kavot_tool {

/// The hits of a recording in time order: x and y on the canvas, continuous times, ToT and chip.
class CanvasHitReader {
public:
    /// `layout`: none for the default of the recording's chips. Hits far out of time order wait in temporary files
    /// in `spillFolder`. `checkpoint` as for a conversion, on the thread that reads. `threads`: how many decode
    /// parts of the recording side by side, as a conversion's (0: every CPU the process may run on).
    CanvasHitReader(const std::string& path,
                    std::optional<kavot_tpx3spidr::ChipLayout> layout,
                    const std::string& spillFolder,
                    std::function<void()> checkpoint = {},
                    unsigned threads = 0);
    CanvasHitReader(const CanvasHitReader&) = delete;
    CanvasHitReader& operator=(const CanvasHitReader&) = delete;
    ~CanvasHitReader();

    /// Puts the next hits, at most `most`, at `out`; how many (0 once all are read).
    std::size_t read(kavot_tpx3spidr::PixelActivation* out, std::size_t most);

    [[nodiscard]] const kavot_tpx3spidr::ChipLayout& get_layout() const noexcept;
    [[nodiscard]] std::uint64_t total() const noexcept;
    /// The times of the recording's triggers (TDC1 rising edges), each once though several chips carry it,
    /// ascending.
    [[nodiscard]] kavot_tpx3spidr::SpillingList<kavot_tpx3spidr::Time> triggers() const;

private:
    struct Open;
    std::unique_ptr<Open> open;
};

/// The photons of `hits` (in time order, canvas coordinates) under the clustering of `settings`, with their
/// measures and their time since the latest of `triggers` (ascending, distinct; none gives -1).
std::vector<ConvertedPhoton> cluster_hits(const std::vector<kavot_tpx3spidr::PixelActivation>& hits,
                                          const ConversionSettings& settings,
                                          const std::vector<long>& triggers);

} // namespace kavot_tool
