#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <utility>
#include <vector>

#include "ClusterSteps.hpp"
#include "PixelActivationChain.hpp"
#include "PixelTable.hpp"
#include "ReconstructionParameters_PhotonEvents.hpp"
#include "SlidingTable.hpp"
#include "Tpx3DataSet.hpp"

namespace kavot_tpx3spidr {

namespace forwardChainSearch {

/// The position of the latest activation on every pixel of the canvas, and the pixels within a distance d.
class PixelLatest {
public:
    explicit PixelLatest(short d_) : d(d_ < 0 ? -std::int64_t{d_} : std::int64_t{d_}) {
        if (d <= maxTableDistance) {
            for (std::int64_t dy = -d; dy <= d; ++dy) {
                for (std::int64_t dx = -d; dx <= d; ++dx) {
                    if (dx * dx + dy * dy <= d * d) {
                        disc.push_back({dx, dy});
                    }
                }
            }
        }
    }

    /// Whether looking up the disc costs less than walking back through `within` activations.
    [[nodiscard]] bool worthLookingUp(std::size_t within) const noexcept {
        return usable && !disc.empty() && within > 2 * disc.size();
    }

    /// The largest position among the latest activations of the disc's pixels around `at` for which
    /// `qualifies(position)` holds. A pixel beyond the table has had no activation.
    template <typename Qualifies>
    [[nodiscard]] std::optional<std::size_t> mostRecent(const PixelActivation& at, Qualifies&& qualifies) const {
        std::optional<std::size_t> found;
        for (const auto& [dx, dy] : disc) {
            const std::int64_t x = at.get_x_px() + dx;
            const std::int64_t y = at.get_y_px() + dy;
            if (!positionPlusOne.holds(x, y)) {
                continue;
            }
            const std::size_t stored = positionPlusOne.at(x, y);
            if (stored != 0 && (!found || stored - 1 > *found) && qualifies(stored - 1)) {
                found = stored - 1;
            }
        }
        return found;
    }

    void set(const PixelActivation& activation, std::size_t position) {
        if (disc.empty() || !usable) {
            return;
        }
        if (!positionPlusOne.reach(activation.get_x_px(), activation.get_y_px())) {
            usable = false; // a pixel that no canvas has: the table cannot hold it
            return;
        }
        positionPlusOne.at(activation.get_x_px(), activation.get_y_px()) = position + 1;
    }

private:
    static constexpr std::int64_t maxTableDistance = 16;

    std::int64_t d;
    std::vector<std::pair<std::int64_t, std::int64_t>> disc;
    PixelTable<std::size_t> positionPlusOne; ///< per pixel; 0 before its first activation
    bool usable = true;
};

} // namespace forwardChainSearch

/// One forward pass: every activation joins the chain of the most recent earlier activation within dTime
/// (inclusive) and dSpace (truncated to whole pixels, inclusive), or opens a chain; chains never merge. Photons
/// come from the chains in the order in which they were opened.
///
/// A chain can only grow through a member at most dTime before the new activation, so once the activation at
/// hand is more than dTime after a chain's latest member, that chain is complete. The chains are therefore
/// emitted from the front of the list as they complete, instead of all at the end: the same photons in the
/// same order, with only the open chains held.
///
/// The most recent neighbour is found by walking back through the activations within dTime while they are
/// few; where more lie within dTime than the disc of radius d has pixels, by looking at the latest activation
/// of each pixel of the disc instead: the most recent activation on a pixel is the most recent within dTime
/// there if any is, and the neighbour is the most recent of those. Either way the work per activation is
/// bounded by what lies within dTime and dSpace of it.
template <typename Sequence, typename Sink>
void reconstruct_photonEvents_forwardChain_pixelBuildup(Sequence& sequence,
                                                        const ReconstructionParameters_PhotonEvents& parameters,
                                                        Sink& sink) {
    const short d = spaceLimit_px(parameters.dSpace);
    const long dT = parameters.dTime.get_value();
    struct OpenChain {
        PixelActivationChain chain;
        long latest_ticks;
    };
    std::deque<OpenChain> chains; // from chain number `firstOpen` on
    std::size_t firstOpen = 0;
    SlidingTable<std::size_t> chainOfPixel(0);
    const auto emit = [&](const OpenChain& open) {
        if (accept_chain(open.chain, static_cast<double>(open.chain.weightSum), parameters)) {
            emit_photon(sink, open.chain);
        }
    };
    std::size_t oldestNeeded = 0; // the backward search never reads before this position
    forwardChainSearch::PixelLatest latest(d);
    for (std::size_t i = 0; sequence.has(i); ++i) {
        const PixelActivation P = sequence[i];
        const long ti = P.get_toa().get_value();
        while (!chains.empty() && ti > chains.front().latest_ticks + dT) {
            emit(chains.front());
            chains.pop_front();
            ++firstOpen;
        }
        // The search stops at the first position more than dTime before P; earlier ones are not needed.
        while (oldestNeeded + 1 < i && ti - sequence[oldestNeeded + 1].get_toa().get_value() > dT) {
            ++oldestNeeded;
        }
        sequence.discardBefore(oldestNeeded);
        chainOfPixel.discardBefore(oldestNeeded);

        std::optional<std::size_t> neighbour;
        if (latest.worthLookingUp(i - oldestNeeded)) {
            neighbour = latest.mostRecent(
                P, [&](std::size_t k) { return k >= oldestNeeded && ti - sequence[k].get_toa().get_value() <= dT; });
        } else {
            for (std::size_t k = i; k-- > 0;) {
                const PixelActivation& Q = sequence[k];
                if (ti - Q.get_toa().get_value() > dT) {
                    break;
                }
                if (PixelActivation::distSpace_smallerEqualThan(P, Q, d)) {
                    neighbour = k;
                    break;
                }
            }
        }
        latest.set(P, i);
        std::size_t chainNumber = 0;
        if (neighbour) {
            chainNumber = chainOfPixel.get(*neighbour);
            OpenChain& open = chains[chainNumber - firstOpen];
            open.chain.add_pixelActivation_notFirst(P);
            open.latest_ticks = ti;
        } else {
            chainNumber = firstOpen + chains.size();
            chains.push_back({PixelActivationChain(P), ti});
        }
        chainOfPixel.at(i) = chainNumber;
    }
    for (const auto& open : chains) {
        emit(open);
    }
}

/// Builds all chains of a data set in one forward pass.
inline PhotonResult
reconstruct_photonEvents_forwardChain_pixelBuildup(const Data_Tpx3Spidr& data,
                                                   const ReconstructionParameters_PhotonEvents& parameters) {
    return reconstruct_dataSet(data, parameters, [&](auto& sequence, auto& sink) {
        reconstruct_photonEvents_forwardChain_pixelBuildup(sequence, parameters, sink);
    });
}

} // namespace kavot_tpx3spidr
