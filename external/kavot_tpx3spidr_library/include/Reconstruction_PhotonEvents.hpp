#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <limits>
#include <optional>
#include <vector>

#include "Data_PhotonEvents.hpp"
#include "PhotonEvent.hpp"
#include "PixelActivationChain.hpp"
#include "ReconstructionParameters_PhotonEvents.hpp"
#include "SlidingTable.hpp"
#include "Tpx3DataSet.hpp"

namespace kavot_tpx3spidr {

using PhotonEvent_type = kavot::PhotonEvent<Length, Time>;
using PhotonResult = kavot::Data_PhotonEvents<PhotonEvent_type>;

/// Sees which cluster every position of the time order joins; the reconstruction itself does not need it.
/// `cluster` numbers the clusters in the order in which they were opened, from 0.
struct NoClusterObserver {
    void assign(std::size_t /*position*/, std::size_t /*cluster*/) const noexcept {}
};

/// The activations of a data set as a sequence for the clustering algorithms, which are written against this
/// small interface so that the same code also runs on activations streamed from a file:
///   has(j)            position j exists (a stream decodes up to it first)
///   operator[](j)     the activation at position j (valid until the next call of has)
///   discardBefore(i)  positions before i will not be read again
///   sizeHint()        the number of activations
class DataSetSequence {
public:
    explicit DataSetSequence(const Data_Tpx3Spidr& data_) noexcept : data(data_) {}
    [[nodiscard]] bool has(std::size_t position) const noexcept { return position < data.size(); }
    [[nodiscard]] const PixelActivation& operator[](std::size_t position) const { return data[position]; }
    void discardBefore(std::size_t /*position*/) const noexcept {}
    [[nodiscard]] std::size_t sizeHint() const noexcept { return data.size(); }

private:
    const Data_Tpx3Spidr& data;
};

/// Collects the photons in a list reserved for one photon per activation, the most any algorithm can produce,
/// so it never reallocates. Reserved but unwritten memory costs no physical pages.
struct VectorPhotonSink {
    explicit VectorPhotonSink(std::size_t n) { photons.reserve(n); }
    void push(const PhotonEvent_type& photon) { photons.push_back(photon); }
    std::vector<PhotonEvent_type> photons;
};

namespace detail {

/// Photon acceptance: all four bounds inclusive; a NaN weight bound accepts nothing.
[[nodiscard]] inline bool accept_chain(const PixelActivationChain& chain,
                                       double quantity,
                                       const ReconstructionParameters_PhotonEvents& parameters) noexcept {
    return parameters.nPxMin <= chain.nPx && chain.nPx <= parameters.nPxMax && parameters.weightMin <= quantity &&
           quantity <= parameters.weightMax;
}

/// The weighted centroid in 1/65536 pixel: the sums shifted by 16 bits and divided without sign, truncating;
/// the low 32 bits of the quotient are the raw length.
[[nodiscard]] inline PhotonEvent_type photonEvent_fromChain(const PixelActivationChain& chain) noexcept {
    const auto raw = [&](std::uint64_t weightedSum) {
        return Length(static_cast<int>(static_cast<std::uint32_t>((weightedSum << 16) / chain.weightSum)));
    };
    return PhotonEvent_type(raw(chain.xWeightedSum), raw(chain.yWeightedSum), chain.toa);
}

[[nodiscard]] inline PhotonResult assemble_result(std::vector<PhotonEvent_type>&& photonEvents,
                                                  const Data_Tpx3Spidr& data,
                                                  const ReconstructionParameters_PhotonEvents& parameters) {
    auto triggers = parameters.TDC1 ? std::optional<std::vector<Time>>(std::in_place, data.get_tdc1Triggers())
                                    : std::optional<std::vector<Time>>();
    return PhotonResult(std::move(photonEvents), std::move(triggers));
}

/// The full-chain search. A candidate at position j is linked when some position k in the window [k0, kend)
/// carries the cluster number c and lies within d of it, where kend is the first position later than
/// t_j + dTime and k0 is found by stepping back from j - 1 while k > i (the seed) and the position before k is
/// not earlier than t_j - dTime. Only existence matters, so instead of walking the window the positions that carry
/// c are tested against its bounds: k >= k0 holds exactly when k >= i and (k >= j - 1 or t_k >= t_j - dTime),
/// since times do not decrease with the position; k < kend exactly when t_k <= t_j + dTime. Positions carrying c
/// are the members of the current cluster and those of the rejected clusters just before it (a rejected cluster
/// leaves its number to the next one); those before the seed can never be in a window again, and neither can
/// any other position before the seed, so the sequence and the marks are only kept from the seed on.
template <typename Mark, typename Sequence, typename Sink, typename Observer>
void fullChain_direct(Sequence& sequence,
                      const ReconstructionParameters_PhotonEvents& parameters,
                      Sink& sink,
                      Observer& observer) {
    // The cluster number of a position, or `unmarked`. Cluster numbers count accepted photons, so they stay
    // below the number of activations and fit the narrowest type that can also hold the `unmarked` value.
    constexpr Mark unmarked = std::numeric_limits<Mark>::max();
    SlidingTable<Mark> clusterOfPixel(unmarked);
    const short d = spaceLimit_px(parameters.dSpace);
    const long dT = parameters.dTime.get_value();
    std::size_t accepted = 0;
    std::size_t clusterOrdinal = 0;
    std::vector<std::size_t> carryingC; // positions at or after the seed marked with the current number
    Mark currentC = unmarked;

    for (std::size_t i = 0; sequence.has(i); ++i) {
        sequence.discardBefore(i);
        clusterOfPixel.discardBefore(i);
        if (clusterOfPixel.get(i) != unmarked) {
            continue;
        }
        const Mark c = static_cast<Mark>(accepted);
        if (c != currentC) {
            carryingC.clear();
            currentC = c;
        } else {
            std::erase_if(carryingC, [i](std::size_t k) { return k < i; });
        }
        const PixelActivation seed = sequence[i];
        PixelActivationChain chain(seed);
        clusterOfPixel.at(i) = c;
        carryingC.push_back(i);
        observer.assign(i, clusterOrdinal);
        long horizon = seed.get_toa().get_value() + dT;

        for (std::size_t j = i + 1; sequence.has(j); ++j) {
            const PixelActivation candidate = sequence[j];
            const long tj = candidate.get_toa().get_value();
            if (tj > horizon) {
                break;
            }
            if (clusterOfPixel.get(j) != unmarked) {
                continue;
            }
            const long lower = tj - dT;
            const long upper = tj + dT;
            bool linked = false;
            for (const std::size_t k : carryingC) {
                const PixelActivation& other = sequence[k];
                const long tk = other.get_toa().get_value();
                if ((k + 1 >= j || tk >= lower) && tk <= upper &&
                    PixelActivation::distSpace_smallerEqualThan(other, candidate, d)) {
                    linked = true;
                    break;
                }
            }
            if (linked) {
                chain.add_pixelActivation_notFirst(candidate);
                clusterOfPixel.at(j) = c;
                carryingC.push_back(j);
                observer.assign(j, clusterOrdinal);
                horizon = std::max(horizon, upper);
            }
        }
        if (accept_chain(chain, static_cast<double>(chain.weightSum), parameters)) {
            sink.push(photonEvent_fromChain(chain));
            ++accepted;
        }
        ++clusterOrdinal;
    }
}

/// Runs the full-chain search with cluster numbers as narrow as the number of activations allows.
template <typename Sequence, typename Sink, typename Observer>
void fullChain_direct(Sequence& sequence,
                      const ReconstructionParameters_PhotonEvents& parameters,
                      Sink& sink,
                      Observer& observer) {
    if (sequence.sizeHint() < std::numeric_limits<std::uint32_t>::max()) {
        fullChain_direct<std::uint32_t>(sequence, parameters, sink, observer);
    } else {
        fullChain_direct<std::uint64_t>(sequence, parameters, sink, observer);
    }
}

/// Runs of positions in which every activation lies within dSpace of its predecessor in x and in y (strictly,
/// on the unrounded distance) and strictly less than dTime after it; the mean weight is bounded. Positions are
/// counted in std::size_t, so data sets of any size are handled.
template <typename Sequence, typename Sink, typename Observer>
void checkNextOnly(Sequence& sequence,
                   const ReconstructionParameters_PhotonEvents& parameters,
                   Sink& sink,
                   Observer& observer) {
    const double dSpace = parameters.dSpace;
    const long dT = parameters.dTime.get_value();
    std::size_t clusterOrdinal = 0;
    std::size_t s = 0;
    while (sequence.has(s)) {
        sequence.discardBefore(s);
        PixelActivation predecessor = sequence[s];
        PixelActivationChain chain(predecessor);
        observer.assign(s, clusterOrdinal);
        std::size_t j = s + 1;
        for (; sequence.has(j); ++j) {
            const PixelActivation candidate = sequence[j];
            const bool linked = static_cast<double>(predecessor.calcDist_x_px(candidate)) < dSpace &&
                                static_cast<double>(predecessor.calcDist_y_px(candidate)) < dSpace &&
                                candidate.get_toa().get_value() - predecessor.get_toa().get_value() < dT;
            if (!linked) {
                break;
            }
            chain.add_pixelActivation_notFirst(candidate);
            observer.assign(j, clusterOrdinal);
            predecessor = candidate;
            sequence.discardBefore(j);
        }
        const double meanWeight = static_cast<double>(chain.weightSum / chain.nPx);
        if (accept_chain(chain, meanWeight, parameters)) {
            sink.push(photonEvent_fromChain(chain));
        }
        ++clusterOrdinal;
        s = j;
    }
}

/// One forward pass: every activation joins the chain of the most recent earlier activation within dTime
/// (inclusive) and dSpace (truncated to whole pixels, inclusive), or opens a chain; chains never merge. Photons
/// come from the chains in the order in which they were opened.
///
/// A chain can only grow through a member at most dTime before the new activation, so once the activation at
/// hand is more than dTime after a chain's latest member, that chain is complete. The chains are therefore
/// emitted from the front of the list as they complete, instead of all at the end: the same photons in the
/// same order, with only the open chains held.
template <typename Sequence, typename Sink, typename Observer>
void forwardChain_pixelBuildup(Sequence& sequence,
                               const ReconstructionParameters_PhotonEvents& parameters,
                               Sink& sink,
                               Observer& observer) {
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
            sink.push(photonEvent_fromChain(open.chain));
        }
    };
    std::size_t oldestNeeded = 0; // the backward search never reads before this position
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
        observer.assign(i, chainNumber);
    }
    for (const auto& open : chains) {
        emit(open);
    }
}

} // namespace detail

/// Grows one cluster at a time from its seed: a later activation joins when it lies within dTime and the
/// distance dSpace (truncated to whole pixels, inclusive) of an activation already marked with the cluster's
/// number, tested once when the scan reaches it.
template <typename Observer = NoClusterObserver>
PhotonResult reconstruct_photonEvents_fullChain_direct(const Data_Tpx3Spidr& data,
                                                       const ReconstructionParameters_PhotonEvents& parameters,
                                                       Observer&& observer = Observer{}) {
    DataSetSequence sequence(data);
    VectorPhotonSink sink(data.size());
    detail::fullChain_direct(sequence, parameters, sink, observer);
    return detail::assemble_result(std::move(sink.photons), data, parameters);
}

/// Cuts the time order into runs of close neighbours in time order; see `detail::checkNextOnly`.
template <typename Observer = NoClusterObserver>
PhotonResult reconstruct_photonEvents_checkNextOnly(const Data_Tpx3Spidr& data,
                                                    const ReconstructionParameters_PhotonEvents& parameters,
                                                    Observer&& observer = Observer{}) {
    DataSetSequence sequence(data);
    VectorPhotonSink sink(data.size());
    detail::checkNextOnly(sequence, parameters, sink, observer);
    return detail::assemble_result(std::move(sink.photons), data, parameters);
}

/// Builds all chains in one forward pass; see `detail::forwardChain_pixelBuildup`.
template <typename Observer = NoClusterObserver>
PhotonResult reconstruct_photonEvents_forwardChain_pixelBuildup(const Data_Tpx3Spidr& data,
                                                                const ReconstructionParameters_PhotonEvents& parameters,
                                                                Observer&& observer = Observer{}) {
    DataSetSequence sequence(data);
    VectorPhotonSink sink(data.size());
    detail::forwardChain_pixelBuildup(sequence, parameters, sink, observer);
    return detail::assemble_result(std::move(sink.photons), data, parameters);
}

/// The library's default reconstruction: the full-chain search.
inline PhotonResult reconstruct_photonEvents(const Data_Tpx3Spidr& data,
                                             const ReconstructionParameters_PhotonEvents& parameters) {
    return reconstruct_photonEvents_fullChain_direct(data, parameters);
}

} // namespace kavot_tpx3spidr
