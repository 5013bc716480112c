#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

#include "ClusterSteps.hpp"
#include "LinkWindow.hpp"
#include "PixelActivationChain.hpp"
#include "ReconstructionParameters_PhotonEvents.hpp"
#include "Tpx3DataSet.hpp"

namespace kavot_tpx3spidr {

namespace fullChainSearch {

/// The mark of a position: the number of the cluster that took it, or `free`.
using Mark = std::uint64_t;
constexpr Mark free = std::numeric_limits<Mark>::max();

/// A sequence read through a pointer, with a mark per position beside it: positions below `readableEnd` cost
/// one comparison, and only a position past them goes to the sequence itself (which may decode and move its
/// storage; the pointer is taken again and the marks move along). Positions not reached before are free.
template <typename Sequence>
class MarkedReader {
public:
    explicit MarkedReader(Sequence& sequence_) noexcept : sequence(sequence_) {}

    [[nodiscard]] bool has(std::size_t position) { return position < end || reach(position); }
    [[nodiscard]] const PixelActivation& operator[](std::size_t position) const noexcept {
        return first[position - firstPosition];
    }
    [[nodiscard]] Mark& mark(std::size_t position) noexcept { return marks[position - firstPosition]; }

    /// Positions [first, end) as plain arrays, valid until the next `has` for a position at or after `end`.
    struct Span {
        const PixelActivation* activations;
        Mark* marks;
        std::size_t first;
        std::size_t end;
    };
    [[nodiscard]] Span span() noexcept { return {first, marks.data(), firstPosition, end}; }

    /// Positions before `position` will not be read again.
    void discardBefore(std::size_t position) {
        sequence.discardBefore(position);
        keepFrom = position;
    }

private:
    [[gnu::noinline]] bool reach(std::size_t position) {
        // The sequence may move what it holds even when it has nothing more, so the view is taken anew either way.
        const bool found = sequence.has(position);
        marks.erase(marks.begin(), marks.begin() + static_cast<std::ptrdiff_t>(keepFrom - firstPosition));
        end = sequence.readableEnd();
        first = keepFrom < end ? &sequence[keepFrom] : nullptr;
        firstPosition = keepFrom;
        marks.resize(end - firstPosition, free);
        return found;
    }

    Sequence& sequence;
    const PixelActivation* first = nullptr;
    std::size_t firstPosition = 0;
    std::size_t end = 0;      ///< positions [firstPosition, end) are read through `first` and `marks`
    std::size_t keepFrom = 0; ///< the last discard point: nothing before it is read
    std::vector<Mark> marks;
};

} // namespace fullChainSearch

/// The full-chain search, with the same result as the step-by-step description below, but less work.
///
/// Described step by step: every position carries an optional cluster number; seeds are taken in ascending
/// position, skipping marked ones; a seed i opens cluster number c (the number of photons accepted so far, so a
/// rejected cluster leaves its number to the next one) and marks itself; each later unmarked candidate j up to
/// the first one later than the horizon (latest member's time + dTime) is linked when some position k in the
/// window [k0, kend) carries c and lies within d of it, where kend is the first position later than
/// t_j + dTime and k0 is found by stepping back from j - 1 while k > i and the position before k is not earlier
/// than t_j - dTime; a linked candidate is marked with c.
///
/// What this implementation does instead, and why it is the same:
///  - Only existence of such a k matters, so the positions that carry c are tested against the window's bounds
///    instead of walking the window: k >= k0 holds exactly when k >= i and (k >= j - 1 or t_k >= t_j - dTime),
///    since times do not decrease with the position; k < kend exactly when t_k <= t_j + dTime. The clause
///    k >= j - 1 adds nothing: a candidate is only tested while t_j <= horizon = t_m + dTime for the cluster's
///    latest member m, which lies before j, so t_(j-1) >= t_m >= t_j - dTime. So the positions that can link j
///    are those at or after the seed that carry c with a time in [t_j - dTime, t_j + dTime]: `LinkWindow`.
///    Those before j carry c because the scan linked them or because a rejected cluster before marked them;
///    those after j only for the second reason (the scan has not reached them). A position enters the window
///    when it is marked by the scan, or, carrying c already, when t_j + dTime reaches it (a pointer walks
///    ahead of the scan for that, as far as rejected clusters have marked positions with c); it leaves when
///    t_j - dTime passes it.
///  - The next seed is the first candidate of this scan that stayed unmarked, if any: every position between
///    lies in the scan and was marked before or by it. Otherwise the search for it starts at the position that
///    ended the scan.
///  - Positions before the seed are never read again, and while the scan has left no candidate unmarked, none
///    before the scan's position either (the next seed lies after it): only the rest is kept.
template <typename Sequence, typename Sink>
void reconstruct_photonEvents_fullChain_direct(Sequence& activations,
                                               const ReconstructionParameters_PhotonEvents& parameters,
                                               Sink& sink) {
    using namespace fullChainSearch;
    MarkedReader<Sequence> sequence(activations);
    const long dT = parameters.dTime.get_value();
    LinkWindow window(spaceLimit_px(parameters.dSpace));
    std::uint64_t c = 0; // the number of photons accepted so far: the number of the next cluster
    // The last position marked with c by an earlier (rejected) cluster; 0 for none (position 0 can only be the
    // first seed, which no later cluster reaches). Only up to it can the window find marks of c ahead; it lies
    // within the positions read so far.
    std::size_t carriedEnd = 0;
    std::size_t i = 0;
    for (;;) {
        while (sequence.has(i) && sequence.mark(i) != free) {
            ++i;
        }
        if (!sequence.has(i)) {
            break;
        }
        sequence.discardBefore(i);
        const PixelActivation seed = sequence[i];
        PixelActivationChain chain(seed);
        sequence.mark(i) = c;
        window.clear();
        window.add_linked(seed, seed.get_toa().get_value() - dT);
        std::size_t ahead = i + 1; // the next position the window has not looked at for marks of c
        std::size_t lastMarked = i;
        long horizon = seed.get_toa().get_value() + dT;
        std::size_t firstFree = 0; // the first candidate left unmarked (0: none; no seed after the first is at 0)
        std::size_t j = i + 1;
        bool scanning = true;
        // The inner loop runs over the positions at hand and calls nothing that can move them; the sequence
        // decodes more between its runs.
        while (scanning && sequence.has(j)) {
            const auto at = sequence.span();
            for (; j < at.end; ++j) {
                const PixelActivation candidate = at.activations[j - at.first];
                const long tj = candidate.get_toa().get_value();
                if (tj > horizon) {
                    scanning = false;
                    break;
                }
                if (at.marks[j - at.first] != free) {
                    continue;
                }
                for (; ahead <= carriedEnd && at.activations[ahead - at.first].get_toa().get_value() <= tj + dT;
                     ++ahead) {
                    if (at.marks[ahead - at.first] == c) {
                        window.add_carried(at.activations[ahead - at.first], tj - dT);
                    }
                }
                if (window.links(candidate.get_x_px(), candidate.get_y_px(), tj - dT)) {
                    chain.add_pixelActivation_notFirst(candidate);
                    at.marks[j - at.first] = c;
                    window.add_linked(candidate, tj - dT);
                    lastMarked = j;
                    horizon = std::max(horizon, tj + dT);
                } else if (firstFree == 0) {
                    firstFree = j;
                }
            }
            if (firstFree == 0) {
                sequence.discardBefore(j);
            }
        }
        if (accept_chain(chain, static_cast<double>(chain.weightSum), parameters)) {
            emit_photon(sink, chain);
            ++c;
            carriedEnd = 0;
        } else {
            carriedEnd = std::max(carriedEnd, lastMarked);
        }
        i = firstFree != 0 ? firstFree : j;
    }
}

/// Grows one cluster at a time from its seed: a later activation joins when it lies within dTime and the
/// distance dSpace (truncated to whole pixels, inclusive) of an activation already marked with the cluster's
/// number, tested once when the scan reaches it.
inline PhotonResult reconstruct_photonEvents_fullChain_direct(const Data_Tpx3Spidr& data,
                                                              const ReconstructionParameters_PhotonEvents& parameters) {
    return reconstruct_dataSet(data, parameters, [&](auto& sequence, auto& sink) {
        reconstruct_photonEvents_fullChain_direct(sequence, parameters, sink);
    });
}

} // namespace kavot_tpx3spidr
